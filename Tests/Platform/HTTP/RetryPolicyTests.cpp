#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "Platform/HTTP/RetryPolicy.h"

namespace vkq::platform {
namespace {

using namespace std::chrono_literals;

TEST(RetryPolicy, RetriesIdempotentMethodsAndTheListedStatusesOnly) {
  RetryPolicy policy;
  for (const char* method : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS"}) EXPECT_TRUE(policy.allowsMethod(method));
  EXPECT_FALSE(policy.allowsMethod("PATCH"));
  policy.retriesNonIdempotentMethods = true;
  EXPECT_TRUE(policy.allowsMethod("PATCH"));

  for (long status : {408, 429, 500, 502, 503, 504}) EXPECT_TRUE(policy.retriesStatus(status)) << status;
  for (long status : {200, 400, 404, 501, 505}) EXPECT_FALSE(policy.retriesStatus(status)) << status;
}

TEST(RetryPolicy, BacksOffExponentiallyWithFullJitterUpToTheCap) {
  RetryPolicy policy;
  policy.baseDelay = 1;
  policy.maximumDelay = 5;
  std::mt19937_64 random(7);
  for (int retry = 1; retry <= 100; ++retry) {
    const auto ceiling = std::min(5.0, std::ldexp(1.0, std::min(retry - 1, 10)));
    RetryPolicy::Duration longest{};
    for (int i = 0; i < 200; ++i) {
      const auto delay = policy.delayBefore(retry, std::nullopt, random);
      ASSERT_GE(delay, 0s);
      ASSERT_LE(delay, std::chrono::duration<double>(ceiling));
      longest = std::max(longest, delay);
    }
    // Jitter spreads over the whole range, not only its start.
    EXPECT_GT(longest, std::chrono::duration<double>(ceiling * 0.8)) << retry;
  }
}

TEST(RetryPolicy, RetryAfterInSecondsOrAsADateReplacesTheBackOffUpToTheCap) {
  RetryPolicy policy;
  policy.maximumDelay = 10;
  std::mt19937_64 random(1);
  EXPECT_EQ(policy.delayBefore(1, " 3 ", random), 3s);
  EXPECT_EQ(policy.delayBefore(1, "99999999999999999999", random), 10s);
  EXPECT_EQ(policy.delayBefore(1, "Sun, 06 Nov 1994 08:49:37 GMT", random), 0s);  // in the past
  EXPECT_EQ(policy.delayBefore(1, "Fri, 31 Dec 9999 23:59:59 GMT", random), 10s);
  // Not a Retry-After value: the ordinary back-off.
  for (const char* junk : {"", "-5", "soon", "1.5"}) {
    EXPECT_FALSE(RetryPolicy::parseRetryAfter(junk).has_value()) << junk;
    EXPECT_LE(policy.delayBefore(1, junk, random), std::chrono::duration<double>(policy.baseDelay)) << junk;
  }
}

}  // namespace
}  // namespace vkq::platform
