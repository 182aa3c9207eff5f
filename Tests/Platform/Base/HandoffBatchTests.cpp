#include "Platform/Base/HandoffBatch.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

namespace vkq::platform {
namespace {

// A receiver that closes while a wake-up for it is held is not woken.
TEST(HandoffBatch, HoldsBackWakeUpsUntilTheOutermostBatchClosesAndWakesEachOpenReceiverOnce) {
  int first = 0, second = 0, closed = 0;
  const auto one = std::make_shared<Waker>([&first] { ++first; });
  const auto two = std::make_shared<Waker>([&second] { ++second; });
  auto gone = std::make_shared<Waker>([&closed] { ++closed; });
  Waker::wake(one);  // no batch: at once
  EXPECT_EQ(first, 1);
  {
    const HandoffBatch outer;
    {
      const HandoffBatch inner;
      for (const auto& waker : {one, two, one, gone}) Waker::wake(waker);
    }
    std::thread([&] { Waker::wake(two); }).join();  // another thread's wake-ups are its own
    EXPECT_EQ(std::tuple(first, second), std::tuple(1, 1));
    gone->close();
    gone.reset();  // the batch keeps what it needs
  }
  EXPECT_EQ(std::tuple(first, second, closed), std::tuple(2, 2, 0));
}

}  // namespace
}  // namespace vkq::platform
