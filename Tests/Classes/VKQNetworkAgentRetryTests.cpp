// Retries through the agent: the request's properties reach the transport, and the
// application hears once, with the last outcome and its metrics.
#include <atomic>

#include "Tests/Classes/AgentTestSupport.h"

namespace vkq::testing {
namespace {

class VKQNetworkAgentRetry : public AgentTest {
 protected:
  TestServer server;
};

// Up to three retries of answers 503 ("Retry-After: 0"); a KXP request is a POST: retried
// only when it says so.
TEST_F(VKQNetworkAgentRetry, RequestsRideOutFailuresAsTheirPropertiesSayAndReportOneOutcomeWithMetrics) {
  const struct {
    bool kxp, allowed;
    int failures, requests;
    const char* outcome;
  } cases[] = {
      {false, false, 2, 3, "success"},
      {true, false, 100, 1, "failure"},
      {true, true, 100, 4, "failure"},
  };
  std::atomic<int> seen{0};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.kxp ? "kxp" : "json") + (c.allowed ? " allowed" : ""));
    seen = 0;
    server.handle("/retry", [&seen, failures = c.failures](const httplib::Request&, httplib::Response& response) {
      if (seen.fetch_add(1) < failures) {
        response.status = 503;
        response.set_header("Retry-After", "0");
      } else {
        response.set_content("{}", "application/json");
      }
    });
    auto request = c.kxp ? kxpRequest(server.url("/retry"), "ping")
                         : VKQVesk::initWithJSONUrl(server.url("/retry"), nullptr, VKQRequestMethodGET);
    request->maximumRetryCountPromise()(3)->retryBaseDelayPromise()(0.001)->retriesNonIdempotentRequestsPromise()(
        c.allowed);
    const auto calls = start(*request);
    ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", c.outcome}));
    EXPECT_EQ(seen.load(), c.requests);
    const auto& metrics = calls->results.back()->metrics();
    EXPECT_EQ(metrics.retries, c.requests - 1);
    EXPECT_GE(metrics.total, metrics.firstByte);
    EXPECT_GT(metrics.firstByte, 0);
  }
}

}  // namespace
}  // namespace vkq::testing
