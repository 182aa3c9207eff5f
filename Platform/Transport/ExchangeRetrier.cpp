#include "Platform/Transport/ExchangeRetrier.h"

namespace vkq::platform {

ExchangeRetrier::ExchangeRetrier(RetryPolicy policy, std::string_view method)
    : policy_(std::move(policy)), methodAllows_(policy_.allowsMethod(method)), random_(std::random_device{}()) {}

std::optional<ExchangeRetrier::Clock::duration> ExchangeRetrier::retryAfter(const ErrorPtr& error,
                                                                            const HTTPResponse* response,
                                                                            Clock::time_point deadline) {
  if (retries_ >= policy_.maximumRetries || !methodAllows_ || !isRetryable(error, response)) return std::nullopt;
  const auto retryAfterField = response && !error ? response->allHeaderFields().value("Retry-After") : std::nullopt;
  const auto wait = policy_.delayBefore(retries_ + 1, retryAfterField, random_);
  if (deadline != Clock::time_point::max() && Clock::now() + wait >= deadline) return std::nullopt;
  ++retries_;
  return wait;
}

bool ExchangeRetrier::isRetryable(const ErrorPtr& error, const HTTPResponse* response) const {
  if (!error) return response != nullptr && policy_.retriesStatus(response->statusCode);
  if (!policy_.retriesNetworkFailures || error->domain() != kURLErrorDomain) return false;
  switch (error->code()) {
    case kURLErrorTimedOut:
    case kURLErrorCannotConnectToHost:
    case kURLErrorNetworkConnectionLost:
      return true;
    default:
      return false;
  }
}

}  // namespace vkq::platform
