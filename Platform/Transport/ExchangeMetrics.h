// Reads what libcurl measured of one exchange into a task's metrics. Internal to the
// transport; worker thread.
#pragma once

#include <curl/curl.h>

#include "Platform/Session/URLSessionTaskMetrics.h"

namespace vkq::platform {

// Adds the exchange that just ended on `handle` to `metrics`: its timings replace those
// of earlier exchanges, its byte counts add to theirs.
void recordExchangeMetrics(CURL* handle, URLSessionTaskMetrics& metrics);

}  // namespace vkq::platform
