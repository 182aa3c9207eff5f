#include "Platform/Base/Log.h"

#include <cstdio>
#include <mutex>

namespace vkq::platform {
namespace log_detail {

std::atomic<bool> enabled{false};

namespace {
std::mutex sinkMutex;
std::shared_ptr<const LogSink> installedSink;
}  // namespace

void write(LogEntry entry) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard lock(sinkMutex);
    sink = installedSink;
  }
  if (sink) (*sink)(entry);
}

}  // namespace log_detail

void setLogSink(LogSink sink) {
  std::lock_guard lock(log_detail::sinkMutex);
  const bool on = static_cast<bool>(sink);
  log_detail::installedSink = on ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  log_detail::enabled.store(on, std::memory_order_release);
}

LogSink standardErrorLogSink() {
  return [](const LogEntry& pieces) {
    std::string line;
    for (const auto& piece : pieces) {
      if (!line.empty()) line += ' ';
      line += piece;
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
  };
}

}  // namespace vkq::platform
