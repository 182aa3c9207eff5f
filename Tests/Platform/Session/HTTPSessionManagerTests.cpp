// Data tasks against the in-process test server.
#include "Platform/Session/HTTPSessionManager.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "Classes/Codec/Deflate.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

using platform::HTTPSessionManager;
using platform::URLRequest;
using platform::URLSessionTaskState;

class DataTaskTest : public ::testing::Test {
 protected:
  DataOutcome run(const URLRequest& request) { return runToEnd(*manager, request); }
  // A resumed task for `path` that reports to `outcomes`.
  auto start(const std::string& path, Outcomes<DataOutcome>& outcomes, double timeout = 20.0) {
    auto task =
        manager->dataTaskWithRequest(makeRequest(server.url(path), timeout), nullptr, nullptr, outcomes.collector());
    task->resume();
    return task;
  }

  TestServer server;  // declared first: outlives the manager's connections
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

// Each answer also sets a cookie, which the next request carries.
TEST_F(DataTaskTest, AnswersArriveOnTheCompletionQueueAndStatusesOutside2xxAreErrorsThatKeepTheBody) {
  const std::tuple<int, const char*, std::int64_t> cases[] = {
      {200, R"({"id":7})", 0}, {204, "", 0}, {404, "not here", platform::kURLErrorBadServerResponse}};
  std::optional<std::string> cookie;  // set by the answer before
  for (const auto& [status, body, error] : cases) {
    server.answer("/status", ScriptedAnswer(status, body).header("Set-Cookie", "last=" + std::to_string(status)));
    const DataOutcome outcome = run(makeRequest(server.url("/status")));
    EXPECT_EQ(server.requests().back().header("Cookie"), std::exchange(cookie, "last=" + std::to_string(status)));
    EXPECT_EQ(outcome.response ? outcome.response->statusCode : 0, status);
    EXPECT_EQ(outcome.body(), body);
    EXPECT_EQ(codeOf(outcome.error), error);
    EXPECT_NE(outcome.thread, std::this_thread::get_id());
  }
}

// The idle time-out counts silence, not duration: the trickle takes longer than it in all.
TEST_F(DataTaskTest, SuspendedTaskMovesNoDataAndDoesNotTimeOutThenResumesOrCancels) {
  const std::string body = patternBytes(20 * 100);
  for (const bool cancelWhileSuspended : {false, true}) {
    SCOPED_TRACE(cancelWhileSuspended ? "cancel while suspended" : "resume");
    server.answer("/trickle", ScriptedAnswer(200, body).slow(30ms, 100));  // 0.6 s in all
    Outcomes<DataOutcome> outcomes;
    auto task = start("/trickle", outcomes, 0.3);
    ASSERT_TRUE(waitUntil([&] { return task->countOfBytesReceived() > 0; }));
    task->suspend();
    // Longer than the idle time-out and the whole answer: neither may end the task.
    EXPECT_FALSE(outcomes.waitFor(1, 1s));
    EXPECT_LT(task->countOfBytesReceived(), static_cast<std::int64_t>(body.size()));
    cancelWhileSuspended ? task->cancel() : task->resume();
    ASSERT_TRUE(outcomes.waitFor(1));
    EXPECT_EQ(codeOf(outcomes.all()[0].error), cancelWhileSuspended ? std::int64_t{platform::kURLErrorCancelled} : 0);
    EXPECT_EQ(outcomes.all()[0].body(), cancelWhileSuspended ? "" : body);
  }
}

TEST_F(DataTaskTest, CompressedAnswersAreDecodedAndBodiesBeyondTheLimitFailWhetherAnnouncedStreamedOrCompressed) {
  server.answer("/announced", ScriptedAnswer(200, std::string(100 * 1024, 'a')));
  server.answer("/streamed", ScriptedAnswer(200, std::string(100 * 1024, 'b')).slow(0ms, 16 * 1024));
  // 16 MiB of zeros in a few KiB: a compression bomb. ("deflate" is the zlib format.)
  const auto compressed = [](const std::string& text) {
    const auto bytes = Deflate::compress(platform::bytesFromString(text)).value();
    return ScriptedAnswer(200, std::string(bytes.begin(), bytes.end())).header("Content-Encoding", "deflate");
  };
  server.answer("/bomb", compressed(std::string(16 << 20, '\0')));
  server.answer("/fits", compressed(std::string(64 * 1024, 'c')));
  const auto limited = [&](const char* path) {
    URLRequest request = makeRequest(server.url(path));
    request.maximumBodyLength = 64 * 1024;
    return run(request);
  };
  for (const char* path : {"/announced", "/streamed", "/bomb"}) {
    EXPECT_EQ(codeOf(limited(path).error), platform::kURLErrorDataLengthExceedsMaximum) << path;
  }
  EXPECT_EQ(limited("/fits").body().size(), 64u * 1024);
}

TEST_F(DataTaskTest, CancellingOrDestroyingTheManagerCompletesATaskOnceWithCancelledAndAnUnsentOneIsNeverSent) {
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  Outcomes<DataOutcome> running, suspended, dropped;
  auto task = start("/hang", running);
  ASSERT_TRUE(server.waitForRequests(1, 10s));
  task->cancel();
  task->cancel();
  auto unsent =
      manager->dataTaskWithRequest(makeRequest(server.url("/unsent")), nullptr, nullptr, suspended.collector());
  unsent->cancel();
  unsent->resume();  // no effect once cancelled
  ASSERT_TRUE(running.waitFor(1) && suspended.waitFor(1));
  task->resume();  // no effect once completed
  for (auto* outcomes : {&running, &suspended}) {
    EXPECT_FALSE(outcomes->waitFor(2, 200ms));
    EXPECT_EQ(codeOf(outcomes->all()[0].error), platform::kURLErrorCancelled);
  }
  EXPECT_EQ(server.requestCount(), 1u);

  start("/hang", dropped);
  ASSERT_TRUE(server.waitForRequests(2, 10s));
  manager.reset();
  ASSERT_EQ(dropped.all().size(), 1u);
  EXPECT_EQ(codeOf(dropped.all()[0].error), platform::kURLErrorCancelled);
}

TEST_F(DataTaskTest, EachExchangeSendsItsOwnMethodAndBodyOneAfterAnotherOrConcurrently) {
  server.handle("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.method + ":" + request.body, "application/octet-stream");
  });
  const auto requestFor = [&](const char* method, std::optional<std::string> body) {
    URLRequest request = makeRequest(server.url("/echo"));
    request.HTTPMethod = method;
    if (body) request.HTTPBody = platform::bytesFromString(*body);
    request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");  // not a form to parse
    return request;
  };
  // One after another, the exchanges reuse one easy handle: none may inherit the method
  // or body of the one before.
  const std::pair<const char*, std::optional<std::string>> exchanges[] = {
      {"GET", {}}, {"POST", "abc"}, {"GET", {}}, {"HEAD", {}}, {"GET", {}}, {"POST", {}}, {"PUT", "xy"}, {"GET", {}}};
  for (const auto& [method, body] : exchanges) {
    const DataOutcome outcome = run(requestFor(method, body));
    ASSERT_EQ(codeOf(outcome.error), 0) << method;
    EXPECT_EQ(outcome.body(), std::string(method) == "HEAD" ? "" : method + (":" + body.value_or(""))) << method;
  }

  // At once, with bodies large enough for libcurl to wait for "100 Continue" unless told not to.
  const char* methods[] = {"POST", "PUT", "PATCH", "DELETE"};
  const auto bodyOf = [](std::size_t i) { return patternBytes(2 << 20, static_cast<std::uint32_t>(i)); };
  std::vector<Outcomes<DataOutcome>> outcomes(std::size(methods));
  std::vector<Outcomes<platform::Progress>> progress(std::size(methods));
  for (std::size_t i = 0; i < std::size(methods); ++i) {
    manager
        ->dataTaskWithRequest(requestFor(methods[i], bodyOf(i)), progress[i].collector(), nullptr,
                              outcomes[i].collector())
        ->resume();
  }
  for (std::size_t i = 0; i < std::size(methods); ++i) {
    ASSERT_TRUE(outcomes[i].waitFor(1));
    EXPECT_TRUE(outcomes[i].all()[0].body() == methods[i] + (":" + bodyOf(i))) << methods[i];
    ASSERT_FALSE(progress[i].all().empty());  // upload progress, delivered before the completion
    EXPECT_EQ(progress[i].all().back(), (platform::Progress{2 << 20, 2 << 20}));
  }
  for (const auto& recorded : server.requests()) EXPECT_FALSE(recorded.header("Expect").has_value());
}

TEST_F(DataTaskTest, ThrowingHandlersAndAHandlerHoldingTheLastReferenceToTheManagerDoNoHarm) {
  server.answer("/a", ScriptedAnswer(200, "a"));
  Outcomes<DataOutcome> held;
  auto throwing = [](auto&&...) { throw std::runtime_error("handler"); };
  auto thrower = manager->dataTaskWithRequest(makeRequest(server.url("/a")), nullptr, throwing, throwing);
  thrower->resume();
  ASSERT_TRUE(waitUntil([&] { return thrower->state() == URLSessionTaskState::Completed; }));
  auto holding = [collect = held.collector(), keep = manager](auto... outcome) { collect(outcome...); };
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/a")), nullptr, nullptr, std::move(holding));
  manager.reset();  // the handler now holds the last reference
  task->resume();
  ASSERT_TRUE(held.waitFor(1));
  EXPECT_EQ(held.all()[0].body(), "a");
}

}  // namespace
}  // namespace vkq::testing
