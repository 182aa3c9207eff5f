#include "Platform/HTTPResponse.h"

#include <charconv>

namespace vkq::platform {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::optional<std::string> HTTPResponse::MIMEType() const {
  const auto contentType = allHeaderFields.value("Content-Type");
  if (!contentType) return std::nullopt;
  const std::string_view type = trimmed(std::string_view(*contentType).substr(0, contentType->find(';')));
  if (type.empty()) return std::nullopt;
  std::string lowered(type);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

std::int64_t HTTPResponse::expectedContentLength() const {
  const auto header = allHeaderFields.value("Content-Length");
  if (!header) return -1;
  const std::string_view text = trimmed(*header);
  std::int64_t length = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size() || text.empty() || length < 0) return -1;
  return length;
}

std::string HTTPResponse::description() const {
  return "<HTTPResponse> { URL: " + (url ? url->absoluteString() : std::string("(null)")) +
         " } { Status Code: " + std::to_string(statusCode) + ", Headers " + allHeaderFields.description() + " }";
}

}  // namespace vkq::platform
