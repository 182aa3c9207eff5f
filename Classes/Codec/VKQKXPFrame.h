// The KXP frames: the one place that states their layout. The request framing, the
// response parsing and the reference server's codec all write and read headers here.
//
// Multi-byte integers are big-endian. Fields follow one another without padding; a
// field whose condition is false is absent (no placeholder), so offsets depend on the
// settings. There is no magic number and no flag byte: both ends must share the
// settings to read a frame.
//
// Request frame (client to server):
//   field           width  present when            value
//   begin marker    u16    insertAtBeginBody != 0  insertAtBeginBody
//   version         u8     version != 0            version
//   OS type         u8     uploadOSType            kOSType (1)
//   payload length  u32    always                  payload byte count, low 32 bits
//   payload CRC     u32    always                  CRC-32 of the payload
//   package CRC     u32    packageName present     CRC-32 of its UTF-8 bytes ("" gives 0)
//   release CRC     u32    releaseVersion > 0      CRC-32 of its decimal text
//   payload         payload length bytes
//
// Response frame (server to client):
//   begin marker    s16    insertAtBeginBody != 0  ignored by the reader
//   version         u8     version != 0            must equal the request's version
//   payload length  u32    always
//   payload CRC     u32    always                  CRC-32 of the payload as sent
//   payload         payload length bytes; anything after it is ignored
//
// The payload of both frames is the argument compressed (when compress) and then masked
// with xorKey (when not 0); a reader checks the CRC, unmasks, then decompresses.
//
// Everything here is stateless and thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Platform/Base/Bytes.h"

class VKQVeskRequest;

// The settings that shape both frames, as a request answers them.
struct VKQKXPFrameSettings {
  // True: no frame at all, the payload passes as it is.
  bool nonProtocol = false;
  bool compress = false;
  std::uint8_t xorKey = 0;
  std::uint16_t insertAtBeginBody = 0;
  std::uint8_t version = 0;
  bool uploadOSType = false;
  std::optional<std::string> packageName = std::nullopt;
  std::int32_t releaseVersion = 0;

  static VKQKXPFrameSettings fromRequest(const VKQVeskRequest& request);
};

namespace VKQKXPFrame {

// Frames are always big-endian, whatever the request's bigEndian flag says.
inline constexpr bool kBigEndian = true;
// The value of the request frame's OS-type field.
inline constexpr std::uint8_t kOSType = 1;
inline constexpr std::size_t kMaxRequestHeaderSize = 2 + 1 + 1 + 4 + 4 + 4 + 4;
inline constexpr std::size_t kMaxResponseHeaderSize = 2 + 1 + 4 + 4;

struct RequestHeader {
  std::optional<std::uint16_t> beginMarker;
  std::optional<std::uint8_t> version;
  std::optional<std::uint8_t> osType;
  std::uint32_t payloadLength = 0;
  std::uint32_t payloadCRC = 0;
  std::optional<std::uint32_t> packageCRC;
  std::optional<std::uint32_t> releaseCRC;
};

struct ResponseHeader {
  std::optional<std::int16_t> beginMarker;
  std::optional<std::uint8_t> version;
  std::uint32_t payloadLength = 0;
  std::uint32_t payloadCRC = 0;
};

// A header read from the front of a frame. The fields are read in frame order and
// reading stops at the first field the bytes do not hold: `complete` is then false, and
// the fields before it are set (so a reader can check the version of a truncated frame
// first). `size` is the number of header bytes read; the payload starts there.
template <typename Header>
struct Reading {
  Header header;
  bool complete = false;
  std::size_t size = 0;
};

std::size_t requestHeaderSize(const VKQKXPFrameSettings& settings);
std::size_t responseHeaderSize(const VKQKXPFrameSettings& settings);

// The request frame's package and release CRC fields; absent when the field is off.
std::optional<std::uint32_t> packageCRC(const VKQKXPFrameSettings& settings);
std::optional<std::uint32_t> releaseCRC(const VKQKXPFrameSettings& settings);

// Append to `frame` the header of a frame whose (already compressed and masked) payload
// is `payload`; the payload itself is not appended.
void appendRequestHeader(vkq::platform::Bytes& frame, const VKQKXPFrameSettings& settings,
                         std::span<const std::uint8_t> payload);
void appendResponseHeader(vkq::platform::Bytes& frame, const VKQKXPFrameSettings& settings,
                          std::span<const std::uint8_t> payload);

// Read a header from the front of `frame`. Never throws: a short frame gives an
// incomplete reading.
Reading<RequestHeader> readRequestHeader(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings);
Reading<ResponseHeader> readResponseHeader(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings);

}  // namespace VKQKXPFrame
