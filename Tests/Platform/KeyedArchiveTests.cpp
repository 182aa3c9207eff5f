#include "Platform/KeyedArchive.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace vkq::platform {
namespace {

TEST(KeyedArchive, RoundTripsEveryKindOfValue) {
  KeyedArchiver archiver;
  archiver.encodeInteger(std::numeric_limits<std::int64_t>::min(), "min");
  archiver.encodeInteger(-1, "minusOne");
  archiver.encodeInteger(std::numeric_limits<std::int64_t>::max(), "max");
  archiver.encodeBool(true, "yes");
  archiver.encodeDouble(0.1, "real");
  archiver.encodeString("h\xc3\xa9llo", "text");
  archiver.encodeStrings({"GET", "", "DELETE"}, "list");
  archiver.encodeStringPairs({{"Accept", "*/*"}, {"X-Y", "z"}}, "headers");
  const Bytes data = archiver.encodedData();
  ASSERT_GE(data.size(), 8u);
  EXPECT_EQ(std::string(data.begin(), data.begin() + 8), "bplist00");

  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(data);
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(unarchiver->decodeInteger("min"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(unarchiver->decodeInteger("minusOne"), -1);
  EXPECT_EQ(unarchiver->decodeInteger("max"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(unarchiver->decodeBool("yes"), true);
  EXPECT_EQ(unarchiver->decodeDouble("real"), 0.1);
  EXPECT_EQ(unarchiver->decodeString("text"), "h\xc3\xa9llo");
  EXPECT_EQ(unarchiver->decodeStrings("list"), (std::vector<std::string>{"GET", "", "DELETE"}));
  auto headers = unarchiver->decodeStringPairs("headers");
  ASSERT_TRUE(headers);
  std::sort(headers->begin(), headers->end());
  EXPECT_EQ(*headers, (std::vector<std::pair<std::string, std::string>>{{"Accept", "*/*"}, {"X-Y", "z"}}));
}

TEST(KeyedArchive, MissingKeysAndWrongKindsAreAbsent) {
  KeyedArchiver archiver;
  archiver.encodeString("1", "text");
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(archiver.encodedData());
  ASSERT_TRUE(unarchiver);
  EXPECT_TRUE(unarchiver->containsValueForKey("text"));
  EXPECT_FALSE(unarchiver->containsValueForKey("other"));
  EXPECT_EQ(unarchiver->decodeInteger("text"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeBool("text"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeStrings("text"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeStringPairs("text"), std::nullopt);
  EXPECT_EQ(unarchiver->decodeString("other"), std::nullopt);
}

TEST(KeyedArchive, ReadsXMLPropertyLists) {
  const std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<plist version=\"1.0\"><dict><key>n</key><integer>7</integer><key>s</key><string>v</string></dict></plist>\n";
  const auto unarchiver = KeyedUnarchiver::unarchiverWithData(bytesFromString(xml));
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(unarchiver->decodeInteger("n"), 7);
  EXPECT_EQ(unarchiver->decodeString("s"), "v");
}

TEST(KeyedArchive, RefusesWhatIsNotADictionaryPropertyList) {
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData({}));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(bytesFromString("not a plist")));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(bytesFromString("bplist00\x01\x02")));
  EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(
      bytesFromString("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string></array></plist>")));
  // Every truncation of a valid archive is refused without a crash.
  KeyedArchiver archiver;
  archiver.encodeStrings({"a", "b"}, "k");
  const Bytes data = archiver.encodedData();
  for (std::size_t length = 0; length < data.size(); ++length) {
    EXPECT_FALSE(KeyedUnarchiver::unarchiverWithData(Bytes(data.begin(), data.begin() + length))) << length;
  }
}

}  // namespace
}  // namespace vkq::platform
