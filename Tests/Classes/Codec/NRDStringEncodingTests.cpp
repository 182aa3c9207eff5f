#include "Classes/Codec/NRDStringEncoding.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using vkq::platform::Bytes;
using Encoding = NRDStringEncoding;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// "a", U+00E9, U+20AC, U+1F600: one to four UTF-8 bytes; the last a surrogate pair in UTF-16.
const std::string kMixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";

TEST(NRDStringEncoding, TextAndItsBytesConvertBothWaysUnlessMalformed) {
  const struct {
    Encoding encoding;
    std::string text;
    Bytes bytes;
  } cases[] = {
      {Encoding::UTF16LittleEndian, kMixed, {0x61, 0x00, 0xE9, 0x00, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE}},
      {Encoding::UTF16BigEndian, kMixed, {0x00, 0x61, 0x00, 0xE9, 0x20, 0xAC, 0xD8, 0x3D, 0xDE, 0x00}},
      {Encoding::UTF8, kMixed, bytesOf(kMixed)},
      {Encoding::UTF8, std::string("a\0b", 3), {'a', 0, 'b'}},  // NUL is a character
      {Encoding::ASCII, "abc\x7F", bytesOf("abc\x7F")},         // the highest 7-bit character
  };
  for (const auto& [encoding, text, bytes] : cases) {
    EXPECT_EQ(NRDEncodeString(text, encoding), bytes) << text;
    EXPECT_EQ(NRDDecodeString(bytes, encoding), text) << text;
  }
  // Malformed UTF-8 encodes in no encoding; bytes invalid in their encoding are no text.
  for (const std::string text : {"\x80", "\xE2\x82", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
    EXPECT_EQ(NRDDecodeString(bytesOf(text), Encoding::UTF8), std::nullopt) << text;
    for (const auto encoding :
         {Encoding::UTF8, Encoding::ASCII, Encoding::UTF16LittleEndian, Encoding::UTF16BigEndian}) {
      EXPECT_EQ(NRDEncodeString("ok" + text, encoding), std::nullopt) << text;
    }
  }
  EXPECT_EQ(NRDEncodeString("caf\xC3\xA9", Encoding::ASCII), std::nullopt) << "not 7-bit";
  EXPECT_EQ(NRDEncodeString("a", static_cast<Encoding>(99)), std::nullopt) << "unknown encoding";
  const std::pair<Encoding, Bytes> invalid[] = {
      {Encoding::ASCII, {'a', 0x80}},
      {Encoding::UTF16LittleEndian, {0x61, 0x00, 0x62}},        // odd length
      {Encoding::UTF16LittleEndian, {0x61, 0x00, 0x3D, 0xD8}},  // high surrogate at the end
      {Encoding::UTF16LittleEndian, {0x00, 0xDE, 0x61, 0x00}},  // lone low surrogate
      {static_cast<Encoding>(99), {'a'}},
  };
  for (const auto& [encoding, bytes] : invalid) EXPECT_EQ(NRDDecodeString(bytes, encoding), std::nullopt);
}

}  // namespace
