// Reproducible pseudo-random bytes for the codec tests and benchmark.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

#include "Platform/Base/Bytes.h"

namespace codec_reference {

inline vkq::platform::Bytes randomBytes(std::size_t size, std::uint32_t seed) {
  std::mt19937 generator(seed);
  vkq::platform::Bytes bytes(size);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(generator());
  return bytes;
}

}  // namespace codec_reference
