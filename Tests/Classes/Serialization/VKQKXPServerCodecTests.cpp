// The server's side of both frames: it reads what the client's serializer writes, the
// client decodes its answers, and it refuses a frame naming what differs.
#include <gtest/gtest.h>

#include "Classes/Codec/NRDByteArray.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/HTTP/URL.h"
#include "Tests/Classes/KXPTesting.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;

static_assert(NRDFileURL<vkq::platform::URL>, "the byte array reads the platform's file URLs");

// Every request field on: the header is 20 18 | 03 | 01 | length | CRC | package CRC | release CRC.
const VKQKXPFrameSettings kStrict{.compress = true, .xorKey = 0x5A, .insertAtBeginBody = 0x2018, .version = 3,
                                  .uploadOSType = true, .packageName = "com.vkq.app", .releaseVersion = 7};

Bytes clientFrame(const VKQKXPFrameSettings& settings, const std::string& payload) {
  return *VKQKXPRequestSerializer::serializerWithRequest(kxp_testing::requestWith(settings))
              ->createDataWithParameters(Object(vkq::platform::bytesFromString(payload)));
}

TEST(VKQKXPServerCodec, ReadsTheClientsFramesAndTheClientReadsItsAnswers) {
  for (const VKQKXPFrameSettings& settings : {kStrict, VKQKXPFrameSettings{.nonProtocol = true, .compress = true}}) {
    const Bytes payload = vkq::platform::bytesFromString("hello, server");
    EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(clientFrame(settings, "hello, server"), settings, nullptr), payload);
    auto request = kxp_testing::requestWith(settings);
    request->setResponseData(Object(*VKQKXPServerCodec::makeResponseFrame(payload, settings)));
    EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(request, nullptr)->data(), Object(payload));
  }
  EXPECT_EQ(VKQKXPServerCodec::makeResponseFrame({}, {.version = 2}), std::nullopt);
}

TEST(VKQKXPServerCodec, RefusesAFrameNamingWhatDiffers) {
  const Bytes frame = clientFrame(kStrict, "hello, server");
  const auto with = [&](auto change) {
    VKQKXPFrameSettings settings = kStrict;
    change(settings);
    return settings;
  };
  Bytes osType = frame, longer = frame;
  osType[3] = 2;
  longer.push_back(0);
  const auto firstBytes = [&](std::size_t size) { return Bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)); };
  // A table of calls rather than an array: GCC 12 warns falsely about arrays of settings.
  const auto expectRefusal = [](const Bytes& bytes, const VKQKXPFrameSettings& settings, const std::string& reason) {
    ErrorPtr error;
    EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(bytes, settings, &error), std::nullopt) << reason;
    EXPECT_EQ(error ? error->localizedDescription() : "", reason);
  };
  expectRefusal(frame, with([](auto& s) { s.insertAtBeginBody = 0x2019; }), "begin marker 0x2018, expected 0x2019");
  expectRefusal(frame, with([](auto& s) { s.version = 4; }), "protocol version 0x03, expected 0x04");
  expectRefusal(osType, kStrict, "OS type 0x02, expected 0x01");
  expectRefusal(frame, with([](auto& s) { s.packageName = "com.other"; }),
                "package CRC 0x9C76AA98, expected 0x42919086 (package name differs)");
  expectRefusal(frame, with([](auto& s) { s.releaseVersion = 8; }),
                "release CRC 0x6ABF4A82, expected 0xFA005713 (release version differs)");
  const std::size_t length = frame.size() - 20;
  expectRefusal(longer, kStrict,
                "payload length field says " + std::to_string(length) + " bytes, " + std::to_string(length + 1) + " follow");
  expectRefusal({}, kStrict, "frame of 0 bytes is shorter than its 20-byte header");
  expectRefusal(firstBytes(19), kStrict, "frame of 19 bytes is shorter than its 20-byte header");
  // A truncated frame's version is still read first.
  expectRefusal(firstBytes(4), with([](auto& s) { s.version = 9; }), "protocol version 0x03, expected 0x09");
  expectRefusal({}, {.nonProtocol = true}, "empty body");
}

}  // namespace
