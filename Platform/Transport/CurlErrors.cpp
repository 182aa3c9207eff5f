#include "Platform/Transport/CurlErrors.h"

namespace vkq::platform {

URLErrorCode URLErrorCodeForCurlCode(CURLcode code) {
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      return kURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT:
      return kURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return kURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return kURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return kURLErrorTimedOut;
    case CURLE_PEER_FAILED_VERIFICATION:
      return kURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
      return kURLErrorSecureConnectionFailed;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3:
      return kURLErrorNetworkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return kURLErrorHTTPTooManyRedirects;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_RANGE_ERROR:
      return kURLErrorBadServerResponse;
    case CURLE_BAD_CONTENT_ENCODING:
      return kURLErrorCannotDecodeContentData;
    case CURLE_WRITE_ERROR:
      return kURLErrorCannotWriteToFile;
    case CURLE_FILESIZE_EXCEEDED:
      return kURLErrorDataLengthExceedsMaximum;
    case CURLE_ABORTED_BY_CALLBACK:
      return kURLErrorCancelled;
    default:
      return kURLErrorUnknown;
  }
}

ErrorPtr makeTransportError(URLErrorCode code, std::string description, std::string_view failingURL) {
  ErrorUserInfo info;
  info.localizedDescription = std::move(description);
  if (!failingURL.empty()) info.failingURL = std::string(failingURL);
  return makeError(kURLErrorDomain, code, std::move(info));
}

ErrorPtr makeCurlError(CURLcode code, std::string_view detail, std::string_view failingURL) {
  std::string description = detail.empty() ? std::string(curl_easy_strerror(code)) : std::string(detail);
  return makeTransportError(URLErrorCodeForCurlCode(code), std::move(description), failingURL);
}

}  // namespace vkq::platform
