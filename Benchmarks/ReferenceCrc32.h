// The plain CRC-32 byte-table loop (ISO-HDLC: reflected, polynomial 0xEDB88320 in its
// reflected form, initial register and final XOR 0xFFFFFFFF): the codec benchmark
// measures the library routine's speed-up over it.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace codec_reference {

constexpr std::array<std::uint32_t, 256> makeCrc32Table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t n = 0; n < 256; ++n) {
    std::uint32_t entry = n;
    for (int bit = 0; bit < 8; ++bit) entry = (entry & 1) ? (entry >> 1) ^ 0xEDB88320u : entry >> 1;
    table[n] = entry;
  }
  return table;
}

inline constexpr auto kCrc32Table = makeCrc32Table();

inline std::uint64_t crc32(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (const std::uint8_t b : bytes) crc = (crc >> 8) ^ kCrc32Table[(crc & 0xFF) ^ b];
  return crc ^ 0xFFFFFFFFu;
}

}  // namespace codec_reference
