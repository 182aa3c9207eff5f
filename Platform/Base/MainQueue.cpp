#include "Platform/Base/MainQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace vkq::platform {
namespace {

enum class Mode { kDefaultThread, kDispatcher, kManual };

thread_local bool runningMainQueueJob = false;

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<MainQueue::Job> jobs;   // guarded by mutex
  Mode mode = Mode::kDefaultThread;  // guarded by mutex
  std::function<void()> wake;        // guarded by mutex
  bool shuttingDown = false;         // guarded by mutex
  std::thread thread;                // the default thread; started and joined under mutex
  std::mutex runMutex;               // held while jobs run, so they never overlap

  // Runs queued jobs until none is left; `lock` holds `mutex` on entry and exit.
  std::size_t runQueued(std::unique_lock<std::mutex>& lock) {
    std::size_t count = 0;
    lock.unlock();
    std::lock_guard running(runMutex);
    lock.lock();
    while (!jobs.empty()) {
      MainQueue::Job job = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      runningMainQueueJob = true;
      try {
        job();
      } catch (...) {
        // Callbacks must not throw; one that does cannot stop later deliveries.
      }
      runningMainQueueJob = false;
      job = nullptr;
      ++count;
      lock.lock();
    }
    return count;
  }

  void threadLoop() {
    pthread_setname_np(pthread_self(), "vkq.main");
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [this] { return shuttingDown || mode != Mode::kDefaultThread || !jobs.empty(); });
      if (shuttingDown || mode != Mode::kDefaultThread) return;
      runQueued(lock);
    }
  }

  void startThreadLocked() {
    if (mode == Mode::kDefaultThread && !thread.joinable() && !shuttingDown) {
      thread = std::thread([this] { threadLoop(); });
    }
  }

  void setMode(Mode newMode, std::function<void()> newWake) {
    std::thread old;
    {
      std::lock_guard lock(mutex);
      mode = newMode;
      wake = std::move(newWake);
      if (mode != Mode::kDefaultThread) old = std::move(thread);
      startThreadLocked();
    }
    changed.notify_all();
    if (old.joinable()) {
      if (old.get_id() == std::this_thread::get_id()) {
        old.detach();
      } else {
        old.join();
      }
    }
    std::function<void()> wakeNow;
    {
      std::lock_guard lock(mutex);
      if (mode == Mode::kDispatcher && !jobs.empty()) wakeNow = wake;
    }
    if (wakeNow) wakeNow();
  }
};

State& state() {
  static State* s = new State;  // lives for the whole process: jobs may be posted during exit
  return *s;
}

// Stops the default thread when the program exits, after the job it is running.
struct ShutdownAtExit {
  ~ShutdownAtExit() {
    State& s = state();
    std::thread old;
    {
      std::lock_guard lock(s.mutex);
      s.shuttingDown = true;
      old = std::move(s.thread);
    }
    s.changed.notify_all();
    if (old.joinable() && old.get_id() != std::this_thread::get_id()) old.join();
  }
} shutdownAtExit;

}  // namespace

void MainQueue::async(Job job) {
  State& s = state();
  std::function<void()> wake;
  {
    std::lock_guard lock(s.mutex);
    s.jobs.push_back(std::move(job));
    s.startThreadLocked();
    if (s.mode == Mode::kDispatcher) wake = s.wake;
  }
  s.changed.notify_all();
  if (wake) wake();
}

void MainQueue::setDispatcher(std::function<void()> wake) {
  state().setMode(Mode::kDispatcher, std::move(wake));
}

void MainQueue::useManualDraining() { state().setMode(Mode::kManual, nullptr); }

std::size_t MainQueue::drain() {
  if (runningMainQueueJob) return 0;
  State& s = state();
  std::unique_lock lock(s.mutex);
  return s.runQueued(lock);
}

bool MainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  State& s = state();
  for (;;) {
    drain();
    if (done()) return true;
    std::unique_lock lock(s.mutex);
    if (s.changed.wait_until(lock, deadline, [&s] { return !s.jobs.empty(); })) continue;
    lock.unlock();
    drain();
    return done();
  }
}

bool MainQueue::isCurrent() { return runningMainQueueJob; }

}  // namespace vkq::platform
