// Requests end to end against the in-process server: KXP and JSON exchanges, failures
// through the real path, early failures, cancellation and delivery rules.
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::platform::NetworkReachabilityManager;
using vkq::platform::NetworkReachabilityStatus;
using vkq::platform::Object;
using vkq::testing::kxpRequest;
using vkq::testing::LogCapture;
using vkq::testing::ScriptedAnswer;
using vkq::testing::start;
using JSON = nlohmann::json;
using Order = std::vector<std::string>;

constexpr const char* kLogStart = "======================== start request ========================";

class VKQNetworkAgentExchange : public vkq::testing::AgentTest {
 protected:
  vkq::testing::TestServer server;
};

TEST_F(VKQNetworkAgentExchange, EachRequestIsSentByItsMethodAndHeardBackOnceOnTheMainQueue) {
  // Only "not reachable" stops a request: an unknown status still sends.
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::Unknown);
  server.handle("/json", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(JSON{{"method", request.method}}.dump(), "application/json");
  });
  server.answer("/broken", ScriptedAnswer(500, "oops"));
  const auto json = [&](VKQRequestMethod method) {
    return VKQVesk::initWithJSONUrl(server.url("/json"), JSON{{"a", 1}}, method);
  };
  const auto echo = [](const char* method) { return Object(JSON{{"method", method}}); };
  // KXP requests are always posted, also one that asks for HEAD.
  auto plain = kxpRequest(server.url("/plain"), "plain");
  plain->requestMethedPromise()(VKQRequestMethodHEAD);
  vkq::testing::serveKXP(server, "/plain", VKQKXPFrameSettingsOf(*plain));
  const struct {
    std::shared_ptr<VKQVesk> request;
    const char* method;
    Object data;
    std::int64_t code = VKQResponseCodeSuccess;
  } table[] = {
      {plain, "POST", Object(vkq::platform::bytesFromString("pong:plain"))},
      {json(VKQRequestMethodGET), "GET", echo("GET")},
      {json(VKQRequestMethodPOST), "POST", echo("POST")},
      {json(VKQRequestMethodHEAD), "HEAD", Object()},  // a HEAD answer has no body
      {json(VKQRequestMethodPUT), "PUT", echo("PUT")},
      {json(VKQRequestMethodDELETE), "DELETE", echo("DELETE")},
      // A failure reaches the failure callback with the decoder's code.
      {kxpRequest(server.url("/broken"), "x"), "POST", {}, VKQResponseCodeHTTPError},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.request->url() + " " + row.method);
    const bool kxp = row.request->requestSerializerType() == VKQRequestSerializerTypeKXP;
    LogCapture log;
    auto calls = start(*row.request);
    EXPECT_TRUE(calls->order.empty()) << "a callback ran inside the starting call";
    EXPECT_EQ(log.count(kLogStart), kxp ? 1u : 0u);  // the debug log shows KXP requests only
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order, (Order{"completion", row.code == VKQResponseCodeSuccess ? "success" : "failure"}));
    EXPECT_EQ(calls->lastCode(), row.code);
    EXPECT_EQ(calls->results.back()->data(), row.data);
    EXPECT_EQ(server.requests().back().method, row.method);
    // Delivered, then forgotten: out of the registry, callbacks cleared.
    EXPECT_EQ(agent().recordCount(), 0u);
    EXPECT_FALSE(row.request->completionResultBlock() || row.request->successResultBlock() ||
                 row.request->failureResultBlock());
  }
}

// Failures before anything is sent: delivered later, never registered, and the
// callbacks leave the request at once.
TEST_F(VKQNetworkAgentExchange, EarlyFailuresForFramingAndReachability) {
  LogCapture log;
  // An empty payload cannot be framed: an http error carrying the framing error.
  auto unframable = kxpRequest(server.url("/kxp"), "");
  auto framing = start(*unframable);
  // Not reachable: a network error for a host elsewhere; the task is made but never resumed.
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::NotReachable);
  auto unreachable = kxpRequest("http://192.0.2.1/kxp", "ping");
  auto offline = start(*unreachable);
  // This machine answers without a network: a loopback host is asked all the same.
  vkq::testing::serveKXP(server, "/kxp", VKQKXPFrameSettingsOf(*unreachable));
  auto local = start(*kxpRequest(server.url("/kxp"), "ping"));
  EXPECT_TRUE(framing->order.empty() && offline->order.empty());
  EXPECT_FALSE(unframable->failureResultBlock() || unreachable->completionResultBlock());

  ASSERT_TRUE(runUntil([&] { return framing->outcomes() == 1 && offline->outcomes() == 1 && local->outcomes() == 1; }));
  EXPECT_EQ(local->lastCode(), VKQResponseCodeSuccess);
  EXPECT_EQ(framing->order, (Order{"completion", "failure"}));
  EXPECT_EQ(framing->lastCode(), VKQResponseCodeHTTPError);
  EXPECT_EQ(framing->results.back()->request(), unframable);
  EXPECT_EQ(unframable->error()->domain(), "com.error.serialization.request");
  EXPECT_EQ(offline->lastCode(), VKQResponseCodeNetworkError);
  EXPECT_EQ(unreachable->error(), nullptr);
  EXPECT_NE(unreachable->requestTask(), nullptr);
  EXPECT_EQ(log.count(kLogStart), 3u);  // written before the task is made, also when framing fails
  EXPECT_EQ(log.count("network is not reachable"), 1u);
  EXPECT_EQ(server.requestCount(), 1u);
}

// Callbacks often hold their own request; once the outcome is delivered nothing else
// may, or each refused request would stay in memory for good.
TEST_F(VKQNetworkAgentExchange, ARequestRefusedBeforeItIsSentIsFreedOnceItsOutcomeIsDelivered) {
  const vkq::testing::ScratchFolder folder;
  std::vector<std::shared_ptr<VKQVesk>> refused = {
      VKQVesk::initWithJSONUrl("http://127.0.0.1/a b", nullptr, VKQRequestMethodGET),
      VKQVesk::initWithJSONUrl("::garbage::", nullptr, VKQRequestMethodPOST),
      VKQVesk::initWithDownloadURL(server.url("/%2E%2E"), folder.path().string(), nullptr),
      kxpRequest("http://192.0.2.1/kxp", "ping"),  // not reachable, below
  };
  NetworkReachabilityManager::setStatusOverrideForTesting(NetworkReachabilityStatus::NotReachable);
  for (auto& request : refused) {
    SCOPED_TRACE(request->url());
    const std::weak_ptr<VKQVesk> weak = request;
    bool delivered = false;
    request->requestCompletion([request, &delivered](auto result) {
      delivered = result->responseCode()->code() != VKQResponseCodeSuccess;
    });
    request.reset();
    EXPECT_TRUE(runUntil([&] { return delivered && weak.expired(); }));
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(VKQNetworkAgentExchange, ARequestStartedAgainFromItsFailureCallbackKeepsItsNewCallbacks) {
  std::atomic<int> served = 0;
  server.handle("/flaky", [&served](const httplib::Request&, httplib::Response& response) {
    response.status = served++ == 0 ? 500 : 200;  // the first answer fails, the next one succeeds
    response.set_content("{}", "application/json");
  });
  auto request = VKQVesk::initWithJSONUrl(server.url("/flaky"), nullptr, VKQRequestMethodGET);
  Order heard;
  const auto note = [&heard](const char* what) { return [&heard, what](auto) { heard.push_back(what); }; };
  request->requestWithSuccess(note("first success"), [&](auto) {
    heard.push_back("first failure");
    request->requestWithSuccess(note("retry success"), note("retry failure"));
  });
  ASSERT_TRUE(runUntil([&] { return heard.size() == 2; }));
  EXPECT_EQ(heard, (Order{"first failure", "retry success"}));
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
  EXPECT_TRUE(calls->order.empty()) << "the cancelled request heard back";
  EXPECT_TRUE(request->completionResultBlock() && request->successResultBlock() && request->failureResultBlock());
}

TEST_F(VKQNetworkAgentExchange, NoDecoderMeansNoResultAsASuccessAndAThrowingCallbackStopsNothing) {
  server.answer("/json", ScriptedAnswer(200, "{}").type("application/json"));
  auto request = VKQVesk::initWithJSONUrl(server.url("/json"), nullptr, VKQRequestMethodGET);
  request->responseSerializerTypePromise()(static_cast<VKQResponseSerializerType>(2));
  auto calls = start(*request);
  request->setCompletionResultBlock([](std::shared_ptr<VKQVeskResult>) { throw std::runtime_error("app bug"); });
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (Order{"success"}));
  EXPECT_EQ(calls->results.back(), nullptr);
}

}  // namespace
