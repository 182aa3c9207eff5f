// Retries, the overall deadline and the metrics of data tasks, against a fault server
// that answers each request in turn.
#include <gtest/gtest.h>

#include <algorithm>

#include "Platform/Session/HTTPSessionManager.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/FaultServer.h"

namespace vkq::testing {
namespace {

using namespace platform;

class RetryTest : public ::testing::Test {
 protected:
  // A request to `path` that retries up to twice with (almost) no back-off.
  URLRequest request(const std::string& path) {
    URLRequest made = makeRequest(server.url(path), 5.0);
    made.retryPolicy.maximumRetries = 2;
    made.retryPolicy.baseDelay = 0.001;
    return made;
  }
  std::pair<DataOutcome, URLSessionTaskMetrics> run(const URLRequest& request) {
    Outcomes<DataOutcome> outcomes;
    auto task = manager->dataTaskWithRequest(request, nullptr, nullptr, outcomes.collector());
    task->resume();
    EXPECT_TRUE(outcomes.waitFor(1));
    EXPECT_FALSE(outcomes.waitFor(2, 100ms)) << "more than one outcome";
    return {outcomes.all().at(0), task->metrics()};
  }
  std::size_t requestsFor(const std::string& path) const {
    return static_cast<std::size_t>(std::ranges::count(server.requests(), path, &FaultRequest::target));
  }
  static FaultAnswer unavailable(std::string retryAfter = "0") {
    return FaultAnswer::reply(503, "busy", "Retry-After: " + retryAfter + "\r\n");
  }

  FaultServer server;
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

TEST_F(RetryTest, RetriesListedStatusesAndLostConnectionsUntilOneSucceedsOrNoneAreLeft) {
  const struct {
    const char* name;
    std::deque<FaultAnswer> answers;
    std::size_t requests;
    int status;  // of the outcome; 0: the connection was lost
  } cases[] = {
      {"503 twice", {unavailable(), unavailable(), FaultAnswer::reply(200, "ok")}, 3, 200},
      {"lost, then 502", {FaultAnswer(), FaultAnswer::reply(502), FaultAnswer::reply(200, "ok")}, 3, 200},
      {"cut body", {FaultAnswer::reply(200, "hello").cutAfter("\r\n\r\n", 2), FaultAnswer::reply(200, "ok")}, 2, 200},
      {"no retries left", {unavailable()}, 3, 503},
      {"always lost", {FaultAnswer()}, 3, 0},
      {"404 is an answer", {FaultAnswer::reply(404), FaultAnswer::reply(200, "ok")}, 1, 404},
  };
  int index = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "/case" + std::to_string(index++);
    server.answerInTurn(path, c.answers);
    const auto [outcome, metrics] = run(request(path));
    EXPECT_EQ(requestsFor(path), c.requests);
    EXPECT_EQ(metrics.retries, static_cast<int>(c.requests) - 1);
    EXPECT_EQ(outcome.response ? outcome.response->statusCode : 0, c.status);
    EXPECT_EQ(codeOf(outcome.error), c.status == 200 ? std::int64_t{0}
                                     : c.status == 0 ? kURLErrorNetworkConnectionLost
                                                     : kURLErrorBadServerResponse);
    EXPECT_TRUE(c.status != 200 || outcome.body() == "ok") << outcome.body();  // nothing of the failed answers
  }
}

// The back-off waits as long as Retry-After says (a base delay of 1 ms would not).
TEST_F(RetryTest, CancelDuringTheBackOffEndsTheTaskAtOnceAndOnce) {
  server.answer("/busy", unavailable("30"));
  Outcomes<DataOutcome> outcomes;
  URLRequest waiting = request("/busy");
  waiting.retryPolicy.maximumDelay = 30;
  auto task = manager->dataTaskWithRequest(waiting, nullptr, nullptr, outcomes.collector());
  task->resume();
  ASSERT_TRUE(waitUntil([&] { return requestsFor("/busy") == 1; }));
  EXPECT_FALSE(outcomes.waitFor(1, 100ms)) << "the back-off did not wait";
  task->cancel();
  ASSERT_TRUE(outcomes.waitFor(1, 5s));
  EXPECT_EQ(codeOf(outcomes.all().at(0).error), kURLErrorCancelled);
  EXPECT_FALSE(outcomes.waitFor(2, 100ms));
  EXPECT_EQ(requestsFor("/busy"), 1u);
}

TEST_F(RetryTest, TheDeadlineEndsAServerThatDripsOrStallsAndStopsFurtherRetries) {
  server.answer("/drip", FaultAnswer::reply(200, std::string(1000, 'x')).dripping(20ms));
  server.answer("/stall", FaultAnswer::stalled());
  for (const char* path : {"/drip", "/stall"}) {
    URLRequest limited = request(path);
    limited.deadlineInterval = 0.3;  // the idle time-out (5 s) never comes
    EXPECT_EQ(codeOf(run(limited).first.error), kURLErrorTimedOut) << path;
    EXPECT_EQ(requestsFor(path), 1u) << "a retry cannot end before the deadline";
  }
}

TEST_F(RetryTest, MetricsArePlausibleForSuccessAndFailure) {
  server.answer("/ok", FaultAnswer::reply(200, "hello"));
  const auto [outcome, metrics] = run(request("/ok"));
  ASSERT_FALSE(outcome.error);
  EXPECT_GE(metrics.connect, metrics.nameLookup);
  EXPECT_GE(metrics.requestSent, metrics.connect);
  EXPECT_GE(metrics.firstByte, metrics.requestSent);
  EXPECT_GE(metrics.total, metrics.firstByte);
  EXPECT_GT(metrics.bytesReceived, 5);   // head and body
  EXPECT_EQ(metrics.httpVersion, "1.1");
  EXPECT_EQ(metrics.retries, 0);

  // Nothing listens at the port of a server that is gone.
  URLRequest refused = makeRequest(FaultServer().url("/"), 5.0);
  refused.retryPolicy.maximumRetries = 1;
  refused.retryPolicy.baseDelay = 0.001;
  const auto [failure, failed] = run(refused);
  EXPECT_EQ(codeOf(failure.error), kURLErrorCannotConnectToHost);
  EXPECT_EQ(failed.firstByte, -1);
  EXPECT_EQ(failed.retries, 1);
}

}  // namespace
}  // namespace vkq::testing
