// What the KXP response serializer adds to the pipeline (tested in VKQKXPFrameTests):
// the result codes, the version check, the debug log entries, and the fuzzer's body
// over seeded random inputs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/Fuzz/KXPResponseFuzzing.h"
#include "Tests/Classes/KXPTesting.h"
#include "Tests/Support/LogCapture.h"

namespace {

using ::testing::ElementsAre;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;

// "abc" behind version 2: version, length 3, CRC-32("abc"), payload.
const Bytes kFrame{0x02, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63};
const Object kPayload(Bytes{0x61, 0x62, 0x63});

TEST(VKQKXPResponseSerializer, ResultCodesDataAndLogEntries) {
  const ErrorPtr transportError = vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001);
  Bytes corrupt = kFrame;
  corrupt.back() ^= 1;
  // A table of calls rather than an array: GCC 12 warns falsely about arrays of settings.
  // In `log`, "" stands for the request's description.
  const auto expect = [](const char* what, const VKQKXPFrameSettings& settings, const Object& answer, ErrorPtr error,
                         std::int64_t code, const Object& data, std::vector<std::string> log) {
    SCOPED_TRACE(what);
    vkq::testing::LogCapture capture;
    auto request = kxp_testing::requestWith(settings);
    request->setResponseData(answer);
    const auto result = VKQKXPResponseSerializer::serializer()->deserialize(request, &error);
    EXPECT_EQ(result->responseCode()->code(), code);
    EXPECT_EQ(result->data(), data);
    EXPECT_EQ(result->request(), code == -2 ? nullptr : request);
    for (auto& piece : log) piece = piece.empty() ? request->description() : piece;
    std::vector<vkq::platform::LogEntry> entries;
    if (!log.empty()) entries.push_back(log);
    EXPECT_EQ(capture.entries(), entries);
  };
  expect("whole", {.version = 2}, Object(kFrame), nullptr, 0, kPayload, {});
  expect("marker not checked", {.insertAtBeginBody = 1, .version = 2},
         Object(Bytes{0xAB, 0xCD, 0x02, 0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63}), nullptr, 0, kPayload, {});
  expect("transport error wins", {.version = 2}, Object(kFrame), transportError, -2, Object(), {"request faild", ""});
  expect("unframed: any answer", {.nonProtocol = true, .version = 2}, Object(vkq::platform::JSON{1}), nullptr, 0,
         Object(vkq::platform::JSON{1}), {});
  expect("other version, checked first", {.version = 2}, Object(Bytes{0x03}), nullptr, -3, Object(),
         {"current protocol version not matching, [request version =", "2", "remote version =]", "3"});
  expect("short header", {.version = 2}, Object(Bytes(kFrame.begin(), kFrame.begin() + 8)), nullptr, -4, Object(),
         {"kxp response too short for its header"});
  expect("not bytes", {}, Object(vkq::platform::JSON{{"a", 1}}), nullptr, -4, Object(),
         {"kxp response too short for its header"});
  expect("corrupt payload", {.version = 2}, Object(corrupt), nullptr, -4, Object(), {});
  // No error slot at all means no transport error.
  auto request = kxp_testing::requestWith({.version = 2});
  request->setResponseData(Object(kFrame));
  EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(request, nullptr)->data(), kPayload);
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

TEST(VKQKXPResponseSerializer, ErrorWithErrorCodeOnlyForFailures) {
  const auto serializer = VKQKXPResponseSerializer::serializer();
  EXPECT_EQ(serializer->errorWithErrorCode(VKQResponseCode(0)), nullptr);
  const ErrorPtr error = serializer->errorWithErrorCode(VKQResponseCode(-3));
  EXPECT_EQ(error->domain() + " " + std::to_string(error->code()) + " " + error->localizedDescription(),
            "com.vkqlabs.request -3 protocol error");
  EXPECT_EQ(serializer->errorWithErrorCode(VKQResponseCode(12))->userInfo().localizedDescription, std::nullopt);
}

}  // namespace
