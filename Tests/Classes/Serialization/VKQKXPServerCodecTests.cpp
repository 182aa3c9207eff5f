#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"

namespace {

using ::testing::HasSubstr;
using vkq::platform::Bytes;

Bytes randomBytes(std::mt19937& random, std::size_t size) {
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes bytes(size);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(random));
  return bytes;
}

// A request with random frame settings, as a client would configure it.
std::shared_ptr<VKQVesk> randomRequest(std::mt19937& random) {
  auto vesk = VKQVesk::initWithKXPUrl("http://127.0.0.1/kxp/echo", nullptr);
  std::uniform_int_distribution<int> coin(0, 1);
  const auto maybe = [&](int value) { return coin(random) != 0 ? value : 0; };
  vesk->insertAtBeginBodyPromise()(static_cast<std::uint16_t>(maybe(std::uniform_int_distribution<int>(1, 0xFFFF)(random))))
      ->protocolVCPromise()(static_cast<std::uint8_t>(maybe(std::uniform_int_distribution<int>(1, 255)(random))))
      ->xorkeyPromise()(static_cast<std::uint8_t>(maybe(std::uniform_int_distribution<int>(1, 255)(random))))
      ->compressPromise()(coin(random) != 0)
      ->uploadOSTypePromise()(coin(random) != 0)
      ->releaseVersionPromise()(static_cast<std::uint32_t>(std::uniform_int_distribution<int>(-3, 500)(random)))
      ->packageNamePromise()(coin(random) != 0 ? std::optional<std::string>("com.vkq.app" + std::to_string(random() % 10))
                                               : std::nullopt);
  return vesk;
}

// The frame VKQKXPRequestSerializer writes for `payload` under the request's settings.
Bytes clientFrame(const std::shared_ptr<VKQVesk>& request, const Bytes& payload) {
  // The serializer may mask its argument in place: hand it a copy.
  const auto frame = VKQKXPRequestSerializer::serializerWithRequest(request)->createDataWithParameters(
      vkq::platform::Object(Bytes(payload)));
  EXPECT_TRUE(frame.has_value());
  return frame.value_or(Bytes{});
}

std::shared_ptr<VKQVeskResult> clientDecode(const std::shared_ptr<VKQVesk>& request, const Bytes& frame) {
  request->setResponseData(vkq::platform::Object(frame));
  const vkq::platform::ErrorPtr noError;
  return VKQKXPResponseSerializer::serializer()->deserialize(request, &noError);
}

TEST(VKQKXPServerCodec, RoundTripsWithTheClientSerializersForRandomSettings) {
  std::mt19937 random(20261121);  // fixed: a failure can be replayed
  for (int i = 0; i < 300; ++i) {
    auto request = randomRequest(random);
    const VKQKXPFrameSettings settings = VKQKXPFrameSettings::fromRequest(*request);
    const Bytes payload = randomBytes(random, 1 + random() % 3000);
    SCOPED_TRACE("iteration " + std::to_string(i));

    const VKQKXPParsedFrame parsed = VKQKXPServerCodec::parseRequestFrame(clientFrame(request, payload), settings);
    ASSERT_TRUE(parsed.ok()) << parsed.error();
    EXPECT_EQ(parsed.payload(), payload);

    const auto answer = VKQKXPServerCodec::makeResponseFrame(payload, settings);
    ASSERT_TRUE(answer.has_value());
    const auto result = clientDecode(request, *answer);
    ASSERT_EQ(result->responseCode()->code(), 0);
    ASSERT_TRUE(result->data().isData());
    EXPECT_EQ(*result->data().data(), payload);
  }
}

TEST(VKQKXPServerCodec, NonProtocolPassesBytesThrough) {
  VKQKXPFrameSettings settings;
  settings.nonProtocol = true;
  settings.compress = true;
  settings.xorKey = 9;
  const Bytes payload = vkq::platform::bytesFromString("raw");
  EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(payload, settings).payload(), payload);
  EXPECT_EQ(VKQKXPServerCodec::makeResponseFrame(payload, settings), payload);
  EXPECT_THAT(VKQKXPServerCodec::parseRequestFrame({}, settings).error(), HasSubstr("empty body"));
}

TEST(VKQKXPServerCodec, ResponseFrameMatchesTheLayoutByteForByte) {
  // All off but the marker and version: 12 34 | 02 | length | CRC-32("abc") | "abc".
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x1234;
  settings.version = 2;
  EXPECT_EQ(VKQKXPServerCodec::makeResponseFrame(vkq::platform::bytesFromString("abc"), settings),
            (Bytes{0x12, 0x34, 0x02, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 'a', 'b', 'c'}));
  EXPECT_FALSE(VKQKXPServerCodec::makeResponseFrame({}, settings).has_value());
}

// The server's settings: every request field switched on.
VKQKXPFrameSettings strictSettings() {
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x2018;
  settings.version = 3;
  settings.uploadOSType = true;
  settings.packageName = "com.vkq.app";
  settings.releaseVersion = 7;
  settings.compress = true;
  settings.xorKey = 0x5A;
  return settings;
}

class RefusedFrame : public ::testing::Test {
 protected:
  void SetUp() override {
    request_ = VKQVesk::initWithKXPUrl("http://127.0.0.1/kxp/echo", nullptr, 0x5A, 3);
    request_->packageNamePromise()("com.vkq.app")->releaseVersionPromise()(7);
    frame_ = clientFrame(request_, vkq::platform::bytesFromString("hello, server"));
    ASSERT_TRUE(VKQKXPServerCodec::parseRequestFrame(frame_, strictSettings()).ok());
  }

  std::string refusal(const Bytes& frame, const VKQKXPFrameSettings& settings = strictSettings()) {
    const auto parsed = VKQKXPServerCodec::parseRequestFrame(frame, settings);
    EXPECT_FALSE(parsed.ok());
    return parsed.ok() ? std::string() : parsed.error();
  }

  // Header: 20 18 | 03 | 01 | length(4) | payload CRC(4) | package CRC(4) | release CRC(4).
  static constexpr std::size_t kHeaderSize = 20;
  std::shared_ptr<VKQVesk> request_;
  Bytes frame_;
};

TEST_F(RefusedFrame, NamesEachHeaderFieldThatDiffers) {
  auto settings = strictSettings();
  settings.insertAtBeginBody = 0x2019;
  EXPECT_EQ(refusal(frame_, settings), "begin marker 0x2018, expected 0x2019");
  settings = strictSettings();
  settings.version = 4;
  EXPECT_EQ(refusal(frame_, settings), "protocol version 0x03, expected 0x04");
  settings = strictSettings();
  settings.uploadOSType = false;  // every later field is misread: refused by the first that trips
  EXPECT_FALSE(refusal(frame_, settings).empty());
  settings = strictSettings();
  settings.packageName = "com.other";
  EXPECT_THAT(refusal(frame_, settings), HasSubstr("(package name differs)"));
  settings = strictSettings();
  settings.releaseVersion = 8;
  EXPECT_THAT(refusal(frame_, settings), HasSubstr("(release version differs)"));
  Bytes osType = frame_;
  osType[3] = 2;
  EXPECT_EQ(refusal(osType), "OS type 0x02, expected 0x01");
}

TEST_F(RefusedFrame, ChecksLengthAndPayloadCRC) {
  Bytes corrupt = frame_;
  corrupt.back() ^= 0x01;
  EXPECT_THAT(refusal(corrupt), HasSubstr("payload CRC"));

  Bytes trailing = frame_;
  trailing.push_back(0);
  EXPECT_THAT(refusal(trailing), HasSubstr("payload length field says"));

  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{5}, kHeaderSize - 1}) {
    EXPECT_THAT(refusal(Bytes(frame_.begin(), frame_.begin() + static_cast<std::ptrdiff_t>(size))),
                HasSubstr("shorter than its 20-byte header"))
        << size;
  }
  EXPECT_THAT(refusal(Bytes(frame_.begin(), frame_.end() - 1)), HasSubstr("payload length field says"));
}

TEST_F(RefusedFrame, ReportsATruncatedFramesVersionFirst) {
  auto settings = strictSettings();
  settings.version = 9;
  EXPECT_EQ(refusal(Bytes(frame_.begin(), frame_.begin() + 4), settings), "protocol version 0x03, expected 0x09");
}

TEST_F(RefusedFrame, RefusesAPayloadThatDoesNotDecompress) {
  // A well-formed frame around bytes that are no zlib stream.
  request_->compressPromise()(false);
  EXPECT_EQ(refusal(clientFrame(request_, vkq::platform::bytesFromString("not zlib"))), "payload does not decompress");
}

}  // namespace
