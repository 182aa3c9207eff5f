// Many requests at once from several threads, some cancelled at random: every request
// that is not cancelled hears back exactly once, and nothing is left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "Classes/VKQVesk.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

using vkq::testing::TestServer;

class VKQNetworkAgentStress : public vkq::testing::AgentTest {};

TEST_F(VKQNetworkAgentStress, AThousandConcurrentRequestsWithRandomCancels) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 250;
  constexpr int kRequests = kThreads * kPerThread;
  TestServer::Options options;
  options.threads = 128;
  TestServer server(options);
  const auto makeRequest = [&](int index) {
    return VKQVesk::initWithKXPUrl(server.url("/kxp"), std::make_shared<vkq::platform::Bytes>(
                                                           vkq::platform::bytesFromString("request " + std::to_string(index))));
  };
  vkq::testing::serveKXP(server, "/kxp", VKQKXPFrameSettingsOf(*makeRequest(0)));

  // Touched on the main queue (this thread) only.
  std::vector<int> outcomes(kRequests, 0), failures(kRequests, 0);
  // Each starting thread writes its own slice; read after the threads are joined.
  std::vector<std::shared_ptr<VKQVesk>> strong(kRequests);
  std::vector<std::weak_ptr<VKQVesk>> weak(kRequests);
  std::vector<char> cancelled(kRequests, 0);
  std::vector<std::thread> starters;
  for (int t = 0; t < kThreads; ++t) {
    starters.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t) + 1);
      const int first = t * kPerThread;
      for (int i = first; i < first + kPerThread; ++i) {
        strong[i] = makeRequest(i);
        weak[i] = strong[i];
        strong[i]->requestCompletion([&outcomes, &failures, i](std::shared_ptr<VKQVeskResult> result) {
          ++outcomes[i];
          failures[i] += result->responseCode()->code() != 0 ? 1 : 0;
        });
        // Cancel about one in five, either at once or a little later.
        if (random() % 5 == 0) {
          const int victim = first + static_cast<int>(random() % static_cast<unsigned>(i - first + 1));
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
  for (int i = 0; i < kRequests; ++i) {
    // A cancel can race a completion already under way, never the cancellation itself:
    // a cancelled request hears back at most once, and never of its own cancellation.
    EXPECT_LE(outcomes[i], 1) << i;
    EXPECT_TRUE(cancelled[i] || outcomes[i] == 1) << i;
    EXPECT_EQ(failures[i], 0) << i;
  }
  EXPECT_GT(std::count(cancelled.begin(), cancelled.end(), 1), 0);

  strong.clear();
  const auto allGone = [&] {
    return std::all_of(weak.begin(), weak.end(), [](const auto& w) { return w.expired(); });
  };
  EXPECT_TRUE(runUntil(allGone, std::chrono::seconds(10))) << "requests outlived their exchanges";
}

}  // namespace
