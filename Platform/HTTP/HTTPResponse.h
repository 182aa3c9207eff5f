// The head of an HTTP answer.
//
// A head received by the transport keeps its header lines as they came and parses them
// into fields only when the fields are first asked for as a whole: most answers are read
// for their status, length and body only. Reading is thread-safe; changing a response
// is not.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/HTTP/URL.h"

namespace vkq::platform {

class HTTPResponse {
 public:
  HTTPResponse() = default;
  // A head made of parsed fields.
  HTTPResponse(std::optional<URL> url, int statusCode, HTTPHeaders allHeaderFields);
  // Copies; the copy parses the received lines on its own.
  HTTPResponse(const HTTPResponse& other);
  // Copies, like the copy constructor.
  HTTPResponse& operator=(const HTTPResponse& other);

  // A received head: `fieldLines` are its header lines after the status line, each
  // "Name: value" and ended by a line break, parsed on first use.
  static std::shared_ptr<HTTPResponse> withFieldLines(std::optional<URL> url, int statusCode, std::string fieldLines);

  std::optional<URL> url;  // the URL that answered, after redirects
  int statusCode = 0;  // the final status, after redirects

  // The header fields (parsed from the received lines on first use).
  const HTTPHeaders& allHeaderFields() const;
  void setAllHeaderFields(HTTPHeaders fields);

  // The media type of "Content-Type", lower-cased, without parameters; absent when
  // the answer has none.
  std::optional<std::string> MIMEType() const;
  // "Content-Length" (its first value), or -1 when unknown.
  std::int64_t expectedContentLength() const;
  // True when the body came in a content coding ("Content-Encoding" other than
  // "identity"): the length announced is then not the length decoded.
  bool isContentEncoded() const;

  // URL, status and fields, for logs.
  std::string description() const;

  // The status's reason phrase in lower case ("not found"); for a status without a
  // known phrase, its class ("client error"); "server error" above 599.
  static std::string localizedStringForStatusCode(int statusCode);

 private:
  // The first value of `name`: from the received lines when there are any (no parse
  // needed), else from the fields.
  std::optional<std::string_view> firstValue(std::string_view name) const;

  mutable std::once_flag parsed_;
  std::string fieldLines_;  // as received; not changed by the parse
  mutable HTTPHeaders fields_;
};

}  // namespace vkq::platform
