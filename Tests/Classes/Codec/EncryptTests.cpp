#include "Classes/Codec/Encrypt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <span>
#include <string_view>

#include "Tests/Classes/Codec/RandomBytes.h"
#include "Tests/Classes/Codec/ReferenceCrc32.h"

namespace {

using ::testing::ElementsAre;
using vkq::platform::Bytes;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// "123456789" is the CRC catalogue's check input; the other values agree with zlib's crc32.
struct CrcVector {
  Bytes input;
  std::uint64_t crc;
};
const CrcVector kCrcVectors[] = {
    {{}, 0},
    {bytesOf("123456789"), 0xCBF43926},
    {bytesOf("abc"), 0x352441C2},
    {Bytes(32, 0x00), 0x190A55AD},
    {Bytes(32, 0xFF), 0xFF6CAB0B},
    {bytesOf("The quick brown fox jumps over the lazy dog"), 0x414FA339},
};

TEST(EncryptCrc32, KnownVectors) {
  for (const auto& vector : kCrcVectors) {
    EXPECT_EQ(Encrypt::crc32(vector.input), vector.crc) << ::testing::PrintToString(vector.input);
    EXPECT_EQ(codec_reference::crc32(vector.input), vector.crc) << "reference loop";
  }
}

TEST(EncryptCrc32, MatchesTheByteTableLoopForManyLengthsAndAlignments) {
  const Bytes data = codec_reference::randomBytes(4096 + 64, 1);
  const std::span<const std::uint8_t> all(data);
  for (std::size_t offset = 0; offset < 16; ++offset) {
    for (std::size_t length = 0; length <= 300; ++length) {
      const auto piece = all.subspan(offset, length);
      ASSERT_EQ(Encrypt::crc32(piece), codec_reference::crc32(piece)) << "offset " << offset << " length " << length;
    }
  }
  for (const std::size_t length : {1023u, 1024u, 4095u, 4096u, 4096u + 33u}) {
    const auto piece = all.subspan(7, length);
    EXPECT_EQ(Encrypt::crc32(piece), codec_reference::crc32(piece)) << "length " << length;
  }
}

TEST(EncryptCrc32, LargeBufferKeepsTheUpperHalfZero) {
  const Bytes data = codec_reference::randomBytes((1 << 20) + 3, 2);
  const std::uint64_t crc = Encrypt::crc32(data);
  EXPECT_EQ(crc, codec_reference::crc32(data));
  EXPECT_EQ(crc >> 32, 0u);
}

TEST(EncryptXor, MasksTheReceiverInPlaceAndReturnsACopy) {
  Bytes receiver = {0x00, 0xFF, 0x5A};
  const Bytes result = Encrypt::xorWithKey(receiver, 0x5A);
  EXPECT_THAT(result, ElementsAre(0x5A, 0xA5, 0x00));
  EXPECT_THAT(receiver, ElementsAre(0x5A, 0xA5, 0x00));
  EXPECT_NE(result.data(), receiver.data());
}

TEST(EncryptXor, OnlyTheLowByteOfTheKeyCounts) {
  Bytes wide = {0x01, 0x02};
  Bytes narrow = wide;
  EXPECT_EQ(Encrypt::xorWithKey(wide, 0x1FF), Encrypt::xorWithKey(narrow, 0xFF));
  EXPECT_THAT(wide, ElementsAre(0xFE, 0xFD));
  Bytes untouched = {1, 2, 3};
  EXPECT_THAT(Encrypt::xorWithKey(untouched, 0x100), ElementsAre(1, 2, 3)) << "0x100 is key 0";
}

// Lengths and offsets around the word blocks: every byte is masked once, no byte
// outside the receiver is touched, and a second mask restores the original.
TEST(EncryptXor, MasksEveryLengthAndAlignmentExactlyOnceAndRoundTrips) {
  const Bytes original = codec_reference::randomBytes(200, 3);
  for (std::size_t offset = 0; offset < 9; ++offset) {
    for (std::size_t length = 0; length <= 100; ++length) {
      Bytes buffer = original;
      const std::span<std::uint8_t> receiver(buffer.data() + offset, length);
      const Bytes masked = Encrypt::xorWithKey(receiver, 0xC3);
      ASSERT_EQ(masked.size(), length);
      for (std::size_t i = 0; i < buffer.size(); ++i) {
        const bool inside = i >= offset && i < offset + length;
        ASSERT_EQ(buffer[i], inside ? original[i] ^ 0xC3 : original[i]) << "offset " << offset << " length " << length;
      }
      Encrypt::xorWithKey(receiver, 0xC3);
      ASSERT_EQ(buffer, original);
    }
  }
}

TEST(EncryptXor, EmptyReceiverGivesEmptyResult) {
  Bytes empty;
  EXPECT_TRUE(Encrypt::xorWithKey(empty, 0x5A).empty());
}

}  // namespace
