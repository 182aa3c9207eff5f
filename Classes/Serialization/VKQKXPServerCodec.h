// VKQKXPServerCodec: the other end of the KXP exchange, for servers (the reference
// server of the vkq tool, test servers). It parses request frames as
// VKQKXPRequestSerializer writes them and builds response frames as
// VKQKXPResponseSerializer reads them, for one fixed set of frame settings, through the
// pipeline of VKQKXPFrame.h.
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

#include "Classes/Codec/VKQKXPFrame.h"
#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"

namespace VKQKXPServerCodec {

// The payload of a request frame written under `settings`: the header checked field by
// field, the payload unmasked and decompressed. With nonProtocol the bytes themselves
// (refused when empty, as a client never sends an empty payload). Absent when the frame
// is refused, with an error of VKQKXPFrameErrorDomain whose localized description is a
// one-line text for the client ("payload CRC mismatch: ...").
std::optional<vkq::platform::Bytes> parseRequestFrame(std::span<const std::uint8_t> frame,
                                                      const VKQKXPFrameSettings& settings,
                                                      vkq::platform::ErrorPtr* error);

// The response frame that carries `payload` under `settings`; with nonProtocol the
// payload itself. Absent when the payload is empty or does not compress, since a client
// refuses a frame without payload.
std::optional<vkq::platform::Bytes> makeResponseFrame(std::span<const std::uint8_t> payload,
                                                      const VKQKXPFrameSettings& settings);

}  // namespace VKQKXPServerCodec
