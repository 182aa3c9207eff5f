// Requests end to end against the in-process server: KXP and JSON exchanges, failures
// through the real path, early failures, cancellation and delivery rules.
#include <gtest/gtest.h>

#include <atomic>
#include <span>
#include <thread>

#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQVesk.h"
#include "Tests/Classes/AgentTestSupport.h"
#include "Tests/Support/TestServer.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::bytesFromString;
using vkq::platform::NetworkReachabilityManager;
using vkq::platform::NetworkReachabilityStatus;
using vkq::platform::Object;
using vkq::testing::AgentTest;
using vkq::testing::FieldRequest;
using vkq::testing::LogCapture;
using vkq::testing::start;
using vkq::testing::TestServer;
using JSON = nlohmann::json;

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Serves `path` as a KXP endpoint: the request frame is parsed under `settings` (400
// with the reason when it is refused) and the answer is "pong:" + payload, framed
// under `answerSettings`.
void serveKXP(TestServer& server, const std::string& path, const VKQKXPFrameSettings& settings,
              const VKQKXPFrameSettings& answerSettings) {
  server.handle(path, [settings, answerSettings](const httplib::Request& request, httplib::Response& response) {
    const auto parsed = VKQKXPServerCodec::parseRequestFrame(bytesOf(request.body), settings);
    if (!parsed.ok()) {
      response.status = 400;
      response.set_content(parsed.error(), "text/plain");
      return;
    }
    Bytes reply = bytesFromString("pong:");
    reply.insert(reply.end(), parsed.payload().begin(), parsed.payload().end());
    const auto frame = VKQKXPServerCodec::makeResponseFrame(reply, answerSettings);
    response.set_content(std::string(frame->begin(), frame->end()), "application/octet-stream");
  });
}

void serveKXP(TestServer& server, const std::string& path, const VKQKXPFrameSettings& settings) {
  serveKXP(server, path, settings, settings);
}

// Answers with what it received, as JSON.
void serveEcho(TestServer& server, const std::string& path) {
  server.handle(path, [](const httplib::Request& request, httplib::Response& response) {
    JSON echo = {{"method", request.method}, {"body", request.body}};
    response.set_content(echo.dump(), "application/json");
  });
}

std::shared_ptr<VKQVesk> kxpRequest(const std::string& url, const std::string& payload) {
  return VKQVesk::initWithKXPUrl(url, std::make_shared<Bytes>(bytesFromString(payload)));
}

Bytes dataOf(const std::shared_ptr<VKQVeskResult>& result) {
  return result && result->data().isData() ? *result->data().data() : Bytes{};
}

class VKQNetworkAgentExchange : public AgentTest {
 protected:
  TestServer server;
};

TEST_F(VKQNetworkAgentExchange, KXPExchangeWithTheDefaultSettings) {
  auto request = kxpRequest(server.url("/kxp"), "ping");
  serveKXP(server, "/kxp", VKQKXPFrameSettings::fromRequest(*request));

  bool starting = true;
  request->setCompletionResultBlock([&](std::shared_ptr<VKQVeskResult>) { EXPECT_FALSE(starting); });
  auto calls = start(*request);
  starting = false;
  EXPECT_TRUE(calls->order.empty()) << "a callback ran inside the starting call";

  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "success"}));
  EXPECT_FALSE(calls->offMainQueue);
  EXPECT_EQ(calls->lastCode(), 0);
  EXPECT_EQ(dataOf(calls->results.back()), bytesFromString("pong:ping"));
  EXPECT_EQ(calls->results.back()->request(), request);

  const auto received = server.requests().back();
  EXPECT_EQ(received.method, "POST");
  EXPECT_EQ(received.header("Content-Type"), "application/octet-stream");
  // Delivered, then forgotten: out of the registry, callbacks cleared.
  EXPECT_EQ(agent().recordCount(), 0u);
  EXPECT_FALSE(request->completionResultBlock());
  EXPECT_FALSE(request->successResultBlock());
  EXPECT_FALSE(request->failureResultBlock());
}

TEST_F(VKQNetworkAgentExchange, KXPExchangeWithCustomSettings) {
  struct Setup {
    const char* name;
    std::function<void(VKQVesk&)> configure;
  };
  const Setup setups[] = {
      {"masked, versioned, uncompressed, with package and release",
       [](VKQVesk& v) {
         v.xorkeyPromise()(0x5A)->protocolVCPromise()(3)->compressPromise()(false);
         v.packageNamePromise()("com.example.app")->releaseVersionPromise()(42)->insertAtBeginBodyPromise()(0);
       }},
      {"everything off", [](VKQVesk& v) {
         v.compressPromise()(false)->insertAtBeginBodyPromise()(0)->uploadOSTypePromise()(false);
         v.releaseVersionPromise()(0);
       }},
      {"unframed", [](VKQVesk& v) { v.nonProtocolPromise()(); }},
      // The method of a KXP request is ignored: it is always sent by POST.
      {"HEAD is sent as POST", [](VKQVesk& v) { v.requestMethedPromise()(VKQRequestMethodHEAD); }},
  };
  int index = 0;
  for (const auto& setup : setups) {
    SCOPED_TRACE(setup.name);
    const std::string path = "/kxp" + std::to_string(index++);
    auto request = kxpRequest(server.url(path), "payload of " + std::string(setup.name));
    setup.configure(*request);
    serveKXP(server, path, VKQKXPFrameSettings::fromRequest(*request));
    auto calls = start(*request);
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->lastCode(), 0) << request->description();
    EXPECT_EQ(dataOf(calls->results.back()), bytesFromString("pong:payload of " + std::string(setup.name)));
    EXPECT_EQ(server.requests().back().method, "POST");
  }
}

TEST_F(VKQNetworkAgentExchange, FailedAnswersReachTheFailureCallbackWithTheirCode) {
  auto probe = kxpRequest("", "x");
  probe->protocolVCPromise()(3);
  const VKQKXPFrameSettings settings = VKQKXPFrameSettings::fromRequest(*probe);
  VKQKXPFrameSettings otherVersion = settings;
  otherVersion.version = 4;
  serveKXP(server, "/other-version", settings, otherVersion);
  server.handle("/corrupt", [settings](const httplib::Request&, httplib::Response& response) {
    auto frame = *VKQKXPServerCodec::makeResponseFrame(bytesFromString("answer"), settings);
    frame.back() ^= 0xFF;  // the payload no longer matches its CRC
    response.set_content(std::string(frame.begin(), frame.end()), "application/octet-stream");
  });
  server.answer("/broken", vkq::testing::ScriptedAnswer(500, "oops"));

  struct Case {
    std::string url;
    std::int64_t code;
  };
  const Case cases[] = {
      {server.url("/other-version"), -3},
      {server.url("/corrupt"), -4},
      {server.url("/broken"), -2},
      {server.url("/missing"), -2},  // 404
      {"http://127.0.0.1:1/kxp", -2},  // nothing listens there
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    auto request = kxpRequest(c.url, "question");
    request->protocolVCPromise()(3);
    auto calls = start(*request);
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "failure"}));
    EXPECT_EQ(calls->lastCode(), c.code);
  }
}

TEST_F(VKQNetworkAgentExchange, JSONRequestsForEveryMethod) {
  serveEcho(server, "/echo");
  const JSON argument = {{"a", 1}, {"b", "x y"}};
  struct Case {
    VKQRequestMethod method;
    const char* name;
    bool inQuery;
  };
  const Case cases[] = {
      {VKQRequestMethodGET, "GET", true},     {VKQRequestMethodPOST, "POST", false},
      {VKQRequestMethodHEAD, "HEAD", true},   {VKQRequestMethodPUT, "PUT", false},
      {VKQRequestMethodDELETE, "DELETE", true}, {VKQRequestMethodPATCH, "PATCH", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto request = VKQVesk::initWithJSONUrl(server.url("/echo?fixed=1"), argument, c.method);
    auto calls = start(*request);
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "success"}));

    const auto received = server.requests().back();
    EXPECT_EQ(received.method, c.name);
    if (c.inQuery) {
      EXPECT_EQ(received.query, "fixed=1&a=1&b=x%20y");
      EXPECT_EQ(received.body, "");
    } else {
      EXPECT_EQ(received.query, "fixed=1");
      EXPECT_EQ(JSON::parse(received.body), argument);
      EXPECT_EQ(received.header("Content-Type"), "application/json");
    }
    const Object& data = calls->results.back()->data();
    if (c.method == VKQRequestMethodHEAD) {
      EXPECT_TRUE(data.isNull());  // no body
    } else {
      ASSERT_TRUE(data.isJSON());
      EXPECT_EQ(data.json()["method"], c.name);
    }
  }
}

TEST_F(VKQNetworkAgentExchange, JSONFailuresAreHttpErrors) {
  server.answer("/error", vkq::testing::ScriptedAnswer(503, "{}").type("application/json"));
  server.answer("/garbled", vkq::testing::ScriptedAnswer(200, "{not json").type("application/json"));
  for (const char* path : {"/error", "/garbled"}) {
    SCOPED_TRACE(path);
    auto request = VKQVesk::initWithJSONUrl(server.url(path), JSON::object(), VKQRequestMethodPOST);
    auto calls = start(*request);
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "failure"}));
    EXPECT_EQ(calls->lastCode(), -2);
  }
}

TEST_F(VKQNetworkAgentExchange, AFramingErrorFailsEarlyWithHttpError) {
  auto request = kxpRequest(server.url("/kxp"), "");
  auto calls = start(*request);
  EXPECT_TRUE(calls->order.empty());
  EXPECT_EQ(agent().recordCount(), 0u);
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "failure"}));
  EXPECT_EQ(calls->lastCode(), -2);
  ASSERT_NE(request->error(), nullptr);
  EXPECT_EQ(request->error()->domain(), "com.error.serialization.request");
  EXPECT_EQ(request->error()->code(), -1016);
  EXPECT_EQ(server.requestCount(), 0u);
  // An early failure leaves the callbacks attached.
  EXPECT_TRUE(request->completionResultBlock());
  EXPECT_TRUE(request->failureResultBlock());
}

TEST_F(VKQNetworkAgentExchange, AnUnreachableNetworkFailsEveryStartWithNetworkError) {
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::NotReachable);
  auto request = kxpRequest(server.url("/kxp"), "ping");
  LogCapture log;
  auto calls = start(*request);
  request->requestWithSuccess(request->successResultBlock(), request->failureResultBlock());
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 2; }));
  EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "failure", "completion", "failure"}));
  EXPECT_EQ(calls->lastCode(), -1);
  EXPECT_EQ(request->error(), nullptr);
  EXPECT_NE(request->requestTask(), nullptr);  // made, never resumed
  EXPECT_EQ(log.count("network is not reachable"), 2u);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(VKQNetworkAgentExchange, AnUnknownReachabilityStillSends) {
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::Unknown);
  auto request = kxpRequest(server.url("/kxp"), "ping");
  serveKXP(server, "/kxp", VKQKXPFrameSettings::fromRequest(*request));
  auto calls = start(*request);
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->lastCode(), 0);
}

TEST_F(VKQNetworkAgentExchange, ACancelledRequestNeverHearsBack) {
  server.answer("/hang", vkq::testing::ScriptedAnswer().neverAnswer());
  auto request = kxpRequest(server.url("/hang"), "ping");
  LogCapture log;
  auto calls = start(*request);
  ASSERT_TRUE(server.waitForRequests(1, std::chrono::seconds(10)));
  EXPECT_EQ(agent().recordCount(), 1u);

  agent().cancelRequest(request);
  EXPECT_EQ(agent().recordCount(), 0u);
  // The transport completes the cancelled task; the agent finds nothing to deliver.
  ASSERT_TRUE(runUntil([&] { return log.count("request has cancel") == 1; }));
  runFor(std::chrono::milliseconds(100));
  EXPECT_TRUE(calls->order.empty());
  EXPECT_TRUE(request->completionResultBlock());
  EXPECT_TRUE(request->successResultBlock());
  EXPECT_TRUE(request->failureResultBlock());
}

TEST_F(VKQNetworkAgentExchange, AnUnknownResponseTypeDeliversNoResultAsASuccess) {
  serveEcho(server, "/echo");
  auto request = std::make_shared<FieldRequest>();
  request->urlValue = server.url("/echo");
  request->requestType = VKQRequestSerializerTypeJSON;
  request->responseType = static_cast<VKQResponseSerializerType>(2);
  request->argument = JSON::object();
  auto calls = start(*request);
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "success"}));
  EXPECT_EQ(calls->results, (std::vector<std::shared_ptr<VKQVeskResult>>{nullptr, nullptr}));
}

// Records where the agent decodes the answer: the response type is read only there.
class DecodingThreadProbe : public FieldRequest {
 public:
  VKQResponseSerializerType responseSerializerType() const override {
    onMainQueue = vkq::platform::MainQueue::isCurrent();
    thread = std::this_thread::get_id();
    return VKQResponseSerializerTypeJSON;
  }
  mutable std::atomic<bool> onMainQueue{true};
  mutable std::thread::id thread;
};

TEST_F(VKQNetworkAgentExchange, AnswersAreDecodedOffTheMainQueueAndCallbacksMayThrow) {
  serveEcho(server, "/echo");
  auto request = std::make_shared<DecodingThreadProbe>();
  request->urlValue = server.url("/echo");
  request->requestType = VKQRequestSerializerTypeJSON;
  request->argument = JSON::object();
  auto calls = start(*request);
  // A throwing completion callback does not keep the success callback from running.
  request->setCompletionResultBlock([](std::shared_ptr<VKQVeskResult>) { throw std::runtime_error("app bug"); });
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (std::vector<std::string>{"success"}));
  EXPECT_FALSE(request->onMainQueue.load());
  EXPECT_NE(request->thread, std::this_thread::get_id());
}

}  // namespace
