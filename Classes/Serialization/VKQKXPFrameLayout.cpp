#include "Classes/Serialization/VKQKXPFrameLayout.h"

#include "Classes/Codec/Encrypt.h"
#include "Classes/Codec/NRDByteArray.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Bytes.h"

VKQKXPFrameSettings VKQKXPFrameSettings::fromRequest(const VKQVeskRequest& request) {
  VKQKXPFrameSettings settings;
  settings.nonProtocol = request.nonProtocol();
  settings.compress = request.compress();
  settings.xorKey = request.xorKey();
  settings.insertAtBeginBody = request.insertAtBeginBody();
  settings.version = request.version();
  settings.uploadOSType = request.uploadOSType();
  settings.packageName = request.packageName();
  settings.releaseVersion = request.releaseVersion();
  return settings;
}

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

// Reads one field of type T into `field` unless an earlier field was missing or the
// bytes run out; returns whether the field was read.
template <typename T>
bool readField(NRDByteArray& frame, bool& complete, T (NRDByteArray::*read)(), T& field) {
  if (!complete || frame.position() > frame.capacity() || frame.availableLength() < sizeof(T)) {
    complete = false;
    return false;
  }
  field = (frame.*read)();
  return true;
}

template <typename T>
void readOptionalField(NRDByteArray& frame, bool& complete, bool present, T (NRDByteArray::*read)(),
                       std::optional<T>& field) {
  if (!present) return;
  T value{};
  if (readField(frame, complete, read, value)) field = value;
}

}  // namespace

std::size_t requestHeaderSize(const VKQKXPFrameSettings& settings) {
  return (hasBeginMarker(settings) ? kMarkerWidth : 0) + (hasVersion(settings) ? kVersionWidth : 0) +
         (hasOSType(settings) ? kOSTypeWidth : 0) + 2 * kWordWidth + (hasPackageCRC(settings) ? kWordWidth : 0) +
         (hasReleaseCRC(settings) ? kWordWidth : 0);
}

std::size_t responseHeaderSize(const VKQKXPFrameSettings& settings) {
  return (hasBeginMarker(settings) ? kMarkerWidth : 0) + (hasVersion(settings) ? kVersionWidth : 0) + 2 * kWordWidth;
}

std::optional<std::uint32_t> packageCRC(const VKQKXPFrameSettings& settings) {
  if (!hasPackageCRC(settings)) return std::nullopt;
  return crcOf(vkq::platform::bytesFromString(*settings.packageName));
}

std::optional<std::uint32_t> releaseCRC(const VKQKXPFrameSettings& settings) {
  if (!hasReleaseCRC(settings)) return std::nullopt;
  return crcOf(vkq::platform::bytesFromString(std::to_string(settings.releaseVersion)));
}

void appendRequestHeader(NRDByteArray& frame, const VKQKXPFrameSettings& settings,
                         std::span<const std::uint8_t> payload) {
  if (hasBeginMarker(settings)) frame.appendUInt16(settings.insertAtBeginBody);
  if (hasVersion(settings)) frame.appendUInt8(settings.version);
  if (hasOSType(settings)) frame.appendUInt8(kOSType);
  frame.appendUInt32(static_cast<std::uint32_t>(payload.size()));
  frame.appendUInt32(crcOf(payload));
  if (const auto crc = packageCRC(settings)) frame.appendUInt32(*crc);
  if (const auto crc = releaseCRC(settings)) frame.appendUInt32(*crc);
}

void appendResponseHeader(NRDByteArray& frame, const VKQKXPFrameSettings& settings,
                          std::span<const std::uint8_t> payload) {
  if (hasBeginMarker(settings)) frame.appendSInt16(static_cast<std::int16_t>(settings.insertAtBeginBody));
  if (hasVersion(settings)) frame.appendUInt8(settings.version);
  frame.appendUInt32(static_cast<std::uint32_t>(payload.size()));
  frame.appendUInt32(crcOf(payload));
}

Reading<RequestHeader> readRequestHeader(NRDByteArray& frame, const VKQKXPFrameSettings& settings) {
  Reading<RequestHeader> reading;
  RequestHeader& header = reading.header;
  bool complete = true;
  readOptionalField(frame, complete, hasBeginMarker(settings), &NRDByteArray::readUInt16, header.beginMarker);
  readOptionalField(frame, complete, hasVersion(settings), &NRDByteArray::readUInt8, header.version);
  readOptionalField(frame, complete, hasOSType(settings), &NRDByteArray::readUInt8, header.osType);
  readField(frame, complete, &NRDByteArray::readUInt32, header.payloadLength);
  readField(frame, complete, &NRDByteArray::readUInt32, header.payloadCRC);
  readOptionalField(frame, complete, hasPackageCRC(settings), &NRDByteArray::readUInt32, header.packageCRC);
  readOptionalField(frame, complete, hasReleaseCRC(settings), &NRDByteArray::readUInt32, header.releaseCRC);
  reading.complete = complete;
  return reading;
}

Reading<ResponseHeader> readResponseHeader(NRDByteArray& frame, const VKQKXPFrameSettings& settings) {
  Reading<ResponseHeader> reading;
  ResponseHeader& header = reading.header;
  bool complete = true;
  readOptionalField(frame, complete, hasBeginMarker(settings), &NRDByteArray::readSInt16, header.beginMarker);
  readOptionalField(frame, complete, hasVersion(settings), &NRDByteArray::readUInt8, header.version);
  readField(frame, complete, &NRDByteArray::readUInt32, header.payloadLength);
  readField(frame, complete, &NRDByteArray::readUInt32, header.payloadCRC);
  reading.complete = complete;
  return reading;
}

}  // namespace VKQKXPFrame
