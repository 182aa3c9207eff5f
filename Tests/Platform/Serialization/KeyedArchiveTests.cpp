#include "Platform/Serialization/KeyedArchive.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace vkq::platform {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Reals and text round-trip in the seeded resume-data fuzzing as well.
TEST(KeyedArchive, RoundTripsEveryKindOfValueThroughABinaryPropertyListAndRefusesWhatIsNoDictionary) {
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  KeyedArchiver archiver;
  archiver.encodeInteger(kMin, "min");
  archiver.encodeBool(true, "yes");
  archiver.encodeStrings({"GET", "", "DELETE"}, "list");
  archiver.encodeStringPairs({{"Accept", "*/*"}, {"X-Y", "z"}}, "headers");
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(archiver.encodedData());
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(std::tuple(unarchiver->decodeInteger("min"), unarchiver->decodeBool("yes")), std::tuple(kMin, true));
  EXPECT_EQ(unarchiver->decodeStrings("list"), (std::vector<std::string>{"GET", "", "DELETE"}));
  auto headers = unarchiver->decodeStringPairs("headers").value_or(Pairs{});
  std::sort(headers.begin(), headers.end());
  EXPECT_EQ(headers, (Pairs{{"Accept", "*/*"}, {"X-Y", "z"}}));
  // A missing key or a value of another kind is absent.
  EXPECT_TRUE(unarchiver->containsValueForKey("yes") && !unarchiver->containsValueForKey("other"));
  EXPECT_EQ(std::tuple(unarchiver->decodeString("other"), unarchiver->decodeInteger("list")),
            std::tuple(std::nullopt, std::nullopt));
  EXPECT_EQ(unarchiver->decodeStringPairs("list"), std::nullopt);

  // What is not a dictionary property list is refused.
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(bytesFromString("not a plist")));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(
      bytesFromString("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string></array></plist>")));
}

}  // namespace
}  // namespace vkq::platform
