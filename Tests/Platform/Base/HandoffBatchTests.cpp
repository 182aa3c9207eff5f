#include "Platform/Base/HandoffBatch.h"

#include <gtest/gtest.h>

#include <thread>

namespace vkq::platform {
namespace {

TEST(HandoffBatch, HoldsBackWakeUpsUntilTheOutermostBatchClosesAndWakesEachReceiverOnce) {
  int first = 0, second = 0;
  const auto one = std::make_shared<Waker>([&first] { ++first; });
  const auto two = std::make_shared<Waker>([&second] { ++second; });
  Waker::wake(one);  // no batch: at once
  EXPECT_EQ(first, 1);
  {
    const HandoffBatch outer;
    {
      const HandoffBatch inner;
      Waker::wake(one);
      Waker::wake(two);
      Waker::wake(one);
    }
    std::thread([&] { Waker::wake(two); }).join();  // another thread's wake-ups are its own
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
  }
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 2);
}

TEST(HandoffBatch, AWakeUpHeldForAReceiverThatHasClosedDoesNothing) {
  int woken = 0;
  auto waker = std::make_shared<Waker>([&woken] { ++woken; });
  {
    const HandoffBatch batch;
    Waker::wake(waker);
    waker->close();
    waker.reset();  // the batch keeps what it needs
  }
  EXPECT_EQ(woken, 0);
}

}  // namespace
}  // namespace vkq::platform
