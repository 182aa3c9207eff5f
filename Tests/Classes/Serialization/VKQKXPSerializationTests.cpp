// What the KXP serializers and the server codec add to the pipeline (VKQKXPFrameTests):
// the settings read from the request, the URL request, the result codes and log entries,
// the server codec's round trip, and the decoder fuzzed with seeded random inputs.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "Classes/Codec/NRDByteArray.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/Fuzz/KXPResponseFuzzing.h"
#include "Tests/Classes/KXPTesting.h"
#include "Tests/Support/LogCapture.h"

namespace {

using kxp_testing::requestWith;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;

static_assert(NRDFileURL<vkq::platform::URL>, "the byte array reads the platform's file URLs");

const Bytes kABC{0x61, 0x62, 0x63};
// Every request field on: the header is 20 18 | 03 | 01 | length | CRC | package CRC | release CRC.
const VKQKXPFrameSettings kStrict{.compress = true, .xorKey = 0x5A, .insertAtBeginBody = 0x2018, .version = 3,
                                  .uploadOSType = true, .packageName = "com.vkq.app", .releaseVersion = 7};

std::optional<Bytes> frameOf(std::shared_ptr<VKQVeskRequest> request, Object parameters) {
  return VKQKXPRequestSerializer::serializerWithRequest(std::move(request))->createDataWithParameters(parameters);
}
std::shared_ptr<VKQVeskResult> decode(const VKQKXPFrameSettings& settings, const Object& answer, ErrorPtr error) {
  auto request = requestWith(settings);
  request->setResponseData(answer);
  return VKQKXPResponseSerializer::serializer()->deserialize(request, &error);
}
std::string text(const ErrorPtr& error) {
  if (!error) return "none";
  return error->domain() + " " + std::to_string(error->code()) + " " +
         error->userInfo().localizedFailureReason.value_or(error->localizedDescription());
}

TEST(VKQKXPRequestSerializer, SetsTheFrameAsBodyUnlessTheCallerNamesATypeOrReportsWhyNot) {
  const auto serializer = VKQKXPRequestSerializer::serializerWithRequest(requestWith({}));
  serializer->setValue("serializer", "X-Default");
  vkq::platform::URLRequest request;
  request.HTTPMethod = "GET";  // not looked at
  request.url = vkq::platform::URL::URLWithString("http://h/k?a=1");
  ErrorPtr error;
  const auto plain = serializer->requestBySerializingRequest(request, Object(kABC), &error);
  EXPECT_EQ(text(error), "none");
  EXPECT_EQ(plain->HTTPMethod + " " + plain->url->absoluteString(), "GET http://h/k?a=1");
  EXPECT_EQ(plain->HTTPBody, frameOf(nullptr, Object(kABC)));
  EXPECT_EQ(plain->valueForHTTPHeaderField("content-type"), "application/octet-stream");
  request.setValueForHTTPHeaderField("application/x-kxp", "Content-Type");
  request.setValueForHTTPHeaderField("caller", "X-Default");
  const auto typed = serializer->requestBySerializingRequest(request, Object(kABC), nullptr);
  EXPECT_EQ(typed->valueForHTTPHeaderField("Content-Type"), "application/x-kxp");
  EXPECT_EQ(typed->valueForHTTPHeaderField("X-Default"), "caller");

  const auto failed = serializer->requestBySerializingRequest(plain.value(), Object(Bytes{}), &error);
  EXPECT_EQ(failed->valueForHTTPHeaderField("X-Default"), "serializer") << "still the header-filled copy";
  EXPECT_EQ(text(error), "com.error.serialization.request -1016 kxp request serializer error");
  const auto copy = std::dynamic_pointer_cast<VKQKXPRequestSerializer>(serializer->copy());
  EXPECT_EQ(copy->request(), nullptr);
  EXPECT_EQ(copy->valueForHTTPHeaderField("X-Default"), "serializer");
}

TEST(VKQKXPResponseSerializer, ResultCodesDataAndLogEntries) {
  // "abc" behind version 2: version, length 3, CRC-32("abc"), payload.
  const Bytes frame{0x02, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63};
  Bytes corrupt = frame;
  corrupt.back() ^= 1;
  // A table of calls rather than an array: GCC 12 warns falsely about arrays of settings.
  const auto expect = [](const VKQKXPFrameSettings& settings, const Object& answer, ErrorPtr error, std::int64_t code,
                         const Object& data, std::vector<vkq::platform::LogEntry> log = {}) {
    SCOPED_TRACE(answer.description());
    vkq::testing::LogCapture capture;
    const auto result = decode(settings, answer, std::move(error));
    EXPECT_EQ(result->responseCode()->code(), code);
    EXPECT_EQ(result->data(), data);
    EXPECT_EQ(capture.entries(), log);
  };
  expect({.version = 2}, Object(frame), nullptr, 0, Object(kABC));
  expect({.version = 2}, Object(frame), vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001), -2, Object(),
         {{"request faild", "SUCCESS: " + Object(frame).description()}});
  expect({.nonProtocol = true, .version = 2}, Object(vkq::platform::JSON{1}), nullptr, 0,
         Object(vkq::platform::JSON{1}));
  expect({.version = 2}, Object(Bytes{0x03}), nullptr, -3, Object(),
         {{"current protocol version not matching, [request version =", "2", "remote version =]", "3"}});
  expect({.version = 2}, Object(Bytes(frame.begin(), frame.begin() + 8)), nullptr, -4, Object(),
         {{"kxp response too short for its header"}});
  expect({}, Object(vkq::platform::JSON{{"a", 1}}), nullptr, -4, Object(), {{"kxp response too short for its header"}});
  expect({.version = 2}, Object(corrupt), nullptr, -4, Object());
  // The begin marker is not checked; no error slot at all means no transport error.
  auto request = requestWith({.insertAtBeginBody = 1, .version = 2});
  request->setResponseData(Object(Bytes{0xAB, 0xCD, 0x02, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63}));
  EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(request, nullptr)->data(), Object(kABC));
  EXPECT_EQ(text(VKQKXPResponseSerializer::serializer()->errorWithErrorCode(VKQResponseCode(-3))),
            "com.vkqlabs.request -3 protocol error");
  EXPECT_EQ(VKQKXPResponseSerializer::serializer()->errorWithErrorCode(VKQResponseCode(0)), nullptr);

  // A payload that unpacks to more than the request takes is the request's limit, not a
  // server error: -2, and the request's error says why.
  const VKQKXPFrameSettings limited{.compress = true, .version = 2, .maximumPayloadLength = 64};
  for (const std::size_t size : {64, 65}) {
    auto bounded = requestWith(limited);
    bounded->setResponseData(Object(*VKQKXPServerCodec::makeResponseFrame(Bytes(size, 'a'), limited)));
    EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(bounded, nullptr)->responseCode()->code(),
              size == 64 ? 0 : -2);
    EXPECT_EQ(bounded->error() ? bounded->error()->code() : 0, size == 64 ? std::int64_t{0} : std::int64_t{VKQKXPFrameErrorTooLong});
  }
}

// The fuzzer's body aborts when the decoder breaks a promise.
TEST(VKQKXPResponseSerializer, SeededFuzzInputsKeepTheDecodersPromisesAndReachEveryCode) {
  std::mt19937 random(1121);  // fixed seed: a failure replays
  std::map<std::int64_t, int> codes;
  for (int i = 0; i < 100000; ++i) {
    Bytes input(std::uniform_int_distribution<std::size_t>(0, 48)(random));
    for (auto& byte : input) byte = static_cast<std::uint8_t>(random());
    codes[kxp_fuzzing::decodeOneInput(input)]++;
  }
  for (std::int64_t code : {0, -2, -3, -4}) EXPECT_GT(codes[code], 0) << code;
}

// kStrict sets every field away from its default: a setting the serializers missed shows.
TEST(VKQKXPServerCodec, ReadsTheClientsFramesAndTheClientReadsItsAnswers) {
  const Bytes payload = vkq::platform::bytesFromString("hello, server");
  for (const VKQKXPFrameSettings& settings : {kStrict, VKQKXPFrameSettings{.nonProtocol = true, .compress = true}}) {
    EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(*frameOf(requestWith(settings), Object(payload)), settings, nullptr),
              payload);
    EXPECT_EQ(decode(settings, Object(*VKQKXPServerCodec::makeResponseFrame(payload, settings)), nullptr)->data(),
              Object(payload));
  }
  EXPECT_EQ(VKQKXPServerCodec::makeResponseFrame({}, {.version = 2}), std::nullopt);
  EXPECT_EQ(VKQKXPServerCodec::parseRequestFrame(*frameOf(nullptr, Object(payload)), {}, nullptr), payload)
      << "an unbound serializer frames with every setting off";
  EXPECT_EQ(frameOf(requestWith({}), Object(vkq::platform::JSON{{"a", 1}})), std::nullopt) << "only bytes are framed";
}

}  // namespace
