// Both KXP frames end to end: the client's framing and decoding against the reference
// frames and the server codec, and the server's refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/KXPTesting.h"

namespace {

using kxp_testing::frameOf;
using kxp_testing::referenceFrame;
using ::testing::HasSubstr;
using vkq::platform::Bytes;
using vkq::platform::Object;

// Client frame = reference; server reads the payload back; its answer = reference;
// the client decodes that to the payload and leaves the raw answer as received.
TEST(VKQKXPRoundTrip, ClientAndServerAgreeWithTheReferenceFramesForRandomSettings) {
  std::mt19937 random(20261121);  // fixed seed: a failure replays
  for (int i = 0; i < 400; ++i) {
    SCOPED_TRACE("iteration " + std::to_string(i));
    const VKQKXPFrameSettings settings = kxp_testing::randomSettings(random);
    const Bytes payload = kxp_testing::randomPayload(random);
    const Bytes wire = kxp_testing::transformed(settings, payload);

    const auto requestFrame = frameOf(settings, payload);
    ASSERT_EQ(requestFrame, referenceFrame(settings, wire, true));
    ASSERT_EQ(VKQKXPServerCodec::parseRequestFrame(*requestFrame, settings, nullptr), payload);

    const auto answer = VKQKXPServerCodec::makeResponseFrame(payload, settings);
    ASSERT_EQ(answer, referenceFrame(settings, wire, false));
    auto request = kxp_testing::requestWith(settings);
    request->setResponseData(Object(*answer));
    const vkq::platform::ErrorPtr noError;
    const auto result = VKQKXPResponseSerializer::serializer()->deserialize(request, &noError);
    ASSERT_EQ(result->responseCode()->code(), 0);
    ASSERT_EQ(result->data(), Object(payload));
    ASSERT_EQ(request->responseData(), Object(*answer));
  }
}

TEST(VKQKXPServerCodec, NonProtocolPassesBytesThroughAndEmptyPayloadsAreRefused) {
  const VKQKXPFrameSettings unframed{.nonProtocol = true, .compress = true, .xorKey = 9};
  const Bytes raw = vkq::platform::bytesFromString("raw");
  EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(raw, unframed, nullptr), raw);
  EXPECT_EQ(VKQKXPServerCodec::makeResponseFrame(raw, unframed), raw);
  vkq::platform::ErrorPtr error;
  EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame({}, unframed, &error), std::nullopt);
  EXPECT_THAT(error->localizedDescription(), HasSubstr("empty body"));
  EXPECT_EQ(VKQKXPServerCodec::makeResponseFrame({}, {.version = 2}), std::nullopt);
}

TEST(VKQKXPServerCodec, RefusesAFrameNamingWhatDiffers) {
  // Every request field on: the header is 20 18 | 03 | 01 | length | CRC | package CRC | release CRC.
  const VKQKXPFrameSettings strict{.compress = true, .xorKey = 0x5A, .insertAtBeginBody = 0x2018, .version = 3,
                                   .uploadOSType = true, .packageName = "com.vkq.app", .releaseVersion = 7};
  const Bytes frame = *frameOf(strict, vkq::platform::bytesFromString("hello, server"));
  ASSERT_TRUE(VKQKXPServerCodec::parseRequestFrame(frame, strict, nullptr));
  const auto with = [&](auto change) {
    VKQKXPFrameSettings settings = strict;
    change(settings);
    return settings;
  };
  Bytes osType = frame, corrupt = frame, longer = frame;
  osType[3] = 2;
  corrupt.back() ^= 1;
  longer.push_back(0);
  const auto firstBytes = [&](std::size_t size) { return Bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)); };
  // A table of calls rather than an array: GCC 12 warns falsely about arrays of settings.
  const auto expectRefusal = [](const char* what, const Bytes& bytes, const VKQKXPFrameSettings& settings,
                                const char* reason) {
    vkq::platform::ErrorPtr error;
    EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(bytes, settings, &error), std::nullopt) << what;
    EXPECT_THAT(error ? error->localizedDescription() : "", HasSubstr(reason)) << what;
  };
  expectRefusal("marker", frame, with([](auto& s) { s.insertAtBeginBody = 0x2019; }), "begin marker 0x2018, expected 0x2019");
  expectRefusal("version", frame, with([](auto& s) { s.version = 4; }), "protocol version 0x03, expected 0x04");
  expectRefusal("OS type", osType, strict, "OS type 0x02, expected 0x01");
  expectRefusal("package", frame, with([](auto& s) { s.packageName = "com.other"; }), "(package name differs)");
  expectRefusal("release", frame, with([](auto& s) { s.releaseVersion = 8; }), "(release version differs)");
  expectRefusal("payload", corrupt, strict, "payload CRC");
  expectRefusal("a byte more", longer, strict, "payload length field says");
  expectRefusal("a byte less", firstBytes(frame.size() - 1), strict, "payload length field says");
  expectRefusal("empty", {}, strict, "shorter than its 20-byte header");
  expectRefusal("header cut short", firstBytes(19), strict, "shorter than its 20-byte header");
  // A truncated frame's version is still read first.
  expectRefusal("cut short, other version", firstBytes(4), with([](auto& s) { s.version = 9; }),
                "protocol version 0x03, expected 0x09");
  // A well-formed frame around bytes that are no zlib stream.
  expectRefusal("not compressed", *frameOf(with([](auto& s) { s.compress = false; }), vkq::platform::bytesFromString("not zlib")),
                strict, "payload does not decompress");
}

}  // namespace
