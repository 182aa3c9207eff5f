#include "Classes/Serialization/VKQKXPFrameLayout.h"

#include <concepts>
#include <cstring>
#include <type_traits>

#include "Classes/Codec/ByteOrder.h"
#include "Classes/Codec/Encrypt.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Base/Bytes.h"

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

void appendRequestHeader(vkq::platform::Bytes& frame, const VKQKXPFrameSettings& settings,
                         std::span<const std::uint8_t> payload) {
  if (hasBeginMarker(settings)) appendField(frame, settings.insertAtBeginBody);
  if (hasVersion(settings)) appendField(frame, settings.version);
  if (hasOSType(settings)) appendField(frame, kOSType);
  appendField(frame, static_cast<std::uint32_t>(payload.size()));
  appendField(frame, crcOf(payload));
  // Checked here first: the fields are rare, and a frame is built per request.
  if (hasPackageCRC(settings)) appendField(frame, *packageCRC(settings));
  if (hasReleaseCRC(settings)) appendField(frame, *releaseCRC(settings));
}

void appendResponseHeader(vkq::platform::Bytes& frame, const VKQKXPFrameSettings& settings,
                          std::span<const std::uint8_t> payload) {
  if (hasBeginMarker(settings)) appendField(frame, settings.insertAtBeginBody);
  if (hasVersion(settings)) appendField(frame, settings.version);
  appendField(frame, static_cast<std::uint32_t>(payload.size()));
  appendField(frame, crcOf(payload));
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

Reading<ResponseHeader> readResponseHeader(std::span<const std::uint8_t> frame,
                                           const VKQKXPFrameSettings& settings) {
  FieldReader reader(frame);
  ResponseHeader header;
  reader.readOptional(hasBeginMarker(settings), header.beginMarker);
  reader.readOptional(hasVersion(settings), header.version);
  reader.read(header.payloadLength);
  reader.read(header.payloadCRC);
  return reader.finish(std::move(header));
}

}  // namespace VKQKXPFrame
