// The agent's steps that need no server: URL building, serializer selection, the
// debug log, the resume-data helpers and the fatal assertions.
#include <gtest/gtest.h>

#include <plist/plist.h>

#include <cstdlib>
#include <fstream>

#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQVesk.h"
#include "Platform/Assert.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::InternalInconsistencyException;
using vkq::testing::AgentTest;
using vkq::testing::FieldRequest;
using vkq::testing::LogCapture;

std::shared_ptr<FieldRequest> requestWith(std::string url, std::string host, std::string path) {
  auto request = std::make_shared<FieldRequest>();
  request->urlValue = std::move(url);
  request->hostValue = std::move(host);
  request->pathValue = std::move(path);
  return request;
}

TEST(VKQNetworkAgentURL, BuildsFromUrlPathAndHost) {
  struct Case {
    const char* url;
    const char* host;
    const char* path;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
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
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.url) + " | " + c.host + " | " + c.path);
    EXPECT_EQ(VKQNetworkAgent::sharedAgent().buildRequestUrl(*requestWith(c.url, c.host, c.path)), c.expected);
  }
}

TEST(VKQNetworkAgentSerializers, PicksTheSerializerByTypeAndConfiguresIt) {
  auto& agent = VKQNetworkAgent::sharedAgent();
  auto request = std::make_shared<FieldRequest>();
  request->timeout = 7.5;
  request->cellular = false;
  request->authorization = std::vector<std::string>{"user", "middle", "secret"};
  request->headers = VKQHeaderDictionary{{"X-One", "1"}, {"X-Two", "2"}};

  request->requestType = VKQRequestSerializerTypeKXP;
  auto kxp = agent.requestSerializerForRequest(request);
  ASSERT_NE(std::dynamic_pointer_cast<VKQKXPRequestSerializer>(kxp), nullptr);
  EXPECT_EQ(kxp->request(), request);
  EXPECT_EQ(kxp->timeoutInterval(), 7.5);
  EXPECT_FALSE(kxp->allowsCellularAccess());
  // First element and last element: "user:secret".
  EXPECT_EQ(kxp->valueForHTTPHeaderField("Authorization"), "Basic dXNlcjpzZWNyZXQ=");
  EXPECT_EQ(kxp->valueForHTTPHeaderField("X-One"), "1");
  EXPECT_EQ(kxp->valueForHTTPHeaderField("X-Two"), "2");

  request->requestType = VKQRequestSerializerTypeJSON;
  EXPECT_NE(std::dynamic_pointer_cast<VKQJSONRequestSerializer>(agent.requestSerializerForRequest(request)), nullptr);

  request->requestType = static_cast<VKQRequestSerializerType>(2);
  EXPECT_EQ(agent.requestSerializerForRequest(request), nullptr);
}

TEST(VKQNetworkAgentSerializers, HeaderDictionaryWinsOverTheAuthorizationArray) {
  auto request = std::make_shared<FieldRequest>();
  request->authorization = std::vector<std::string>{"user", "secret"};
  request->headers = VKQHeaderDictionary{{"Authorization", "Bearer token"}};
  auto serializer = VKQNetworkAgent::sharedAgent().requestSerializerForRequest(request);
  EXPECT_EQ(serializer->valueForHTTPHeaderField("Authorization"), "Bearer token");
}

TEST(VKQNetworkAgentSerializers, ResponseSerializersAreMadeOnceAndAcceptEveryStatus) {
  auto& agent = VKQNetworkAgent::sharedAgent();
  EXPECT_EQ(agent.jsonResponseSerializer().get(), agent.jsonResponseSerializer().get());
  EXPECT_EQ(agent.kxpResponseSerializer().get(), agent.kxpResponseSerializer().get());
  EXPECT_FALSE(agent.jsonResponseSerializer()->acceptableStatusCodes().has_value());
}

// ---- Debug log ----

class VKQNetworkAgentDebugLog : public AgentTest {};

TEST_F(VKQNetworkAgentDebugLog, ShowsTheDefaultsOfAKXPRequestToTheLetter) {
  auto request = std::make_shared<FieldRequest>();
  request->urlValue = "http://h.example/kxp";
  auto serializer = agent().requestSerializerForRequest(request);
  LogCapture log;
  agent().sessionDebugWithRequest(*serializer);

  const std::string expected =
      "\n"
      "                           url                 =  http://h.example/kxp\n"
      "                           version             =  0\n"
      "                           xorKey              =  0x0\n"
      "                           compress            =  YES\n"
      "                           insertAtBeginBody   =  8216\n"
      "                           uploadOSType        =  YES\n"
      "                           packageName         =  (null)\n"
      "                           releaseVersion      =  -1\n"
      "                           bigTndian           =  YES\n"
      "                           nonProtocol         =  NO\n"
      "                           header              =  " +
      serializer->HTTPRequestHeaders().description() + "\n";
  const std::vector<vkq::platform::LogEntry> entries = {
      {"======================== start request ========================"},
      {expected},
      {"======================== end   request ========================"},
  };
  EXPECT_EQ(log.entries(), entries);
  EXPECT_EQ(entries[0][0].size(), 63u);
  EXPECT_EQ(entries[2][0].size(), 63u);
}

TEST_F(VKQNetworkAgentDebugLog, ShowsCustomSettingsAndTheHeaderFields) {
  auto vesk = VKQVesk::initWithKXPUrl("http://h.example/k", std::make_shared<Bytes>(Bytes{1}), 0xAB, 2);
  vesk->compressPromise()(false)->packageNamePromise()("com.example.app")->releaseVersionPromise()(7);
  vesk->bigEndianPromise()(false)->uploadOSTypePromise()(false)->insertAtBeginBodyPromise()(0x1234);
  vesk->nonProtocolPromise()();
  vesk->headersPromise()(VKQHeaderDictionary{{"X-Trace", "on"}});
  auto serializer = agent().requestSerializerForRequest(vesk);
  LogCapture log;
  agent().sessionDebugWithRequest(*serializer);

  const auto entries = log.entries();
  ASSERT_EQ(entries.size(), 3u);
  const std::string& text = entries[1].at(0);
  for (const char* line : {"                           version             =  2\n",
                           "                           xorKey              =  0xAB\n",
                           "                           compress            =  NO\n",
                           "                           insertAtBeginBody   =  4660\n",
                           "                           uploadOSType        =  NO\n",
                           "                           packageName         =  com.example.app\n",
                           "                           releaseVersion      =  7\n",
                           "                           bigTndian           =  NO\n",
                           "                           nonProtocol         =  YES\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  EXPECT_NE(text.find("\"X-Trace\" = on;"), std::string::npos) << text;

  vesk->xorkeyPromise()(0x05);
  LogCapture again;
  agent().sessionDebugWithRequest(*agent().requestSerializerForRequest(vesk));
  EXPECT_NE(again.entries().at(1).at(0).find("xorKey              =  0x5\n"), std::string::npos);
}

TEST_F(VKQNetworkAgentDebugLog, IsWrittenOncePerKXPStartEvenWhenFramingFailsAndNeverForJSON) {
  LogCapture log;
  // An empty payload cannot be framed: the request fails, but only after the log.
  auto kxp = VKQVesk::initWithKXPUrl("http://127.0.0.1:9/kxp", std::make_shared<Bytes>());
  auto kxpCalls = vkq::testing::start(*kxp);
  auto json = VKQVesk::initWithJSONUrl("http://127.0.0.1:9/json", nlohmann::json::object(), VKQRequestMethodPOST);
  auto jsonCalls = vkq::testing::start(*json);
  EXPECT_EQ(log.count("======================== start request ========================"), 1u);
  EXPECT_EQ(log.count("======================== end   request ========================"), 1u);
  ASSERT_TRUE(runUntil([&] { return kxpCalls->outcomes() == 1 && jsonCalls->outcomes() == 1; }));
  EXPECT_EQ(kxpCalls->lastCode(), -2);
}

// ---- Resume-data helpers ----

TEST(VKQNetworkAgentResume, Md5NamesAre32LowerCaseHexDigitsOfTheTextUpToItsFirstNul) {
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString(std::string("a\0bc", 4)), VKQNetworkAgent::md5StringFromString("a"));
  EXPECT_EQ(VKQNetworkAgent::md5StringFromString("/tmp/d\xC3\xA9j\xC3\xA0/file.zip").size(), 32u);
}

Bytes plistBytes(bool binary) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "key", plist_new_string("value"));
  char* data = nullptr;
  std::uint32_t length = 0;
  if (binary) {
    plist_to_bin(dict, &data, &length);
  } else {
    plist_to_xml(dict, &data, &length);
  }
  Bytes bytes(data, data + length);
  std::free(data);
  plist_free(dict);
  return bytes;
}

TEST(VKQNetworkAgentResume, AcceptsAnyWellFormedPropertyListOnly) {
  EXPECT_TRUE(VKQNetworkAgent::validateResumeData(plistBytes(true)));
  EXPECT_TRUE(VKQNetworkAgent::validateResumeData(plistBytes(false)));
  EXPECT_FALSE(VKQNetworkAgent::validateResumeData(std::nullopt));
  EXPECT_FALSE(VKQNetworkAgent::validateResumeData(Bytes{}));
  EXPECT_FALSE(VKQNetworkAgent::validateResumeData(vkq::platform::bytesFromString("not a property list")));
  Bytes truncated = plistBytes(true);
  truncated.resize(truncated.size() / 2);
  EXPECT_FALSE(VKQNetworkAgent::validateResumeData(truncated));
}

// Points TMPDIR elsewhere for one test.
class ScopedTemporaryDirectory {
 public:
  explicit ScopedTemporaryDirectory(const std::string& path) {
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    setenv("TMPDIR", path.c_str(), 1);
  }
  ~ScopedTemporaryDirectory() {
    if (old_) {
      setenv("TMPDIR", old_->c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
  }

 private:
  std::optional<std::string> old_;
};

TEST(VKQNetworkAgentResume, CacheFolderFollowsTMPDIRAndIsRetriedAfterAFailure) {
  auto& agent = VKQNetworkAgent::sharedAgent();
  vkq::testing::TemporaryFolder temporary;
  {
    ScopedTemporaryDirectory tmp(temporary.path().string() + "/");
    EXPECT_EQ(agent.incompleteDownloadTempCacheFolder(), temporary / "Incomplete");
    EXPECT_TRUE(std::filesystem::is_directory(temporary / "Incomplete"));
    const auto file = agent.incompleteDownloadTempPathForDownloadPath("/downloads/a.zip");
    ASSERT_TRUE(file.has_value());
    EXPECT_TRUE(file->isFileURL());
    EXPECT_EQ(file->filePath(),
              temporary / ("Incomplete/" + VKQNetworkAgent::md5StringFromString("/downloads/a.zip")));
  }
  {
    // A regular file where the temporary directory should be: no folder can be made.
    const std::string blocker = temporary / "blocker";
    std::ofstream(blocker) << "x";
    ScopedTemporaryDirectory tmp(blocker);
    LogCapture log;
    EXPECT_EQ(agent.incompleteDownloadTempCacheFolder(), std::nullopt);
    EXPECT_EQ(agent.incompleteDownloadTempPathForDownloadPath("/downloads/a.zip"), std::nullopt);
    EXPECT_EQ(log.count("Failed to create cache directory at"), 2u);
    // Each call tries again.
    std::filesystem::remove(blocker);
    std::filesystem::create_directory(blocker);
    EXPECT_EQ(agent.incompleteDownloadTempCacheFolder(), blocker + "/Incomplete");
  }
}

// ---- Fatal assertions ----

template <typename Call>
InternalInconsistencyException assertionOf(Call call) {
  try {
    call();
  } catch (const InternalInconsistencyException& e) {
    return e;
  }
  ADD_FAILURE() << "no assertion";
  return InternalInconsistencyException({});
}

TEST(VKQNetworkAgentAssertions, ReportTheirFixedTextsFromTheAgentsSourceFile) {
  auto& agent = VKQNetworkAgent::sharedAgent();
  for (auto e : {assertionOf([&] { agent.addRequest(nullptr); }), assertionOf([&] { agent.cancelRequest(nullptr); })}) {
    EXPECT_EQ(e.description(), "Invalid parameter not satisfying: request != nil");
    EXPECT_EQ(e.file(), "Classes/VKQNetworkAgent");
  }
  const auto md5 = assertionOf([] { VKQNetworkAgent::md5StringFromString(""); });
  EXPECT_EQ(md5.description(), "Invalid parameter not satisfying: string != nil && [string length] > 0");
  EXPECT_EQ(md5.file(), "Classes/VKQNetworkAgent");

  // A JSON method outside the enumeration selects no task, and so does a serializer
  // type outside it; the URL and the serializer were still built.
  auto request = std::make_shared<FieldRequest>();
  request->urlValue = "http://127.0.0.1:9/x";
  request->requestType = VKQRequestSerializerTypeJSON;
  request->method = static_cast<VKQRequestMethod>(6);
  vkq::platform::ErrorPtr error;
  EXPECT_EQ(agent.sessionTaskForRequest(request, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  const auto noTask = assertionOf([&] { agent.addRequest(request); });
  EXPECT_EQ(noTask.description(), "requestTask should not be nil");
  EXPECT_EQ(noTask.file(), "Classes/VKQNetworkAgent");
  request->requestType = static_cast<VKQRequestSerializerType>(2);
  EXPECT_EQ(assertionOf([&] { agent.addRequest(request); }).description(), "requestTask should not be nil");
  EXPECT_EQ(agent.recordCount(), 0u);
}

}  // namespace
