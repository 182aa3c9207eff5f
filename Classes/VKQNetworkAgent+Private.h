// Helpers shared by the agent's implementation files (VKQNetworkAgent*.cpp).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Base/Error.h"

namespace VKQNetworkAgentSupport {

// The assertion text for a download path or MD5 argument that is empty.
inline constexpr const char* kStringNotEmpty = "Invalid parameter not satisfying: string != nil && [string length] > 0";

// An error of `domain` and `code` with a localized description.
inline vkq::platform::ErrorPtr describedError(const char* domain, std::int64_t code, std::string description,
                                              std::optional<std::string> failingURL = std::nullopt) {
  vkq::platform::ErrorUserInfo info;
  info.localizedDescription = std::move(description);
  info.failingURL = std::move(failingURL);
  return vkq::platform::makeError(domain, code, std::move(info));
}

// What a serializer reported when building a URL request, or a plain error when it
// gave no request and said nothing.
inline vkq::platform::ErrorPtr requestBuildError(vkq::platform::ErrorPtr reported) {
  if (reported) return reported;
  return describedError(vkq::platform::kURLRequestSerializationErrorDomain, vkq::platform::kURLErrorBadURL,
                        "The URL request could not be built.");
}

}  // namespace VKQNetworkAgentSupport
