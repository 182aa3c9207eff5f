// Keyed archiving: an object's settings as a property-list dictionary (libplist),
// encoded to and decoded from bytes (binary property list).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Base/Bytes.h"

namespace vkq::platform {

// Writes values under keys into a dictionary, then the dictionary as bytes.
class KeyedArchiver {
 public:
  // An empty archive.
  KeyedArchiver();
  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  // --- Values, each stored under `key` in place of what the key held.
  void encodeInteger(std::int64_t value, std::string_view key);
  void encodeBool(bool value, std::string_view key);
  void encodeDouble(double value, std::string_view key);
  void encodeString(std::string_view value, std::string_view key);
  // An array of strings, in order.
  void encodeStrings(const std::vector<std::string>& values, std::string_view key);
  // A dictionary of strings, e.g. header fields; order is not kept.
  void encodeStringPairs(const std::vector<std::pair<std::string, std::string>>& pairs, std::string_view key);

  // The archive as a binary property list.
  Bytes encodedData() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Reads the values a KeyedArchiver wrote, by key.
class KeyedUnarchiver {
 public:
  // Absent unless `data` is a property list whose top level is a dictionary (and, in a
  // binary one, no text holds a NUL).
  static std::optional<KeyedUnarchiver> unarchiverWithData(const Bytes& data);
  ~KeyedUnarchiver();
  // Movable, not copyable.
  KeyedUnarchiver(KeyedUnarchiver&&) noexcept;
  // Moves, like the move constructor.
  KeyedUnarchiver& operator=(KeyedUnarchiver&&) noexcept;

  // Whether the dictionary has `key`.
  bool containsValueForKey(std::string_view key) const;

  // --- The value under `key`; absent when the key is missing or holds another kind;
  // text (values and dictionary keys) must be UTF-8 without NUL, as the archiver writes it.
  std::optional<std::int64_t> decodeInteger(std::string_view key) const;
  std::optional<bool> decodeBool(std::string_view key) const;
  std::optional<double> decodeDouble(std::string_view key) const;
  std::optional<std::string> decodeString(std::string_view key) const;
  std::optional<std::vector<std::string>> decodeStrings(std::string_view key) const;
  std::optional<std::vector<std::pair<std::string, std::string>>> decodeStringPairs(std::string_view key) const;

 private:
  struct Impl;
  explicit KeyedUnarchiver(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vkq::platform
