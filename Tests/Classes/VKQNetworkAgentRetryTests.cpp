// Retries through the agent: the request's properties reach the transport, and the
// application hears once, with the last outcome and its metrics.
#include <atomic>

#include "Tests/Classes/AgentTestSupport.h"

namespace vkq::testing {
namespace {

class VKQNetworkAgentRetry : public AgentTest {
 protected:
  // Answers 503 ("Retry-After: 0") to the first `failures` requests for `path`, then
  // passes them on to `then`.
  void failFirst(const std::string& path, int failures, TestServer::Handler then) {
    server.handle(path, [this, failures, then](const httplib::Request& request, httplib::Response& response) {
      if (seen.fetch_add(1) < failures) {
        response.status = 503;
        response.set_header("Retry-After", "0");
        return;
      }
      then(request, response);
    });
  }

  TestServer server;
  std::atomic<int> seen{0};
};

TEST_F(VKQNetworkAgentRetry, AJSONRequestRidesOutFailuresAndReportsOneOutcomeWithMetrics) {
  failFirst("/json", 2, [](const httplib::Request&, httplib::Response& response) {
    response.set_content(R"({"ok":true})", "application/json");
  });
  auto request = VKQVesk::initWithJSONUrl(server.url("/json"), nullptr, VKQRequestMethodGET);
  request->maximumRetryCountPromise()(2)->retryBaseDelayPromise()(0.001);
  const auto calls = start(*request);
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "success"}));
  EXPECT_EQ(seen.load(), 3);
  const auto& metrics = calls->results.back()->metrics();
  EXPECT_EQ(metrics.retries, 2);
  EXPECT_GE(metrics.total, metrics.firstByte);
  EXPECT_GT(metrics.firstByte, 0);
}

TEST_F(VKQNetworkAgentRetry, AKXPRequestIsAPostAndRetriedOnlyWhenItSaysSo) {
  failFirst("/kxp", 100, nullptr);
  for (const bool allowed : {false, true}) {
    seen = 0;
    auto request = kxpRequest(server.url("/kxp"), "ping");
    request->maximumRetryCountPromise()(3)->retryBaseDelayPromise()(0.001)->retriesNonIdempotentRequestsPromise()(
        allowed);
    const auto calls = start(*request);
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order.back(), "failure");
    EXPECT_EQ(seen.load(), allowed ? 4 : 1);
    EXPECT_EQ(calls->results.back()->metrics().retries, allowed ? 3 : 0);
  }
}

}  // namespace
}  // namespace vkq::testing
