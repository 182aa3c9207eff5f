#include "Classes/Codec/NRDByteArray.h"

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "Classes/Codec/ByteOrder.h"
#include "Platform/Base/Assert.h"

using vkq::platform::Bytes;

namespace {

// The whole file, or absent when it cannot be opened or read (missing, a folder, no
// permission).
std::optional<Bytes> contentsOfFile(const std::filesystem::path& path) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) return std::nullopt;
  Bytes contents;
  std::uint8_t chunk[64 * 1024];
  while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, file.get())) {
    contents.insert(contents.end(), chunk, chunk + got);
  }
  if (std::ferror(file.get())) return std::nullopt;
  return contents;
}

// The directory of the running executable; empty when it cannot be found.
std::filesystem::path bundleDirectory() {
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : executable.parent_path();
}

}  // namespace

std::shared_ptr<NRDByteArray> NRDByteArray::initWithLength(std::size_t length, bool bigEndian) {
  return std::shared_ptr<NRDByteArray>(new NRDByteArray(Bytes(length, 0), bigEndian));
}

std::shared_ptr<NRDByteArray> NRDByteArray::initWithBytes(const void* bytes, std::size_t length) {
  VKQParameterAssert(bytes != nullptr || length == 0);
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  return std::shared_ptr<NRDByteArray>(new NRDByteArray(length ? Bytes(first, first + length) : Bytes(), false));
}

std::shared_ptr<NRDByteArray> NRDByteArray::initWithData(std::span<const std::uint8_t> data, bool bigEndian) {
  return std::shared_ptr<NRDByteArray>(new NRDByteArray(Bytes(data.begin(), data.end()), bigEndian));
}

std::shared_ptr<NRDByteArray> NRDByteArray::initWithFile(const std::optional<std::filesystem::path>& path,
                                                         bool bigEndian) {
  auto contents = path ? contentsOfFile(*path) : std::nullopt;
  return std::shared_ptr<NRDByteArray>(new NRDByteArray(std::move(contents), bigEndian));
}

std::shared_ptr<NRDByteArray> NRDByteArray::initWithName(std::string_view name, bool bigEndian) {
  const auto directory = bundleDirectory();
  return initWithFile(directory.empty() ? std::nullopt : std::optional(directory / name), bigEndian);
}

std::shared_ptr<NRDByteArray> NRDByteArray::initWithBigEndian(bool bigEndian) {
  return initWithLength(0, bigEndian);
}

void NRDByteArray::setPosition(std::size_t /*ignored*/) { position_ = std::min(position_, capacity()); }

bool NRDByteArray::fits(std::size_t count) const {
  return position_ <= capacity() && count <= capacity() - position_;
}

// --- Reads

void NRDByteArray::requireReadable(std::size_t size) const {
  if (!fits(size)) {
    throw std::out_of_range("NRDByteArray: cannot read " + std::to_string(size) + " bytes at position " +
                            std::to_string(position_) + " of a buffer of " + std::to_string(capacity()) +
                            " bytes");
  }
}

void NRDByteArray::getBytes(void* destination, std::size_t size) {
  requireReadable(size);
  if (size == 0) return;
  std::memcpy(destination, data_->data() + position_, size);
  position_ += size;
}

template <typename T>
T NRDByteArray::readOrdered() {
  static_assert(std::unsigned_integral<T> && sizeof(T) > 1);
  T value;
  getBytes(&value, sizeof value);
  return ByteOrder::ordered(value, bigEndian_);
}

bool NRDByteArray::readBool() { return (readUInt8() & 1) != 0; }

std::uint8_t NRDByteArray::readUInt8() {
  std::uint8_t value;
  getBytes(&value, 1);
  return value;
}

std::int8_t NRDByteArray::readSInt8() { return static_cast<std::int8_t>(readUInt8()); }
std::uint16_t NRDByteArray::readUInt16() { return readOrdered<std::uint16_t>(); }
std::int16_t NRDByteArray::readSInt16() { return static_cast<std::int16_t>(readOrdered<std::uint16_t>()); }
std::uint32_t NRDByteArray::readUInt32() { return readOrdered<std::uint32_t>(); }
std::int32_t NRDByteArray::readSInt32() { return static_cast<std::int32_t>(readOrdered<std::uint32_t>()); }
std::uint64_t NRDByteArray::readUInt64() { return readOrdered<std::uint64_t>(); }
std::int64_t NRDByteArray::readSInt64() { return static_cast<std::int64_t>(readOrdered<std::uint64_t>()); }
std::size_t NRDByteArray::readUInt() { return readOrdered<std::size_t>(); }
std::ptrdiff_t NRDByteArray::readInt() { return static_cast<std::ptrdiff_t>(readOrdered<std::size_t>()); }
float NRDByteArray::readFloat() { return std::bit_cast<float>(readOrdered<std::uint32_t>()); }
double NRDByteArray::readDouble() { return std::bit_cast<double>(readOrdered<std::uint64_t>()); }

std::optional<Bytes> NRDByteArray::readDataWithLength(std::size_t length) {
  if (length == 0 || !fits(length)) return std::nullopt;
  const auto first = data_->begin() + static_cast<std::ptrdiff_t>(position_);
  Bytes bytes(first, first + static_cast<std::ptrdiff_t>(length));
  position_ += length;
  return bytes;
}

std::optional<Bytes> NRDByteArray::readData() {
  std::size_t length;
  getBytes(&length, sizeof length);
  return readDataWithLength(length);
}

std::optional<std::string> NRDByteArray::readUTFStringWithLength(std::size_t length, NRDStringEncoding encoding) {
  if (length == 0) return std::string();
  requireReadable(length);
  auto text = NRDDecodeString(std::span(*data_).subspan(position_, length), encoding);
  position_ += length;
  return text;
}

std::optional<std::string> NRDByteArray::readUTFStringWithEncoding(NRDStringEncoding encoding) {
  std::size_t length;
  getBytes(&length, sizeof length);
  return readUTFStringWithLength(length, encoding);
}

// --- Appends

void NRDByteArray::appendRaw(const void* bytes, std::size_t size) {
  if (!data_ || size == 0) return;
  const auto* source = static_cast<const std::uint8_t*>(bytes);
  const std::size_t oldSize = data_->size();
  // Growing may move the buffer: find a source inside it again by its offset.
  const bool fromSelf = source >= data_->data() && source < data_->data() + oldSize;
  const std::size_t selfOffset = fromSelf ? static_cast<std::size_t>(source - data_->data()) : 0;
  data_->resize(oldSize + size);
  if (fromSelf) source = data_->data() + selfOffset;
  std::memcpy(data_->data() + oldSize, source, size);
}

template <typename T>
void NRDByteArray::appendOrdered(T value) {
  static_assert(std::unsigned_integral<T> && sizeof(T) > 1);
  const T ordered = ByteOrder::ordered(value, bigEndian_);
  appendRaw(&ordered, sizeof ordered);
}

void NRDByteArray::appendBool(bool value) { appendUInt8(value ? 1 : 0); }
void NRDByteArray::appendUInt8(std::uint8_t value) { appendRaw(&value, 1); }
void NRDByteArray::appendSInt8(std::int8_t value) { appendUInt8(static_cast<std::uint8_t>(value)); }
void NRDByteArray::appendUInt16(std::uint16_t value) { appendOrdered(value); }
void NRDByteArray::appendSInt16(std::int16_t value) { appendOrdered(static_cast<std::uint16_t>(value)); }
void NRDByteArray::appendUInt32(std::uint32_t value) { appendOrdered(value); }
void NRDByteArray::appendSInt32(std::int32_t value) { appendOrdered(static_cast<std::uint32_t>(value)); }
void NRDByteArray::appendUInt64(std::uint64_t value) { appendOrdered(value); }
void NRDByteArray::appendSInt64(std::int64_t value) { appendOrdered(static_cast<std::uint64_t>(value)); }
void NRDByteArray::appendUInt(std::size_t value) { appendOrdered(value); }
void NRDByteArray::appendSInt(std::ptrdiff_t value) { appendOrdered(static_cast<std::size_t>(value)); }
void NRDByteArray::appendFloat(float value) { appendOrdered(std::bit_cast<std::uint32_t>(value)); }
void NRDByteArray::appendDouble(double value) { appendOrdered(std::bit_cast<std::uint64_t>(value)); }

void NRDByteArray::appendLength(std::size_t length) { appendRaw(&length, sizeof length); }

void NRDByteArray::appendData(std::span<const std::uint8_t> data, bool includeLength) {
  if (includeLength) appendLength(data.size());
  appendRaw(data.data(), data.size());
}

void NRDByteArray::appendUTFString(std::string_view text, bool includeLength, NRDStringEncoding encoding) {
  if (const auto encoded = NRDEncodeString(text, encoding)) {
    appendData(*encoded, includeLength);
  } else if (includeLength) {
    appendLength(0);
  }
}

void NRDByteArray::appendEmptyBytesWithLength(std::size_t length) {
  if (data_) data_->resize(data_->size() + length, 0);
}

// --- Replacements

void NRDByteArray::replaceBytesInsize(std::size_t count, const void* bytes) {
  if (!fits(count) || count == 0) return;
  // memmove: the bytes may come from this very buffer.
  std::memmove(data_->data() + position_, bytes, count);
  position_ += count;
}

void NRDByteArray::replaceData(std::span<const std::uint8_t> data) { replaceBytesInsize(data.size(), data.data()); }

void NRDByteArray::replaceUInt(std::size_t value) { replaceBytesInsize(sizeof value, &value); }

void NRDByteArray::replaceDataBloak(std::span<const std::uint8_t> data) {
  if (data.size() > SIZE_MAX - kWordSize || !fits(kWordSize + data.size())) return;
  replaceUInt(data.size());
  replaceData(data);
}
