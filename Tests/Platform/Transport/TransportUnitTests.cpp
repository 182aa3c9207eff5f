// Transport pieces that need no server.
#include <gtest/gtest.h>

#include "Platform/Transport/CurlErrors.h"

namespace vkq::platform {
namespace {

// libcurl's own time-outs (connect, resolve) are time-outs too; the worker's idle
// time-out, which the data-task tests reach, never passes through this mapping.
TEST(CurlErrors, ACurlTimeOutIsATimeOut) {
  EXPECT_EQ(URLErrorCodeForCurlCode(CURLE_OPERATION_TIMEDOUT), kURLErrorTimedOut);
}

}  // namespace
}  // namespace vkq::platform
