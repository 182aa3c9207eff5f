// The transport's tables that need no server: libcurl error mapping.
#include <gtest/gtest.h>

#include "Platform/Transport/CurlErrors.h"

namespace vkq::platform {
namespace {

TEST(CurlErrorMapping, EachTransportFailureHasItsURLErrorCode) {
  // The failures the transport meets, with the code an application sees for each.
  const std::pair<CURLcode, URLErrorCode> table[] = {
      {CURLE_COULDNT_CONNECT, kURLErrorCannotConnectToHost},
      {CURLE_COULDNT_RESOLVE_HOST, kURLErrorCannotFindHost},
      {CURLE_COULDNT_RESOLVE_PROXY, kURLErrorCannotFindHost},
      {CURLE_OPERATION_TIMEDOUT, kURLErrorTimedOut},
      {CURLE_PEER_FAILED_VERIFICATION, kURLErrorServerCertificateUntrusted},
      {CURLE_SSL_CONNECT_ERROR, kURLErrorSecureConnectionFailed},
      {CURLE_PARTIAL_FILE, kURLErrorNetworkConnectionLost},
      {CURLE_RECV_ERROR, kURLErrorNetworkConnectionLost},
      {CURLE_SEND_ERROR, kURLErrorNetworkConnectionLost},
      {CURLE_GOT_NOTHING, kURLErrorNetworkConnectionLost},
      {CURLE_HTTP2_STREAM, kURLErrorNetworkConnectionLost},
      {CURLE_TOO_MANY_REDIRECTS, kURLErrorHTTPTooManyRedirects},
      {CURLE_UNSUPPORTED_PROTOCOL, kURLErrorUnsupportedURL},
      {CURLE_URL_MALFORMAT, kURLErrorBadURL},
      {CURLE_WEIRD_SERVER_REPLY, kURLErrorBadServerResponse},
      {CURLE_BAD_CONTENT_ENCODING, kURLErrorCannotDecodeContentData},
      {CURLE_WRITE_ERROR, kURLErrorCannotWriteToFile},
      {CURLE_FILESIZE_EXCEEDED, kURLErrorDataLengthExceedsMaximum},
      {CURLE_ABORTED_BY_CALLBACK, kURLErrorCancelled},
      {CURLE_OUT_OF_MEMORY, kURLErrorUnknown},
      {CURLE_OK, kURLErrorUnknown},  // not a failure: never mapped to success
  };
  for (const auto& [curl, expected] : table) {
    EXPECT_EQ(URLErrorCodeForCurlCode(curl), expected) << curl_easy_strerror(curl);
  }
}

TEST(CurlErrorMapping, ErrorCarriesTheDetailTextOrLibcurlsTextAndTheFailingURL) {
  const ErrorPtr detailed = makeCurlError(CURLE_COULDNT_CONNECT, "Failed to connect to 127.0.0.1 port 1", "http://x/");
  EXPECT_EQ(detailed->description(),
            "Error Domain=vkq.platform.url Code=-1004 \"Failed to connect to 127.0.0.1 port 1\"");
  EXPECT_EQ(detailed->userInfo().failingURL, "http://x/");
  const ErrorPtr plain = makeCurlError(CURLE_COULDNT_CONNECT, "", "");  // libcurl's text, no URL
  EXPECT_EQ(plain->localizedDescription(), curl_easy_strerror(CURLE_COULDNT_CONNECT));
  EXPECT_FALSE(plain->userInfo().failingURL.has_value());
}

}  // namespace
}  // namespace vkq::platform
