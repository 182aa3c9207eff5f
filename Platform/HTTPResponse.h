// The head of an HTTP answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/HTTPHeaders.h"
#include "Platform/URL.h"

namespace vkq::platform {

struct HTTPResponse {
  std::optional<URL> url;  // the URL that answered, after redirects
  int statusCode = 0;
  HTTPHeaders allHeaderFields;

  // The media type of "Content-Type", lower-cased, without parameters; absent when
  // the answer has none.
  std::optional<std::string> MIMEType() const;
  // "Content-Length", or -1 when unknown.
  std::int64_t expectedContentLength() const;

  std::string description() const;

  // The status's reason phrase in lower case ("not found"); for a status without a
  // known phrase, its class ("client error"); "server error" above 599.
  static std::string localizedStringForStatusCode(int statusCode);
};

}  // namespace vkq::platform
