// The KXP frames: their layout, the settings that shape them with their defaults, and
// the payload pipeline. The request serializer, the response serializer and the server
// codec all frame and unframe through here.
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
//   begin marker    s16    insertAtBeginBody != 0  ignored by the client
//   version         u8     version != 0            must equal the request's version
//   payload length  u32    always
//   payload CRC     u32    always                  CRC-32 of the payload as sent
//   payload         payload length bytes; the client ignores anything after it
//
// The pipeline. Packing: the argument compressed (when compress), then masked with
// xorKey (when not 0), then the header, whose length and CRC describe the bytes as they
// travel. Unpacking: length and CRC checked, then unmasked, then decompressed.
//
// Everything here is stateless and thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Classes/Codec/Deflate.h"
#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"

// The settings that shape both frames. A value-initialized instance has every setting
// off; VKQKXPFrame::kDefaultSettings holds a request's defaults.
struct VKQKXPFrameSettings {
  // True: no frame at all, the payload passes as it is.
  bool nonProtocol = false;
  bool compress = false;                                  // deflate the payload
  std::uint8_t xorKey = 0;                                // mask key; 0: no mask
  std::uint16_t insertAtBeginBody = 0;                    // begin marker; 0: none
  std::uint8_t version = 0;                               // protocol version; 0: none
  bool uploadOSType = false;                              // send the OS-type byte
  std::optional<std::string> packageName = std::nullopt;  // its CRC-32 is sent when present
  std::int32_t releaseVersion = 0;                        // its CRC-32 is sent when > 0
  // The most bytes a compressed payload may unpack to (a limit, not a switch).
  std::size_t maximumPayloadLength = Deflate::kMaxDecompressedSize;
};

// Domain of frames refused by the pipeline or the server codec; the localized
// description says what is wrong ("payload CRC 0x..., the frame says 0x...").
inline constexpr const char* VKQKXPFrameErrorDomain = "com.vkqlabs.kxp.frame";

// Codes of VKQKXPFrameErrorDomain.
enum VKQKXPFrameErrorCode : std::int64_t {
  VKQKXPFrameErrorHeaderMismatch = 1,  // a header field differs from the settings
  VKQKXPFrameErrorTruncated = 2,       // the frame is shorter than its header
  VKQKXPFrameErrorLength = 3,          // no payload, or not the length the header says
  VKQKXPFrameErrorChecksum = 4,        // the payload's CRC-32 differs from the header's
  VKQKXPFrameErrorDecompression = 5,   // the payload does not decompress
  VKQKXPFrameErrorTooLong = 6,         // it decompresses to more than maximumPayloadLength
};

namespace VKQKXPFrame {

// Frames are always big-endian, whatever a request's bigEndian flag says.
inline constexpr bool kBigEndian = true;
// The value of the request frame's OS-type field.
inline constexpr std::uint8_t kOSType = 1;

// What a request that changes nothing sends: begin marker 0x2018, OS type, compressed,
// release version -1 (no release field); no version, mask or package name.
inline constexpr VKQKXPFrameSettings kDefaultSettings{
    .compress = true, .insertAtBeginBody = 0x2018, .uploadOSType = true, .releaseVersion = -1};

// For readers that refuse a frame: stores an error of VKQKXPFrameErrorDomain with
// `description` as its localized description in `error` (when given); std::nullopt.
std::nullopt_t refuse(vkq::platform::ErrorPtr* error, VKQKXPFrameErrorCode code, std::string description);
// A field's value as error texts show it: "0x" and `digits` upper-case hex digits.
std::string hexField(std::uint32_t value, int digits);

// --- Layout

// The fields of a request frame's header, in frame order; absent fields are off.
struct RequestHeader {
  std::optional<std::uint16_t> beginMarker;  // insertAtBeginBody
  std::optional<std::uint8_t> version;       // the protocol version
  std::optional<std::uint8_t> osType;        // kOSType
  std::uint32_t payloadLength = 0;           // bytes of the payload as it travels
  std::uint32_t payloadCRC = 0;              // CRC-32 of the payload as it travels
  std::optional<std::uint32_t> packageCRC;   // CRC-32 of the package name
  std::optional<std::uint32_t> releaseCRC;   // CRC-32 of the release version's text
};

// The fields of a response frame's header, in frame order; absent fields are off.
struct ResponseHeader {
  std::optional<std::int16_t> beginMarker;  // not checked by the client
  std::optional<std::uint8_t> version;      // must equal the request's version
  std::uint32_t payloadLength = 0;          // bytes of the payload as it travels
  std::uint32_t payloadCRC = 0;             // CRC-32 of the payload as it travels
};

// A header read from the front of a frame. The fields are read in frame order and
// reading stops at the first field the bytes do not hold: `complete` is then false, and
// the fields before it are set (so a reader can check the version of a truncated frame
// first). `size` is the number of header bytes read; the payload starts there.
template <typename Header>
struct Reading {
  Header header;          // the fields read
  bool complete = false;  // every field was there
  std::size_t size = 0;   // header bytes read
};

// The length of a request frame's header under `settings`.
std::size_t requestHeaderSize(const VKQKXPFrameSettings& settings);

// The request frame's package and release CRC fields; absent when the field is off.
std::optional<std::uint32_t> packageCRC(const VKQKXPFrameSettings& settings);
std::optional<std::uint32_t> releaseCRC(const VKQKXPFrameSettings& settings);

// Read a header from the front of `frame`. Never throws: a short frame gives an
// incomplete reading.
Reading<RequestHeader> readRequestHeader(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings);
Reading<ResponseHeader> readResponseHeader(std::span<const std::uint8_t> frame, const VKQKXPFrameSettings& settings);

// --- Pipeline

// The frame around `payload`: compressed, masked, behind the header; with nonProtocol
// the payload itself. Absent when `payload` is empty or compression gives nothing.
// Without compression the mask works on `payload` in place, so the caller's bytes come
// back masked.
std::optional<vkq::platform::Bytes> packRequest(std::span<std::uint8_t> payload, const VKQKXPFrameSettings& settings);
std::optional<vkq::platform::Bytes> packResponse(std::span<std::uint8_t> payload, const VKQKXPFrameSettings& settings);

// Whether bytes after the payload are allowed (the client ignores them) or refused (the
// server wants the exact length).
enum class TrailingBytes { kIgnored, kRefused };

// The payload of a frame whose header says `length` and `crc`; `body` is what follows
// the header. Checks the length (not 0, within `body`) and the CRC, then unmasks and
// decompresses (up to settings.maximumPayloadLength). Absent, with an error of
// VKQKXPFrameErrorDomain, when a check fails;
// `body` itself is never changed.
std::optional<vkq::platform::Bytes> unpack(std::span<const std::uint8_t> body, std::uint32_t length, std::uint32_t crc,
                                           const VKQKXPFrameSettings& settings, TrailingBytes trailing,
                                           vkq::platform::ErrorPtr* error);

}  // namespace VKQKXPFrame
