// A serial FIFO job queue with its own worker thread.
//
// Jobs run one at a time, in the order posted, on the queue's thread; posting never
// runs a job inside the caller. The destructor runs the jobs already posted, then
// joins the thread. A job must not throw: an exception escaping a job is caught and
// dropped so that the queue keeps running.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vkq::platform {

class SerialQueue {
 public:
  // A unit of work.
  using Job = std::function<void()>;

  // Starts the queue's thread, named `name` (for debuggers).
  explicit SerialQueue(std::string name);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // Posts a job, to run after those posted before it. Thread-safe.
  void async(Job job);
  // True when called from a job of this queue.
  bool isCurrent() const;

 private:
  void run();

  const std::string name_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;  // guarded by mutex_
  bool stopping_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace vkq::platform
