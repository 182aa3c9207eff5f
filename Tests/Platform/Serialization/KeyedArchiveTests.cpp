#include "Platform/Serialization/KeyedArchive.h"

#include <gtest/gtest.h>

#include <limits>

namespace vkq::platform {
namespace {

// String pairs, reals and text round-trip in the resume data of the download tests and
// in the seeded resume-data fuzzing.
TEST(KeyedArchive, RoundTripsValuesThroughABinaryPropertyListAndRefusesWhatIsNoDictionary) {
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  KeyedArchiver archiver;
  archiver.encodeInteger(kMin, "min");
  archiver.encodeStrings({"GET", "", "DELETE"}, "list");
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(archiver.encodedData());
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(unarchiver->decodeInteger("min"), kMin);
  EXPECT_EQ(unarchiver->decodeStrings("list"), (std::vector<std::string>{"GET", "", "DELETE"}));
  // A missing key or a value of another kind is absent.
  EXPECT_EQ(std::tuple(unarchiver->decodeString("other"), unarchiver->decodeInteger("list")),
            std::tuple(std::nullopt, std::nullopt));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(
      bytesFromString("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string></array></plist>")));
}

}  // namespace
}  // namespace vkq::platform
