// Helpers shared by the transport tests: outcome collectors and waits with a time
// limit, a task runner, a request maker and the partial download files.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "Platform/Session/HTTPSessionManager.h"
#include "Tests/Support/Files.h"

namespace vkq::testing {

using namespace std::chrono_literals;

// Collects callback invocations from any thread; tests wait for a count.
template <typename T>
class Outcomes {
 public:
  // Notifies under the lock: a waiter may destroy the collector as soon as it wakes.
  void add(T value) {
    std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notify_all();
  }
  // A callback that records its arguments as one T.
  auto collector() {
    return [this](auto... arguments) { add(T{std::move(arguments)...}); };
  }
  // Whether `count` invocations arrived within `timeout`; a false result after a short
  // timeout shows that a further one did not come.
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout = 20s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return values_.size() >= count; });
  }
  std::vector<T> all() const {
    std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> values_;
};

// Polls `condition` until it holds or `timeout` passes; returns whether it held.
inline bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(5ms);
  return condition();
}

struct DataOutcome {
  std::shared_ptr<const platform::HTTPResponse> response;
  platform::Object object;
  platform::ErrorPtr error;
  std::thread::id thread = std::this_thread::get_id();  // the thread that delivered it

  std::string body() const { return object.isData() ? platform::stringFromBytes(*object.data()) : std::string(); }
};

struct DownloadOutcome {
  std::shared_ptr<const platform::HTTPResponse> response;
  std::optional<platform::URL> filePath;
  platform::ErrorPtr error;
};

// The error's code, 0 for no error.
inline std::int64_t codeOf(const platform::ErrorPtr& error) { return error ? error->code() : 0; }

inline platform::URLRequest makeRequest(const std::string& url, double timeout = 20.0) {
  platform::URLRequest request;
  request.url = platform::URL::URLWithString(url);
  request.timeoutInterval = timeout;
  return request;
}

// The files in the transport's partial downloads folder (none when there is no folder).
inline std::vector<std::filesystem::path> partialFiles() {
  std::error_code ignored;
  const std::filesystem::directory_iterator files(platform::HTTPSessionManager::partialDownloadsFolder(), ignored);
  return {begin(files), end(files)};
}

// Runs one data task to its end and returns its outcome.
inline DataOutcome runToEnd(platform::HTTPSessionManager& manager, const platform::URLRequest& request) {
  Outcomes<DataOutcome> outcomes;
  manager.dataTaskWithRequest(request, nullptr, nullptr, outcomes.collector())->resume();
  EXPECT_TRUE(outcomes.waitFor(1));
  return outcomes.all().empty() ? DataOutcome{} : outcomes.all().front();
}

}  // namespace vkq::testing
