// NRDByteArray: a growable byte buffer with a read cursor and a per-instance byte order.
//
// Appends add typed values at the end of the buffer and never move the cursor. Reads take
// typed values from the cursor and advance it by their width; replacements overwrite
// bytes at the cursor and advance it by what they wrote. Nothing else moves the cursor.
//
// Byte order: multi-byte typed values (16, 32 and 64 bits, machine words, floats as their
// bit patterns) are most significant byte first when bigEndian() is true, and in the
// processor's native (little-endian) order when it is false. The length prefixes of byte
// strings and texts (appendLength, readData, readUTFStringWithEncoding, replaceUInt,
// replaceDataBloak) are machine words in native order whatever bigEndian() says.
//
// A machine word is kWordSize bytes: std::size_t for unsigned, std::ptrdiff_t for signed.
//
// "No buffer" is a state of its own, distinct from an empty buffer: data() is null,
// capacity() is 0 and appends are dropped. The file initializers give it when the file
// cannot be read; setData(std::nullopt) sets it.
//
// Reads fail loudly: a fixed-width read, getBytes, or a length word that reaches past the
// end throws std::out_of_range and leaves the cursor where it was; no bytes are invented.
// readDataWithLength is the one checked read. Replacements that do not fit do nothing.
//
// Instances are made by the static init... factories and shared by std::shared_ptr.
// Thread-compatible: no locking; an instance belongs to one caller at a time.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Classes/Codec/NRDStringEncoding.h"
#include "Platform/Base/Bytes.h"

// A URL that may name a local file: vkq::platform::URL, or any type with the same two
// accessors. The byte array reads files only and needs nothing else of a URL.
template <typename URL>
concept NRDFileURL = requires(const URL& url) {
  { url.isFileURL() } -> std::convertible_to<bool>;
  { url.filePath() } -> std::convertible_to<std::filesystem::path>;
};

class NRDByteArray {
 public:
  // The buffer's type.
  using Bytes = vkq::platform::Bytes;

  // Width of a machine word, the unit of length prefixes.
  static constexpr std::size_t kWordSize = sizeof(std::size_t);

  // --- Initializers. The cursor starts at 0 in every case.

  // `length` zero bytes.
  static std::shared_ptr<NRDByteArray> initWithLength(std::size_t length, bool bigEndian);
  // A copy of `length` bytes at `bytes`, native order (bigEndian() false). `bytes` may be
  // null only when `length` is 0.
  static std::shared_ptr<NRDByteArray> initWithBytes(const void* bytes, std::size_t length);
  // A copy of `data`.
  static std::shared_ptr<NRDByteArray> initWithData(std::span<const std::uint8_t> data, bool bigEndian);
  // The contents of a file URL. No buffer when the file cannot be read, and for every
  // URL that is not a file URL (this class does no network transfers).
  template <NRDFileURL URL>
  static std::shared_ptr<NRDByteArray> initWithUrl(const URL& url, bool bigEndian) {
    return initWithFile(url.isFileURL() ? std::optional<std::filesystem::path>(url.filePath()) : std::nullopt,
                        bigEndian);
  }
  // The contents of the file `name` in the program's bundle directory, the directory of
  // the running executable. No buffer when it cannot be read.
  static std::shared_ptr<NRDByteArray> initWithName(std::string_view name, bool bigEndian);
  // An empty buffer; the same as initWithLength(0, bigEndian).
  static std::shared_ptr<NRDByteArray> initWithBigEndian(bool bigEndian);

  // --- Properties.

  // The buffer itself, not a copy; null when there is no buffer. Valid until the next
  // call that changes the buffer (setData, an append).
  Bytes* data() { return data_ ? &*data_ : nullptr; }
  const Bytes* data() const { return data_ ? &*data_ : nullptr; }
  // Replaces the buffer (std::nullopt: no buffer). The cursor stays where it was, which
  // may now be beyond the end.
  void setData(std::optional<Bytes> data) { data_ = std::move(data); }

  bool bigEndian() const { return bigEndian_; }
  void setBigEndian(bool bigEndian) { bigEndian_ = bigEndian; }

  // Index of the next byte to read or replace.
  std::size_t position() const { return position_; }
  // The argument is not used: pulls the cursor back to min(position(), capacity()). It
  // never moves the cursor forward; its only effect is to bring a cursor left beyond the
  // end by setData back to the end.
  void setPosition(std::size_t ignored);

  // Length of the buffer in bytes; 0 when there is none.
  std::size_t capacity() const { return data_ ? data_->size() : 0; }
  // position() < capacity().
  bool available() const { return position_ < capacity(); }
  // capacity() - position() in unsigned arithmetic, unguarded: huge when the cursor lies
  // beyond the end.
  std::size_t availableLength() const { return capacity() - position_; }

  // --- Typed reads from the cursor. Throw std::out_of_range when the value reaches past
  // the end; the cursor then stays.

  // True when the byte's lowest bit is set.
  bool readBool();
  std::uint8_t readUInt8();
  std::int8_t readSInt8();
  std::uint16_t readUInt16();
  std::int16_t readSInt16();
  std::uint32_t readUInt32();
  std::int32_t readSInt32();
  std::uint64_t readUInt64();
  std::int64_t readSInt64();
  std::size_t readUInt();
  std::ptrdiff_t readInt();
  float readFloat();
  double readDouble();

  // --- Typed appends at the end. Dropped when there is no buffer.

  // Writes 1 for true, 0 for false.
  void appendBool(bool value);
  void appendUInt8(std::uint8_t value);
  void appendSInt8(std::int8_t value);
  void appendUInt16(std::uint16_t value);
  void appendSInt16(std::int16_t value);
  void appendUInt32(std::uint32_t value);
  void appendSInt32(std::int32_t value);
  void appendUInt64(std::uint64_t value);
  void appendSInt64(std::int64_t value);
  void appendUInt(std::size_t value);
  void appendSInt(std::ptrdiff_t value);
  void appendFloat(float value);
  void appendDouble(double value);

  // --- Byte strings and text.

  // One machine word in native order, never reordered (unlike appendUInt).
  void appendLength(std::size_t length);
  // appendLength(data.size()) first when `includeLength`, then the bytes.
  void appendData(std::span<const std::uint8_t> data, bool includeLength);
  // The text in `encoding`, as appendData. When the text cannot be encoded: a length of
  // 0 and no bytes if `includeLength`, nothing otherwise.
  void appendUTFString(std::string_view text, bool includeLength,
                       NRDStringEncoding encoding = NRDStringEncoding::UTF8);
  // `length` zero bytes.
  void appendEmptyBytesWithLength(std::size_t length);

  // Copies `size` bytes from the cursor to `destination` and advances the cursor; the
  // primitive under every fixed-width read. Throws std::out_of_range when fewer remain.
  void getBytes(void* destination, std::size_t size);
  // `length` bytes from the cursor. Absent, with the cursor unchanged, when `length` is 0
  // or more than the bytes left.
  std::optional<Bytes> readDataWithLength(std::size_t length);
  // A native-order length word (throws like getBytes when it is not all there), then
  // readDataWithLength with it; the length word stays consumed when that is absent.
  // Reads what appendData(data, true) wrote.
  std::optional<Bytes> readData();
  // Length 0: the empty text, cursor unchanged. Otherwise decodes `length` bytes from the
  // cursor and advances past them whether or not they decode; absent when they are not
  // valid in `encoding`. Throws std::out_of_range when fewer bytes remain.
  std::optional<std::string> readUTFStringWithLength(std::size_t length,
                                                     NRDStringEncoding encoding = NRDStringEncoding::UTF8);
  // A native-order length word, then readUTFStringWithLength. Reads what
  // appendUTFString(text, true, encoding) wrote.
  std::optional<std::string> readUTFStringWithEncoding(NRDStringEncoding encoding = NRDStringEncoding::UTF8);

  // --- In-place replacement at the cursor. Each one either writes everything and
  // advances the cursor, or, when it does not fit before the end, changes nothing.

  // Overwrites `count` bytes at the cursor with those at `bytes`.
  void replaceBytesInsize(std::size_t count, const void* bytes);
  void replaceData(std::span<const std::uint8_t> data);
  // One machine word in native order, never reordered.
  void replaceUInt(std::size_t value);
  // A length-prefixed block: replaceUInt(data.size()) then replaceData(data), only when
  // both fit.
  void replaceDataBloak(std::span<const std::uint8_t> data);

 private:
  NRDByteArray(std::optional<Bytes> data, bool bigEndian) : data_(std::move(data)), bigEndian_(bigEndian) {}

  // The contents of the file at `path`; no buffer when there is no path or the file
  // cannot be read.
  static std::shared_ptr<NRDByteArray> initWithFile(const std::optional<std::filesystem::path>& path, bool bigEndian);

  // Adds raw bytes at the end; `bytes` may point into the buffer itself.
  void appendRaw(const void* bytes, std::size_t size);
  // Whether `count` bytes starting at the cursor lie inside the buffer.
  bool fits(std::size_t count) const;
  // Throws std::out_of_range unless `size` bytes can be read at the cursor.
  void requireReadable(std::size_t size) const;

  template <typename T>
  T readOrdered();
  template <typename T>
  void appendOrdered(T value);

  std::optional<Bytes> data_;
  bool bigEndian_ = false;
  std::size_t position_ = 0;
};
