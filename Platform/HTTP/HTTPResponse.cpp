#include "Platform/HTTP/HTTPResponse.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace vkq::platform {

HTTPResponse::HTTPResponse(std::optional<URL> url, int statusCode, HTTPHeaders allHeaderFields)
    : url(std::move(url)), statusCode(statusCode), fields_(std::move(allHeaderFields)) {}

HTTPResponse::HTTPResponse(const HTTPResponse& other)
    : url(other.url), statusCode(other.statusCode), fields_(other.allHeaderFields()) {}

HTTPResponse& HTTPResponse::operator=(const HTTPResponse& other) {
  if (this != &other) {
    url = other.url;
    statusCode = other.statusCode;
    setAllHeaderFields(other.allHeaderFields());
  }
  return *this;
}

std::shared_ptr<HTTPResponse> HTTPResponse::withFieldLines(std::optional<URL> url, int statusCode,
                                                           std::string fieldLines) {
  auto response = std::make_shared<HTTPResponse>();
  response->url = std::move(url);
  response->statusCode = statusCode;
  response->fieldLines_ = std::move(fieldLines);
  return response;
}

const HTTPHeaders& HTTPResponse::allHeaderFields() const {
  std::call_once(parsed_, [this] {
    if (!fieldLines_.empty()) fields_ = HTTPHeaders::fromFieldLines(fieldLines_);
  });
  return fields_;
}

void HTTPResponse::setAllHeaderFields(HTTPHeaders fields) {
  allHeaderFields();  // the lines are replaced too, parsed or not
  fieldLines_.clear();
  fields_ = std::move(fields);
}

std::optional<std::string_view> HTTPResponse::firstValue(std::string_view name) const {
  // The lines never change once made, so they can be read while another thread parses.
  if (!fieldLines_.empty()) return HTTPHeaders::firstValueInFieldLines(fieldLines_, name);
  const std::string* found = allHeaderFields().find(name);
  if (!found) return std::nullopt;
  return std::string_view(*found);
}

std::optional<std::string> HTTPResponse::MIMEType() const {
  const std::string* contentType = allHeaderFields().find("Content-Type");
  if (!contentType) return std::nullopt;
  const std::string_view type = trimHeaderSpace(std::string_view(*contentType).substr(0, contentType->find(';')));
  if (type.empty()) return std::nullopt;
  std::string lowered(type);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

std::int64_t HTTPResponse::expectedContentLength() const {
  const std::optional<std::string_view> header = firstValue("Content-Length");
  if (!header) return -1;
  // A length sent twice reads as the list "5, 5" once the fields are merged: its first
  // element, as the first line gives before they are.
  const std::string_view text = trimHeaderSpace(header->substr(0, header->find(',')));
  std::int64_t length = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size() || text.empty() || length < 0) return -1;
  return length;
}

bool HTTPResponse::isContentEncoded() const {
  const std::optional<std::string_view> encoding = firstValue("Content-Encoding");
  return encoding && !encoding->empty() && *encoding != "identity";
}

std::string HTTPResponse::description() const {
  return "<HTTPResponse> { URL: " + (url ? url->absoluteString() : std::string("(null)")) +
         " } { Status Code: " + std::to_string(statusCode) + ", Headers " + allHeaderFields().description() + " }";
}

std::string HTTPResponse::localizedStringForStatusCode(int statusCode) {
  // Reason phrases of RFC 9110 and of the WebDAV and extension RFCs, in status order.
  static constexpr auto kPhrases = std::to_array<std::pair<int, std::string_view>>({
      {100, "continue"},
      {101, "switching protocols"},
      {102, "processing"},
      {103, "early hints"},
      {200, "no error"},
      {201, "created"},
      {202, "accepted"},
      {203, "non-authoritative information"},
      {204, "no content"},
      {205, "reset content"},
      {206, "partial content"},
      {207, "multi-status"},
      {208, "already reported"},
      {300, "multiple choices"},
      {301, "moved permanently"},
      {302, "found"},
      {303, "see other"},
      {304, "not modified"},
      {305, "use proxy"},
      {307, "temporary redirect"},
      {308, "permanent redirect"},
      {400, "bad request"},
      {401, "unauthorized"},
      {402, "payment required"},
      {403, "forbidden"},
      {404, "not found"},
      {405, "method not allowed"},
      {406, "unacceptable"},
      {407, "proxy authentication required"},
      {408, "request timed out"},
      {409, "conflict"},
      {410, "no longer exists"},
      {411, "length required"},
      {412, "precondition failed"},
      {413, "request too large"},
      {414, "requested URL too long"},
      {415, "unsupported media type"},
      {416, "requested range not satisfiable"},
      {417, "expectation failed"},
      {421, "misdirected request"},
      {422, "unprocessable request"},
      {423, "locked"},
      {424, "failed dependency"},
      {425, "too early"},
      {426, "upgrade required"},
      {428, "precondition required"},
      {429, "too many requests"},
      {431, "request header fields too large"},
      {451, "unavailable for legal reasons"},
      {500, "internal server error"},
      {501, "unimplemented"},
      {502, "bad gateway"},
      {503, "service unavailable"},
      {504, "gateway timed out"},
      {505, "unsupported version"},
      {511, "network authentication required"},
  });
  const auto found = std::lower_bound(kPhrases.begin(), kPhrases.end(), statusCode,
                                      [](const auto& entry, int code) { return entry.first < code; });
  if (found != kPhrases.end() && found->first == statusCode) return std::string(found->second);
  if (statusCode >= 100 && statusCode < 200) return "informational";
  if (statusCode >= 200 && statusCode < 300) return "success";
  if (statusCode >= 300 && statusCode < 400) return "redirected";
  if (statusCode >= 400 && statusCode < 500) return "client error";
  return "server error";
}

}  // namespace vkq::platform
