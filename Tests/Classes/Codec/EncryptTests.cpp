#include "Classes/Codec/Encrypt.h"

#include <gtest/gtest.h>

#include <span>
#include <string_view>

#include "Tests/Classes/Codec/RandomBytes.h"
#include "Tests/Classes/Codec/ReferenceCrc32.h"

namespace {

using vkq::platform::Bytes;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

TEST(EncryptCrc32, KnownVectors) {
  // "123456789" is the CRC catalogue's check input; the other values agree with zlib's crc32.
  const std::pair<Bytes, std::uint64_t> vectors[] = {
      {{}, 0},
      {bytesOf("123456789"), 0xCBF43926},
      {bytesOf("abc"), 0x352441C2},
      {Bytes(32, 0x00), 0x190A55AD},
      {Bytes(32, 0xFF), 0xFF6CAB0B},
      {bytesOf("The quick brown fox jumps over the lazy dog"), 0x414FA339},
  };
  for (const auto& [input, crc] : vectors) {
    EXPECT_EQ(Encrypt::crc32(input), crc) << ::testing::PrintToString(input);
    EXPECT_EQ(codec_reference::crc32(input), crc) << "reference loop";
  }
}

// The library picks a different kernel by length and alignment: short, word, vector and
// large inputs all have to agree with the plain byte-table loop.
TEST(EncryptCrc32, RandomDataMatchesTheByteTableLoopAtEveryLengthAndAlignment) {
  const Bytes data = codec_reference::randomBytes((1 << 20) + 64, 1);
  const std::span<const std::uint8_t> all(data);
  const auto agree = [&](std::size_t offset, std::size_t length) {
    const auto piece = all.subspan(offset, length);
    return Encrypt::crc32(piece) == codec_reference::crc32(piece);
  };
  for (std::size_t offset = 0; offset < 16; ++offset) {
    for (std::size_t length = 0; length <= 300; ++length) ASSERT_TRUE(agree(offset, length)) << offset << "+" << length;
  }
  for (const std::size_t length : {1023u, 1024u, 4095u, 4096u, 4129u, (1u << 20) + 3}) {
    EXPECT_TRUE(agree(7, length)) << "length " << length;
  }
}

// Lengths and offsets around the word blocks: every byte is masked once with the key's
// low byte, no byte outside the receiver is touched, the result is a copy of the masked
// receiver, and a second mask restores the original.
TEST(EncryptXor, MasksInPlaceExactlyTheReceiverAndRoundTrips) {
  const Bytes original = codec_reference::randomBytes(200, 3);
  for (std::size_t offset = 0; offset < 9; ++offset) {
    for (std::size_t length = 0; length <= 140; ++length) {
      Bytes buffer = original;
      const std::span<std::uint8_t> receiver(buffer.data() + offset, length);
      const Bytes masked = Encrypt::xorWithKey(receiver, 0x1C3);  // masks with 0xC3
      ASSERT_EQ(masked, Bytes(receiver.begin(), receiver.end()));
      for (std::size_t i = 0; i < buffer.size(); ++i) {
        const bool inside = i >= offset && i < offset + length;
        ASSERT_EQ(buffer[i], inside ? original[i] ^ 0xC3 : original[i]) << "offset " << offset << " length " << length;
      }
      Encrypt::xorInPlace(receiver, 0xC3);
      ASSERT_EQ(buffer, original);
    }
  }
}

}  // namespace
