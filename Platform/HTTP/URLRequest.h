// A URL request: what the transport sends. A value; copying it gives the mutable copy
// that serializers work on.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Platform/Base/Bytes.h"
#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/HTTP/RetryPolicy.h"
#include "Platform/HTTP/URL.h"

namespace vkq::platform {

// The range of a request's time-out, in seconds: a shorter positive one counts as the
// least, a longer one (infinity included) as the most.
inline constexpr double kMinimumTimeoutInterval = 0.001;
inline constexpr double kMaximumTimeoutInterval = 7 * 24 * 60 * 60.0;
// The longest answer body a data task keeps in memory unless the request says
// otherwise (64 MiB).
inline constexpr std::size_t kDefaultMaximumBodyLength = std::size_t{64} << 20;

struct URLRequest {
  std::string HTTPMethod = "GET";    // the method, upper-case
  std::optional<URL> url;            // where to send it; absent requests fail
  HTTPHeaders allHTTPHeaderFields;   // the header fields sent
  std::optional<Bytes> HTTPBody;     // the body; absent: none
  // Idle time-out in seconds: the exchange fails when no data arrives for this long.
  // Taken into the range above; zero, less, or NaN: no time-out.
  double timeoutInterval = 60.0;
  // Whether a cellular interface may carry it (not enforced on this platform).
  bool allowsCellularAccess = true;
  // When a failed exchange is sent again; by default never.
  RetryPolicy retryPolicy;
  // Seconds the whole task may take, retries included; absent: no limit.
  std::optional<double> deadlineInterval;
  // A data task whose (decoded) answer body is longer fails with
  // kURLErrorDataLengthExceedsMaximum, so neither an endless answer nor a compression
  // bomb can exhaust memory. Downloads have no limit.
  std::size_t maximumBodyLength = kDefaultMaximumBodyLength;

  // The header field `name`, absent when not set.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return allHTTPHeaderFields.value(name);
  }
  // Sets or replaces the header field `name`.
  void setValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    allHTTPHeaderFields.set(name, value);
  }
};

}  // namespace vkq::platform
