// ExchangeRetrier: after each exchange of one transfer, says whether the transfer is
// sent again and after how long, by the request's RetryPolicy and the overall deadline.
// Internal to the transport; used on the worker thread only.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/HTTP/RetryPolicy.h"

namespace vkq::platform {

class ExchangeRetrier {
 public:
  using Clock = std::chrono::steady_clock;

  // `policy` must outlive the retrier (the transfer's request holds it).
  ExchangeRetrier(const RetryPolicy& policy, std::string_view method);

  // The exchange ended with `error` (absent: an answer came, `response`) and was not
  // cancelled. The wait before the next exchange, or absent when this outcome stands:
  // not retryable, no retries left, or the wait would end after `deadline`.
  std::optional<Clock::duration> retryAfter(const ErrorPtr& error, const HTTPResponse* response,
                                            Clock::time_point deadline);
  // Exchanges sent again so far.
  int retries() const { return retries_; }

 private:
  bool isRetryable(const ErrorPtr& error, const HTTPResponse* response) const;

  const RetryPolicy& policy_;
  const bool methodAllows_;
  int retries_ = 0;
};

}  // namespace vkq::platform
