// A URL request: what the transport sends. A value; copying it gives the mutable copy
// that serializers work on.
#pragma once

#include <optional>
#include <string>

#include "Platform/Base/Bytes.h"
#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/HTTP/RetryPolicy.h"
#include "Platform/HTTP/URL.h"

namespace vkq::platform {

struct URLRequest {
  std::string HTTPMethod = "GET";
  std::optional<URL> url;
  HTTPHeaders allHTTPHeaderFields;
  std::optional<Bytes> HTTPBody;
  // Idle time-out in seconds: the exchange fails when no data arrives for this long.
  double timeoutInterval = 60.0;
  bool allowsCellularAccess = true;
  // When a failed exchange is sent again; by default never.
  RetryPolicy retryPolicy;
  // Seconds the whole task may take, retries included; absent: no limit.
  std::optional<double> deadlineInterval;

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return allHTTPHeaderFields.value(name);
  }
  void setValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    allHTTPHeaderFields.set(name, value);
  }
};

}  // namespace vkq::platform
