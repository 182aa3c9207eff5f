#include "Classes/VKQVeskRequest.h"

#include "Classes/VKQNetworkAgent.h"
#include "Platform/Base/Assert.h"
#include "Platform/Session/URLSessionTask.h"

using vkq::platform::ErrorPtr;
using vkq::platform::HTTPHeaders;
using vkq::platform::HTTPResponse;
using vkq::platform::URLRequest;

void VKQVeskRequest::requestWithSuccess(ResultBlock success, ResultBlock failure) {
  setSuccessResultBlock(std::move(success));
  setFailureResultBlock(std::move(failure));
  start();
}

void VKQVeskRequest::requestCompletion(ResultBlock completion) {
  setCompletionResultBlock(std::move(completion));
  start();
}

void VKQVeskRequest::downloadtWithSuccess(ResultBlock success, ProgressBlock progress, ResultBlock failure) {
  setSuccessResultBlock(std::move(success));
  setFailureResultBlock(std::move(failure));
  setResumableDownloadProgressBlock(std::move(progress));
  start();
}

void VKQVeskRequest::start() {
  std::shared_ptr<VKQVeskRequest> self = weak_from_this().lock();
  VKQAssert(self != nullptr, "a request must be owned by a std::shared_ptr to be started");
  VKQNetworkAgent::sharedAgent().addRequest(self);
}

void VKQVeskRequest::clearCompletionBlock() {
  setSuccessResultBlock(nullptr);
  setFailureResultBlock(nullptr);
  setCompletionResultBlock(nullptr);
}

ErrorPtr VKQVeskRequest::error() const {
  if (error_) return error_;
  return requestTask_ ? requestTask_->error() : nullptr;
}

vkq::platform::RetryPolicy VKQVeskRequest::retryPolicy() const {
  vkq::platform::RetryPolicy policy;
  policy.maximumRetries = maximumRetryCount();
  policy.baseDelay = retryBaseDelay();
  policy.maximumDelay = retryMaximumDelay();
  policy.statusCodes = retryStatusCodes();
  policy.retriesNetworkFailures = retriesNetworkFailures();
  policy.retriesNonIdempotentMethods = retriesNonIdempotentRequests();
  return policy;
}

std::shared_ptr<const HTTPResponse> VKQVeskRequest::response() const {
  return requestTask_ ? requestTask_->response() : nullptr;
}

std::optional<URLRequest> VKQVeskRequest::currentRequest() const {
  return requestTask_ ? requestTask_->currentRequest() : std::nullopt;
}

std::optional<URLRequest> VKQVeskRequest::originalRequest() const {
  return requestTask_ ? requestTask_->originalRequest() : std::nullopt;
}

std::optional<HTTPHeaders> VKQVeskRequest::responseHeaders() const {
  std::shared_ptr<const HTTPResponse> head = response();
  if (!head) return std::nullopt;
  return head->allHeaderFields();
}

std::string VKQVeskRequest::description() const {
  if (error()) return "FAILURE: " + (error_ ? error_->description() : std::string("(null)"));
  return "SUCCESS: " + responseData_.description();
}
