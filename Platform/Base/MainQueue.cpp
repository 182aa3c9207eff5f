#include "Platform/Base/MainQueue.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Base/HandoffBatch.h"

namespace vkq::platform {
namespace {

enum class Mode { kDefaultThread, kDispatcher, kPollable, kManual };

thread_local bool runningMainQueueJob = false;

// The jobs this thread posts while a HandoffBatch is open on it; kept with its capacity
// between batches.
thread_local std::vector<MainQueue::Job> gathered;

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<MainQueue::Job> jobs;  // waiting; guarded by mutex
  Mode mode = Mode::kDefaultThread;  // guarded by mutex
  std::function<void()> wake;        // guarded by mutex
  int descriptor = -1;               // the pollable mode's eventfd, made once; guarded by mutex
  bool descriptorReadable = false;   // guarded by mutex
  bool shuttingDown = false;         // guarded by mutex
  std::thread thread;                // the default thread; started and joined under mutex
  std::mutex runMutex;               // held while jobs run, so they never overlap
  std::vector<MainQueue::Job> running;  // the batch being run; guarded by runMutex

  // Makes the descriptor readable exactly while jobs wait in pollable mode. Called under
  // mutex whenever the queue turns empty or non-empty, or the mode changes, so a post
  // racing a drain cannot leave it unreadable with jobs waiting.
  void syncDescriptorLocked() {
    const bool readable = mode == Mode::kPollable && !jobs.empty();
    if (readable == descriptorReadable) return;
    descriptorReadable = readable;
    std::uint64_t value = 1;
    if (readable) {
      while (::write(descriptor, &value, sizeof value) < 0 && errno == EINTR) {
      }
    } else {
      while (::read(descriptor, &value, sizeof value) < 0 && errno == EINTR) {
      }
    }
  }

  // Queues what `append` adds to the waiting jobs, under one lock; wakes whoever runs
  // the jobs only when the queue was empty (otherwise it has been woken already).
  template <typename Append>
  void post(Append append) {
    std::function<void()> wakeNow;
    bool wasEmpty;
    {
      std::lock_guard lock(mutex);
      wasEmpty = jobs.empty();
      append(jobs);
      startThreadLocked();
      if (wasEmpty) {
        syncDescriptorLocked();
        if (mode == Mode::kDispatcher) wakeNow = wake;
      }
    }
    if (!wasEmpty) return;
    changed.notify_all();
    if (wakeNow) wakeNow();
  }

  // Runs queued jobs, a whole batch per lock, until none is left; `lock` holds `mutex`
  // on entry and exit.
  std::size_t runQueued(std::unique_lock<std::mutex>& lock) {
    std::size_t count = 0;
    lock.unlock();
    std::lock_guard runningLock(runMutex);
    lock.lock();
    while (!jobs.empty()) {
      running.swap(jobs);  // `running` is empty with its capacity kept: no allocation once warm
      syncDescriptorLocked();
      lock.unlock();
      runningMainQueueJob = true;
      {
        // What the batch hands over (requests it starts, jobs it posts) goes at once,
        // after it.
        const HandoffBatch handoffs;
        for (MainQueue::Job& job : running) {
          try {
            job();
          } catch (...) {
            // Callbacks must not throw; one that does cannot stop later deliveries.
          }
          job = nullptr;  // its captures go before the next job runs
        }
      }
      runningMainQueueJob = false;
      count += running.size();
      running.clear();
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
      syncDescriptorLocked();
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

// Queues the jobs the calling thread gathered during its batch: the batch's "wake-up"
// of the main queue, run on that thread as the batch closes.
void postGathered() {
  // Cleared under the queue's lock, before any wake-up callback could post again.
  state().post([](std::vector<MainQueue::Job>& jobs) {
    jobs.insert(jobs.end(), std::make_move_iterator(gathered.begin()), std::make_move_iterator(gathered.end()));
    gathered.clear();
  });
}

const std::shared_ptr<Waker>& gatheredJobsPoster() {
  static const auto* poster = new std::shared_ptr<Waker>(std::make_shared<Waker>(postGathered));
  return *poster;
}

}  // namespace

void MainQueue::async(Job job) {
  if (HandoffBatch::isOpen()) {
    if (gathered.empty()) Waker::wake(gatheredJobsPoster());
    gathered.push_back(std::move(job));
    return;
  }
  state().post([&job](std::vector<Job>& jobs) { jobs.push_back(std::move(job)); });
}

void MainQueue::setDispatcher(std::function<void()> wake) {
  state().setMode(Mode::kDispatcher, std::move(wake));
}

int MainQueue::usePollableDescriptor() {
  State& s = state();
  int descriptor;
  {
    std::lock_guard lock(s.mutex);
    if (s.descriptor < 0) s.descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    descriptor = s.descriptor;
  }
  if (descriptor < 0) return -1;  // errno is eventfd's
  s.setMode(Mode::kPollable, nullptr);
  return descriptor;
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
