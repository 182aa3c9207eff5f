// KXP response parsing: every result code, corrupted, truncated and extended answers,
// the debug log entries, and the fuzzer's body over seeded random inputs. Round trips
// with the framing: VKQKXPServerCodecTests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/Fuzz/KXPResponseFuzzing.h"
#include "Tests/Classes/KXPTesting.h"
#include "Tests/Support/LogCapture.h"

namespace {

using kxp_testing::referenceFrame;
using kxp_testing::requestWith;
using ::testing::ElementsAre;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;
using vkq::testing::LogCapture;

std::shared_ptr<VKQVeskResult> decode(const std::shared_ptr<VKQVeskRequest>& request, Object answer,
                                      ErrorPtr transportError = nullptr) {
  request->setResponseData(std::move(answer));
  return VKQKXPResponseSerializer::serializer()->deserialize(request, &transportError);
}

std::int64_t codeOf(const VKQKXPFrameSettings& settings, Object answer) {
  return decode(requestWith(settings), std::move(answer))->responseCode()->code();
}

Bytes concat(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

// "abc" with every field off: length 3, CRC-32("abc"), payload.
const Bytes kABCFrame{0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63};
const VKQKXPFrameSettings kMarkedAndVersioned{.insertAtBeginBody = 0x2018, .version = 2};

TEST(VKQKXPResponse, ResultCodesOfWholeWrongAndExtendedAnswers) {
  Bytes longer = kABCFrame;
  longer[3] = 4;
  const Bytes bomb = Deflate::compress(Bytes(Deflate::kMaxDecompressedSize + 1, 0)).value();
  const struct {
    const char* what;
    bool compress;
    std::uint8_t version;
    Object answer;
    std::int64_t code;  // 0: the data is "abc"
  } table[] = {
      {"whole", false, 0, Object(kABCFrame), 0},
      {"bytes after the payload are ignored", false, 0, Object(concat(kABCFrame, Bytes(64, 0xEE))), 0},
      {"the request's version", false, 2, Object(concat({0x02}, kABCFrame)), 0},
      // The version is checked before the missing rest of the header.
      {"another version, nothing after it", false, 2, Object(Bytes{0x03}), -3},
      {"length beyond the answer", false, 0, Object(longer), -4},
      {"zero length, though the CRC of no bytes is 0", false, 0, Object(Bytes(8, 0)), -4},
      {"payload that does not decompress", true, 0, Object(referenceFrame({}, {1, 2, 3}, false)), -4},
      {"decompression bomb", true, 0, Object(referenceFrame({}, bomb, false)), -4},
      {"empty answer", false, 0, Object(Bytes{}), -4},
      {"an answer that is no bytes", false, 0, Object(vkq::platform::JSON{{"a", 1}}), -4},
  };
  for (const auto& row : table) {
    auto request = requestWith({.compress = row.compress, .version = row.version});
    const auto result = decode(request, row.answer);
    EXPECT_EQ(result->responseCode()->code(), row.code) << row.what;
    EXPECT_EQ(result->data(), row.code == 0 ? Object(Bytes{0x61, 0x62, 0x63}) : Object()) << row.what;
    EXPECT_EQ(result->request(), request) << row.what;
  }
}

TEST(VKQKXPResponse, VersionMismatchLogsBothVersions) {
  LogCapture log;
  EXPECT_EQ(codeOf({.version = 2}, Object(concat({0x03}, kABCFrame))), -3);
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("current protocol version not matching, [request version =", "2",
                                                     "remote version =]", "3")));
}

// Flipping any bit: the begin marker is not checked, the version gives -3, anything
// else -4.
TEST(VKQKXPResponse, EverySingleBitFlipIsCaughtOutsideTheMarker) {
  VKQKXPFrameSettings settings = kMarkedAndVersioned;
  settings.compress = true;
  settings.xorKey = 0x77;
  const Bytes frame = referenceFrame(settings, kxp_testing::transformed(settings, Bytes(300, 'q')), false);
  ASSERT_EQ(codeOf(settings, Object(frame)), 0);
  for (std::size_t at = 0; at < frame.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes flipped = frame;
      flipped[at] ^= static_cast<std::uint8_t>(1 << bit);
      const std::int64_t expected = at < 2 ? 0 : at == 2 ? -3 : -4;
      ASSERT_EQ(codeOf(settings, Object(flipped)), expected) << "byte " << at << " bit " << bit;
    }
  }
}

TEST(VKQKXPResponse, EveryTruncationIsAServerErrorAndOnlyAShortHeaderLogs) {
  const Bytes frame = referenceFrame(kMarkedAndVersioned, {0x61, 0x62, 0x63}, false);
  const std::size_t header = 11;  // marker 2, version 1, length 4, CRC 4
  for (std::size_t length = 0; length < frame.size(); ++length) {
    LogCapture log;
    const Bytes truncated(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(codeOf(kMarkedAndVersioned, Object(truncated)), -4) << length;
    const std::vector<vkq::platform::LogEntry> expected{{"kxp response too short for its header"}};
    EXPECT_EQ(log.entries(), length < header ? expected : std::vector<vkq::platform::LogEntry>{}) << length;
  }
}

TEST(VKQKXPResponse, TransportErrorWinsOverAValidFrameLogsAndCarriesNoRequest) {
  LogCapture log;
  auto request = requestWith({});
  const auto result = decode(request, Object(kABCFrame), vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001));
  EXPECT_EQ(result->responseCode()->code(), -2);
  EXPECT_EQ(result->request(), nullptr);
  EXPECT_TRUE(result->data().isNull());
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("request faild", request->description())));
  // No error slot at all means no transport error.
  EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(request, nullptr)->responseCode()->code(), 0);
}

TEST(VKQKXPResponse, NonProtocolPassesAnyAnswerThrough) {
  for (const Object& answer :
       {Object(), Object(Bytes{}), Object(Bytes{0xDE, 0xAD}), Object(vkq::platform::URL::fileURLWithPath("/tmp/x"))}) {
    const auto result = decode(requestWith({.nonProtocol = true, .insertAtBeginBody = 0x2018, .version = 2}), answer);
    EXPECT_EQ(result->responseCode()->code(), 0);
    EXPECT_EQ(result->data(), answer);
  }
}

// The fuzzer's body aborts when the decoder breaks a promise.
TEST(VKQKXPResponse, SeededFuzzInputsKeepTheDecodersPromisesAndReachEveryCode) {
  std::mt19937 random(1121);  // fixed seed: a failure replays
  std::map<std::int64_t, int> codes;
  for (int i = 0; i < 100000; ++i) {
    const std::size_t size = std::uniform_int_distribution<std::size_t>(0, 48)(random);
    codes[kxp_fuzzing::decodeOneInput(kxp_testing::randomBytes(random, size))]++;
  }
  for (std::int64_t code : {0, -2, -3, -4}) EXPECT_GT(codes[code], 0) << code;
}

TEST(VKQKXPResponseSerializer, ErrorWithErrorCodeOnlyForFailures) {
  const auto serializer = VKQKXPResponseSerializer::serializer();
  EXPECT_EQ(serializer->errorWithErrorCode(VKQResponseCode(0)), nullptr);
  const ErrorPtr error = serializer->errorWithErrorCode(VKQResponseCode(-3));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain() + " " + std::to_string(error->code()) + " " + error->localizedDescription(),
            "com.vkqlabs.request -3 protocol error");
  EXPECT_EQ(serializer->errorWithErrorCode(VKQResponseCode(12))->userInfo().localizedDescription, std::nullopt);
}

}  // namespace
