#include "Classes/Serialization/VKQKXPServerCodec.h"

#include <string>

namespace VKQKXPServerCodec {
namespace {

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;

// "<what> <received>, expected <expected>" when the two differ; empty when they agree.
template <typename T>
std::string mismatch(const char* what, const std::optional<T>& received, const std::optional<T>& expected, int digits) {
  if (received == expected) return {};
  const auto show = [digits](const std::optional<T>& value) {
    return value ? VKQKXPFrame::hexField(static_cast<std::uint32_t>(*value), digits) : std::string("none");
  };
  return std::string(what) + " " + show(received) + ", expected " + show(expected);
}

// The checks of the header fields that the settings switch on, in frame order; the
// first failure's text, or empty.
std::string checkHeaderFields(const VKQKXPFrame::RequestHeader& header, const VKQKXPFrameSettings& settings,
                              bool complete) {
  using Marker = std::optional<std::uint16_t>;
  using Byte = std::optional<std::uint8_t>;
  const Marker expectedMarker = settings.insertAtBeginBody != 0 ? Marker(settings.insertAtBeginBody) : std::nullopt;
  const Byte expectedVersion = settings.version != 0 ? Byte(settings.version) : std::nullopt;
  const Byte expectedOSType = settings.uploadOSType ? Byte(VKQKXPFrame::kOSType) : std::nullopt;

  // A truncated frame still has its first fields read: report a wrong marker or
  // version before the truncation, as that is the likelier cause.
  if (header.beginMarker) {
    if (auto text = mismatch("begin marker", header.beginMarker, expectedMarker, 4); !text.empty()) return text;
  }
  if (header.version) {
    if (auto text = mismatch("protocol version", header.version, expectedVersion, 2); !text.empty()) return text;
  }
  if (!complete) return {};
  if (auto text = mismatch("OS type", header.osType, expectedOSType, 2); !text.empty()) return text;
  if (auto text = mismatch("package CRC", header.packageCRC, VKQKXPFrame::packageCRC(settings), 8); !text.empty()) {
    return text + " (package name differs)";
  }
  if (auto text = mismatch("release CRC", header.releaseCRC, VKQKXPFrame::releaseCRC(settings), 8); !text.empty()) {
    return text + " (release version differs)";
  }
  return {};
}

}  // namespace

std::optional<Bytes> parseRequestFrame(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings,
                                       ErrorPtr* error) {
  if (settings.nonProtocol) {
    if (frame.empty()) return VKQKXPFrame::refuse(error, VKQKXPFrameErrorLength, "empty body");
    return Bytes(frame.begin(), frame.end());
  }

  const auto reading = VKQKXPFrame::readRequestHeader(frame, settings);
  if (auto problem = checkHeaderFields(reading.header, settings, reading.complete); !problem.empty()) {
    return VKQKXPFrame::refuse(error, VKQKXPFrameErrorHeaderMismatch, std::move(problem));
  }
  if (!reading.complete) {
    return VKQKXPFrame::refuse(error, VKQKXPFrameErrorTruncated,
                               "frame of " + std::to_string(frame.size()) + " bytes is shorter than its " +
                                   std::to_string(VKQKXPFrame::requestHeaderSize(settings)) + "-byte header");
  }
  return VKQKXPFrame::unpack(frame.subspan(reading.size), reading.header.payloadLength, reading.header.payloadCRC,
                             settings, VKQKXPFrame::TrailingBytes::kRefused, error);
}

std::optional<Bytes> makeResponseFrame(std::span<const std::uint8_t> payload, const VKQKXPFrameSettings& settings) {
  Bytes copy(payload.begin(), payload.end());  // the pipeline may mask in place
  return VKQKXPFrame::packResponse(copy, settings);
}

}  // namespace VKQKXPServerCodec
