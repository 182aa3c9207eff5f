// SignalWatcher: turns SIGINT and SIGTERM into a call on a thread of its own, where it
// is safe to do real work (cancel a request, stop a server), instead of running code
// in a signal handler.
//
// The constructor blocks both signals in the calling thread; threads started later
// inherit the mask, so construct the watcher in main() before any other thread exists.
// The destructor stops watching; the signals stay blocked.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace vkq::tool {

class SignalWatcher {
 public:
  // `onSignal` runs on the watcher's thread, once per signal, with its number.
  explicit SignalWatcher(std::function<void(int signal)> onSignal);
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

 private:
  void watch();

  std::function<void(int)> onSignal_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace vkq::tool
