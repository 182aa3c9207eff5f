// Many requests at once from several threads, some cancelled at random, some started
// again from their own callbacks: every request that is not cancelled hears back exactly
// once per start, and nothing is left behind.
#include <random>
#include <thread>

#include "Tests/Classes/AgentTestSupport.h"

namespace {

class VKQNetworkAgentStress : public vkq::testing::AgentTest {};

TEST_F(VKQNetworkAgentStress, AThousandConcurrentRequestsWithRandomCancelsAndRestartsFromCallbacks) {
  constexpr int kThreads = 4, kPerThread = 250, kRequests = kThreads * kPerThread;
  vkq::testing::TestServer::Options options;
  options.threads = 128;
  vkq::testing::TestServer server(options);
  vkq::testing::serveKXP(server, "/kxp", VKQKXPFrameSettingsOf(*vkq::testing::kxpRequest("", "")));

  // Outcomes are counted on the main queue (this thread); each starting thread writes
  // its own slice of the rest, read after the threads are joined.
  std::vector<char> cancelled(kRequests, 0);
  std::vector<int> outcomes(kRequests, 0), failures(kRequests, 0), restarts(kRequests, 0);
  const auto failed = [](const std::shared_ptr<VKQVeskResult>& result) {
    return result->responseCode()->code() != VKQResponseCodeSuccess ? 1 : 0;
  };
  // Every seventh request that is not cancelled starts again from its first callback.
  const auto restarted = [&cancelled = std::as_const(cancelled)](int i) { return i % 7 == 0 && !cancelled[i]; };
  std::vector<std::shared_ptr<VKQVesk>> strong(kRequests);
  std::vector<std::weak_ptr<VKQVesk>> weak(kRequests);
  std::vector<std::jthread> starters;
  for (int t = 0; t < kThreads; ++t) {
    starters.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t) + 1);
      for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i) {
        weak[i] = strong[i] = vkq::testing::kxpRequest(server.url("/kxp"), "request " + std::to_string(i));
        strong[i]->requestCompletion([&, i](std::shared_ptr<VKQVeskResult> result) {
          ++outcomes[i];
          failures[i] += failed(result);
          if (!restarted(i)) return;
          strong[i]->requestCompletion([&, i](std::shared_ptr<VKQVeskResult> again) {
            ++restarts[i];
            failures[i] += failed(again);
          });
        });
        // Cancel about one in five, either at once or a little later.
        if (random() % 5 == 0) {
          const int victim = t * kPerThread + static_cast<int>(random() % static_cast<unsigned>(i % kPerThread + 1));
          VKQNetworkAgent::sharedAgent().cancelRequest(strong[victim]);
          cancelled[victim] = 1;
        }
      }
    });
  }
  starters.clear();  // joins

  const auto heardBack = [&] {
    for (int i = 0; i < kRequests; ++i) {
      if (!cancelled[i] && (outcomes[i] == 0 || (restarted(i) && restarts[i] == 0))) return false;
    }
    return true;
  };
  ASSERT_TRUE(runUntil(heardBack, std::chrono::seconds(120)));
  // Only the registry and queued deliveries keep a request beyond this point, so once
  // all are gone every callback that will ever run has run.
  strong.clear();
  ASSERT_TRUE(runUntil([&] { return std::ranges::all_of(weak, [](const auto& w) { return w.expired(); }); }))
      << "requests outlived their exchanges";
  for (int i = 0; i < kRequests; ++i) {
    // A cancel can race a completion already under way, never the cancellation itself:
    // a cancelled request hears back at most once, and never of its own cancellation.
    EXPECT_TRUE(cancelled[i] ? outcomes[i] <= 1 : outcomes[i] == 1) << i;
    EXPECT_EQ(restarts[i], restarted(i) ? 1 : 0) << i;
    EXPECT_EQ(failures[i], 0) << i;
  }
  EXPECT_GT(std::ranges::count(cancelled, 1), 0);
}

}  // namespace
