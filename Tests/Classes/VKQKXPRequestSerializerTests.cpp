// KXP request framing: the frame byte for byte, the transforms and their side effect on
// the caller's bytes, and the URL request the serializer hands back.
#include <gtest/gtest.h>

#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/VKQVesk.h"
#include "Tests/Classes/KXPTesting.h"

namespace {

using kxp_testing::allOff;
using kxp_testing::requestWith;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;
using vkq::platform::URLRequest;

std::optional<Bytes> frameOf(const VKQKXPFrameSettings& settings, Bytes payload) {
  return VKQKXPRequestSerializer::serializerWithRequest(requestWith(settings))
      ->createDataWithParameters(Object(std::move(payload)));
}

const Bytes kABC{0x61, 0x62, 0x63};

TEST(VKQKXPRequestFrame, AllFieldsOffIsLengthCRCAndPayload) {
  EXPECT_EQ(frameOf(allOff(), kABC), (Bytes{0x00, 0x00, 0x00, 0x03, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63}));
}

TEST(VKQKXPRequestFrame, MarkerVersionAndOSTypeLeadInThatOrder) {
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x1234;
  settings.version = 2;
  settings.uploadOSType = true;
  EXPECT_EQ(frameOf(settings, kABC),
            (Bytes{0x12, 0x34, 0x02, 0x01, 0x00, 0x00, 0x00, 0x03, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63}));
}

TEST(VKQKXPRequestFrame, PackageAndReleaseCRCsFollowThePayloadCRC) {
  VKQKXPFrameSettings settings;
  settings.packageName = "";  // present though empty: the CRC of no bytes
  settings.releaseVersion = 7;  // CRC-32 of "7"
  EXPECT_EQ(frameOf(settings, kABC), (Bytes{0x00, 0x00, 0x00, 0x03, 0x35, 0x24, 0x41, 0xC2, 0x00, 0x00, 0x00, 0x00,
                                            0x6A, 0xBF, 0x4A, 0x82, 0x61, 0x62, 0x63}));
}

TEST(VKQKXPRequestFrame, ReleaseVersionZeroOrNegativeHasNoField) {
  for (std::int32_t release : {0, -1, INT32_MIN}) {
    VKQKXPFrameSettings settings;
    settings.releaseVersion = release;
    EXPECT_EQ(frameOf(settings, kABC)->size(), 11u) << release;
  }
}

TEST(VKQKXPRequestFrame, RequestDefaultsGiveAnElevenByteHeaderAndACompressedPayload) {
  const Bytes payload(1000, 'x');
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", std::make_shared<Bytes>(payload));
  const auto frame = VKQKXPRequestSerializer::serializerWithRequest(vesk)->createDataWithParameters(
      vesk->requestArgument());
  ASSERT_TRUE(frame);
  const Bytes compressed = Deflate::compress(payload).value();
  Bytes expected{0x20, 0x18, 0x01};
  kxp_testing::put32(expected, static_cast<std::uint32_t>(compressed.size()));
  kxp_testing::put32(expected, kxp_testing::crcOf(compressed));
  expected.insert(expected.end(), compressed.begin(), compressed.end());
  EXPECT_EQ(*frame, expected);
}

TEST(VKQKXPRequestFrame, LengthAndCRCDescribeTheBytesOnTheWire) {
  VKQKXPFrameSettings masked;
  masked.xorKey = 0xFF;
  EXPECT_EQ(frameOf(masked, kABC), kxp_testing::referenceRequestFrame(masked, {0x9E, 0x9D, 0x9C}));

  VKQKXPFrameSettings packedAndMasked = masked;
  packedAndMasked.compress = true;
  const auto frame = frameOf(packedAndMasked, kABC);
  ASSERT_TRUE(frame);
  Bytes wire(frame->begin() + 8, frame->end());
  EXPECT_EQ(*frame, kxp_testing::referenceRequestFrame(packedAndMasked, wire));
  for (auto& byte : wire) byte ^= 0xFF;  // masked after compressing: unmask, then decompress
  EXPECT_EQ(Deflate::decompress(wire), kABC);
}

TEST(VKQKXPRequestFrame, MatchesTheReferenceLayoutForRandomSettingsAndPayloads) {
  std::mt19937 random(20261121);  // fixed seed: a failure replays
  for (int i = 0; i < 400; ++i) {
    const VKQKXPFrameSettings settings = kxp_testing::randomSettings(random);
    const Bytes payload = kxp_testing::randomPayload(random);
    const auto frame = frameOf(settings, payload);
    ASSERT_TRUE(frame) << i;
    ASSERT_EQ(*frame, kxp_testing::referenceRequestFrame(settings, kxp_testing::transformed(settings, payload))) << i;
    ASSERT_EQ(frame->size() - VKQKXPFrame::requestHeaderSize(settings),
              kxp_testing::transformed(settings, payload).size());
  }
}

TEST(VKQKXPRequestFrame, NonProtocolSendsTheBytesAsTheyAre) {
  std::mt19937 random(7);
  VKQKXPFrameSettings settings = kxp_testing::randomSettings(random);
  settings.nonProtocol = true;
  settings.compress = true;
  settings.xorKey = 0x33;
  EXPECT_EQ(frameOf(settings, kABC), kABC);
}

TEST(VKQKXPRequestFrame, MaskWorksOnTheCallersBytesOnlyWhenNotCompressing) {
  VKQKXPFrameSettings settings;
  settings.xorKey = 0x5A;
  auto caller = std::make_shared<Bytes>(Bytes{0x00, 0xFF, 0x5A});
  VKQKXPRequestSerializer::serializerWithRequest(requestWith(settings))->createDataWithParameters(Object(caller));
  EXPECT_EQ(*caller, (Bytes{0x5A, 0xA5, 0x00}));

  settings.compress = true;
  auto untouched = std::make_shared<Bytes>(Bytes{0x00, 0xFF, 0x5A});
  VKQKXPRequestSerializer::serializerWithRequest(requestWith(settings))->createDataWithParameters(Object(untouched));
  EXPECT_EQ(*untouched, (Bytes{0x00, 0xFF, 0x5A}));
}

TEST(VKQKXPRequestFrame, NoPayloadGivesNoFrame) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith(allOff()));
  EXPECT_EQ(serializer->createDataWithParameters(Object()), std::nullopt);
  EXPECT_EQ(serializer->createDataWithParameters(Object(Bytes{})), std::nullopt);
  EXPECT_EQ(serializer->createDataWithParameters(Object(vkq::platform::JSON{{"a", 1}})), std::nullopt);
  VKQKXPFrameSettings raw;
  raw.nonProtocol = true;
  EXPECT_EQ(frameOf(raw, {}), std::nullopt);
}

TEST(VKQKXPRequestFrame, UnboundSerializerFramesWithEverySettingOff) {
  auto serializer = VKQKXPRequestSerializer::serializerWithRequest(nullptr);
  EXPECT_EQ(serializer->createDataWithParameters(Object(kABC)), frameOf(allOff(), kABC));
}

// ---- The URL request ----

URLRequest postTo(std::string url) {
  URLRequest request;
  request.HTTPMethod = "POST";
  request.url = vkq::platform::URL::URLWithString(url);
  return request;
}

TEST(VKQKXPRequestSerializer, SetsTheFrameAsBodyWithOctetStreamUnlessTheRequestNamesAType) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith(allOff()));
  ErrorPtr error;
  const auto plain = serializer->requestBySerializingRequest(postTo("http://h/k"), Object(kABC), &error);
  ASSERT_TRUE(plain);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(plain->HTTPBody, frameOf(allOff(), kABC));
  EXPECT_EQ(plain->valueForHTTPHeaderField("content-type"), "application/octet-stream");

  URLRequest typed = postTo("http://h/k");
  typed.setValueForHTTPHeaderField("application/x-kxp", "Content-Type");
  EXPECT_EQ(serializer->requestBySerializingRequest(typed, Object(kABC), nullptr)->valueForHTTPHeaderField("Content-Type"),
            "application/x-kxp");
}

TEST(VKQKXPRequestSerializer, DefaultHeadersFillOnlyTheFieldsTheRequestLacks) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith(allOff()));
  serializer->setValue("serializer", "X-Both");
  serializer->setValue("serializer", "X-Default");
  URLRequest request = postTo("http://h/k");
  request.setValueForHTTPHeaderField("caller", "x-both");
  const auto result = serializer->requestBySerializingRequest(request, Object(kABC), nullptr);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Both"), "caller");
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Default"), "serializer");
  EXPECT_TRUE(result->valueForHTTPHeaderField("User-Agent"));
}

TEST(VKQKXPRequestSerializer, TheMethodIsNotLookedAt) {
  URLRequest get = postTo("http://h/k?a=1");
  get.HTTPMethod = "GET";
  const auto result = VKQKXPRequestSerializer::serializerWithRequest(requestWith(allOff()))
                          ->requestBySerializingRequest(get, Object(kABC), nullptr);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->HTTPMethod, "GET");
  EXPECT_EQ(result->url->absoluteString(), "http://h/k?a=1");
  EXPECT_EQ(result->HTTPBody, frameOf(allOff(), kABC));
}

TEST(VKQKXPRequestSerializer, NoFrameReportsTheFramingErrorAndStillReturnsTheRequest) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith(allOff()));
  serializer->setValue("d", "X-Default");
  ErrorPtr error;
  const auto result = serializer->requestBySerializingRequest(postTo("http://h/k"), Object(Bytes{}), &error);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->HTTPBody, std::nullopt);
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), std::nullopt);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Default"), "d");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "com.error.serialization.request");
  EXPECT_EQ(error->code(), -1016);
  EXPECT_EQ(error->userInfo().localizedFailureReason, "kxp request serializer error");

  EXPECT_TRUE(serializer->requestBySerializingRequest(postTo("http://h/k"), Object(), nullptr));
}

TEST(VKQKXPRequestSerializer, CopyKeepsTheClassAndSettingsButNotTheRequest) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith(allOff()));
  serializer->setValue("v", "X-Kept");
  const auto copy = std::dynamic_pointer_cast<VKQKXPRequestSerializer>(serializer->copy());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->request(), nullptr);
  EXPECT_EQ(copy->valueForHTTPHeaderField("X-Kept"), "v");
}

}  // namespace
