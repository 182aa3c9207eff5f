// KXP request framing: worked frames byte for byte, the side effect on the caller's
// bytes, and the URL request the serializer hands back.
#include <gtest/gtest.h>

#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Tests/Classes/KXPTesting.h"

namespace {

using kxp_testing::frameOf;
using kxp_testing::requestWith;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;
using vkq::platform::URLRequest;

const Bytes kABC{0x61, 0x62, 0x63};

// A table of calls rather than an array: GCC 12 warns falsely about arrays of settings.
TEST(VKQKXPRequestFrame, WorkedExamples) {
  const auto expectFrame = [](const char* what, const VKQKXPFrameSettings& settings, const Bytes& frame) {
    EXPECT_EQ(frameOf(settings, kABC), frame) << what;
  };
  // Length 3, then CRC-32("abc") = 35 24 41 C2, then the payload.
  expectFrame("all off", {}, {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  expectFrame("marker, version, OS type", {.insertAtBeginBody = 0x1234, .version = 2, .uploadOSType = true},
              {0x12, 0x34, 0x02, 0x01, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  // CRC-32("") = 0; CRC-32("7") = 6A BF 4A 82.
  expectFrame("empty package name, release 7", {.packageName = "", .releaseVersion = 7},
              {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0, 0, 0, 0, 0x6A, 0xBF, 0x4A, 0x82, 0x61, 0x62, 0x63});
  expectFrame("release 0 or negative: no field", {.releaseVersion = INT32_MIN},
              {0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63});
  expectFrame("unframed, whatever else is set",
              {.nonProtocol = true, .compress = true, .xorKey = 0x33, .insertAtBeginBody = 1, .uploadOSType = true},
              kABC);
}

TEST(VKQKXPRequestFrame, MaskWorksOnTheCallersBytesOnlyWhenNotCompressing) {
  for (const bool compress : {false, true}) {
    auto caller = std::make_shared<Bytes>(Bytes{0x00, 0xFF, 0x5A});
    VKQKXPRequestSerializer::serializerWithRequest(requestWith({.compress = compress, .xorKey = 0x5A}))
        ->createDataWithParameters(Object(caller));
    EXPECT_EQ(*caller, (compress ? Bytes{0x00, 0xFF, 0x5A} : Bytes{0x5A, 0xA5, 0x00})) << compress;
  }
}

TEST(VKQKXPRequestFrame, NoPayloadGivesNoFrameAndAnUnboundSerializerFramesWithEverySettingOff) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  for (const Object& none : {Object(), Object(Bytes{}), Object(vkq::platform::JSON{{"a", 1}})}) {
    EXPECT_EQ(serializer->createDataWithParameters(none), std::nullopt) << none.description();
  }
  EXPECT_EQ(frameOf({.nonProtocol = true}, {}), std::nullopt);
  EXPECT_EQ(VKQKXPRequestSerializer::serializerWithRequest(nullptr)->createDataWithParameters(Object(kABC)),
            frameOf({}, kABC));
}

URLRequest requestFor(std::string method) {
  URLRequest request;
  request.HTTPMethod = std::move(method);
  request.url = vkq::platform::URL::URLWithString("http://h/k?a=1");
  return request;
}

TEST(VKQKXPRequestSerializer, SetsTheFrameAsBodyTheCallersHeadersWinAndACopyKeepsTheSettings) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  serializer->setValue("serializer", "X-Both");
  serializer->setValue("serializer", "X-Default");
  ErrorPtr error;
  const auto plain = serializer->requestBySerializingRequest(requestFor("GET"), Object(kABC), &error);
  ASSERT_TRUE(plain);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(plain->HTTPMethod, "GET");  // not looked at
  EXPECT_EQ(plain->url->absoluteString(), "http://h/k?a=1");
  EXPECT_EQ(plain->HTTPBody, frameOf({}, kABC));
  EXPECT_EQ(plain->valueForHTTPHeaderField("content-type"), "application/octet-stream");

  URLRequest request = requestFor("POST");
  request.setValueForHTTPHeaderField("caller", "x-both");
  request.setValueForHTTPHeaderField("application/x-kxp", "Content-Type");
  const auto result = serializer->requestBySerializingRequest(request, Object(kABC), nullptr);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Both"), "caller");
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Default"), "serializer");
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), "application/x-kxp");

  const auto copy = std::dynamic_pointer_cast<VKQKXPRequestSerializer>(serializer->copy());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->request(), nullptr);
  EXPECT_EQ(copy->valueForHTTPHeaderField("X-Default"), "serializer");
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
  EXPECT_TRUE(serializer->requestBySerializingRequest(requestFor("POST"), Object(), nullptr));  // no error slot
}

}  // namespace
