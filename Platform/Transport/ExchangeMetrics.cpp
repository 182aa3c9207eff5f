#include "Platform/Transport/ExchangeMetrics.h"

namespace vkq::platform {
namespace {

curl_off_t offInfo(CURL* handle, CURLINFO info) {
  curl_off_t value = 0;
  return curl_easy_getinfo(handle, info, &value) == CURLE_OK ? value : 0;
}

long longInfo(CURL* handle, CURLINFO info) {
  long value = 0;
  return curl_easy_getinfo(handle, info, &value) == CURLE_OK ? value : 0;
}

const char* versionName(long version) {
  switch (version) {
    case CURL_HTTP_VERSION_1_0:
      return "1.0";
    case CURL_HTTP_VERSION_1_1:
      return "1.1";
    case CURL_HTTP_VERSION_2_0:
      return "2";
    case CURL_HTTP_VERSION_3:
      return "3";
    default:
      return "";
  }
}

}  // namespace

void recordExchangeMetrics(CURL* handle, URLSessionTaskMetrics& metrics) {
  const bool answered = longInfo(handle, CURLINFO_RESPONSE_CODE) > 0;
  metrics.reusedConnection = answered && longInfo(handle, CURLINFO_NUM_CONNECTS) == 0;
  // libcurl reports 0 for a step it did not reach; on a reused connection the
  // connection steps were reached at once.
  const auto step = [&](CURLINFO info, bool reachedAtOnce) {
    const curl_off_t micros = offInfo(handle, info);
    return micros > 0 || reachedAtOnce ? static_cast<double>(micros) / 1e6 : -1.0;
  };
  metrics.nameLookup = step(CURLINFO_NAMELOOKUP_TIME_T, metrics.reusedConnection);
  metrics.connect = step(CURLINFO_CONNECT_TIME_T, metrics.reusedConnection);
  metrics.secureConnect = step(CURLINFO_APPCONNECT_TIME_T, false);
  metrics.requestSent = step(CURLINFO_PRETRANSFER_TIME_T, false);
  metrics.firstByte = step(CURLINFO_STARTTRANSFER_TIME_T, false);
  metrics.total = step(CURLINFO_TOTAL_TIME_T, true);
  metrics.bytesSent += longInfo(handle, CURLINFO_REQUEST_SIZE) + offInfo(handle, CURLINFO_SIZE_UPLOAD_T);
  metrics.bytesReceived += longInfo(handle, CURLINFO_HEADER_SIZE) + offInfo(handle, CURLINFO_SIZE_DOWNLOAD_T);
  metrics.httpVersion = versionName(longInfo(handle, CURLINFO_HTTP_VERSION));
}

}  // namespace vkq::platform
