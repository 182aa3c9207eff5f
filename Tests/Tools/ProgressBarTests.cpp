#include <gtest/gtest.h>

#include "Tools/vkq/Client/ProgressBar.h"

namespace vkq::tool {
namespace {

TEST(ProgressLine, ShowsBinaryUnitsAndABarOnlyWhenTheTotalIsKnown) {
  EXPECT_EQ(formatBytes(1023), "1023 B");
  EXPECT_EQ(formatBytes(1024), "1.0 KiB");
  EXPECT_EQ(formatBytes(3.5 * 1024 * 1024), "3.5 MiB");
  EXPECT_EQ(formatBytes(8.0 * 1024 * 1024 * 1024), "8.0 GiB");
  EXPECT_EQ(renderProgressLine(512, 1024, 2048, 10), "[#####.....]  50%  512 B / 1.0 KiB  2.0 KiB/s");
  // More than announced never draws past the bar.
  EXPECT_EQ(renderProgressLine(2048, 1024, 0, 4), "[####] 100%  2.0 KiB / 1.0 KiB  0 B/s");
  EXPECT_EQ(renderProgressLine(4096, -1, 1024, 10), "4.0 KiB  1.0 KiB/s");
}

}  // namespace
}  // namespace vkq::tool
