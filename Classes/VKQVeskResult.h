// The one outcome a request delivers: a response code, the decoded payload and the
// request that produced it. A result holds its request; a request never holds its
// results, so no cycle forms.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Classes/VKQResponseCode.h"
#include "Platform/Serialization/Object.h"
#include "Platform/Session/URLSessionTaskMetrics.h"

class VKQVeskRequest;

// Domain of errors made from response codes.
inline constexpr const char* VKQRequestErrorDomain = "com.vkqlabs.request";

class VKQVeskResult {
 public:
  // A failure result: the code, no data, no request.
  static std::shared_ptr<VKQVeskResult> resultWithErrorCode(std::int64_t code);
  // A failure result carrying its request; no data.
  static std::shared_ptr<VKQVeskResult> resultWithErrorCode(std::int64_t code, std::shared_ptr<VKQVeskRequest> request);
  // A success (code 0) with its payload, which may be absent.
  static std::shared_ptr<VKQVeskResult> resultWithSuccessData(vkq::platform::Object data,
                                                               std::shared_ptr<VKQVeskRequest> request);
  // The designated initializer.
  static std::shared_ptr<VKQVeskResult> initWith(std::shared_ptr<VKQResponseCode> responseCode,
                                                 vkq::platform::Object data, std::shared_ptr<VKQVeskRequest> request);

  // The outcome: 0 success, or one of the failure codes (VKQResponseCode.h).
  const std::shared_ptr<VKQResponseCode>& responseCode() const { return responseCode_; }
  void setResponseCode(std::shared_ptr<VKQResponseCode> code) { responseCode_ = std::move(code); }
  // The decoded payload: JSON of a JSON answer, the unframed bytes of a KXP answer, the
  // file URL of a download; absent for a failure.
  const vkq::platform::Object& data() const { return data_; }
  void setData(vkq::platform::Object data) { data_ = std::move(data); }
  // The request that produced the result; null for a failure result made without it.
  const std::shared_ptr<VKQVeskRequest>& request() const { return request_; }
  void setRequest(std::shared_ptr<VKQVeskRequest> request) { request_ = std::move(request); }

  // How the exchange went: timings, bytes, HTTP version, connection reuse, retries and
  // the byte a download resumed from. As far as the exchange got, also for failures;
  // all steps unreached (-1) for a request that failed before anything was sent.
  const vkq::platform::URLSessionTaskMetrics& metrics() const { return metrics_; }
  void setMetrics(vkq::platform::URLSessionTaskMetrics metrics) { metrics_ = std::move(metrics); }

  // "errorCode = (<code>), errorMsg = (<msg>)", also for a success.
  std::string description() const;
  // The same as description().
  std::string debugDescription() const { return description(); }

 private:
  std::shared_ptr<VKQResponseCode> responseCode_;
  vkq::platform::Object data_;
  std::shared_ptr<VKQVeskRequest> request_;
  vkq::platform::URLSessionTaskMetrics metrics_;
};
