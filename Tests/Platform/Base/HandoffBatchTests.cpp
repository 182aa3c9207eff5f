#include "Platform/Base/HandoffBatch.h"

#include <gtest/gtest.h>

#include <thread>

namespace vkq::platform {
namespace {

// Nested batches and one wake-up per receiver: the main queue tests. Here: a batch holds
// back only its own thread's wake-ups, and a receiver that closes meanwhile is not woken.
TEST(HandoffBatch, HoldsBackOnlyItsThreadsWakeUpsAndWakesNoReceiverClosedMeanwhile) {
  int woken = 0, closed = 0;
  const auto open = std::make_shared<Waker>([&woken] { ++woken; });
  auto gone = std::make_shared<Waker>([&closed] { ++closed; });
  {
    const HandoffBatch batch;
    Waker::wake(gone);
    std::thread([&] { Waker::wake(open); }).join();
    EXPECT_EQ(woken, 1);
    gone->close();
    gone.reset();  // the batch keeps what it needs
  }
  EXPECT_EQ(closed, 0);
}

}  // namespace
}  // namespace vkq::platform
