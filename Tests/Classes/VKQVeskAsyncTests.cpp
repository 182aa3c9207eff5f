// The future and coroutine forms: the result a request's callbacks would get, handed
// over on the main queue, and a cancel that ends the wait instead of leaving it. (The
// README's tour runs both forms against `vkq serve` too.)
#include "Classes/VKQVeskAsync.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace vkq::testing {
namespace {

// Awaits the request; `seen` holds the result once the coroutine has resumed.
VKQDetachedCoroutine await(std::shared_ptr<VKQVesk> request, std::optional<std::shared_ptr<VKQVeskResult>>& seen) {
  seen = co_await VKQRequestAwaitable(std::move(request));
  EXPECT_TRUE(platform::MainQueue::isCurrent()) << "resumed off the main queue";
}

void expectCancelled(const std::shared_ptr<VKQVeskResult>& result, const VKQVeskRequest& request) {
  EXPECT_EQ(std::tuple(result->responseCode()->code(), request.error()->domain(), request.error()->code()),
            std::tuple(VKQResponseCodeHTTPError, platform::kURLErrorDomain, platform::kURLErrorCancelled));
}

TEST_F(AgentTest, FuturesAndCoroutinesGetTheResultOnTheMainQueueOrTheCancellation) {
  TestServer server;
  serveKXP(server, "/kxp", VKQKXPFrame::kDefaultSettings);
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  std::optional<std::shared_ptr<VKQVeskResult>> answered, ended;  // what each coroutine got
  await(kxpRequest(server.url("/kxp"), "co"), answered);
  auto awaited = kxpRequest(server.url("/hang"), "co"), waited = kxpRequest(server.url("/hang"), "future");
  await(awaited, ended);
  auto future = VKQRequestFuture(waited);
  EXPECT_FALSE(answered) << "resumed inside the call that started the request";
  ASSERT_TRUE(runUntil([&] { return answered.has_value(); }));
  EXPECT_EQ(platform::stringFromBytes(*(*answered)->data().data()), "pong:co");

  ASSERT_TRUE(server.waitForRequests(3, std::chrono::seconds(10)));
  for (const auto& request : {awaited, waited}) agent().cancelRequest(request);
  ASSERT_TRUE(runUntil([&] { return ended && future.wait_for(std::chrono::seconds{}) == std::future_status::ready; }));
  expectCancelled(*ended, *awaited);
  expectCancelled(future.get(), *waited);
}

}  // namespace
}  // namespace vkq::testing
