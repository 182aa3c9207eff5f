#include "Platform/HTTP/RetryPolicy.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cmath>
#include <ctime>

namespace vkq::platform {
namespace {

RetryPolicy::Duration seconds(double value) {
  return std::chrono::duration_cast<RetryPolicy::Duration>(std::chrono::duration<double>(value));
}

}  // namespace

bool RetryPolicy::allowsMethod(std::string_view method) const {
  return retriesNonIdempotentMethods || (method != "POST" && method != "PATCH");
}

bool RetryPolicy::retriesStatus(long status) const {
  return std::find(statusCodes.begin(), statusCodes.end(), status) != statusCodes.end();
}

RetryPolicy::Duration RetryPolicy::delayBefore(int retry, const std::optional<std::string>& retryAfter,
                                               std::mt19937_64& random) const {
  const double cap = std::max(0.0, maximumDelay);
  if (retryAfter) {
    if (const auto asked = parseRetryAfter(*retryAfter)) return std::min(*asked, seconds(cap));
  }
  // 2^(retry-1) without overflow: beyond 2^62 the cap has long been reached.
  const double ceiling = std::min(cap, std::max(0.0, baseDelay) * std::ldexp(1.0, std::clamp(retry - 1, 0, 62)));
  return seconds(std::uniform_real_distribution<double>(0.0, ceiling)(random));
}

std::optional<RetryPolicy::Duration> RetryPolicy::parseRetryAfter(std::string_view value) {
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
  std::uint32_t delta = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), delta);
  if (!value.empty() && end == value.data() + value.size()) {
    if (error == std::errc()) return std::chrono::seconds(delta);
    // All digits but too many: longer than any cap.
    if (error == std::errc::result_out_of_range) return std::chrono::seconds(UINT32_MAX);
  }
  // An HTTP date; libcurl parses the three formats HTTP allows.
  const std::string text(value);
  const time_t at = curl_getdate(text.c_str(), nullptr);
  if (at == -1) return std::nullopt;
  // Clamped like a delta, so that a far date cannot overflow the duration.
  return std::chrono::seconds(std::clamp<time_t>(at - std::time(nullptr), 0, UINT32_MAX));
}

}  // namespace vkq::platform
