// The application's main queue: a serial, FIFO, asynchronous job queue on which the
// library delivers every callback.
//
// Posting a job never runs it inside the caller. Who runs the jobs is chosen once by
// the application, before its first request:
//  - By default a dedicated thread runs them as they arrive, so a plain program gets
//    its callbacks with no configuration at all.
//  - An application with its own event loop either polls a descriptor that is readable
//    while jobs wait (usePollableDescriptor()), or calls setDispatcher(wake) to be told
//    when jobs wait; either way the loop then calls drain() on its own thread.
//  - A program or test that wants the callbacks on one of its threads calls
//    useManualDraining() and then drain() or runUntil() itself.
// Jobs never run concurrently with each other, whichever mode is in force. Jobs are
// taken and run in batches: one wake-up runs everything waiting at that moment, then
// whatever those jobs posted.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace vkq::platform {

class MainQueue {
 public:
  // A unit of work: a callback of the library, or the application's own.
  using Job = std::function<void()>;

  // Queues a job. Thread-safe. A job must not throw (an escaping exception is dropped).
  // While a HandoffBatch is open on the calling thread, the job is held back until the
  // batch closes, when the thread's jobs are queued together, in posting order: one
  // lock and at most one wake-up for the lot. (A thread must not wait for its own
  // held-back jobs inside the batch.) Running jobs are inside such a batch.
  static void async(Job job);

  // Jobs wait for the application: `wake` is called (from any thread, never under the
  // queue's lock) when the queue goes from empty to holding jobs.
  static void setDispatcher(std::function<void()> wake);
  // Jobs wait for the application's poll loop: returns an event descriptor that is
  // readable (POLLIN) exactly while jobs wait; the loop calls drain() when it is. The
  // queue owns the descriptor (close-on-exec, non-blocking; only poll it, never read or
  // close it) and returns the same one on every call. Returns -1 with errno set when the descriptor cannot be
  // created; the mode is then left as it was.
  static int usePollableDescriptor();
  // Jobs wait until the program drains them.
  static void useManualDraining();

  // Runs the jobs queued so far, and those they queue, on the calling thread; returns
  // how many ran. Called from inside a main-queue job it does nothing.
  static std::size_t drain();
  // Drains, waiting for further jobs, until `done()` holds or the time-out passes.
  // Returns whether `done()` held.
  static bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

  // True while a main-queue job runs on the calling thread.
  static bool isCurrent();
};

}  // namespace vkq::platform
