#include "Classes/Codec/Encrypt.h"

#include <cstring>

#include <libdeflate.h>

using vkq::platform::Bytes;

namespace Encrypt {

Bytes xorWithKey(std::span<std::uint8_t> receiver, std::uint64_t key) {
  xorInPlace(receiver, key);
  return Bytes(receiver.begin(), receiver.end());
}

void xorInPlace(std::span<std::uint8_t> receiver, std::uint64_t key) {
  const auto keyByte = static_cast<std::uint8_t>(key);
  // Eight copies of the key in one word. The bulk goes a block of words at a time, which
  // the compiler turns into vector loads, XORs and stores; the tail goes byte by byte.
  const std::uint64_t keyWord = 0x0101010101010101ULL * keyByte;
  constexpr std::size_t kBlockSize = 64;
  std::uint8_t* bytes = receiver.data();
  const std::size_t size = receiver.size();
  std::size_t at = 0;
  for (; size - at >= kBlockSize; at += kBlockSize) {
#pragma GCC unroll 8
    for (std::size_t offset = 0; offset < kBlockSize; offset += sizeof keyWord) {
      std::uint64_t word;
      std::memcpy(&word, bytes + at + offset, sizeof word);
      word ^= keyWord;
      std::memcpy(bytes + at + offset, &word, sizeof word);
    }
  }
  for (; at < size; ++at) bytes[at] ^= keyByte;
}

std::uint64_t crc32(std::span<const std::uint8_t> bytes) {
  // libdeflate picks a carry-less multiplication or table-slicing kernel for this CPU.
  return libdeflate_crc32(0, bytes.data(), bytes.size());
}

}  // namespace Encrypt
