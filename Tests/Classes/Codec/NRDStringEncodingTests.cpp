#include "Classes/Codec/NRDStringEncoding.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using vkq::platform::Bytes;
using Encoding = NRDStringEncoding;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// "a", U+00E9, U+20AC, U+1F600: one, two, three and four UTF-8 bytes; the last one is a
// surrogate pair in UTF-16.
const std::string kMixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";

TEST(NRDStringEncoding, TextAndItsBytesConvertBothWays) {
  const struct {
    Encoding encoding;
    std::string text;
    Bytes bytes;
  } cases[] = {
      {Encoding::UTF16LittleEndian, kMixed, {0x61, 0x00, 0xE9, 0x00, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE}},
      {Encoding::UTF16BigEndian, kMixed, {0x00, 0x61, 0x00, 0xE9, 0x20, 0xAC, 0xD8, 0x3D, 0xDE, 0x00}},
      {Encoding::UTF16BigEndian, "", {}},
      {Encoding::UTF8, kMixed, bytesOf(kMixed)},
      {Encoding::UTF8, std::string("a\0b", 3), {'a', 0, 'b'}},  // NUL is a character
      {Encoding::ASCII, "abc\x7F", bytesOf("abc\x7F")},          // the highest 7-bit character
  };
  for (const auto& [encoding, text, bytes] : cases) {
    EXPECT_EQ(NRDEncodeString(text, encoding), bytes) << text;
    EXPECT_EQ(NRDDecodeString(bytes, encoding), text) << text;
  }
}

TEST(NRDStringEncoding, MalformedTextEncodesInNoEncoding) {
  const std::pair<const char*, std::string> notUTF8[] = {
      {"stray continuation byte", "\x80"},
      {"truncated three-byte sequence", "\xE2\x82"},
      {"lead byte followed by ASCII", "\xC3\x28"},
      {"overlong slash", "\xC0\xAF"},
      {"overlong three-byte NUL", "\xE0\x80\x80"},
      {"encoded high surrogate", "\xED\xA0\x80"},
      {"above U+10FFFF", "\xF4\x90\x80\x80"},
      {"five-byte lead", "\xF8\x88\x80\x80\x80"},
  };
  for (const auto& [why, text] : notUTF8) {
    EXPECT_EQ(NRDDecodeString(bytesOf(text), Encoding::UTF8), std::nullopt) << why;
    for (const auto encoding : {Encoding::UTF8, Encoding::ASCII, Encoding::UTF16LittleEndian, Encoding::UTF16BigEndian}) {
      EXPECT_EQ(NRDEncodeString("ok" + text, encoding), std::nullopt) << why;
    }
  }
  EXPECT_EQ(NRDEncodeString("caf\xC3\xA9", Encoding::ASCII), std::nullopt) << "not 7-bit";
  EXPECT_EQ(NRDEncodeString("a", static_cast<Encoding>(99)), std::nullopt) << "unknown encoding";
}

TEST(NRDStringEncoding, BytesInvalidInTheirEncodingAreNotText) {
  const struct {
    const char* why;
    Encoding encoding;
    Bytes bytes;
  } cases[] = {
      {"above 0x7F", Encoding::ASCII, {'a', 0x80}},
      {"odd length", Encoding::UTF16LittleEndian, {0x61, 0x00, 0x62}},
      {"high surrogate at the end", Encoding::UTF16LittleEndian, {0x61, 0x00, 0x3D, 0xD8}},
      {"lone low surrogate", Encoding::UTF16LittleEndian, {0x00, 0xDE, 0x61, 0x00}},
      {"high surrogate before a letter", Encoding::UTF16BigEndian, {0xD8, 0x3D, 0x00, 0x61}},
      {"two high surrogates", Encoding::UTF16LittleEndian, {0x3D, 0xD8, 0x3D, 0xD8}},
      {"unknown encoding", static_cast<Encoding>(99), {'a'}},
  };
  for (const auto& [why, encoding, bytes] : cases) EXPECT_EQ(NRDDecodeString(bytes, encoding), std::nullopt) << why;
}

}  // namespace
