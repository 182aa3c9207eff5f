#include "Classes/Codec/NRDStringEncoding.h"

#include <algorithm>

using vkq::platform::Bytes;

namespace {

constexpr char32_t kMaxCodePoint = 0x10FFFF;

constexpr bool isSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }
constexpr bool isHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
constexpr bool isLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Decodes the UTF-8 sequence starting at `at` and moves `at` past it. Absent for a
// malformed sequence: a stray continuation byte, a truncated sequence, an overlong form,
// a surrogate or a value above U+10FFFF.
std::optional<char32_t> nextUTF8(std::span<const std::uint8_t> bytes, std::size_t& at) {
  const std::uint8_t lead = bytes[at];
  if (lead < 0x80) {
    ++at;
    return lead;
  }
  std::size_t length;
  char32_t value;
  char32_t smallest;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1F, smallest = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0F, smallest = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07, smallest = 0x10000;
  } else {
    return std::nullopt;
  }
  if (bytes.size() - at < length) return std::nullopt;
  for (std::size_t k = 1; k < length; ++k) {
    const std::uint8_t next = bytes[at + k];
    if ((next & 0xC0) != 0x80) return std::nullopt;
    value = (value << 6) | (next & 0x3F);
  }
  if (value < smallest || value > kMaxCodePoint || isSurrogate(value)) return std::nullopt;
  at += length;
  return value;
}

void appendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

void appendUTF16Unit(Bytes& out, char32_t unit, bool bigEndian) {
  const auto high = static_cast<std::uint8_t>(unit >> 8);
  const auto low = static_cast<std::uint8_t>(unit);
  if (bigEndian) {
    out.push_back(high);
    out.push_back(low);
  } else {
    out.push_back(low);
    out.push_back(high);
  }
}

std::span<const std::uint8_t> asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

bool isValidUTF8(std::span<const std::uint8_t> bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    if (!nextUTF8(bytes, at)) return false;
  }
  return true;
}

bool isASCII(std::span<const std::uint8_t> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b < 0x80; });
}

std::optional<Bytes> encodeUTF16(std::span<const std::uint8_t> utf8, bool bigEndian) {
  Bytes out;
  out.reserve(utf8.size() * 2);
  for (std::size_t at = 0; at < utf8.size();) {
    const auto c = nextUTF8(utf8, at);
    if (!c) return std::nullopt;
    if (*c < 0x10000) {
      appendUTF16Unit(out, *c, bigEndian);
    } else {
      const char32_t offset = *c - 0x10000;
      appendUTF16Unit(out, 0xD800 + (offset >> 10), bigEndian);
      appendUTF16Unit(out, 0xDC00 + (offset & 0x3FF), bigEndian);
    }
  }
  return out;
}

std::optional<std::string> decodeUTF16(std::span<const std::uint8_t> bytes, bool bigEndian) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  const auto unitAt = [&](std::size_t i) -> char32_t {
    const std::uint8_t first = bytes[2 * i];
    const std::uint8_t second = bytes[2 * i + 1];
    return bigEndian ? (char32_t{first} << 8 | second) : (char32_t{second} << 8 | first);
  };
  const std::size_t units = bytes.size() / 2;
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t i = 0; i < units; ++i) {
    char32_t c = unitAt(i);
    if (isHighSurrogate(c)) {
      if (i + 1 == units || !isLowSurrogate(unitAt(i + 1))) return std::nullopt;
      c = 0x10000 + ((c - 0xD800) << 10) + (unitAt(++i) - 0xDC00);
    } else if (isLowSurrogate(c)) {
      return std::nullopt;
    }
    appendUTF8(out, c);
  }
  return out;
}

}  // namespace

std::optional<Bytes> NRDEncodeString(std::string_view text, NRDStringEncoding encoding) {
  const auto utf8 = asBytes(text);
  switch (encoding) {
    case NRDStringEncoding::UTF8:
      if (!isValidUTF8(utf8)) return std::nullopt;
      return Bytes(utf8.begin(), utf8.end());
    case NRDStringEncoding::ASCII:
      // Valid UTF-8 below 0x80 is ASCII; any byte at or above it belongs to a character
      // ASCII cannot hold, or to no character at all.
      if (!isASCII(utf8)) return std::nullopt;
      return Bytes(utf8.begin(), utf8.end());
    case NRDStringEncoding::UTF16LittleEndian:
      return encodeUTF16(utf8, false);
    case NRDStringEncoding::UTF16BigEndian:
      return encodeUTF16(utf8, true);
  }
  return std::nullopt;
}

std::optional<std::string> NRDDecodeString(std::span<const std::uint8_t> bytes, NRDStringEncoding encoding) {
  switch (encoding) {
    case NRDStringEncoding::UTF8:
      if (!isValidUTF8(bytes)) return std::nullopt;
      return std::string(bytes.begin(), bytes.end());
    case NRDStringEncoding::ASCII:
      if (!isASCII(bytes)) return std::nullopt;
      return std::string(bytes.begin(), bytes.end());
    case NRDStringEncoding::UTF16LittleEndian:
      return decodeUTF16(bytes, false);
    case NRDStringEncoding::UTF16BigEndian:
      return decodeUTF16(bytes, true);
  }
  return std::nullopt;
}
