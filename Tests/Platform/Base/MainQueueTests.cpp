// The main queue: its order and batches, and its integration modes fed from other
// threads and by real requests' completions (which the transport posts in batches).
#include "Platform/Base/HandoffBatch.h"
#include "Platform/Base/MainQueue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <stdexcept>

#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

using platform::MainQueue;

bool readableWithin(int descriptor, int milliseconds) {
  pollfd watched{descriptor, POLLIN, 0};
  return poll(&watched, 1, milliseconds) == 1;
}

// The mode is process-wide: each test starts and ends with manual draining and no jobs.
class MainQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    MainQueue::useManualDraining();
    MainQueue::drain();
  }
};

// Under a dispatcher, as an application's loop would run it.
TEST_F(MainQueueTest, RunsJobsInPostingOrderInWholeBatchesOnlyInsideDrainAndWakesTheDispatcherWhenTheyStartToWait) {
  int woken = 0;
  MainQueue::setDispatcher([&woken] { ++woken; });
  std::vector<int> order;
  {
    const platform::HandoffBatch outer;
    for (int i = 1; i < 4; ++i) {
      const platform::HandoffBatch nested;
      MainQueue::async([&order, i] {
        EXPECT_TRUE(MainQueue::isCurrent());
        if (i == 1) MainQueue::async([&order] { order.push_back(4); });  // runs after the batch
        EXPECT_EQ(MainQueue::drain(), 0u);                               // no re-entrant draining
        order.push_back(i);
        if (i == 2) throw std::runtime_error("callback failed");
      });
    }
    EXPECT_EQ(woken, 0);
  }
  EXPECT_EQ(woken, 1);  // once for the whole batch
  EXPECT_EQ(MainQueue::drain(), 4u);
  EXPECT_EQ(order, (std::vector{1, 2, 3, 4}));
}

TEST_F(MainQueueTest, PollableDescriptorIsReadableExactlyWhileJobsWaitAndRequestsAnswerInsideDrain) {
  const int descriptor = MainQueue::usePollableDescriptor();
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(MainQueue::usePollableDescriptor(), descriptor);
  MainQueue::async([] {});
  EXPECT_TRUE(readableWithin(descriptor, 0));

  // Completions race the drains; none may leave jobs waiting behind an unreadable descriptor,
  // and the last drain leaves it unreadable.
  TestServer server;  // a handler thread for each connection: no request waits for one
  const std::size_t requests = 12;
  const auto manager = platform::HTTPSessionManager::manager();
  std::vector<std::thread::id> answeredOn;
  for (std::size_t i = 0; i < requests; ++i) {
    manager->dataTaskWithRequest(makeRequest(server.url("/any")), nullptr, nullptr, [&](auto&&...) {
      MainQueue::async([&] { answeredOn.push_back(std::this_thread::get_id()); });
    })->resume();
  }
  while (answeredOn.size() < requests && readableWithin(descriptor, 20000)) MainQueue::drain();
  EXPECT_EQ(answeredOn, std::vector(requests, std::this_thread::get_id()));
  EXPECT_FALSE(readableWithin(descriptor, 0));
}

}  // namespace
}  // namespace vkq::testing
