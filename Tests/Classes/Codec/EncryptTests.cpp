#include "Classes/Codec/Encrypt.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include "Tests/Support/Files.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::bytesFromString;

// The library picks a kernel by length and alignment: short, word, vector and large
// inputs all have to agree with zlib's CRC-32. "123456789" is the catalogue's check input.
TEST(Encrypt, Crc32AgreesWithZlibAtEveryLengthAndAlignment) {
  EXPECT_EQ(Encrypt::crc32(Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0xCBF43926u);
  const Bytes data = bytesFromString(vkq::testing::patternBytes((1 << 20) + 64, 1));
  const auto agree = [&](std::size_t offset, std::size_t length) {
    return Encrypt::crc32(std::span(data).subspan(offset, length)) ==
           ::crc32(0, data.data() + offset, static_cast<uInt>(length));
  };
  for (std::size_t offset = 0; offset < 16; ++offset) {
    for (std::size_t length = 0; length <= 300; ++length) ASSERT_TRUE(agree(offset, length)) << offset << "+" << length;
  }
  for (const std::size_t length : {4095u, 4096u, 4129u, (1u << 20) + 3}) EXPECT_TRUE(agree(7, length)) << length;
}

// Every byte of the receiver is masked once with the key's low byte, none outside it;
// the result is a copy of the masked receiver, and a second mask restores the original.
TEST(Encrypt, XorMasksExactlyTheReceiverInPlaceAndRoundTrips) {
  const Bytes original = bytesFromString(vkq::testing::patternBytes(200, 3));
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
