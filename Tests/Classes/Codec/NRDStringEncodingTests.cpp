#include "Classes/Codec/NRDStringEncoding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using vkq::platform::Bytes;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// "a", U+00E9, U+20AC, U+1F600: one, two, three and four UTF-8 bytes; the last one is a
// surrogate pair in UTF-16.
const std::string kMixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
const Bytes kMixedUTF16LE = {0x61, 0x00, 0xE9, 0x00, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE};
const Bytes kMixedUTF16BE = {0x00, 0x61, 0x00, 0xE9, 0x20, 0xAC, 0xD8, 0x3D, 0xDE, 0x00};

TEST(NRDStringEncoding, UTF16LayoutsInBothByteOrders) {
  EXPECT_EQ(NRDEncodeString(kMixed, NRDStringEncoding::UTF16LittleEndian), kMixedUTF16LE);
  EXPECT_EQ(NRDEncodeString(kMixed, NRDStringEncoding::UTF16BigEndian), kMixedUTF16BE);
  EXPECT_EQ(NRDDecodeString(kMixedUTF16LE, NRDStringEncoding::UTF16LittleEndian), kMixed);
  EXPECT_EQ(NRDDecodeString(kMixedUTF16BE, NRDStringEncoding::UTF16BigEndian), kMixed);
}

TEST(NRDStringEncoding, UTF8IsTheTextsOwnBytesIncludingNul) {
  const std::string withNul("a\0b", 3);
  EXPECT_EQ(NRDEncodeString(withNul, NRDStringEncoding::UTF8), bytesOf(withNul));
  EXPECT_EQ(NRDDecodeString(bytesOf(kMixed), NRDStringEncoding::UTF8), kMixed);
  EXPECT_EQ(NRDEncodeString("", NRDStringEncoding::UTF16BigEndian), Bytes{});
}

// Byte sequences that are not UTF-8; as text they cannot be encoded in any encoding.
const std::vector<std::pair<const char*, std::string>> kNotUTF8 = {
    {"stray continuation byte", "\x80"},
    {"truncated three-byte sequence", "\xE2\x82"},
    {"lead byte followed by ASCII", "\xC3\x28"},
    {"overlong slash", "\xC0\xAF"},
    {"overlong three-byte NUL", "\xE0\x80\x80"},
    {"encoded high surrogate", "\xED\xA0\x80"},
    {"above U+10FFFF", "\xF4\x90\x80\x80"},
    {"five-byte lead", "\xF8\x88\x80\x80\x80"},
};

TEST(NRDStringEncoding, MalformedUTF8NeitherEncodesNorDecodes) {
  for (const auto& [why, text] : kNotUTF8) {
    SCOPED_TRACE(why);
    EXPECT_EQ(NRDDecodeString(bytesOf(text), NRDStringEncoding::UTF8), std::nullopt);
    for (const auto encoding : {NRDStringEncoding::UTF8, NRDStringEncoding::ASCII,
                                NRDStringEncoding::UTF16LittleEndian, NRDStringEncoding::UTF16BigEndian}) {
      EXPECT_EQ(NRDEncodeString("ok" + text, encoding), std::nullopt);
    }
  }
}

TEST(NRDStringEncoding, ASCIIHoldsOnlySevenBitCharacters) {
  EXPECT_EQ(NRDEncodeString("abc\x7F", NRDStringEncoding::ASCII), bytesOf("abc\x7F"));
  EXPECT_EQ(NRDEncodeString("caf\xC3\xA9", NRDStringEncoding::ASCII), std::nullopt);
  EXPECT_EQ(NRDDecodeString(Bytes{'a', 0x80}, NRDStringEncoding::ASCII), std::nullopt);
}

TEST(NRDStringEncoding, MalformedUTF16IsNotText) {
  const std::vector<std::pair<const char*, Bytes>> bad = {
      {"odd length", {0x61, 0x00, 0x62}},
      {"high surrogate at the end", {0x61, 0x00, 0x3D, 0xD8}},
      {"lone low surrogate", {0x00, 0xDE, 0x61, 0x00}},
      {"high surrogate before a letter", {0x3D, 0xD8, 0x61, 0x00}},
      {"two high surrogates", {0x3D, 0xD8, 0x3D, 0xD8}},
  };
  for (const auto& [why, bytes] : bad) {
    SCOPED_TRACE(why);
    EXPECT_EQ(NRDDecodeString(bytes, NRDStringEncoding::UTF16LittleEndian), std::nullopt);
  }
}

TEST(NRDStringEncoding, UnknownEncodingValueFailsBothWays) {
  const auto unknown = static_cast<NRDStringEncoding>(99);
  EXPECT_EQ(NRDEncodeString("a", unknown), std::nullopt);
  EXPECT_EQ(NRDDecodeString(Bytes{'a'}, unknown), std::nullopt);
}

}  // namespace
