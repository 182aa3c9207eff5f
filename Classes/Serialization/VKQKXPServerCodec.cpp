#include "Classes/Serialization/VKQKXPServerCodec.h"

#include <cstdio>

#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"

namespace VKQKXPServerCodec {
namespace {

using vkq::platform::Bytes;

std::string hex(std::uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, static_cast<unsigned>(value));
  return text;
}

// "<what> <received>, expected <expected>" when the two differ; empty when they agree.
template <typename T>
std::string mismatch(const char* what, const std::optional<T>& received, const std::optional<T>& expected,
                     int digits) {
  if (received == expected) return {};
  const auto show = [digits](const std::optional<T>& value) {
    return value ? hex(static_cast<std::uint32_t>(*value), digits) : std::string("none");
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

VKQKXPParsedFrame parseRequestFrame(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings) {
  if (settings.nonProtocol) {
    if (frame.empty()) return VKQKXPParsedFrame::failure("empty body");
    return VKQKXPParsedFrame::success(Bytes(frame.begin(), frame.end()));
  }

  const auto reading = VKQKXPFrame::readRequestHeader(frame, settings);
  const VKQKXPFrame::RequestHeader& header = reading.header;
  if (auto problem = checkHeaderFields(header, settings, reading.complete); !problem.empty()) {
    return VKQKXPParsedFrame::failure(problem);
  }
  const std::size_t headerSize = VKQKXPFrame::requestHeaderSize(settings);
  if (!reading.complete) {
    return VKQKXPParsedFrame::failure("frame of " + std::to_string(frame.size()) + " bytes is shorter than its " +
                                      std::to_string(headerSize) + "-byte header");
  }

  const std::span<const std::uint8_t> body = frame.subspan(headerSize);
  if (header.payloadLength != body.size()) {
    return VKQKXPParsedFrame::failure("payload length field says " + std::to_string(header.payloadLength) +
                                      " bytes, " + std::to_string(body.size()) + " follow");
  }
  if (body.empty()) return VKQKXPParsedFrame::failure("empty payload");
  const auto crc = static_cast<std::uint32_t>(Encrypt::crc32(body));
  if (crc != header.payloadCRC) {
    return VKQKXPParsedFrame::failure("payload CRC " + hex(crc, 8) + ", the frame says " + hex(header.payloadCRC, 8));
  }

  Bytes payload(body.begin(), body.end());
  if (settings.xorKey != 0) Encrypt::xorWithKey(payload, settings.xorKey);
  if (settings.compress) {
    auto inflated = Deflate::decompress(payload);
    if (!inflated) return VKQKXPParsedFrame::failure("payload does not decompress");
    payload = std::move(*inflated);
  }
  return VKQKXPParsedFrame::success(std::move(payload));
}

std::optional<Bytes> makeResponseFrame(std::span<const std::uint8_t> payload, const VKQKXPFrameSettings& settings) {
  if (payload.empty()) return std::nullopt;
  if (settings.nonProtocol) return Bytes(payload.begin(), payload.end());

  Bytes body(payload.begin(), payload.end());
  if (settings.compress) {
    auto deflated = Deflate::compress(payload);
    if (!deflated || deflated->empty()) return std::nullopt;
    body = std::move(*deflated);
  }
  if (settings.xorKey != 0) Encrypt::xorWithKey(body, settings.xorKey);

  Bytes frame;
  frame.reserve(VKQKXPFrame::responseHeaderSize(settings) + body.size());
  VKQKXPFrame::appendResponseHeader(frame, settings, body);
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

}  // namespace VKQKXPServerCodec
