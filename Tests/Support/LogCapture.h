// Captures the debug log's entries while it lives (one capture at a time; not copyable).
// Entries may arrive from any thread.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Base/Log.h"

namespace vkq::testing {

class LogCapture {
 public:
  LogCapture() {
    vkq::platform::setLogSink([this](const vkq::platform::LogEntry& entry) {
      std::lock_guard lock(mutex_);
      entries_.push_back(entry);
    });
  }
  ~LogCapture() { vkq::platform::setLogSink(nullptr); }

  std::vector<vkq::platform::LogEntry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  // Entries whose first piece is `first`.
  std::size_t count(const std::string& first) const {
    return std::ranges::count_if(entries(), [&](const auto& entry) { return !entry.empty() && entry[0] == first; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<vkq::platform::LogEntry> entries_;
};

}  // namespace vkq::testing
