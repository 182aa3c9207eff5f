#include "Classes/Codec/VKQKXPFrame.h"

#include <concepts>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "Classes/Codec/ByteOrder.h"
#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"

namespace VKQKXPFrame {
namespace {

// When each optional field is present; 0 switches a field off.
bool hasBeginMarker(const VKQKXPFrameSettings& settings) { return settings.insertAtBeginBody != 0; }
bool hasVersion(const VKQKXPFrameSettings& settings) { return settings.version != 0; }
bool hasOSType(const VKQKXPFrameSettings& settings) { return settings.uploadOSType; }
bool hasPackageCRC(const VKQKXPFrameSettings& settings) { return settings.packageName.has_value(); }
bool hasReleaseCRC(const VKQKXPFrameSettings& settings) { return settings.releaseVersion > 0; }

// Widths of the fields.
constexpr std::size_t kMarkerWidth = sizeof(std::uint16_t);
constexpr std::size_t kVersionWidth = sizeof(std::uint8_t);
constexpr std::size_t kOSTypeWidth = sizeof(std::uint8_t);
constexpr std::size_t kWordWidth = sizeof(std::uint32_t);  // lengths and CRCs

std::uint32_t crcOf(std::span<const std::uint8_t> bytes) { return static_cast<std::uint32_t>(Encrypt::crc32(bytes)); }

// Appends one big-endian field.
template <std::unsigned_integral T>
void appendField(vkq::platform::Bytes& frame, T value) {
  const T ordered = ByteOrder::ordered(value, kBigEndian);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&ordered);
  frame.insert(frame.end(), bytes, bytes + sizeof ordered);
}

// Reads big-endian fields from the front of a frame, in order, until one does not fit.
class FieldReader {
 public:
  explicit FieldReader(std::span<const std::uint8_t> frame) : frame_(frame) {}

  // Reads a field into `field`; false (and nothing read from here on) when the bytes
  // run out.
  template <std::unsigned_integral T>
  bool read(T& field) {
    if (!complete_ || frame_.size() - size_ < sizeof(T)) {
      complete_ = false;
      return false;
    }
    T value;
    std::memcpy(&value, frame_.data() + size_, sizeof value);
    field = ByteOrder::ordered(value, kBigEndian);
    size_ += sizeof value;
    return true;
  }

  template <typename T>
  void readOptional(bool present, std::optional<T>& field) {
    using Unsigned = std::make_unsigned_t<T>;
    Unsigned value{};
    if (present && read(value)) field = static_cast<T>(value);
  }

  template <typename Header>
  Reading<Header> finish(Header header) const {
    return Reading<Header>{std::move(header), complete_, size_};
  }

 private:
  std::span<const std::uint8_t> frame_;
  std::size_t size_ = 0;
  bool complete_ = true;
};

std::size_t responseHeaderSize(const VKQKXPFrameSettings& settings) {
  return (hasBeginMarker(settings) ? kMarkerWidth : 0) + (hasVersion(settings) ? kVersionWidth : 0) + 2 * kWordWidth;
}

}  // namespace

std::size_t requestHeaderSize(const VKQKXPFrameSettings& settings) {
  return (hasBeginMarker(settings) ? kMarkerWidth : 0) + (hasVersion(settings) ? kVersionWidth : 0) +
         (hasOSType(settings) ? kOSTypeWidth : 0) + 2 * kWordWidth + (hasPackageCRC(settings) ? kWordWidth : 0) +
         (hasReleaseCRC(settings) ? kWordWidth : 0);
}

std::optional<std::uint32_t> packageCRC(const VKQKXPFrameSettings& settings) {
  if (!hasPackageCRC(settings)) return std::nullopt;
  return crcOf(vkq::platform::bytesFromString(*settings.packageName));
}

std::optional<std::uint32_t> releaseCRC(const VKQKXPFrameSettings& settings) {
  if (!hasReleaseCRC(settings)) return std::nullopt;
  return crcOf(vkq::platform::bytesFromString(std::to_string(settings.releaseVersion)));
}

Reading<RequestHeader> readRequestHeader(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings) {
  FieldReader reader(frame);
  RequestHeader header;
  reader.readOptional(hasBeginMarker(settings), header.beginMarker);
  reader.readOptional(hasVersion(settings), header.version);
  reader.readOptional(hasOSType(settings), header.osType);
  reader.read(header.payloadLength);
  reader.read(header.payloadCRC);
  reader.readOptional(hasPackageCRC(settings), header.packageCRC);
  reader.readOptional(hasReleaseCRC(settings), header.releaseCRC);
  return reader.finish(std::move(header));
}

Reading<ResponseHeader> readResponseHeader(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings) {
  FieldReader reader(frame);
  ResponseHeader header;
  reader.readOptional(hasBeginMarker(settings), header.beginMarker);
  reader.readOptional(hasVersion(settings), header.version);
  reader.read(header.payloadLength);
  reader.read(header.payloadCRC);
  return reader.finish(std::move(header));
}

std::nullopt_t refuse(vkq::platform::ErrorPtr* error, VKQKXPFrameErrorCode code, std::string description) {
  vkq::platform::ErrorUserInfo info;
  info.localizedDescription = std::move(description);
  vkq::platform::setError(error, vkq::platform::makeError(VKQKXPFrameErrorDomain, code, std::move(info)));
  return std::nullopt;
}

std::string hexField(std::uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, static_cast<unsigned>(value));
  return text;
}

// --- Pipeline

namespace {

void appendRequestHeader(vkq::platform::Bytes& frame, const VKQKXPFrameSettings& settings,
                         std::span<const std::uint8_t> payload) {
  if (hasBeginMarker(settings)) appendField(frame, settings.insertAtBeginBody);
  if (hasVersion(settings)) appendField(frame, settings.version);
  if (hasOSType(settings)) appendField(frame, kOSType);
  appendField(frame, static_cast<std::uint32_t>(payload.size()));
  appendField(frame, crcOf(payload));
  if (const auto crc = packageCRC(settings)) appendField(frame, *crc);
  if (const auto crc = releaseCRC(settings)) appendField(frame, *crc);
}

void appendResponseHeader(vkq::platform::Bytes& frame, const VKQKXPFrameSettings& settings,
                          std::span<const std::uint8_t> payload) {
  if (hasBeginMarker(settings)) appendField(frame, settings.insertAtBeginBody);
  if (hasVersion(settings)) appendField(frame, settings.version);
  appendField(frame, static_cast<std::uint32_t>(payload.size()));
  appendField(frame, crcOf(payload));
}

using AppendHeader = void (*)(vkq::platform::Bytes&, const VKQKXPFrameSettings&, std::span<const std::uint8_t>);

std::optional<vkq::platform::Bytes> pack(std::span<std::uint8_t> payload, const VKQKXPFrameSettings& settings,
                                         std::size_t headerSize, AppendHeader appendHeader) {
  if (payload.empty()) return std::nullopt;
  if (settings.nonProtocol) return vkq::platform::Bytes(payload.begin(), payload.end());
  std::optional<vkq::platform::Bytes> compressed;
  if (settings.compress) {
    compressed = Deflate::compress(payload);
    if (!compressed || compressed->empty()) return std::nullopt;
    payload = *compressed;
  }
  if (settings.xorKey != 0) Encrypt::xorInPlace(payload, settings.xorKey);

  vkq::platform::Bytes frame;
  frame.reserve(headerSize + payload.size());
  appendHeader(frame, settings, payload);
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

}  // namespace

std::optional<vkq::platform::Bytes> packRequest(std::span<std::uint8_t> payload, const VKQKXPFrameSettings& settings) {
  return pack(payload, settings, requestHeaderSize(settings), appendRequestHeader);
}

std::optional<vkq::platform::Bytes> packResponse(std::span<std::uint8_t> payload, const VKQKXPFrameSettings& settings) {
  return pack(payload, settings, responseHeaderSize(settings), appendResponseHeader);
}

std::optional<vkq::platform::Bytes> unpack(std::span<const std::uint8_t> body, std::uint32_t length, std::uint32_t crc,
                                           const VKQKXPFrameSettings& settings, TrailingBytes trailing,
                                           vkq::platform::ErrorPtr* error) {
  if (length > body.size() || (trailing == TrailingBytes::kRefused && length < body.size())) {
    return refuse(
        error, VKQKXPFrameErrorLength,
        "payload length field says " + std::to_string(length) + " bytes, " + std::to_string(body.size()) + " follow");
  }
  if (length == 0) return refuse(error, VKQKXPFrameErrorLength, "empty payload");
  const std::span<const std::uint8_t> payload = body.first(length);
  if (const std::uint32_t actual = crcOf(payload); actual != crc) {
    return refuse(error, VKQKXPFrameErrorChecksum,
                  "payload CRC " + hexField(actual, 8) + ", the frame says " + hexField(crc, 8));
  }

  std::optional<vkq::platform::Bytes> unpacked;
  bool overLimit = false;
  if (settings.xorKey == 0 && settings.compress) {
    unpacked = Deflate::decompress(payload, settings.maximumPayloadLength, &overLimit);  // nothing to unmask: no copy
  } else {
    unpacked.emplace(payload.begin(), payload.end());
    if (settings.xorKey != 0) Encrypt::xorInPlace(*unpacked, settings.xorKey);
    if (settings.compress) unpacked = Deflate::decompress(*unpacked, settings.maximumPayloadLength, &overLimit);
  }
  if (overLimit) {
    return refuse(error, VKQKXPFrameErrorTooLong,
                  "payload decompresses to more than " + std::to_string(settings.maximumPayloadLength) + " bytes");
  }
  if (!unpacked) return refuse(error, VKQKXPFrameErrorDecompression, "payload does not decompress");
  return unpacked;
}

}  // namespace VKQKXPFrame
