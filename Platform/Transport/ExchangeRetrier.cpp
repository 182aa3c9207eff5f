#include "Platform/Transport/ExchangeRetrier.h"

#include <random>

namespace vkq::platform {

ExchangeRetrier::ExchangeRetrier(const RetryPolicy& policy, std::string_view method)
    : policy_(policy), methodAllows_(policy_.allowsMethod(method)) {}

std::optional<ExchangeRetrier::Clock::duration> ExchangeRetrier::retryAfter(const ErrorPtr& error,
                                                                            const HTTPResponse* response,
                                                                            Clock::time_point deadline) {
  if (retries_ >= policy_.maximumRetries || !methodAllows_ || !isRetryable(error, response)) return std::nullopt;
  const auto retryAfterField = response && !error ? response->allHeaderFields().value("Retry-After") : std::nullopt;
  // One generator per worker thread, seeded on the first retry: a transfer that is
  // never retried costs no seeding.
  thread_local std::mt19937_64 random{std::random_device{}()};
  const auto wait = policy_.delayBefore(retries_ + 1, retryAfterField, random);
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
