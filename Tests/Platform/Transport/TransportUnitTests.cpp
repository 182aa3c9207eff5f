// Transport pieces that need no server.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>

#include "Platform/Transport/CurlErrors.h"
#include "Platform/Transport/FileWriter.h"

namespace vkq::platform {
namespace {

// Buffered bytes that cannot be written surface when the file is closed.
TEST(FileWriter, AFailedSystemCallIsAnErrorOfItsErrno) {
  FileWriter writer(open("/dev/full", O_WRONLY | O_CLOEXEC), 16);
  ErrorPtr error;
  EXPECT_TRUE(writer.write("abc", 3, &error));
  EXPECT_FALSE(writer.close(&error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOSPC);
  EXPECT_EQ(error->localizedDescription(), std::string("write: ") + std::strerror(ENOSPC));
}

// libcurl's own time-outs (connect, resolve) are time-outs too; the worker's idle
// time-out, which the data-task tests reach, never passes through this mapping.
TEST(CurlErrors, ACurlTimeOutIsATimeOut) {
  EXPECT_EQ(URLErrorCodeForCurlCode(CURLE_OPERATION_TIMEDOUT), kURLErrorTimedOut);
}

}  // namespace
}  // namespace vkq::platform
