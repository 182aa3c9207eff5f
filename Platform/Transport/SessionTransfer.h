// One task's exchange: turns its URL request into a configured libcurl easy handle,
// collects the answer's head, hands the body to the task's body sink, reports progress
// and delivers the outcome exactly once on the completion queue. Internal to the
// transport.
//
// The task state lives in the transfer's TaskRecord, which the public task object reads;
// SessionTransfer changes it, always through TaskRecord::moveTo(), which allows only
// these moves:
//   Suspended --resume()--> Running --(exchange ends)--> Completed
//   Suspended --cancel(), or resume() after the manager went--> Canceling --(queued at once)--> Completed
//   Running   --cancel()--> Canceling --(worker stops it)--> Completed
//   Running  --suspend()--> Suspended (paused on the worker) --resume()--> Running
//   Suspended --(exchange ends before the pause reached the worker, or the manager goes
//               away)--> Completed
// A task paused on the worker is cancelled as a running one.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Transport/CurlHandles.h"
#include "Platform/Transport/ExchangeRetrier.h"
#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/Base/Progress.h"
#include "Platform/Transport/TransferWorker.h"
#include "Platform/HTTP/URLRequest.h"
#include "Platform/Session/URLSessionTask.h"
#include "Platform/Session/URLSessionTaskMetrics.h"

namespace vkq::platform {

class CompletionOutbox;
class SessionEngine;
struct TransferEvent;

// Requests are shared, never changed once made: a changed request is a new one.
using SharedRequest = std::shared_ptr<const URLRequest>;

struct TaskRecord {
  explicit TaskRecord(SharedRequest request);

  const std::uint64_t identifier;
  const SharedRequest originalRequest;  // null: none

  mutable std::mutex mutex;
  // Guarded by mutex.
  URLSessionTaskState state() const { return state_; }
  // The only writer of the state, with mutex held; a move the diagram above does not
  // have is a programming error.
  void moveTo(URLSessionTaskState next);

  bool started = false;  // guarded by mutex: handed to the worker (maybe paused there)
  SharedRequest currentRequest;                                 // guarded by mutex
  std::shared_ptr<const HTTPResponse> response;                 // guarded by mutex
  ErrorPtr error;                                               // guarded by mutex
  // Written by the worker as data arrives, read by anyone.
  std::atomic<std::int64_t> bytesReceived{0};
  URLSessionTaskMetrics metrics;  // guarded by mutex; written by the worker after each exchange

 private:
  URLSessionTaskState state_ = URLSessionTaskState::Suspended;
};

// Where a task's answer body goes and what its outcome becomes. The worker-side hooks
// run on the worker thread, or on the caller's thread for a task cancelled before it
// ever started; settle() and deliver() run on the completion queue.
class BodySink {
 public:
  virtual ~BodySink() = default;

  // Adjusts the request before it is (re)sent, e.g. replaces it with one that has a
  // resume range. An error ends the task without sending anything.
  virtual ErrorPtr willSend(SharedRequest& request) {
    (void)request;
    return nullptr;
  }
  // The head of the final answer, before its first body byte; `bodyLength` is the
  // length of the (decoded) body to come, or -1 when unknown. An error stops the
  // exchange and becomes its outcome.
  virtual ErrorPtr didReceiveResponse(const HTTPResponse& response, std::int64_t bodyLength) = 0;
  virtual ErrorPtr didReceiveData(const char* data, std::size_t length) = 0;
  // After an exchange that ended without a transport error: true to send the request
  // again from scratch.
  virtual bool shouldRestart() { return false; }
  // The failed exchange is to be sent again (a retry): drops what it received, or keeps
  // it for the next exchange to continue (willSend() then asks for the rest). False
  // when the sink cannot take another exchange; the failure then stands.
  virtual bool prepareRetry() = 0;
  // The exchange is over (`error` absent on success); returns the outcome's error.
  virtual ErrorPtr didFinish(ErrorPtr error, bool cancelled) = 0;
  // Body bytes held, from the start of the entity.
  virtual std::int64_t length() const = 0;

  // Validates the outcome and prepares what deliver() hands over; returns the task's
  // final error.
  virtual ErrorPtr settle(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error) = 0;
  // Calls the completion handler, then drops every callback.
  virtual void deliver(const std::shared_ptr<const HTTPResponse>& response, const ErrorPtr& error) = 0;
};

// Made as a SessionTransferWith<Body>, which holds the body sink in the same allocation.
class SessionTransfer : public TransferWorker::Transfer, public std::enable_shared_from_this<SessionTransfer> {
 public:
  struct Options {
    ProgressBlock uploadProgress;
    ProgressBlock downloadProgress;
    // libcurl's receive buffer; larger ones mean fewer, larger writes.
    long receiveBufferSize = 0;
    // Fail an answer whose body runs past its Content-Length. libcurl drops the excess
    // and closes the connection, and tells only in its verbose mode, which costs about
    // 6 % of a small exchange's CPU; so downloads ask for it, where the file must be
    // what the server meant, and data tasks take the body as declared.
    bool checksExcessBody = false;
  };

  ~SessionTransfer() override;

  // The task's state, shared with its task object.
  TaskRecord& record() { return record_; }

  // Any thread.
  void resume();
  void suspend();
  void cancel();
  virtual BodySink& sink() = 0;
  // Any thread: runs `job` on the completion queue, or not at all when the manager is
  // gone.
  void postToCompletionQueue(std::function<void()> job);

  // Completion queue: runs what the worker side posted.
  void handle(TransferEvent event);

  // TransferWorker::Transfer
  bool start(EasyHandle& easy) noexcept override;

  // Worker thread: sets the options that every exchange shares on a new easy handle
  // (protocols, decoding, cookies through `share`, the callbacks).
  static void prepareHandle(EasyHandle& easy, CURLSH* share);
  bool end(TransferWorker::EndReason reason, CURLcode code) noexcept override;

 protected:
  // `request` is the task's original request (null: none).
  SessionTransfer(const std::shared_ptr<SessionEngine>& engine, SharedRequest request, Options options);

 private:
  // The transfer a libcurl callback is for: its data pointer is the EasyHandle.
  static SessionTransfer& of(void* easy);
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* easy);
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* easy);
  static int onProgress(void* easy, curl_off_t, curl_off_t, curl_off_t uploadTotal, curl_off_t uploaded);

  static int onDebug(CURL*, curl_infotype type, char* data, std::size_t size, void* easy);

  // Worker thread.
  // Why `request` may not be sent (absent: it may).
  ErrorPtr refusalOf(const URLRequest& request) const;
  void configure(const URLRequest& request);
  std::size_t receiveHeader(std::string_view line);
  std::size_t receiveBody(const char* data, std::size_t length);
  ErrorPtr takeResponse();
  // Why the head just received frames its body unreadably (absent: it does not).
  ErrorPtr framingErrorOfHead() const;
  // The error of an exchange libcurl finished with `code`; absent on success.
  ErrorPtr outcomeOfExchange(CURLcode code);
  // After a redirect answer ended: makes the request that follows it the next one
  // sent, or returns why it may not be followed.
  ErrorPtr followRedirect();
  void reportDownload(bool last);
  void reportUpload(std::int64_t sent, std::int64_t total, bool last);
  // After an exchange that failed (not cancelled): readies the next one and returns
  // true when the request is to be sent again, after restartDelay.
  bool retry(const ErrorPtr& error);
  // Adds the exchange that just ended to the task's metrics.
  void recordMetrics();
  // The exchange is over: lets the sink finish and queues the completion.
  void conclude(ErrorPtr error, bool cancelled);
  // Completion queue.
  void complete(const std::shared_ptr<const HTTPResponse>& response, ErrorPtr error);

  std::string failingURL() const;

  const std::weak_ptr<SessionEngine> engine_;
  // The engine's outbox, used from the worker thread only: the engine stops the worker
  // before the outbox goes, so it outlives every use there.
  CompletionOutbox* const outbox_;
  TaskRecord record_;
  const SharedRequest request_;  // null: none
  const bool hasUploadProgress_;
  const bool hasDownloadProgress_;
  const long receiveBufferSize_;
  const bool checksExcessBody_;
  // Called on the completion queue only; dropped by complete().
  ProgressBlock uploadProgress_;
  ProgressBlock downloadProgress_;

  // Worker thread (or the cancelling thread of a task that never started).
  EasyHandle* easy_ = nullptr;  // the worker's, lent from start() until end() returns
  SharedRequest sent_;
  ExchangeRetrier retrier_;
  std::int64_t startedFrom_ = 0;  // body bytes the sink held when the exchange started
  bool deadlineSet_ = false;
  SharedRequest redirected_;  // sent instead of the original request; null: none
  int redirects_ = 0;         // followed since the original request was sent
  std::string fieldLines_;    // the header lines of the answer coming in
  bool headEnded_ = false;    // the blank line that ends those lines arrived
  bool redirecting_ = false;  // that answer is a redirect to follow; its body is dropped
  bool excessBody_ = false;   // more body bytes came than the head declared
  std::shared_ptr<const HTTPResponse> response_;
  ErrorPtr abortError_;
  std::int64_t expectedLength_ = -1;
  TransferWorker::Clock::time_point lastDownloadReport_{};
  std::int64_t lastDownloadReported_ = -1;
  TransferWorker::Clock::time_point lastUploadReport_{};
  std::int64_t lastUploadReported_ = -1;
  std::int64_t uploaded_ = 0;
  std::int64_t uploadTotal_ = -1;
};

// A transfer and its body sink of type Body, made together.
template <typename Body>
class SessionTransferWith final : public SessionTransfer {
 public:
  template <typename... BodyArguments>
  SessionTransferWith(const std::shared_ptr<SessionEngine>& engine, SharedRequest request, Options options,
                      BodyArguments&&... bodyArguments)
      : SessionTransfer(engine, std::move(request), std::move(options)),
        body_(std::forward<BodyArguments>(bodyArguments)...) {}

  BodySink& sink() override { return body_; }

 private:
  Body body_;
};

}  // namespace vkq::platform
