// Captures the debug log's entries while it lives (one capture at a time).
#pragma once

#include <mutex>
#include <vector>

#include "Platform/Log.h"

class LogCapture {
 public:
  LogCapture() {
    vkq::platform::setLogSink([this](const vkq::platform::LogEntry& entry) {
      std::lock_guard lock(mutex_);
      entries_.push_back(entry);
    });
  }
  ~LogCapture() { vkq::platform::setLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<vkq::platform::LogEntry> entries() {
    std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  std::mutex mutex_;
  std::vector<vkq::platform::LogEntry> entries_;
};
