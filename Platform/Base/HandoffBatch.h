// Hand-offs gathered per batch.
//
// A thread that hands work to another thread (a queue, the transfer worker) usually
// wakes it for every item. While a HandoffBatch is open on the handing thread, each
// receiver is instead woken once, when the outermost batch closes: a completion queue
// that starts the next requests from a batch of completions, or a main queue that runs
// a batch of callbacks, wakes the transfer worker once per batch rather than once per
// request. The main queue goes further and holds the jobs themselves back until then,
// so that they arrive together (MainQueue::async). Outside a batch, wake() wakes at
// once.
//
//   {
//     HandoffBatch batch;
//     for (auto& job : jobs) job();  // every Waker::wake() in here is held back
//   }                                // each receiver woken once, here
#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace vkq::platform {

// How a receiver is woken; shared between the receiver and the batches that hold a
// wake-up for it, so that a wake-up held past the receiver's end is harmless.
// Thread-safe.
class Waker {
 public:
  // A waker that calls `wake` to wake its receiver.
  explicit Waker(std::function<void()> wake) : wake_(std::move(wake)) {}

  // Wakes the receiver now, or when the batch open on this thread closes (then on this
  // thread, once however often it was asked).
  static void wake(const std::shared_ptr<Waker>& waker);
  // Wakes the receiver now, unless it closed.
  void wakeNow();
  // The receiver goes away: once this returns, wakeNow() does nothing.
  void close();

 private:
  std::mutex mutex_;             // held while waking, so that close() waits for it
  std::function<void()> wake_;  // guarded by mutex_; empty once closed
};

// Holds back every Waker::wake() made on this thread while it lives; nestable.
class HandoffBatch {
 public:
  // Opens a batch on the calling thread.
  HandoffBatch();
  // The outermost batch wakes each receiver that was handed work, once, in order.
  ~HandoffBatch();
  HandoffBatch(const HandoffBatch&) = delete;
  HandoffBatch& operator=(const HandoffBatch&) = delete;

  // Whether a batch is open on the calling thread.
  static bool isOpen();
};

}  // namespace vkq::platform
