// The agent's steps that need no server: URL building, serializer selection, the
// debug log, the resume-data names and the fatal assertions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/VKQVesk.h"
#include "Platform/Base/Assert.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::InternalInconsistencyException;
using vkq::testing::AgentTest;
using vkq::testing::FieldRequest;
using vkq::testing::LogCapture;

VKQNetworkAgent& agent() { return VKQNetworkAgent::sharedAgent(); }

TEST(VKQNetworkAgentURL, BuildsFromUrlPathAndHost) {
  const struct {
    const char *url, *host, *path;
    std::optional<std::string> expected;
  } table[] = {
      // An absolute url wins, verbatim (no normalisation, no re-encoding).
      {"http://u.example//a/../b?q=%7e", "http://h.example/api", "http://p.example/x", "http://u.example//a/../b?q=%7e"},
      // A relative url falls through to an absolute path, also verbatim.
      {"relative/x", "http://h.example/api", "https://p.example/./x?y=%2f", "https://p.example/./x?y=%2f"},
      // A host without a trailing "/" gains one before a relative path is resolved.
      {"", "http://h.example/api", "a/b", "http://h.example/api/a/b"},
      {"", "http://h.example/api/", "a/b", "http://h.example/api/a/b"},
      // A path from the root replaces the host's path.
      {"", "http://h.example/api", "/x", "http://h.example/x"},
      {"", "http://h.example:8080", "v1/items?id=3", "http://h.example:8080/v1/items?id=3"},
      // No host: the path stands alone.
      {"", "", "a/b", "a/b"},
      {"", "", "", std::nullopt},
  };
  for (const auto& row : table) {
    FieldRequest request;
    request.urlValue = row.url;
    request.hostValue = row.host;
    request.pathValue = row.path;
    EXPECT_EQ(agent().buildRequestUrl(request), row.expected) << row.url << " | " << row.host << " | " << row.path;
  }
}

TEST(VKQNetworkAgentSerializers, PicksTheSerializerByTypeAndConfiguresIt) {
  auto request = std::make_shared<FieldRequest>();
  request->timeout = 7.5;
  request->cellular = false;
  request->authorization = std::vector<std::string>{"user", "middle", "secret"};
  request->headers = VKQHeaderDictionary{{"X-One", "1"}};
  auto kxp = agent().requestSerializerForRequest(request);
  ASSERT_NE(std::dynamic_pointer_cast<VKQKXPRequestSerializer>(kxp), nullptr);
  EXPECT_EQ(kxp->request(), request);
  EXPECT_EQ(kxp->timeoutInterval(), 7.5);
  EXPECT_FALSE(kxp->allowsCellularAccess());
  EXPECT_EQ(kxp->valueForHTTPHeaderField("Authorization"), "Basic dXNlcjpzZWNyZXQ=");  // first and last: user:secret
  EXPECT_EQ(kxp->valueForHTTPHeaderField("X-One"), "1");

  // The header dictionary is applied last.
  request->headers = VKQHeaderDictionary{{"Authorization", "Bearer token"}};
  request->requestType = VKQRequestSerializerTypeJSON;
  auto json = agent().requestSerializerForRequest(request);
  EXPECT_NE(std::dynamic_pointer_cast<VKQJSONRequestSerializer>(json), nullptr);
  EXPECT_EQ(json->valueForHTTPHeaderField("Authorization"), "Bearer token");
  request->requestType = static_cast<VKQRequestSerializerType>(2);
  EXPECT_EQ(agent().requestSerializerForRequest(request), nullptr);
}

class VKQNetworkAgentDebugLog : public AgentTest {};

TEST_F(VKQNetworkAgentDebugLog, ShowsTheURLTheSettingsAndTheDefaultHeaderFieldsToTheLetter) {
  auto request = VKQVesk::initWithKXPUrl("http://h.example/k", nullptr, 0x0A, 2);
  request->compressPromise()(false)->releaseVersionPromise()(7)->insertAtBeginBodyPromise()(0x1234);
  request->nonProtocolPromise()()->headersPromise()(VKQHeaderDictionary{{"X-Trace", "on"}});
  auto serializer = agent().requestSerializerForRequest(request);
  LogCapture log;
  agent().sessionDebugWithRequest(*serializer);
  const std::string header = serializer->HTTPRequestHeaders().description();
  EXPECT_NE(header.find("\"X-Trace\" = on;"), std::string::npos) << header;
  const std::vector<vkq::platform::LogEntry> entries = {
      {"======================== start request ========================"},
      {"\n"
       "                           url                 =  http://h.example/k\n"
       "                           version             =  2\n"
       "                           xorKey              =  0xA\n"
       "                           compress            =  NO\n"
       "                           insertAtBeginBody   =  4660\n"
       "                           uploadOSType        =  YES\n"
       "                           packageName         =  (null)\n"
       "                           releaseVersion      =  7\n"
       "                           bigTndian           =  YES\n"
       "                           nonProtocol         =  YES\n"
       "                           header              =  " + header + "\n"},
      {"======================== end   request ========================"},
  };
  EXPECT_EQ(log.entries(), entries);
}

TEST_F(VKQNetworkAgentDebugLog, IsWrittenOncePerKXPStartEvenWhenFramingFailsAndNeverForJSON) {
  LogCapture log;
  // An empty payload cannot be framed: the request fails, but only after the log.
  auto kxpCalls = vkq::testing::start(*VKQVesk::initWithKXPUrl("http://127.0.0.1:9/kxp", std::make_shared<Bytes>()));
  auto jsonCalls = vkq::testing::start(*VKQVesk::initWithJSONUrl("http://127.0.0.1:9/json", nlohmann::json::object()));
  EXPECT_EQ(log.count("======================== start request ========================"), 1u);
  EXPECT_EQ(log.count("======================== end   request ========================"), 1u);
  ASSERT_TRUE(runUntil([&] { return kxpCalls->outcomes() == 1 && jsonCalls->outcomes() == 1; }));
  EXPECT_EQ(kxpCalls->lastCode(), -2);
}

TEST(VKQNetworkAgentResume, Md5NamesAre32LowerCaseHexDigitsOfTheTextUpToItsFirstNul) {
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString("abc"), "900150983cd24fb0d6963f7d28e17f72");  // RFC 1321
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString(std::string("a\0bc", 4)), "0cc175b9c0f1b6a831c399e269772661");
}

TEST(VKQNetworkAgentResume, CacheFolderFollowsTMPDIRAndIsRetriedAfterAFailure) {
  const char* original = std::getenv("TMPDIR");
  const std::optional<std::string> saved = original ? std::optional<std::string>(original) : std::nullopt;
  vkq::testing::ScratchFolder temporary;
  setenv("TMPDIR", (temporary.path().string() + "/").c_str(), 1);
  EXPECT_EQ(agent().incompleteDownloadTempPathForDownloadPath("/d/a.zip"),
            vkq::platform::URL::fileURLWithPath((temporary / ("Incomplete/" + VKQNetworkAgent::md5StringFromString("/d/a.zip"))).string()));
  EXPECT_TRUE(std::filesystem::is_directory(temporary / "Incomplete"));

  // A regular file where the temporary directory should be: no folder can be made.
  const std::string blocker = temporary / "blocker";
  std::ofstream(blocker) << "x";
  setenv("TMPDIR", blocker.c_str(), 1);
  LogCapture log;
  EXPECT_EQ(agent().incompleteDownloadTempPathForDownloadPath("/d/a.zip"), std::nullopt);
  EXPECT_EQ(log.count("Failed to create cache directory at"), 1u);
  std::filesystem::remove(blocker);
  std::filesystem::create_directory(blocker);
  EXPECT_EQ(agent().incompleteDownloadTempCacheFolder(), blocker + "/Incomplete");  // each call tries again
  saved ? setenv("TMPDIR", saved->c_str(), 1) : unsetenv("TMPDIR");
}

// "<file>: <description>" of the fatal assertion `call` stops on.
template <typename Call>
std::string assertionOf(Call call) {
  try {
    call();
  } catch (const InternalInconsistencyException& e) {
    return e.file() + ": " + e.description();
  }
  return "no assertion";
}

TEST(VKQNetworkAgentAssertions, ReportTheirFixedTextsFromTheAgentsSourceFile) {
  const std::string invalid = "Classes/VKQNetworkAgent: Invalid parameter not satisfying: ";
  EXPECT_EQ(assertionOf([] { agent().addRequest(nullptr); }), invalid + "request != nil");
  EXPECT_EQ(assertionOf([] { agent().cancelRequest(nullptr); }), invalid + "request != nil");
  EXPECT_EQ(assertionOf([] { VKQNetworkAgent::md5StringFromString(""); }),
            invalid + "string != nil && [string length] > 0");

  // A JSON method, or a serializer type, outside the enumeration selects no task and
  // sets no error.
  auto noTask = std::make_shared<FieldRequest>();
  noTask->urlValue = "http://127.0.0.1:9/x";
  noTask->requestType = VKQRequestSerializerTypeJSON;
  noTask->method = static_cast<VKQRequestMethod>(6);
  vkq::platform::ErrorPtr error;
  EXPECT_EQ(agent().sessionTaskForRequest(noTask, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(assertionOf([&] { agent().addRequest(noTask); }), "Classes/VKQNetworkAgent: requestTask should not be nil");
  noTask->requestType = static_cast<VKQRequestSerializerType>(2);
  EXPECT_EQ(assertionOf([&] { agent().addRequest(noTask); }), "Classes/VKQNetworkAgent: requestTask should not be nil");
  EXPECT_EQ(agent().recordCount(), 0u);
}

}  // namespace
