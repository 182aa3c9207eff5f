// Text encodings of NRDByteArray's string operations.
//
// Text is held as UTF-8 in std::string. An encoding turns text into bytes and bytes back
// into text, and either direction can fail: a caller gets an absent result, never
// replacement characters. Pure functions, safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Base/Bytes.h"

// The encodings the byte array reads and writes text in.
enum class NRDStringEncoding {
  // UTF-8, checked both ways.
  UTF8,
  // 7-bit: characters U+0000 to U+007F only.
  ASCII,
  // UTF-16 without a byte-order mark, in the named byte order.
  UTF16LittleEndian,
  UTF16BigEndian,
};

// The text's bytes in `encoding`. Absent when the text is not valid UTF-8 (then it holds
// no real characters, e.g. an encoded lone surrogate) or when it has a character the
// encoding cannot represent (above U+007F for ASCII), or for an unknown encoding value.
std::optional<vkq::platform::Bytes> NRDEncodeString(std::string_view text, NRDStringEncoding encoding);

// The text that `bytes` hold in `encoding`. Absent when they are not valid in it:
// malformed, overlong or surrogate UTF-8 sequences, bytes above 0x7F for ASCII, an odd
// length or an unpaired surrogate for UTF-16, or an unknown encoding value.
std::optional<std::string> NRDDecodeString(std::span<const std::uint8_t> bytes, NRDStringEncoding encoding);
