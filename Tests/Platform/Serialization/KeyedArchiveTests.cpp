#include "Platform/Serialization/KeyedArchive.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace vkq::platform {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST(KeyedArchive, RoundTripsEveryKindOfValueThroughABinaryPropertyList) {
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min(), kMax = std::numeric_limits<std::int64_t>::max();
  KeyedArchiver archiver;
  archiver.encodeInteger(kMin, "min");
  archiver.encodeInteger(kMax, "max");
  archiver.encodeBool(true, "yes");
  archiver.encodeDouble(0.1, "real");
  archiver.encodeString("h\xc3\xa9llo", "text");
  archiver.encodeStrings({"GET", "", "DELETE"}, "list");
  archiver.encodeStringPairs({{"Accept", "*/*"}, {"X-Y", "z"}}, "headers");
  const Bytes data = archiver.encodedData();
  EXPECT_EQ(std::string(data.begin(), data.begin() + std::min<std::size_t>(data.size(), 8)), "bplist00");

  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(data);
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(unarchiver->decodeInteger("min"), kMin);
  EXPECT_EQ(unarchiver->decodeInteger("max"), kMax);
  EXPECT_EQ(unarchiver->decodeBool("yes"), true);
  EXPECT_EQ(unarchiver->decodeDouble("real"), 0.1);
  EXPECT_EQ(unarchiver->decodeString("text"), "h\xc3\xa9llo");
  EXPECT_EQ(unarchiver->decodeStrings("list"), (std::vector<std::string>{"GET", "", "DELETE"}));
  auto headers = unarchiver->decodeStringPairs("headers").value_or(Pairs{});
  std::sort(headers.begin(), headers.end());
  EXPECT_EQ(headers, (Pairs{{"Accept", "*/*"}, {"X-Y", "z"}}));
  // A missing key or a value of another kind is absent.
  EXPECT_TRUE(unarchiver->containsValueForKey("text") && !unarchiver->containsValueForKey("other"));
  EXPECT_EQ(unarchiver->decodeString("other"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeInteger("text"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeStrings("text"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeStringPairs("list"), std::nullopt);
}

TEST(KeyedArchive, ReadsXMLPropertyLists) {
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(bytesFromString(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<plist version=\"1.0\"><dict><key>n</key><integer>7</integer><key>s</key><string>v</string></dict></plist>\n"));
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(unarchiver->decodeInteger("n"), 7);
  EXPECT_EQ(unarchiver->decodeString("s"), "v");
}

TEST(KeyedArchive, RefusesWhatIsNotADictionaryPropertyListAndEveryTruncation) {
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData({}));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(bytesFromString("not a plist")));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(bytesFromString("bplist00\x01\x02")));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(
      bytesFromString("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string></array></plist>")));
  KeyedArchiver archiver;
  archiver.encodeStrings({"a", "b"}, "k");
  const Bytes data = archiver.encodedData();
  for (std::size_t length = 0; length < data.size(); ++length) {
    EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(Bytes(data.begin(), data.begin() + length))) << length;
  }
}

}  // namespace
}  // namespace vkq::platform
