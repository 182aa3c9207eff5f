// VKQKXPServerCodec: the other end of the KXP exchange, for servers (the reference
// server of the vkq tool, test servers). It parses request frames as
// VKQKXPRequestSerializer writes them and builds response frames as
// VKQKXPResponseSerializer reads them, for one fixed set of frame settings; the byte
// layout of both frames is in VKQKXPFrameLayout.h.
//
// A frame carries no magic number and no flags, so the server must be configured with
// the settings its clients use. Parsing is strict: every field the settings switch on
// is checked (begin marker, version, OS type, length, payload CRC, package CRC,
// release CRC), and bytes after the payload are refused.
//
// Free of shared state; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Classes/Serialization/VKQKXPFrameLayout.h"
#include "Platform/Base/Bytes.h"

// What parseRequestFrame found: the payload, or why the frame was refused.
class [[nodiscard]] VKQKXPParsedFrame {
 public:
  static VKQKXPParsedFrame success(vkq::platform::Bytes payload) { return VKQKXPParsedFrame(std::move(payload), {}); }
  static VKQKXPParsedFrame failure(std::string reason) { return VKQKXPParsedFrame(std::nullopt, std::move(reason)); }

  bool ok() const { return payload_.has_value(); }
  // REQUIRES: ok().
  const vkq::platform::Bytes& payload() const { return *payload_; }
  // A one-line text for the client ("payload CRC mismatch: ..."); empty when ok().
  const std::string& error() const { return error_; }

 private:
  VKQKXPParsedFrame(std::optional<vkq::platform::Bytes> payload, std::string error)
      : payload_(std::move(payload)), error_(std::move(error)) {}

  std::optional<vkq::platform::Bytes> payload_;
  std::string error_;
};

namespace VKQKXPServerCodec {

// The payload of a request frame written under `settings`: the header checked field by
// field, the payload unmasked and decompressed. With nonProtocol the bytes themselves
// (refused when empty, as a client never sends an empty payload).
VKQKXPParsedFrame parseRequestFrame(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings);

// The response frame that carries `payload` under `settings` (compressed, masked,
// behind the begin marker, version, length and CRC fields that the settings switch on);
// with nonProtocol the payload itself. Absent when the payload is empty or does not
// compress, since a client refuses a frame without payload.
std::optional<vkq::platform::Bytes> makeResponseFrame(std::span<const std::uint8_t> payload,
                                                      const VKQKXPFrameSettings& settings);

}  // namespace VKQKXPServerCodec
