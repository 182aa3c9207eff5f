// The application's main queue: a serial, FIFO, asynchronous job queue on which the
// library delivers every callback.
//
// Posting a job never runs it inside the caller. Who runs the jobs is chosen once by
// the application, before its first request:
//  - By default a dedicated thread runs them as they arrive, so a plain program gets
//    its callbacks with no configuration at all.
//  - An application with its own event loop calls setDispatcher(wake): `wake` is called
//    (from any thread) whenever jobs are waiting, and the loop then calls drain() on its
//    own thread.
//  - A program or test that wants the callbacks on one of its threads calls
//    useManualDraining() and then drain() or runUntil() itself.
// Jobs never run concurrently with each other, whichever mode is in force.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace vkq::platform {

class MainQueue {
 public:
  using Job = std::function<void()>;

  // Queues a job. Thread-safe. A job must not throw (an escaping exception is dropped).
  static void async(Job job);

  // Jobs wait for the application: `wake` is called when one is queued.
  static void setDispatcher(std::function<void()> wake);
  // Jobs wait until the program drains them.
  static void useManualDraining();

  // Runs the jobs queued so far on the calling thread; returns how many ran. Called
  // from inside a main-queue job it does nothing.
  static std::size_t drain();
  // Drains, waiting for further jobs, until `done()` holds or the time-out passes.
  // Returns whether `done()` held.
  static bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

  // True while a main-queue job runs on the calling thread.
  static bool isCurrent();
};

}  // namespace vkq::platform
