// Requests end to end against the in-process server: KXP and JSON exchanges, failures
// through the real path, early failures, cancellation and delivery rules.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Classes/VKQVesk.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::platform::NetworkReachabilityManager;
using vkq::platform::NetworkReachabilityStatus;
using vkq::testing::AgentTest;
using vkq::testing::FieldRequest;
using vkq::testing::LogCapture;
using vkq::testing::ScriptedAnswer;
using vkq::testing::serveKXP;
using vkq::testing::start;
using vkq::testing::TestServer;
using JSON = nlohmann::json;
using Order = std::vector<std::string>;

std::shared_ptr<VKQVesk> kxpRequest(const std::string& url, const std::string& payload) {
  return VKQVesk::initWithKXPUrl(url, std::make_shared<vkq::platform::Bytes>(vkq::platform::bytesFromString(payload)));
}

std::string textOf(const std::shared_ptr<VKQVeskResult>& result) {
  return result && result->data().isData() ? vkq::platform::stringFromBytes(*result->data().data()) : "";
}

// Answers with the method it received, as JSON.
void serveEcho(TestServer& server, const std::string& path) {
  server.handle(path, [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(JSON{{"method", request.method}}.dump(), "application/json");
  });
}

class VKQNetworkAgentExchange : public AgentTest {
 protected:
  TestServer server;
};

TEST_F(VKQNetworkAgentExchange, KXPExchangesWithDefaultAndCustomSettings) {
  const struct {
    const char* name;
    std::function<void(VKQVesk&)> configure;
  } table[] = {
      {"defaults", [](VKQVesk&) {}},
      {"masked, versioned, uncompressed, with package and release",
       [](VKQVesk& v) {
         v.xorkeyPromise()(0x5A)->protocolVCPromise()(3)->compressPromise()(false)->insertAtBeginBodyPromise()(0);
         v.packageNamePromise()("com.example.app")->releaseVersionPromise()(42);
       }},
      // Only "not reachable" stops a request: an unknown status still sends.
      {"everything off, reachability unknown",
       [](VKQVesk& v) {
         v.compressPromise()(false)->insertAtBeginBodyPromise()(0)->uploadOSTypePromise()(false)->releaseVersionPromise()(0);
         NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::Unknown);
       }},
      {"unframed", [](VKQVesk& v) { v.nonProtocolPromise()(); }},
      // A KXP request is always sent by POST.
      {"HEAD is sent as POST", [](VKQVesk& v) { v.requestMethedPromise()(VKQRequestMethodHEAD); }},
  };
  int index = 0;
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    const std::string path = "/kxp" + std::to_string(index++);
    auto request = kxpRequest(server.url(path), row.name);
    row.configure(*request);
    serveKXP(server, path, VKQKXPFrameSettingsOf(*request));
    auto calls = start(*request);
    EXPECT_TRUE(calls->order.empty()) << "a callback ran inside the starting call";
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order, (Order{"completion", "success"}));
    EXPECT_FALSE(calls->offMainQueue);
    EXPECT_EQ(textOf(calls->results.back()), "pong:" + std::string(row.name));
    EXPECT_EQ(calls->results.back()->request(), request);
    EXPECT_EQ(server.requests().back().method, "POST");
    EXPECT_EQ(server.requests().back().header("Content-Type"), "application/octet-stream");
    // Delivered, then forgotten: out of the registry, callbacks cleared.
    EXPECT_EQ(agent().recordCount(), 0u);
    EXPECT_FALSE(request->completionResultBlock() || request->successResultBlock() || request->failureResultBlock());
  }
}

TEST_F(VKQNetworkAgentExchange, FailedExchangesReachTheFailureCallbackWithTheirCode) {
  // KXP requests of version 3; the server answers some of them wrongly.
  const VKQKXPFrameSettings settings = VKQKXPFrameSettingsOf(*kxpRequest("", "")->protocolVCPromise()(3));
  VKQKXPFrameSettings otherVersion = settings;
  otherVersion.version = 4;
  serveKXP(server, "/other-version", settings, otherVersion);
  auto corrupt = *VKQKXPServerCodec::makeResponseFrame(vkq::platform::bytesFromString("answer"), settings);
  corrupt.back() ^= 0xFF;  // the payload no longer matches its CRC
  server.answer("/corrupt", ScriptedAnswer(200, std::string(corrupt.begin(), corrupt.end())));
  server.answer("/broken", ScriptedAnswer(500, "oops"));
  server.answer("/garbled", ScriptedAnswer(200, "{not json").type("application/json"));
  const struct {
    std::string url;
    bool json;
    std::int64_t code;
  } table[] = {
      {server.url("/other-version"), false, -3},
      {server.url("/corrupt"), false, -4},
      {server.url("/broken"), false, -2},
      {"http://127.0.0.1:1/kxp", false, -2},  // nothing listens there
      {server.url("/broken"), true, -2},
      {server.url("/garbled"), true, -2},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.url + (row.json ? " JSON" : " KXP"));
    auto request = row.json ? VKQVesk::initWithJSONUrl(row.url, JSON::object())
                            : kxpRequest(row.url, "question")->protocolVCPromise()(3);
    auto calls = startAndWait(*request);
    EXPECT_EQ(calls->order, (Order{"completion", "failure"}));
    EXPECT_EQ(calls->lastCode(), row.code);
  }
}

TEST_F(VKQNetworkAgentExchange, JSONRequestsForEveryMethod) {
  serveEcho(server, "/echo");
  const JSON argument = {{"a", 1}, {"b", "x y"}};
  const struct {
    VKQRequestMethod method;
    const char* name;
    bool inQuery;
  } table[] = {
      {VKQRequestMethodGET, "GET", true},       {VKQRequestMethodPOST, "POST", false},
      {VKQRequestMethodHEAD, "HEAD", true},     {VKQRequestMethodPUT, "PUT", false},
      {VKQRequestMethodDELETE, "DELETE", true}, {VKQRequestMethodPATCH, "PATCH", false},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    auto calls = startAndWait(*VKQVesk::initWithJSONUrl(server.url("/echo?fixed=1"), argument, row.method));
    EXPECT_EQ(calls->order, (Order{"completion", "success"}));
    const auto received = server.requests().back();
    EXPECT_EQ(received.method, row.name);
    EXPECT_EQ(received.query, row.inQuery ? "fixed=1&a=1&b=x%20y" : "fixed=1");
    EXPECT_EQ(received.body, row.inQuery ? "" : argument.dump());
    EXPECT_EQ(received.header("Content-Type"), row.inQuery ? std::nullopt : std::optional<std::string>("application/json"));
    // A HEAD answer has no body, so no data.
    EXPECT_EQ(calls->results.back()->data(),
              row.method == VKQRequestMethodHEAD ? vkq::platform::Object() : vkq::platform::Object(JSON{{"method", row.name}}));
  }
}

// Failures before anything is sent: delivered later, never registered, and the
// callbacks stay attached.
TEST_F(VKQNetworkAgentExchange, EarlyFailuresForFramingAndReachability) {
  // An empty payload cannot be framed: -2 with the framing error.
  auto unframable = kxpRequest(server.url("/kxp"), "");
  auto framing = start(*unframable);
  // Not reachable: -1 at every start; the task is made but never resumed.
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::NotReachable);
  auto unreachable = kxpRequest(server.url("/kxp"), "ping");
  LogCapture log;
  auto offline = start(*unreachable);
  unreachable->requestWithSuccess(unreachable->successResultBlock(), unreachable->failureResultBlock());
  EXPECT_TRUE(framing->order.empty() && offline->order.empty());
  EXPECT_EQ(agent().recordCount(), 0u);

  ASSERT_TRUE(runUntil([&] { return framing->outcomes() == 1 && offline->outcomes() == 2; }));
  EXPECT_EQ(framing->order, (Order{"completion", "failure"}));
  EXPECT_EQ(framing->lastCode(), -2);
  ASSERT_NE(unframable->error(), nullptr);
  EXPECT_EQ(unframable->error()->domain(), "com.error.serialization.request");
  EXPECT_EQ(unframable->error()->code(), -1016);
  EXPECT_EQ(offline->order, (Order{"completion", "failure", "completion", "failure"}));
  EXPECT_EQ(offline->lastCode(), -1);
  EXPECT_EQ(unreachable->error(), nullptr);
  EXPECT_NE(unreachable->requestTask(), nullptr);
  EXPECT_EQ(log.count("network is not reachable"), 2u);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_TRUE(unframable->failureResultBlock() && unreachable->completionResultBlock());
}

TEST_F(VKQNetworkAgentExchange, ACancelledRequestNeverHearsBack) {
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  auto request = kxpRequest(server.url("/hang"), "ping");
  LogCapture log;
  auto calls = start(*request);
  ASSERT_TRUE(server.waitForRequests(1, std::chrono::seconds(10)));
  EXPECT_EQ(agent().recordCount(), 1u);

  agent().cancelRequest(request);
  EXPECT_EQ(agent().recordCount(), 0u);
  // The transport completes the cancelled task; the agent finds nothing to deliver.
  ASSERT_TRUE(runUntil([&] { return log.count("request has cancel") == 1 || !calls->order.empty(); }));
  runFor(std::chrono::milliseconds(100));
  EXPECT_TRUE(calls->order.empty()) << "the cancelled request heard back";
  EXPECT_EQ(log.count("request has cancel"), 1u);
  EXPECT_TRUE(request->completionResultBlock() && request->successResultBlock() && request->failureResultBlock());
}

// Records where the agent decodes the answer: the response type is read only there.
// The type selects no decoder.
class DecodingThreadProbe : public FieldRequest {
 public:
  VKQResponseSerializerType responseSerializerType() const override {
    decodedOnMainQueue = vkq::platform::MainQueue::isCurrent();
    decodedOnTestThread = std::this_thread::get_id() == testThread;
    return static_cast<VKQResponseSerializerType>(2);
  }
  const std::thread::id testThread = std::this_thread::get_id();
  mutable std::atomic<bool> decodedOnMainQueue{true}, decodedOnTestThread{true};
};

TEST_F(VKQNetworkAgentExchange, AnswersAreDecodedOffTheMainQueueAndNoDecoderMeansNoResultAsASuccess) {
  serveEcho(server, "/echo");
  auto request = std::make_shared<DecodingThreadProbe>();
  request->urlValue = server.url("/echo");
  request->requestType = VKQRequestSerializerTypeJSON;
  auto calls = start(*request);
  // A throwing completion callback does not keep the success callback from running.
  request->setCompletionResultBlock([](std::shared_ptr<VKQVeskResult>) { throw std::runtime_error("app bug"); });
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (Order{"success"}));
  EXPECT_EQ(calls->results.back(), nullptr);
  EXPECT_FALSE(request->decodedOnMainQueue || request->decodedOnTestThread);
}

}  // namespace
