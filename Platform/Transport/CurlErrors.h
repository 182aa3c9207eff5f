// Transport failures as errors of kURLErrorDomain. Internal to the transport.
#pragma once

#include <string>
#include <string_view>

#include <curl/curl.h>

#include "Platform/Base/Error.h"

namespace vkq::platform {

// The URL error code of a libcurl failure (CURLE_OK has none: kURLErrorUnknown).
URLErrorCode URLErrorCodeForCurlCode(CURLcode code);

// An error of kURLErrorDomain with `description` as its localized description and the
// URL of the failed exchange.
ErrorPtr makeTransportError(URLErrorCode code, std::string description, std::string_view failingURL);

// The error of a libcurl failure: its code mapped, libcurl's detailed text (or the
// code's generic text when `detail` is empty) as the description.
ErrorPtr makeCurlError(CURLcode code, std::string_view detail, std::string_view failingURL);

}  // namespace vkq::platform
