// The transport's tables and rules that need no server: libcurl error mapping,
// reachability from interfaces, and the resume data format.
#include <gtest/gtest.h>

#include <algorithm>

#include "Platform/CurlErrors.h"
#include "Platform/KeyedArchive.h"
#include "Platform/NetworkReachabilityManager.h"
#include "Platform/ResumeData.h"

namespace vkq::platform {
namespace {

TEST(CurlErrorMapping, EachTransportFailureHasItsURLErrorCode) {
  // The failures the transport meets, with the code an application sees for each.
  const std::vector<std::pair<CURLcode, URLErrorCode>> table = {
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

TEST(CurlErrorMapping, ErrorCarriesTheDetailTextAndTheFailingURL) {
  const ErrorPtr detailed = makeCurlError(CURLE_COULDNT_CONNECT, "Failed to connect to 127.0.0.1 port 1", "http://x/");
  EXPECT_EQ(detailed->domain(), kURLErrorDomain);
  EXPECT_EQ(detailed->code(), kURLErrorCannotConnectToHost);
  EXPECT_EQ(detailed->localizedDescription(), "Failed to connect to 127.0.0.1 port 1");
  EXPECT_EQ(detailed->userInfo().failingURL, "http://x/");
  // Without libcurl's detail, its generic text for the code.
  EXPECT_EQ(makeCurlError(CURLE_COULDNT_CONNECT, "", "")->localizedDescription(),
            curl_easy_strerror(CURLE_COULDNT_CONNECT));
  EXPECT_FALSE(makeCurlError(CURLE_COULDNT_CONNECT, "", "")->userInfo().failingURL.has_value());
}

TEST(Reachability, StatusFollowsTheInterfacesThatAreUp) {
  using S = NetworkReachabilityStatus;
  const NetworkInterface loopback{"lo", true, true};
  const NetworkInterface ethernet{"eth0", true, false};
  const NetworkInterface wireless{"wlan0", true, false};
  const NetworkInterface cellular{"wwan0", true, false};
  const NetworkInterface down{"eth1", false, false};
  const NetworkInterface loopbackDown{"lo", false, true};

  EXPECT_EQ(reachabilityStatusForInterfaces({}), S::NotReachable);
  EXPECT_EQ(reachabilityStatusForInterfaces({loopbackDown, down}), S::NotReachable);
  // Loopback alone must not block local traffic.
  EXPECT_EQ(reachabilityStatusForInterfaces({loopback, down}), S::ReachableViaWiFi);
  EXPECT_EQ(reachabilityStatusForInterfaces({loopback, ethernet}), S::ReachableViaWiFi);
  EXPECT_EQ(reachabilityStatusForInterfaces({wireless}), S::ReachableViaWiFi);
  EXPECT_EQ(reachabilityStatusForInterfaces({loopback, cellular}), S::ReachableViaWWAN);
  EXPECT_EQ(reachabilityStatusForInterfaces({cellular, wireless}), S::ReachableViaWiFi);
  EXPECT_EQ(reachabilityStatusForInterfaces({NetworkInterface{"rmnet_data0", true, false}}), S::ReachableViaWWAN);
}

TEST(Reachability, UnknownUntilMonitoringAndOverriddenThroughTheSeam) {
  NetworkReachabilityManager manager;
  EXPECT_EQ(manager.networkReachabilityStatus(), NetworkReachabilityStatus::Unknown);
  manager.startMonitoring();
  // This machine runs the tests over loopback at least.
  EXPECT_TRUE(manager.isReachable());

  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::NotReachable);
  EXPECT_EQ(manager.networkReachabilityStatus(), NetworkReachabilityStatus::NotReachable);
  EXPECT_FALSE(NetworkReachabilityManager().isReachable());
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::ReachableViaWWAN);
  EXPECT_EQ(manager.networkReachabilityStatus(), NetworkReachabilityStatus::ReachableViaWWAN);
  NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);

  manager.stopMonitoring();
  EXPECT_EQ(manager.networkReachabilityStatus(), NetworkReachabilityStatus::Unknown);
}

ResumeData sampleResumeData() {
  return ResumeData{"https://example.test/a.zip", {{"Accept", "*/*"}, {"X-Token", "t"}}, 30.0, 12345,
                    "/tmp/vkq-partial-downloads/download-abc123", "\"etag-1\""};
}

TEST(ResumeDataFormat, RoundTripsThroughABinaryPropertyList) {
  const ResumeData original = sampleResumeData();
  const Bytes data = original.encoded();
  ASSERT_GE(data.size(), 8u);
  EXPECT_EQ(stringFromBytes(Bytes(data.begin(), data.begin() + 6)), "bplist");
  std::string reason;
  const auto decoded = ResumeData::decode(data, reason);
  ASSERT_TRUE(decoded.has_value()) << reason;
  EXPECT_EQ(decoded->url, original.url);
  EXPECT_EQ(decoded->bytesReceived, original.bytesReceived);
  EXPECT_EQ(decoded->partialFilePath, original.partialFilePath);
  EXPECT_EQ(decoded->validator, original.validator);
  EXPECT_DOUBLE_EQ(decoded->timeoutInterval, original.timeoutInterval);
  auto headers = decoded->headerFields;
  std::sort(headers.begin(), headers.end());
  EXPECT_EQ(headers, original.headerFields);
}

TEST(ResumeDataFormat, RefusesDataOfAnotherShape) {
  std::string reason;
  EXPECT_FALSE(ResumeData::decode(bytesFromString("not a plist"), reason));
  EXPECT_FALSE(reason.empty());

  KeyedArchiver foreign;  // a property list, but not ours
  foreign.encodeString("x", "DownloadURL");
  EXPECT_FALSE(ResumeData::decode(foreign.encodedData(), reason));

  ResumeData noBytes = sampleResumeData();
  noBytes.bytesReceived = 0;  // nothing to continue from
  EXPECT_FALSE(ResumeData::decode(noBytes.encoded(), reason));
  ResumeData noValidator = sampleResumeData();
  noValidator.validator.clear();  // If-Range would have nothing to compare
  EXPECT_FALSE(ResumeData::decode(noValidator.encoded(), reason));
}

}  // namespace
}  // namespace vkq::platform
