// The future and coroutine forms: the result a request's callbacks would get, handed
// over on the main queue, and a cancellation that ends the wait instead of leaving it.
#include <coroutine>
#include <exception>

#include "Classes/VKQVeskAsync.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::testing::kxpRequest;
using vkq::testing::ScriptedAnswer;
using namespace std::chrono_literals;

// A coroutine that runs from its call until its end, owned by no one.
struct Detached {
  struct promise_type {
    Detached get_return_object() { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
};

// What an awaiting coroutine saw when it resumed.
struct Resumption {
  bool resumed = false;
  bool onMainQueue = false;
  std::shared_ptr<VKQVeskResult> result;
};

Detached await(std::shared_ptr<VKQVeskRequest> request, Resumption& seen) {
  seen.result = co_await VKQRequestAwaitable(std::move(request));
  seen.onMainQueue = vkq::platform::MainQueue::isCurrent();
  seen.resumed = true;
}

void expectCancelled(const std::shared_ptr<VKQVeskResult>& result, const VKQVeskRequest& request) {
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->responseCode()->code(), VKQResponseCodeHTTPError);
  ASSERT_NE(request.error(), nullptr);
  EXPECT_EQ(request.error()->domain(), vkq::platform::kURLErrorDomain);
  EXPECT_EQ(request.error()->code(), vkq::platform::kURLErrorCancelled);
}

class VKQVeskAsync : public vkq::testing::AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    vkq::testing::serveKXP(server, "/kxp", VKQKXPFrame::kDefaultSettings);
    server.answer("/hang", ScriptedAnswer().neverAnswer());
  }
  vkq::testing::TestServer server;
};

TEST_F(VKQVeskAsync, AFutureHoldsTheResultAndACancelEndsItsWait) {
  auto answered = VKQRequestFuture(kxpRequest(server.url("/kxp"), "ping"));
  // The value is set on the main queue, which this test drains.
  EXPECT_EQ(answered.wait_for(50ms), std::future_status::timeout);
  ASSERT_TRUE(runUntil([&] { return answered.wait_for(0s) == std::future_status::ready; }));
  const auto result = answered.get();
  EXPECT_EQ(result->responseCode()->code(), VKQResponseCodeSuccess);
  EXPECT_EQ(vkq::platform::stringFromBytes(*result->data().data()), "pong:ping");

  auto request = kxpRequest(server.url("/hang"), "ping");
  auto cancelled = VKQRequestFuture(request);
  ASSERT_TRUE(server.waitForRequests(2, 10s));
  agent().cancelRequest(request);
  ASSERT_TRUE(runUntil([&] { return cancelled.wait_for(0s) == std::future_status::ready; }));
  expectCancelled(cancelled.get(), *request);
}

TEST_F(VKQVeskAsync, ACoroutineResumesOnTheMainQueueWithTheResultOrTheCancellation) {
  Resumption answered;
  await(kxpRequest(server.url("/kxp"), "co"), answered);
  EXPECT_FALSE(answered.resumed) << "resumed inside the call that started the request";
  ASSERT_TRUE(runUntil([&] { return answered.resumed; }));
  EXPECT_TRUE(answered.onMainQueue);
  EXPECT_EQ(vkq::platform::stringFromBytes(*answered.result->data().data()), "pong:co");

  // A download is cancelled through its resume data; the wait ends all the same.
  vkq::testing::PrivateTemporaryDirectory temporary;  // where the resume data goes
  vkq::testing::ScratchFolder folder;
  vkq::testing::writeFile(folder / "source.bin", std::string(1 << 20, 'x'));
  server.serveFile("/files/slow.bin", folder / "source.bin", vkq::testing::FileOptions().withETag("\"v1\"").slow(50ms));
  auto request = VKQVesk::initWithDownloadURL(server.url("/files/slow.bin"), folder / "copy.bin", nullptr);
  Resumption cancelled;
  await(request, cancelled);
  ASSERT_TRUE(server.waitForRequests(2, 10s));
  agent().cancelRequest(request);
  ASSERT_TRUE(runUntil([&] { return cancelled.resumed; }));
  EXPECT_TRUE(cancelled.onMainQueue);
  expectCancelled(cancelled.result, *request);
}

}  // namespace
