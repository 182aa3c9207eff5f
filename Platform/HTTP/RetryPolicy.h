// RetryPolicy: when, and after how long, the transport sends a request again after an
// exchange that failed in a way a later one may not. A value carried by the URL request;
// the default never retries.
//
// A retry is a new exchange of the same request; the task still completes once, with
// the outcome of its last exchange. Retried are, when the method allows it:
//   - failures to connect, connections lost before the answer was complete, and
//     time-outs (retriesNetworkFailures);
//   - answers whose status is in statusCodes (by default 408, 429, 500, 502, 503, 504).
// GET, HEAD, PUT, DELETE and OPTIONS are idempotent and retried; POST and PATCH only
// with retriesNonIdempotentMethods.
//
// Back-off before retry n (1, 2, ...): a random time in [0, min(maximumDelay,
// baseDelay * 2^(n-1))] ("full jitter", so that clients that failed together do not
// come back together). A Retry-After field of the answer (seconds, or an HTTP date)
// replaces it, up to maximumDelay.
#pragma once

#include <chrono>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace vkq::platform {

struct RetryPolicy {
  // A wait, on the transport's clock.
  using Duration = std::chrono::steady_clock::duration;

  // Retries after the first exchange; 0: none.
  int maximumRetries = 0;
  // Seconds: the back-off before retry n is at most baseDelay * 2^(n-1).
  double baseDelay = 0.5;
  // Seconds: the cap of every back-off, and of a server's Retry-After.
  double maximumDelay = 30.0;
  // Statuses whose answers are retried.
  std::vector<long> statusCodes{408, 429, 500, 502, 503, 504};
  // Failures to connect, connections lost mid-answer and time-outs are retried.
  bool retriesNetworkFailures = true;
  // POST and PATCH are retried too.
  bool retriesNonIdempotentMethods = false;

  // Whether a request with `method` may be sent again at all.
  bool allowsMethod(std::string_view method) const;
  // Whether an answer of `status` is retried.
  bool retriesStatus(long status) const;
  // The wait before retry `retry` (1 for the first), given the failed answer's
  // Retry-After field (absent: none, or no answer) and a source of randomness.
  Duration delayBefore(int retry, const std::optional<std::string>& retryAfter, std::mt19937_64& random) const;
  // A Retry-After value as a wait from now: delta seconds or an HTTP date (a date in the
  // past gives zero); absent when it is neither.
  static std::optional<Duration> parseRetryAfter(std::string_view value);
};

}  // namespace vkq::platform
