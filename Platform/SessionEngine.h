// What a session manager runs on: the transfer worker, the completion queue and the
// response serializer its tasks read when they complete. Internal to the transport.
//
// Tasks refer to their engine weakly; the manager owns it. Destroying the engine ends
// the running transfers (their completions are queued), then runs the queued jobs and
// joins the queue's thread, also when the last owner lets go of it on that very
// thread.
#pragma once

#include <memory>
#include <functional>
#include <mutex>
#include <vector>

#include "Platform/HTTPResponseSerializer.h"
#include "Platform/SerialQueue.h"
#include "Platform/TransferWorker.h"

namespace vkq::platform {

// The response serializer shared by a manager and its tasks. Thread-safe.
class ResponseSerializerSlot {
 public:
  std::shared_ptr<HTTPResponseSerializer> get() const {
    std::lock_guard lock(mutex_);
    return serializer_;
  }
  void set(std::shared_ptr<HTTPResponseSerializer> serializer) {
    std::lock_guard lock(mutex_);
    serializer_ = std::move(serializer);
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<HTTPResponseSerializer> serializer_;  // guarded by mutex_
};

// What the worker hands to the completion queue (progress and completions), gathered
// while it handles one round of events and posted as one queue job, in order: one
// queue wake-up per round instead of one per task. Worker thread only.
class CompletionOutbox {
 public:
  explicit CompletionOutbox(SerialQueue& queue) : queue_(queue) {}
  void post(std::function<void()> job) { pending_.push_back(std::move(job)); }
  void flush();

 private:
  SerialQueue& queue_;
  std::vector<std::function<void()>> pending_;
};

class SessionEngine {
 public:
  SessionEngine();
  ~SessionEngine();
  SessionEngine(const SessionEngine&) = delete;
  SessionEngine& operator=(const SessionEngine&) = delete;

  TransferWorker& worker() { return *worker_; }
  SerialQueue& completionQueue() { return *completionQueue_; }
  // For the worker thread; outlives the worker.
  CompletionOutbox& outbox() { return *outbox_; }
  const std::shared_ptr<ResponseSerializerSlot>& responseSerializer() const { return responseSerializer_; }

 private:
  std::unique_ptr<SerialQueue> completionQueue_;
  std::unique_ptr<CompletionOutbox> outbox_;
  std::unique_ptr<TransferWorker> worker_;
  std::shared_ptr<ResponseSerializerSlot> responseSerializer_;
};

}  // namespace vkq::platform
