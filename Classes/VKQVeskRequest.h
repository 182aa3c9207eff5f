// VKQVeskRequest: one HTTP exchange as the application describes it, and the place
// where its outcome is recorded.
//
// The request properties (URL, method, argument, serializer kinds, headers, time-out,
// KXP settings) are virtual accessors with fixed defaults; subclasses — normally the
// builder VKQVesk — override them. Every serializer and the agent read a request only
// through them.
//
// Start a request with exactly one of requestWithSuccess(), requestCompletion() or
// downloadtWithSuccess(). The shared agent then keeps it alive until its outcome has
// been delivered, so the application need not hold it. Callbacks always run on the
// main queue (vkq::platform::MainQueue), never inside the starting call: completion
// first, then success (code 0) or failure (any other code).
//
// Threads: configure a request fully before starting it and don't change it while it
// runs; the starting operations may be called from any thread. Requests are owned by
// std::shared_ptr (make them with std::make_shared or the builder's initializers).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Classes/Codec/VKQKXPFrame.h"
#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/HTTP/RetryPolicy.h"
#include "Platform/Serialization/Object.h"
#include "Platform/Base/Progress.h"
#include "Platform/HTTP/URLRequest.h"

namespace vkq::platform {
class URLSessionTask;
}
class VKQVeskResult;

// HTTP method of a JSON request. A KXP request is always sent as "POST".
enum VKQRequestMethod : std::int64_t {
  VKQRequestMethodGET = 0,
  VKQRequestMethodPOST = 1,
  VKQRequestMethodHEAD = 2,
  VKQRequestMethodPUT = 3,
  VKQRequestMethodDELETE = 4,
  VKQRequestMethodPATCH = 5,
};

// How the body is written. Any other value selects no serializer.
enum VKQRequestSerializerType : std::uint64_t {
  VKQRequestSerializerTypeJSON = 0,
  VKQRequestSerializerTypeKXP = 1,
};

// How the answer is decoded. Any other value selects no decoder.
enum VKQResponseSerializerType : std::uint64_t {
  VKQResponseSerializerTypeJSON = 0,
  VKQResponseSerializerTypeKXP = 1,
};

// Header field name -> value.
using VKQHeaderDictionary = std::map<std::string, std::string>;

class VKQVeskRequest : public std::enable_shared_from_this<VKQVeskRequest> {
 public:
  // Receives the request's result (null when no decoder made one), on the main queue.
  using ResultBlock = std::function<void(std::shared_ptr<VKQVeskResult> result)>;
  // Receives a download's progress, on the transport's thread.
  using ProgressBlock = vkq::platform::ProgressBlock;

  VKQVeskRequest() = default;
  virtual ~VKQVeskRequest() = default;
  VKQVeskRequest(const VKQVeskRequest&) = delete;
  VKQVeskRequest& operator=(const VKQVeskRequest&) = delete;

  // ---- Request properties, with the defaults of the base class ----
  // Where to send the request; used as it is when absolute, else host() and path() decide.
  virtual std::string url() const { return ""; }
  // The base a relative path() is resolved against.
  virtual std::string host() const { return ""; }
  // The path: absolute, or relative to host().
  virtual std::string path() const { return ""; }
  // Seconds without data after which the exchange fails.
  virtual double requestTimeoutInterval() const { return 60.0; }
  // The longest answer body a data request keeps, and the longest payload a KXP answer
  // decompresses to (64 MiB); a longer answer fails with -2 and an error that says so.
  virtual std::size_t maximumResponseLength() const { return vkq::platform::kDefaultMaximumBodyLength; }
  // What is sent: the body, or the query of a GET, HEAD or DELETE.
  virtual vkq::platform::Object requestArgument() const { return {}; }
  // The method of a JSON request.
  virtual VKQRequestMethod requestMethod() const { return VKQRequestMethodPOST; }
  // How the body is written.
  virtual VKQRequestSerializerType requestSerializerType() const { return VKQRequestSerializerTypeKXP; }
  // How the answer is decoded.
  virtual VKQResponseSerializerType responseSerializerType() const { return VKQResponseSerializerTypeKXP; }
  // Each pair becomes a header field of the request.
  virtual std::optional<VKQHeaderDictionary> requestHeaderFieldValueDictionary() const { return std::nullopt; }
  // First element the user name, last the password, for a Basic authorization header.
  virtual std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const { return std::nullopt; }
  // Whether a cellular interface may carry the request.
  virtual bool allowsCellularAccess() const { return true; }
  // KXP settings (VKQKXPFrame.h), answered with VKQKXPFrame::kDefaultSettings; 0
  // switches the begin marker, version and mask off.
  virtual std::uint8_t version() const { return kKXPDefaults.version; }
  virtual std::uint8_t xorKey() const { return kKXPDefaults.xorKey; }
  virtual bool compress() const { return kKXPDefaults.compress; }
  virtual std::uint16_t insertAtBeginBody() const { return kKXPDefaults.insertAtBeginBody; }
  virtual bool uploadOSType() const { return kKXPDefaults.uploadOSType; }
  virtual std::optional<std::string> packageName() const { return kKXPDefaults.packageName; }
  virtual std::int32_t releaseVersion() const { return kKXPDefaults.releaseVersion; }
  // Shown by the debug log only: KXP frames are always big-endian.
  virtual bool bigEndian() const { return VKQKXPFrame::kBigEndian; }
  // True: body and answer pass without KXP framing.
  virtual bool nonProtocol() const { return kKXPDefaults.nonProtocol; }

  // ---- Retries and deadline (vkq::platform::RetryPolicy says what each one means) ----
  // Exchanges after the first one that failed retryably; 0: no retry.
  virtual int maximumRetryCount() const { return kNoRetries.maximumRetries; }
  // Back-off in seconds: a random wait up to retryBaseDelay * 2^(n-1) before retry n,
  // at most retryMaximumDelay, which also caps a server's Retry-After.
  virtual double retryBaseDelay() const { return kNoRetries.baseDelay; }
  virtual double retryMaximumDelay() const { return kNoRetries.maximumDelay; }
  // Statuses whose answers are retried (408, 429, 500, 502, 503, 504).
  virtual std::vector<long> retryStatusCodes() const { return kNoRetries.statusCodes; }
  // Connection failures, connections lost mid-answer and time-outs are retried.
  virtual bool retriesNetworkFailures() const { return kNoRetries.retriesNetworkFailures; }
  // POST and PATCH (so every KXP request) are retried only when this says so.
  virtual bool retriesNonIdempotentRequests() const { return kNoRetries.retriesNonIdempotentMethods; }
  // Seconds the whole request may take, retries and back-off included; absent: no
  // limit beyond the idle time-out of each exchange.
  virtual std::optional<double> requestDeadlineInterval() const { return std::nullopt; }
  // The retry properties above as the transport takes them.
  vkq::platform::RetryPolicy retryPolicy() const;

  // ---- Starting ----
  // Stores the success, then the failure callback, and hands the request to the agent.
  void requestWithSuccess(ResultBlock success, ResultBlock failure);
  // Stores the completion callback and hands the request to the agent.
  void requestCompletion(ResultBlock completion);
  // Stores success, failure and progress callbacks and hands the request to the agent.
  // The request must carry a resumableDownloadPath to run as a download.
  void downloadtWithSuccess(ResultBlock success, ProgressBlock progress, ResultBlock failure);
  // Drops the success, failure and completion callbacks; keeps the progress callback.
  void clearCompletionBlock();
  // False (the default): VKQNetworkAgent::cancelRequest() drops the request and no
  // callback runs. True: the request hears of its cancellation like of any failure of
  // the exchange, with VKQResponseCodeHTTPError and the error kURLErrorCancelled. The
  // future and awaitable forms (VKQVeskAsync.h) set it.
  bool deliversCancellation() const { return deliversCancellation_; }
  void setDeliversCancellation(bool delivers) { deliversCancellation_ = delivers; }

  // ---- Stored state ----
  // The transport task of the latest start; null before the first.
  const std::shared_ptr<vkq::platform::URLSessionTask>& requestTask() const { return requestTask_; }
  void setRequestTask(std::shared_ptr<vkq::platform::URLSessionTask> task) { requestTask_ = std::move(task); }
  // The raw answer: bytes of a data exchange, the file URL of a download.
  const vkq::platform::Object& responseData() const { return responseData_; }
  void setResponseData(vkq::platform::Object data) { responseData_ = std::move(data); }
  // The stored error if any, otherwise the task's error.
  vkq::platform::ErrorPtr error() const;
  void setError(vkq::platform::ErrorPtr error) { error_ = std::move(error); }
  const std::optional<std::string>& resumableDownloadPath() const { return resumableDownloadPath_; }
  void setResumableDownloadPath(std::optional<std::string> path) { resumableDownloadPath_ = std::move(path); }
  const ProgressBlock& resumableDownloadProgressBlock() const { return progressBlock_; }
  void setResumableDownloadProgressBlock(ProgressBlock block) { progressBlock_ = std::move(block); }
  const ResultBlock& successResultBlock() const { return successBlock_; }
  void setSuccessResultBlock(ResultBlock block) { successBlock_ = std::move(block); }
  const ResultBlock& failureResultBlock() const { return failureBlock_; }
  void setFailureResultBlock(ResultBlock block) { failureBlock_ = std::move(block); }
  const ResultBlock& completionResultBlock() const { return completionBlock_; }
  void setCompletionResultBlock(ResultBlock block) { completionBlock_ = std::move(block); }

  // ---- Derived from the task; absent before a task exists ----
  // The head of the answer. Overridable, like the request properties, e.g. to replay a
  // recorded answer through a response serializer.
  virtual std::shared_ptr<const vkq::platform::HTTPResponse> response() const;
  std::optional<vkq::platform::URLRequest> currentRequest() const;
  std::optional<vkq::platform::URLRequest> originalRequest() const;
  std::optional<vkq::platform::HTTPHeaders> responseHeaders() const;

  // "FAILURE: <stored error>" when error() is present, otherwise "SUCCESS: <responseData>".
  // The test uses error() (falling back to the task's error) while the text shows the
  // stored error only.
  virtual std::string description() const;

 private:
  static constexpr const VKQKXPFrameSettings& kKXPDefaults = VKQKXPFrame::kDefaultSettings;
  static inline const vkq::platform::RetryPolicy kNoRetries{};

  // Hands the request to the shared agent. REQUIRES: owned by a std::shared_ptr
  // (fatal assertion otherwise).
  void start();

  std::shared_ptr<vkq::platform::URLSessionTask> requestTask_;
  vkq::platform::Object responseData_;
  vkq::platform::ErrorPtr error_;
  std::optional<std::string> resumableDownloadPath_;
  ProgressBlock progressBlock_;
  ResultBlock successBlock_;
  ResultBlock failureBlock_;
  ResultBlock completionBlock_;
  bool deliversCancellation_ = false;
};
