#include "Platform/Base/SerialQueue.h"

#include <pthread.h>

namespace vkq::platform {

SerialQueue::SerialQueue(std::string name) : name_(std::move(name)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void SerialQueue::async(Job job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  wake_.notify_one();
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

void SerialQueue::run() {
  pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) return;  // stopping, and everything posted has run
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    try {
      job();
    } catch (...) {
      // A job's failure must not take the queue down with it.
    }
    job = nullptr;  // release what the job captured before taking the lock again
    lock.lock();
  }
}

}  // namespace vkq::platform
