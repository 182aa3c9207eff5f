// A URL request: what the transport sends. A value; copying it gives the mutable copy
// that serializers work on.
#pragma once

#include <optional>
#include <string>

#include "Platform/Base/Bytes.h"
#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/HTTP/URL.h"

namespace vkq::platform {

struct URLRequest {
  std::string HTTPMethod = "GET";    // the method, upper-case
  std::optional<URL> url;            // where to send it; absent requests fail
  HTTPHeaders allHTTPHeaderFields;   // the header fields sent
  std::optional<Bytes> HTTPBody;     // the body; absent: none
  // Idle time-out in seconds: the exchange fails when no data arrives for this long.
  double timeoutInterval = 60.0;
  // Whether a cellular interface may carry it (not enforced on this platform).
  bool allowsCellularAccess = true;

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
