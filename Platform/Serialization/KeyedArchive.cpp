#include "Platform/Serialization/KeyedArchive.h"

#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

namespace vkq::platform {
namespace {

struct PlistDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// The number of bytes that follow a UTF-8 lead byte; 4 for a byte that cannot lead.
std::size_t followingBytes(unsigned char lead) {
  if (lead < 0x80) return 0;
  if (lead < 0xC0) return 4;
  if (lead < 0xE0) return 1;
  if (lead < 0xF0) return 2;
  return lead < 0xF8 ? 3 : 4;
}

// True for UTF-8 text without NUL: the only strings the archiver writes, and so the
// only ones read back (a property list from elsewhere may hold any bytes).
bool isArchivableText(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead == 0) return false;
    const std::size_t extra = followingBytes(lead);
    if (extra == 4 || text.size() - i <= extra) return false;
    std::uint32_t code = lead & (0x7Fu >> extra);
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = code << 6 | (next & 0x3Fu);
    }
    constexpr std::uint32_t kShortest[] = {0, 0x80, 0x800, 0x10000};
    if (code < kShortest[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

// The big-endian unsigned number in `bytes` (at most 8 of them).
std::uint64_t bigEndian(std::span<const std::uint8_t> bytes) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

// True when a binary property list holds text (ASCII or UTF-16) with a NUL character.
// libplist keeps such text whole but aborts on an assertion when it hands out a
// dictionary key that holds one, so such data is refused before libplist reads it.
// Whatever does not parse here is left to libplist, which refuses it.
bool holdsTextWithNul(std::span<const std::uint8_t> data) {
  if (data.size() < 40 || std::memcmp(data.data(), "bplist00", 8) != 0) return false;
  const auto trailer = data.last(32);
  const std::size_t offsetSize = trailer[6];
  const std::uint64_t count = bigEndian(trailer.subspan(8, 8)), table = bigEndian(trailer.subspan(24, 8));
  if (offsetSize == 0 || offsetSize > 8 || table >= data.size() || count > (data.size() - table) / offsetSize) {
    return false;
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    std::size_t at = bigEndian(data.subspan(table + i * offsetSize, offsetSize));
    const std::uint8_t marker = at < data.size() ? data[at++] : 0;
    const std::size_t unit = (marker >> 4) == 5 ? 1 : (marker >> 4) == 6 ? 2 : 0;
    if (unit == 0) continue;
    std::uint64_t length = marker & 0xF;
    if (length == 0xF) {  // the length follows as an integer object of 2^n bytes
      const std::size_t width = at < data.size() && (data[at] >> 4) == 1 ? std::size_t{1} << (data[at] & 0xF) : 9;
      if (width > 8 || data.size() - at <= width) continue;
      length = bigEndian(data.subspan(at + 1, width));
      at += 1 + width;
    }
    if (length > (data.size() - at) / unit) continue;
    for (std::size_t c = at; c < at + length * unit; c += unit) {
      if (data[c] == 0 && data[c + unit - 1] == 0) return true;
    }
  }
  return false;
}

std::optional<std::string> stringValue(plist_t node) {
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  std::uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (text == nullptr || !isArchivableText({text, length})) return std::nullopt;
  return std::string(text, length);
}

}  // namespace

// --- KeyedArchiver ---

struct KeyedArchiver::Impl {
  PlistPtr root{plist_new_dict()};

  void set(std::string_view key, plist_t value) { plist_dict_set_item(root.get(), std::string(key).c_str(), value); }
};

KeyedArchiver::KeyedArchiver() : impl_(std::make_unique<Impl>()) {}
KeyedArchiver::~KeyedArchiver() = default;

// Property lists store integers unsigned; a negative value travels as its two's
// complement and comes back the same.
void KeyedArchiver::encodeInteger(std::int64_t value, std::string_view key) {
  impl_->set(key, plist_new_uint(static_cast<std::uint64_t>(value)));
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) { impl_->set(key, plist_new_bool(value ? 1 : 0)); }

void KeyedArchiver::encodeDouble(double value, std::string_view key) { impl_->set(key, plist_new_real(value)); }

void KeyedArchiver::encodeString(std::string_view value, std::string_view key) {
  impl_->set(key, plist_new_string(std::string(value).c_str()));
}

void KeyedArchiver::encodeStrings(const std::vector<std::string>& values, std::string_view key) {
  plist_t array = plist_new_array();
  for (const auto& value : values) plist_array_append_item(array, plist_new_string(value.c_str()));
  impl_->set(key, array);
}

void KeyedArchiver::encodeStringPairs(const std::vector<std::pair<std::string, std::string>>& pairs,
                                      std::string_view key) {
  plist_t dict = plist_new_dict();
  for (const auto& [name, value] : pairs) plist_dict_set_item(dict, name.c_str(), plist_new_string(value.c_str()));
  impl_->set(key, dict);
}

Bytes KeyedArchiver::encodedData() const {
  char* buffer = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(impl_->root.get(), &buffer, &length);
  Bytes data(buffer, buffer + (buffer != nullptr ? length : 0));
  plist_to_bin_free(buffer);
  return data;
}

// --- KeyedUnarchiver ---

struct KeyedUnarchiver::Impl {
  PlistPtr root;

  // The value under `key` if it has the given type.
  plist_t item(std::string_view key, plist_type type) const {
    plist_t node = plist_dict_get_item(root.get(), std::string(key).c_str());
    return node != nullptr && plist_get_node_type(node) == type ? node : nullptr;
  }
};

KeyedUnarchiver::KeyedUnarchiver(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
KeyedUnarchiver::~KeyedUnarchiver() = default;
KeyedUnarchiver::KeyedUnarchiver(KeyedUnarchiver&&) noexcept = default;
KeyedUnarchiver& KeyedUnarchiver::operator=(KeyedUnarchiver&&) noexcept = default;

std::optional<KeyedUnarchiver> KeyedUnarchiver::unarchiverWithData(const Bytes& data) {
  if (data.empty() || data.size() > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  if (holdsTextWithNul(data)) return std::nullopt;
  plist_t parsed = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(data.data()), static_cast<std::uint32_t>(data.size()), &parsed);
  PlistPtr root(parsed);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
  auto impl = std::make_unique<Impl>();
  impl->root = std::move(root);
  return KeyedUnarchiver(std::move(impl));
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return plist_dict_get_item(impl_->root.get(), std::string(key).c_str()) != nullptr;
}

std::optional<std::int64_t> KeyedUnarchiver::decodeInteger(std::string_view key) const {
  plist_t node = impl_->item(key, PLIST_UINT);
  if (node == nullptr) return std::nullopt;
  std::uint64_t value = 0;
  plist_get_uint_val(node, &value);
  return static_cast<std::int64_t>(value);
}

std::optional<bool> KeyedUnarchiver::decodeBool(std::string_view key) const {
  plist_t node = impl_->item(key, PLIST_BOOLEAN);
  if (node == nullptr) return std::nullopt;
  std::uint8_t value = 0;
  plist_get_bool_val(node, &value);
  return value != 0;
}

std::optional<double> KeyedUnarchiver::decodeDouble(std::string_view key) const {
  plist_t node = impl_->item(key, PLIST_REAL);
  if (node == nullptr) return std::nullopt;
  double value = 0;
  plist_get_real_val(node, &value);
  return value;
}

std::optional<std::string> KeyedUnarchiver::decodeString(std::string_view key) const {
  return stringValue(impl_->item(key, PLIST_STRING));
}

std::optional<std::vector<std::string>> KeyedUnarchiver::decodeStrings(std::string_view key) const {
  plist_t array = impl_->item(key, PLIST_ARRAY);
  if (array == nullptr) return std::nullopt;
  std::vector<std::string> values;
  const std::uint32_t count = plist_array_get_size(array);
  for (std::uint32_t i = 0; i < count; ++i) {
    auto value = stringValue(plist_array_get_item(array, i));
    if (!value) return std::nullopt;
    values.push_back(std::move(*value));
  }
  return values;
}

std::optional<std::vector<std::pair<std::string, std::string>>> KeyedUnarchiver::decodeStringPairs(
    std::string_view key) const {
  plist_t dict = impl_->item(key, PLIST_DICT);
  if (dict == nullptr) return std::nullopt;
  std::vector<std::pair<std::string, std::string>> pairs;
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(dict, &iter);
  const std::unique_ptr<void, decltype(&std::free)> iterOwner(iter, &std::free);
  for (;;) {
    char* name = nullptr;
    plist_t node = nullptr;
    plist_dict_next_item(dict, iter, &name, &node);
    const std::unique_ptr<char, decltype(&std::free)> nameOwner(name, &std::free);
    if (node == nullptr) break;
    auto value = stringValue(node);
    if (!value || (name != nullptr && !isArchivableText(name))) return std::nullopt;
    pairs.emplace_back(name != nullptr ? name : "", std::move(*value));
  }
  return pairs;
}

}  // namespace vkq::platform
