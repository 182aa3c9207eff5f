#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Platform/MainQueue.h"
#include "Platform/SerialQueue.h"

namespace vkq::platform {
namespace {

using namespace std::chrono_literals;

class MainQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MainQueue::useManualDraining();
    MainQueue::drain();
  }
};

TEST_F(MainQueueTest, RunsJobsInPostingOrderNeverInsideTheCallerAndPastAThrowingJob) {
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) {
    MainQueue::async([&order, i] {
      order.push_back(i);
      if (i == 2) throw std::runtime_error("callback failed");
    });
  }
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(MainQueue::drain(), 5u);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(MainQueue::drain(), 0u);
}

TEST_F(MainQueueTest, AJobPostedFromAJobRunsAfterIt) {
  std::vector<std::string> order;
  MainQueue::async([&order] {
    EXPECT_TRUE(MainQueue::isCurrent());
    MainQueue::async([&order] { order.push_back("inner"); });
    EXPECT_EQ(MainQueue::drain(), 0u);  // no re-entrant draining
    order.push_back("outer");
  });
  EXPECT_FALSE(MainQueue::isCurrent());
  MainQueue::drain();
  EXPECT_EQ(order, (std::vector<std::string>{"outer", "inner"}));
}

TEST_F(MainQueueTest, RunUntilWaitsForJobsFromOtherThreadsOrGivesUpAfterTheTimeout) {
  std::atomic<bool> done{false};
  std::thread poster([&done] {
    std::this_thread::sleep_for(20ms);
    MainQueue::async([&done] { done = true; });
  });
  EXPECT_TRUE(MainQueue::runUntil([&done] { return done.load(); }, 5s));
  poster.join();

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(MainQueue::runUntil([] { return false; }, 50ms));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, 50ms);
  EXPECT_LT(elapsed, 2s);
}

TEST(SerialQueue, RunsJobsOneAtATimeInPostingOrderOnItsOwnThreadPastThrowingJobs) {
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false}, outsideItsThread{false};
  {
    SerialQueue queue("vkq.test");
    EXPECT_FALSE(queue.isCurrent());
    auto post = [&](int base) {
      for (int i = 0; i < 200; ++i) {
        queue.async([&, value = base + i] {
          if (running.fetch_add(1) != 0) overlapped = true;
          if (!queue.isCurrent()) outsideItsThread = true;
          order.push_back(value);
          running.fetch_sub(1);
          if (value % 50 == 0) throw std::runtime_error("job failed");
        });
      }
    };
    std::thread a(post, 0);
    std::thread b(post, 1000);
    a.join();
    b.join();
  }  // the destructor runs what was posted
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(outsideItsThread);
  ASSERT_EQ(order.size(), 400u);
  int lastA = -1, lastB = 999;
  for (int value : order) {
    int& last = value < 1000 ? lastA : lastB;
    EXPECT_GT(value, last);
    last = value;
  }
}

}  // namespace
}  // namespace vkq::platform
