// What a session manager runs on: the transfer worker, the completion queue and the
// response serializer its tasks read when they complete. Internal to the transport.
//
// Tasks refer to their engine weakly; the manager owns it. Destroying the engine ends
// the running transfers (their completions are queued), then runs the queued jobs and
// joins the queue's thread, also when the last owner lets go of it on that very
// thread.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/Serialization/HTTPResponseSerializer.h"
#include "Platform/Base/Progress.h"
#include "Platform/Base/SerialQueue.h"
#include "Platform/Transport/TransferWorker.h"

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

class SessionTransfer;

// One thing a transfer's worker side hands to its completion queue side.
struct TransferEvent {
  enum class Kind { UploadProgress, DownloadProgress, Completion };
  Kind kind;
  Progress progress;                               // progress events
  std::shared_ptr<const HTTPResponse> response;    // the completion
  ErrorPtr error;                                  // the completion
};

// What the worker hands to the completion queue (progress and completions), gathered
// while it handles one round of events and posted as one queue job, in order: one
// queue wake-up per round instead of one per task, and no allocation per event once
// the outbox has grown. Worker thread only.
class CompletionOutbox {
 public:
  explicit CompletionOutbox(SerialQueue& queue) : queue_(queue) {}
  void post(std::shared_ptr<SessionTransfer> transfer, TransferEvent event) {
    pending_.push_back({std::move(transfer), std::move(event)});
  }
  void flush();

 private:
  struct Entry {
    std::shared_ptr<SessionTransfer> transfer;
    TransferEvent event;
  };

  SerialQueue& queue_;
  std::vector<Entry> pending_;
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
