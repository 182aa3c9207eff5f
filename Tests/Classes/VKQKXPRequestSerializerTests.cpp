// What the KXP request serializer adds to the pipeline (tested in VKQKXPFrameTests): the
// settings read from the request, and the URL request it hands back.
#include <gtest/gtest.h>

#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Tests/Classes/KXPTesting.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;
using vkq::platform::URLRequest;

const Bytes kABC{0x61, 0x62, 0x63};

std::optional<Bytes> frameOf(std::shared_ptr<VKQVeskRequest> request, Object parameters) {
  return VKQKXPRequestSerializer::serializerWithRequest(std::move(request))->createDataWithParameters(parameters);
}

TEST(VKQKXPRequestSerializer, FramesWithEverySettingOfTheRequestAndOnlyBytes) {
  // Every setting away from its default, so that each one the serializer missed shows.
  const VKQKXPFrameSettings settings{.compress = false, .xorKey = 0x5A, .insertAtBeginBody = 0x1234, .version = 3,
                                     .uploadOSType = false, .packageName = "p", .releaseVersion = 7};
  Bytes expected = kABC;
  EXPECT_EQ(frameOf(kxp_testing::requestWith(settings), Object(kABC)), VKQKXPFrame::packRequest(expected, settings));
  EXPECT_EQ(frameOf(kxp_testing::requestWith({.nonProtocol = true, .compress = true}), Object(kABC)), kABC);
  expected = kABC;
  EXPECT_EQ(frameOf(nullptr, Object(kABC)), VKQKXPFrame::packRequest(expected, {})) << "unbound: every setting off";
  for (const Object& none : {Object(), Object(vkq::platform::JSON{{"a", 1}})}) {
    EXPECT_EQ(frameOf(kxp_testing::requestWith({}), none), std::nullopt) << none.description();
  }
}

URLRequest requestFor(std::string method) {
  URLRequest request;
  request.HTTPMethod = std::move(method);
  request.url = vkq::platform::URL::URLWithString("http://h/k?a=1");
  return request;
}

TEST(VKQKXPRequestSerializer, SetsTheFrameAsBodyTheCallersHeadersWinAndACopyKeepsTheSettings) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(kxp_testing::requestWith({}));
  serializer->setValue("serializer", "X-Both");
  serializer->setValue("serializer", "X-Default");
  ErrorPtr error;
  const auto plain = serializer->requestBySerializingRequest(requestFor("GET"), Object(kABC), &error);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(plain->HTTPMethod, "GET");  // not looked at
  EXPECT_EQ(plain->url->absoluteString(), "http://h/k?a=1");
  EXPECT_EQ(plain->HTTPBody, frameOf(nullptr, Object(kABC)));
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
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(kxp_testing::requestWith({}));
  serializer->setValue("d", "X-Default");
  ErrorPtr error;
  const auto result = serializer->requestBySerializingRequest(requestFor("POST"), Object(Bytes{}), &error);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->HTTPBody, std::nullopt);
  EXPECT_EQ(result->valueForHTTPHeaderField("Content-Type"), std::nullopt);
  EXPECT_EQ(result->valueForHTTPHeaderField("X-Default"), "d");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain() + " " + std::to_string(error->code()) + " " + *error->userInfo().localizedFailureReason,
            "com.error.serialization.request -1016 kxp request serializer error");
  EXPECT_TRUE(serializer->requestBySerializingRequest(requestFor("POST"), Object(), nullptr));  // no error slot
}

}  // namespace
