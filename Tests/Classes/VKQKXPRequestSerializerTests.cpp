// KXP request framing: the frame byte for byte, the transforms and their side effect on
// the caller's bytes, and the URL request the serializer hands back.
#include <gtest/gtest.h>

#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/VKQVesk.h"
#include "Tests/Classes/KXPTesting.h"

namespace {

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

// Worked examples of the protocol: the payload "abc" (CRC-32 35 24 41 C2).
TEST(VKQKXPRequestFrame, WorkedExamples) {
  const auto expectFrame = [](const char* what, const VKQKXPFrameSettings& settings, const Bytes& frame) {
    EXPECT_EQ(frameOf(settings, kABC), frame) << what;
  };
  expectFrame("all off", {}, {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  expectFrame("marker, version, OS type", {.insertAtBeginBody = 0x1234, .version = 2, .uploadOSType = true},
              {0x12, 0x34, 0x02, 0x01, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  expectFrame("empty package name (CRC 0), release 7 (CRC of \"7\")", {.packageName = "", .releaseVersion = 7},
              {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0, 0, 0, 0, 0x6A, 0xBF, 0x4A, 0x82, 0x61, 0x62, 0x63});
  expectFrame("release 0 or negative: no field", {.releaseVersion = INT32_MIN},
              {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  expectFrame("length and CRC of the masked bytes", {.xorKey = 0xFF},
              kxp_testing::referenceRequestFrame({}, {0x9E, 0x9D, 0x9C}));
  expectFrame("unframed, whatever else is set",
              {.nonProtocol = true, .compress = true, .xorKey = 0x33, .insertAtBeginBody = 1, .uploadOSType = true},
              kABC);
}

TEST(VKQKXPRequestFrame, RequestDefaultsGiveAnElevenByteHeaderAndACompressedPayload) {
  const Bytes payload(1000, 'x');
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", std::make_shared<Bytes>(payload));
  const auto frame =
      VKQKXPRequestSerializer::serializerWithRequest(vesk)->createDataWithParameters(vesk->requestArgument());
  const Bytes compressed = Deflate::compress(payload).value();
  Bytes expected{0x20, 0x18, 0x01};
  kxp_testing::put32(expected, static_cast<std::uint32_t>(compressed.size()));
  kxp_testing::put32(expected, kxp_testing::crcOf(compressed));
  expected.insert(expected.end(), compressed.begin(), compressed.end());
  EXPECT_EQ(frame, expected);
}

TEST(VKQKXPRequestFrame, CompressesBeforeMasking) {
  const auto frame = frameOf({.compress = true, .xorKey = 0xFF}, kABC);
  ASSERT_TRUE(frame);
  Bytes wire(frame->begin() + 8, frame->end());
  for (auto& byte : wire) byte ^= 0xFF;
  EXPECT_EQ(Deflate::decompress(wire), kABC);
}

// The reference frame is written byte by byte in the test, independently of the layout.
TEST(VKQKXPRequestFrame, MatchesTheReferenceLayoutForRandomSettingsAndPayloads) {
  std::mt19937 random(20261121);  // fixed seed: a failure replays
  for (int i = 0; i < 400; ++i) {
    const VKQKXPFrameSettings settings = kxp_testing::randomSettings(random);
    const Bytes payload = kxp_testing::randomPayload(random);
    const Bytes wire = kxp_testing::transformed(settings, payload);
    ASSERT_EQ(frameOf(settings, payload), kxp_testing::referenceRequestFrame(settings, wire)) << i;
    ASSERT_EQ(VKQKXPFrame::requestHeaderSize(settings) + wire.size(),
              kxp_testing::referenceRequestFrame(settings, wire).size());
  }
}

TEST(VKQKXPRequestFrame, MaskWorksOnTheCallersBytesOnlyWhenNotCompressing) {
  auto caller = std::make_shared<Bytes>(Bytes{0x00, 0xFF, 0x5A});
  VKQKXPRequestSerializer::serializerWithRequest(requestWith({.xorKey = 0x5A}))->createDataWithParameters(Object(caller));
  EXPECT_EQ(*caller, (Bytes{0x5A, 0xA5, 0x00}));

  auto untouched = std::make_shared<Bytes>(Bytes{0x00, 0xFF, 0x5A});
  VKQKXPRequestSerializer::serializerWithRequest(requestWith({.compress = true, .xorKey = 0x5A}))
      ->createDataWithParameters(Object(untouched));
  EXPECT_EQ(*untouched, (Bytes{0x00, 0xFF, 0x5A}));
}

TEST(VKQKXPRequestFrame, NoPayloadGivesNoFrame) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  EXPECT_EQ(serializer->createDataWithParameters(Object()), std::nullopt);
  EXPECT_EQ(serializer->createDataWithParameters(Object(Bytes{})), std::nullopt);
  EXPECT_EQ(serializer->createDataWithParameters(Object(vkq::platform::JSON{{"a", 1}})), std::nullopt);
  EXPECT_EQ(frameOf({.nonProtocol = true}, {}), std::nullopt);
}

TEST(VKQKXPRequestFrame, UnboundSerializerFramesWithEverySettingOff) {
  EXPECT_EQ(VKQKXPRequestSerializer::serializerWithRequest(nullptr)->createDataWithParameters(Object(kABC)),
            frameOf({}, kABC));
}

// ---- The URL request ----

URLRequest requestFor(std::string method) {
  URLRequest request;
  request.HTTPMethod = std::move(method);
  request.url = vkq::platform::URL::URLWithString("http://h/k?a=1");
  return request;
}

TEST(VKQKXPRequestSerializer, SetsTheFrameAsBodyWhateverTheMethod) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  for (const char* method : {"POST", "GET"}) {
    ErrorPtr error;
    const auto result = serializer->requestBySerializingRequest(requestFor(method), Object(kABC), &error);
    ASSERT_TRUE(result);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(result->HTTPMethod, method);
    EXPECT_EQ(result->url->absoluteString(), "http://h/k?a=1");
    EXPECT_EQ(result->HTTPBody, frameOf({}, kABC));
  }
}

TEST(VKQKXPRequestSerializer, CallersHeadersWinOverDefaultsAndOverOctetStream) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  serializer->setValue("serializer", "X-Both");
  serializer->setValue("serializer", "X-Default");
  const auto plain = serializer->requestBySerializingRequest(requestFor("POST"), Object(kABC), nullptr);
  EXPECT_EQ(plain->valueForHTTPHeaderField("content-type"), "application/octet-stream");

  URLRequest request = requestFor("POST");
  request.setValueForHTTPHeaderField("caller", "x-both");
  request.setValueForHTTPHeaderField("application/x-kxp", "Content-Type");
  const auto result = serializer->requestBySerializingRequest(request, Object(kABC), nullptr);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Both"), "caller");
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Default"), "serializer");
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), "application/x-kxp");
}

TEST(VKQKXPRequestSerializer, NoFrameReportsTheFramingErrorAndStillReturnsTheRequest) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  serializer->setValue("d", "X-Default");
  ErrorPtr error;
  const auto result = serializer->requestBySerializingRequest(requestFor("POST"), Object(Bytes{}), &error);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->HTTPBody, std::nullopt);
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), std::nullopt);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Default"), "d");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "com.error.serialization.request");
  EXPECT_EQ(error->code(), -1016);
  EXPECT_EQ(error->userInfo().localizedFailureReason, "kxp request serializer error");
  EXPECT_TRUE(serializer->requestBySerializingRequest(requestFor("POST"), Object(), nullptr));
}

TEST(VKQKXPRequestSerializer, CopyKeepsTheClassAndSettingsButNotTheRequest) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  serializer->setValue("v", "X-Kept");
  const auto copy = std::dynamic_pointer_cast<VKQKXPRequestSerializer>(serializer->copy());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->request(), nullptr);
  EXPECT_EQ(copy->valueForHTTPHeaderField("X-Kept"), "v");
}

}  // namespace
