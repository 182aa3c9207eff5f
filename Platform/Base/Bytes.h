// The byte string of the platform: a growable, contiguous run of bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vkq::platform {

using Bytes = std::vector<std::uint8_t>;

// The bytes of a text, unchanged.
inline Bytes bytesFromString(std::string_view text) { return Bytes(text.begin(), text.end()); }
// The text of bytes, unchanged (no encoding is checked).
inline std::string stringFromBytes(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

}  // namespace vkq::platform
