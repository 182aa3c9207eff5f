// The agent's steps that need no server: URL building, serializer selection, the
// debug log, the resume-data names and the fatal assertions.
#include <cstdlib>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Platform/Base/Assert.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::testing::LogCapture;

VKQNetworkAgent& agent() { return VKQNetworkAgent::sharedAgent(); }

// A request whose properties are plain fields (the base class's defaults otherwise).
struct FieldRequest : VKQVeskRequest {
  std::string urlValue, hostValue, pathValue;
  VKQRequestSerializerType requestType = VKQRequestSerializerTypeKXP;
  std::optional<VKQHeaderDictionary> headers;
  std::optional<std::vector<std::string>> auth;
  std::string url() const override { return urlValue; }
  std::string host() const override { return hostValue; }
  std::string path() const override { return pathValue; }
  VKQRequestSerializerType requestSerializerType() const override { return requestType; }
  std::optional<VKQHeaderDictionary> requestHeaderFieldValueDictionary() const override { return headers; }
  std::optional<std::vector<std::string>> requestAuthorizationHeaderFieldArray() const override { return auth; }
  double requestTimeoutInterval() const override { return 7.5; }
  std::size_t maximumResponseLength() const override { return 4096; }
  bool allowsCellularAccess() const override { return false; }
};

TEST(VKQNetworkAgentURL, BuildsFromUrlPathAndHost) {
  const struct {
    const char *url, *host, *path;
    std::optional<std::string> expected;
  } table[] = {
      // An absolute url wins, verbatim (no normalisation, no re-encoding).
      {"http://u.x//a/../b?q=%7e", "http://h.example/api", "http://p.example/x", "http://u.x//a/../b?q=%7e"},
      // A relative url falls through to an absolute path, also verbatim.
      {"relative/x", "http://h.example/api", "https://p.example/./x?y=%2f", "https://p.example/./x?y=%2f"},
      // A host without a trailing "/" gains one before a relative path is resolved.
      {"", "http://h.example/api", "a/b", "http://h.example/api/a/b"},
      // No host: the path stands alone.
      {"", "", "a/b", "a/b"},
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
  request->auth = std::vector<std::string>{"user", "middle", "secret"};
  request->headers = VKQHeaderDictionary{{"X-One", "1"}};
  auto kxp = agent().requestSerializerForRequest(request);
  ASSERT_NE(std::dynamic_pointer_cast<VKQKXPRequestSerializer>(kxp), nullptr);
  EXPECT_EQ(std::tuple(kxp->timeoutInterval(), kxp->allowsCellularAccess(), kxp->maximumBodyLength()),
            std::tuple(7.5, false, 4096u));
  EXPECT_EQ(kxp->valueForHTTPHeaderField("Authorization"), "Basic dXNlcjpzZWNyZXQ=");  // first and last: user:secret
  EXPECT_EQ(kxp->valueForHTTPHeaderField("X-One"), "1");

  // The header dictionary is applied last.
  request->headers = VKQHeaderDictionary{{"Authorization", "Bearer token"}};
  request->requestType = VKQRequestSerializerTypeJSON;
  auto json = agent().requestSerializerForRequest(request);
  EXPECT_NE(std::dynamic_pointer_cast<VKQJSONRequestSerializer>(json), nullptr);
  EXPECT_EQ(json->valueForHTTPHeaderField("Authorization"), "Bearer token");
  // A field that would break the message is an error that names it, not a field dropped.
  request->headers = VKQHeaderDictionary{{"X-One", "1"}, {"X-Split", "a\r\nX-Injected: 1"}};
  vkq::platform::ErrorPtr error;
  EXPECT_EQ(agent().requestSerializerForRequest(request, &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->localizedDescription().find("\"X-Split\""), std::string::npos);
}

// Each setting on a line of its own between the start and end markers.
TEST(VKQNetworkAgentDebugLog, ShowsTheURLTheSettingsAndTheHeaderFields) {
  auto request = VKQVesk::initWithKXPUrl("http://h.example/k", nullptr, 0x0A, 2);
  request->headersPromise()(VKQHeaderDictionary{{"X-Trace", "on"}});
  auto serializer = agent().requestSerializerForRequest(request);
  LogCapture log;
  agent().sessionDebugWithRequest(*serializer);
  const auto entries = log.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[2], vkq::platform::LogEntry{"======================== end   request ========================"});
  for (const char* line : {"   url                 =  http://h.example/k\n", "   xorKey              =  0xA\n",
                           "   bigTndian           =  YES\n", "\"X-Trace\" = on;"}) {
    EXPECT_NE(entries[1].front().find(line), std::string::npos) << line;
  }
}

TEST(VKQNetworkAgentResume, FilesAreNamedByTheMd5OfTheTextUpToItsFirstNulInTheIncompleteFolder) {
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString(std::string("a\0bc", 4)), "0cc175b9c0f1b6a831c399e269772661");
  vkq::testing::PrivateTemporaryDirectory temporary;
  EXPECT_EQ(agent().incompleteDownloadTempPathForDownloadPath("a"),
            vkq::platform::URL::fileURLWithPath(std::string(std::getenv("TMPDIR")) +
                                                "/Incomplete/0cc175b9c0f1b6a831c399e269772661"));
}

// "<file>: <description>" of the fatal assertion `call` stops on.
std::string assertionOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const vkq::platform::InternalInconsistencyException& e) {
    return e.file() + ": " + e.description();
  }
  return "no assertion";
}

TEST(VKQNetworkAgentAssertions, ReportTheirFixedTextsFromTheAgentsSourceFile) {
  EXPECT_EQ(assertionOf([] { agent().addRequest(nullptr); }),
            "Classes/VKQNetworkAgent: Invalid parameter not satisfying: request != nil");
  EXPECT_EQ(assertionOf([] { agent().incompleteDownloadTempPathForDownloadPath(""); }),  // from +Downloads
            "Classes/VKQNetworkAgent: Invalid parameter not satisfying: string != nil && [string length] > 0");

  // A JSON method, or a serializer type, outside the enumeration selects no task and
  // sets no error.
  auto noTask = VKQVesk::initWithJSONUrl("http://127.0.0.1:9/x", nullptr, static_cast<VKQRequestMethod>(6));
  vkq::platform::ErrorPtr error;
  EXPECT_EQ(agent().sessionTaskForRequest(noTask, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  const std::string noTaskText = "Classes/VKQNetworkAgent: requestTask should not be nil";
  EXPECT_EQ(assertionOf([&] { agent().addRequest(noTask); }), noTaskText);
  noTask->requestMethedPromise()(VKQRequestMethodGET)->requestSerializerTypePromise()(
      static_cast<VKQRequestSerializerType>(2));
  EXPECT_EQ(assertionOf([&] { agent().addRequest(noTask); }), noTaskText);
  EXPECT_EQ(agent().recordCount(), 0u);
}

}  // namespace
