// Many requests at once from several threads, some cancelled at random: every request
// that is not cancelled hears back exactly once, and nothing is left behind.
#include <gtest/gtest.h>

#include <random>
#include <span>
#include <thread>

#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQVesk.h"
#include "Tests/Classes/AgentTestSupport.h"
#include "Tests/Support/TestServer.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::bytesFromString;
using vkq::testing::AgentTest;
using vkq::testing::TestServer;

class VKQNetworkAgentStress : public AgentTest {};

TEST_F(VKQNetworkAgentStress, AThousandConcurrentRequestsWithRandomCancels) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 250;
  constexpr int kRequests = kThreads * kPerThread;

  TestServer::Options options;
  options.threads = 128;
  TestServer server(options);
  auto makeRequest = [&](int index) {
    return VKQVesk::initWithKXPUrl(server.url("/kxp"),
                                   std::make_shared<Bytes>(bytesFromString("request " + std::to_string(index))));
  };
  const VKQKXPFrameSettings settings = VKQKXPFrameSettings::fromRequest(*makeRequest(0));
  server.handle("/kxp", [settings](const httplib::Request& request, httplib::Response& response) {
    const auto parsed = VKQKXPServerCodec::parseRequestFrame(
        std::span(reinterpret_cast<const std::uint8_t*>(request.body.data()), request.body.size()), settings);
    if (!parsed.ok()) {
      response.status = 400;
      return;
    }
    const auto frame = VKQKXPServerCodec::makeResponseFrame(parsed.payload(), settings);
    response.set_content(std::string(frame->begin(), frame->end()), "application/octet-stream");
  });

  // Touched on the main queue (this thread) only.
  std::vector<int> outcomes(kRequests, 0);
  std::vector<int> failures(kRequests, 0);
  // Each starting thread writes its own slice; read after the threads are joined.
  std::vector<std::shared_ptr<VKQVesk>> strong(kRequests);
  std::vector<std::weak_ptr<VKQVesk>> weak(kRequests);
  std::vector<char> cancelled(kRequests, 0);

  std::vector<std::thread> starters;
  for (int t = 0; t < kThreads; ++t) {
    starters.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t) + 1);
      for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i) {
        auto request = makeRequest(i);
        request->requestCompletion([&outcomes, &failures, i](std::shared_ptr<VKQVeskResult> result) {
          ++outcomes[i];
          failures[i] += result->responseCode()->code() != 0 ? 1 : 0;
        });
        strong[i] = request;
        weak[i] = request;
        // Cancel about one in five, either at once or a little later.
        if (random() % 5 == 0) {
          const int victim = t * kPerThread + static_cast<int>(random() % static_cast<unsigned>(i - t * kPerThread + 1));
          VKQNetworkAgent::sharedAgent().cancelRequest(strong[victim]);
          cancelled[victim] = 1;
        }
      }
    });
  }
  for (auto& starter : starters) starter.join();

  const auto allHeardBack = [&] {
    for (int i = 0; i < kRequests; ++i) {
      if (!cancelled[i] && outcomes[i] == 0) return false;
    }
    return true;
  };
  ASSERT_TRUE(runUntil(allHeardBack, std::chrono::seconds(120)));
  // Let cancelled tasks finish and any straggling job run.
  ASSERT_TRUE(runUntil([] { return VKQNetworkAgent::sharedAgent().recordCount() == 0; }));
  runFor(std::chrono::milliseconds(300));

  int cancelledCount = 0;
  for (int i = 0; i < kRequests; ++i) {
    cancelledCount += cancelled[i];
    if (cancelled[i]) {
      // A cancel can race a completion already under way; never more than one outcome.
      EXPECT_LE(outcomes[i], 1) << i;
    } else {
      EXPECT_EQ(outcomes[i], 1) << i;
      EXPECT_EQ(failures[i], 0) << i;
    }
  }
  EXPECT_GT(cancelledCount, 0);

  strong.clear();
  const auto allGone = [&] {
    for (const auto& w : weak) {
      if (!w.expired()) return false;
    }
    return true;
  };
  EXPECT_TRUE(runUntil(allGone, std::chrono::seconds(10))) << "requests outlived their exchanges";
}

}  // namespace
