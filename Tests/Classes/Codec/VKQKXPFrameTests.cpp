// The KXP pipeline against frames written here field by field (zlib's CRC-32 as the
// reference), for worked examples and random settings; every bit flip and truncation.
#include "Classes/Codec/VKQKXPFrame.h"

#include <gtest/gtest.h>

#include <random>
#include <variant>

#include <zlib.h>

#include "Classes/Codec/Deflate.h"
#include "Tests/Support/Files.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::bytesFromString;
using Settings = VKQKXPFrameSettings;
using Unpacked = std::variant<Bytes, std::string>;  // the payload, or the error's text

void put(Bytes& out, std::uint32_t value, int width) {
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}
void putCRC(Bytes& out, const Bytes& bytes) { put(out, ::crc32(0, bytes.data(), static_cast<uInt>(bytes.size())), 4); }

// The request (or response) frame around `payload`, compressed and masked.
Bytes referenceFrame(const Settings& settings, const Bytes& payload, bool request) {
  Bytes wire = settings.compress ? Deflate::compress(payload).value() : payload, frame;
  for (auto& byte : wire) byte ^= settings.xorKey;
  if (settings.insertAtBeginBody != 0) put(frame, settings.insertAtBeginBody, 2);
  if (settings.version != 0) frame.push_back(settings.version);
  if (request && settings.uploadOSType) frame.push_back(1);
  put(frame, static_cast<std::uint32_t>(wire.size()), 4);
  putCRC(frame, wire);
  if (request && settings.packageName) putCRC(frame, bytesFromString(*settings.packageName));
  if (request && settings.releaseVersion > 0) putCRC(frame, bytesFromString(std::to_string(settings.releaseVersion)));
  frame.insert(frame.end(), wire.begin(), wire.end());
  return frame;
}

std::optional<Bytes> packRequest(const Settings& settings, Bytes payload) {
  return VKQKXPFrame::packRequest(payload, settings);
}
// A response frame read as the client reads it.
Unpacked unpackResponse(const Bytes& frame, const Settings& settings, VKQKXPFrame::TrailingBytes trailing = {}) {
  const auto reading = VKQKXPFrame::readResponseHeader(frame, settings);
  if (!reading.complete) return "short header";
  vkq::platform::ErrorPtr error;
  auto payload = VKQKXPFrame::unpack(std::span(frame).subspan(reading.size), reading.header.payloadLength,
                                     reading.header.payloadCRC, settings, trailing, &error);
  if (payload) return *payload;
  return error->domain() + " " + std::to_string(error->code()) + " " + error->localizedDescription();
}

const Bytes kABC{0x61, 0x62, 0x63};

// A table of calls rather than an array: GCC 12 warns falsely about arrays of settings.
TEST(VKQKXPFrame, WorkedRequestFramesAndTheDefaults) {
  const auto expectFrame = [](const Settings& settings, const Bytes& frame) {
    EXPECT_EQ(packRequest(settings, kABC), frame);
  };
  // Length 3, CRC-32("abc") = 35 24 41 C2, the payload.
  expectFrame({}, {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  expectFrame({.insertAtBeginBody = 0x1234, .version = 2, .uploadOSType = true},
              {0x12, 0x34, 0x02, 0x01, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  // CRC-32("") = 0; CRC-32("7") = 6A BF 4A 82; a release of 0 or less has no field.
  expectFrame({.packageName = "", .releaseVersion = 7},
              {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0, 0, 0, 0, 0x6A, 0xBF, 0x4A, 0x82, 0x61, 0x62, 0x63});
  expectFrame({.nonProtocol = true, .compress = true, .xorKey = 0x33, .insertAtBeginBody = 1}, kABC);
  // The defaults: begin marker 20 18 and OS type 01 before the compressed payload.
  expectFrame(VKQKXPFrame::kDefaultSettings,
              referenceFrame({.compress = true, .insertAtBeginBody = 0x2018, .uploadOSType = true}, kABC, true));
  for (const bool nonProtocol : {false, true}) EXPECT_EQ(packRequest({.nonProtocol = nonProtocol}, {}), std::nullopt);
  for (const bool compress : {false, true}) {  // the mask works on the caller's bytes unless they are compressed
    Bytes caller{0x00, 0xFF, 0x5A};
    ASSERT_TRUE(VKQKXPFrame::packRequest(caller, {.compress = compress, .xorKey = 0x5A}));
    EXPECT_EQ(caller, (compress ? Bytes{0x00, 0xFF, 0x5A} : Bytes{0x5A, 0xA5, 0x00})) << compress;
  }
}

// Each field on or off at random; payloads that compress well and badly.
TEST(VKQKXPFrame, RandomSettingsFrameAsTheReferenceAndRoundTrip) {
  std::mt19937 random(20261121);  // fixed seed: a failure replays
  const auto below = [&](std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); };
  for (int i = 0; i < 300; ++i) {
    Settings settings{.compress = below(2) == 0,
                      .xorKey = static_cast<std::uint8_t>(below(2) * (1 + below(255))),
                      .insertAtBeginBody = static_cast<std::uint16_t>(below(2) * (1 + below(0xFFFF))),
                      .version = static_cast<std::uint8_t>(below(2) * (1 + below(255))),
                      .uploadOSType = below(2) == 0,
                      .releaseVersion = static_cast<std::int32_t>(below(5)) * 300 - 600};
    if (below(2) == 0) settings.packageName = below(2) == 0 ? "" : "com.example.app" + std::to_string(below(100));
    Bytes payload = bytesFromString(vkq::testing::patternBytes(1 + below(3000), random()));
    if (below(2) == 0)
      for (auto& byte : payload) byte = "abcab "[byte % 6];
    SCOPED_TRACE("iteration " + std::to_string(i));
    ASSERT_EQ(packRequest(settings, payload), referenceFrame(settings, payload, true));
    Bytes copy = payload;
    const auto answer = VKQKXPFrame::packResponse(copy, settings);
    ASSERT_EQ(answer, referenceFrame(settings, payload, false));
    ASSERT_EQ(unpackResponse(*answer, settings), Unpacked(payload));
  }
}

// Only the begin marker and the version are left to the readers: any other flipped bit
// or missing byte is refused.
TEST(VKQKXPFrame, EveryFlippedBitAfterTheVersionAndEveryTruncationIsRefused) {
  const Settings settings{.compress = true, .xorKey = 0x77, .insertAtBeginBody = 0x2018, .version = 2};
  const Bytes frame = referenceFrame(settings, Bytes(300, 'q'), false);
  for (std::size_t at = 0; at < frame.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes flipped = frame;
      flipped[at] ^= static_cast<std::uint8_t>(1 << bit);
      ASSERT_EQ(unpackResponse(flipped, settings).index(), at < 3 ? 0u : 1u) << "byte " << at << " bit " << bit;
    }
    ASSERT_EQ(unpackResponse(Bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(at)), settings).index(),
              1u);
  }
}

TEST(VKQKXPFrame, RefusalsNameTheirReason) {
  const Bytes frame = referenceFrame({}, kABC, false);
  Bytes corrupt = frame, longer = frame;
  corrupt.back() ^= 1;
  longer.push_back(0);
  const auto refusal = [](const Bytes& bytes, const Settings& settings, VKQKXPFrame::TrailingBytes trailing = {}) {
    const auto result = unpackResponse(bytes, settings, trailing);
    return result.index() == 1 ? std::get<1>(result) : "accepted";
  };
  const std::string domain = "com.vkqlabs.kxp.frame ";
  EXPECT_EQ(refusal(longer, {}), "accepted");
  EXPECT_EQ(refusal(longer, {}, VKQKXPFrame::TrailingBytes::kRefused),
            domain + "3 payload length field says 3 bytes, 4 follow");
  EXPECT_EQ(refusal(Bytes(8, 0), {}), domain + "3 empty payload");  // though CRC("") is 0
  EXPECT_EQ(refusal(corrupt, {}), domain + "4 payload CRC 0x42237154, the frame says 0x352441C2");
  EXPECT_EQ(refusal(frame, {.compress = true}), domain + "5 payload does not decompress");
}

}  // namespace
