// Byte order of multi-byte integers: the one conversion the byte array and the frame
// layout share.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>

namespace ByteOrder {

// The value with its bytes in reverse order.
template <std::unsigned_integral T>
constexpr T swapped(T value) {
  if constexpr (sizeof(T) == 1) {
    return value;
  } else if constexpr (sizeof(T) == 2) {
    return __builtin_bswap16(value);
  } else if constexpr (sizeof(T) == 4) {
    return __builtin_bswap32(value);
  } else {
    static_assert(sizeof(T) == 8);
    return __builtin_bswap64(value);
  }
}

// Converts between this machine's order and big-endian (true) or little-endian (false).
// The conversion is its own inverse, so it serves reads and writes alike.
template <std::unsigned_integral T>
constexpr T ordered(T value, bool bigEndian) {
  constexpr bool nativeIsBig = std::endian::native == std::endian::big;
  return bigEndian == nativeIsBig ? value : swapped(value);
}

}  // namespace ByteOrder
