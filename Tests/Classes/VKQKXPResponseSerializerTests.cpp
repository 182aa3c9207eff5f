// KXP response parsing: every result code, corrupted, truncated and extended answers,
// the debug log entries, and round trips with the request framing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Classes/Codec/NRDByteArray.h"
#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/KXPTesting.h"
#include "Tests/Classes/LogCapture.h"

namespace {

using kxp_testing::referenceResponseFrame;
using kxp_testing::requestWith;
using ::testing::ElementsAre;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;

std::shared_ptr<VKQVeskResult> decode(const std::shared_ptr<VKQVeskRequest>& request, Object answer,
                                      ErrorPtr transportError = nullptr) {
  request->setResponseData(std::move(answer));
  return VKQKXPResponseSerializer::serializer()->deserialize(request, &transportError);
}

std::int64_t codeOf(const VKQKXPFrameSettings& settings, Bytes answer) {
  return decode(requestWith(settings), Object(std::move(answer)))->responseCode()->code();
}

// "abc" with every field off.
const Bytes kABCFrame{0, 0, 0, 3, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63};
const VKQKXPFrameSettings kMarkedAndVersioned{.insertAtBeginBody = 0x2018, .version = 2};

TEST(VKQKXPResponse, ReadsLengthCRCAndPayload) {
  auto request = requestWith({});
  const auto result = decode(request, Object(kABCFrame));
  EXPECT_EQ(result->responseCode()->code(), 0);
  EXPECT_EQ(result->data(), Object(Bytes{0x61, 0x62, 0x63}));
  EXPECT_EQ(result->request(), request);
}

TEST(VKQKXPResponse, BadPayloadsAreServerErrors) {
  Bytes changed = kABCFrame;
  changed[9] ^= 0x01;
  Bytes longer = kABCFrame;
  longer[3] = 4;  // claims a byte more than there is
  const auto expectServerError = [](const char* what, const VKQKXPFrameSettings& settings, const Bytes& answer) {
    EXPECT_EQ(codeOf(settings, answer), -4) << what;
  };
  expectServerError("payload changed", {}, changed);
  expectServerError("length beyond the answer", {}, longer);
  expectServerError("zero length, though the CRC of no bytes is 0", {}, Bytes(8, 0));
  expectServerError("payload that does not decompress", {.compress = true}, referenceResponseFrame({}, {1, 2, 3}));
  expectServerError("decompression bomb", {.compress = true},
                    referenceResponseFrame({}, Deflate::compress(Bytes(Deflate::kMaxDecompressedSize + 1, 0)).value()));
  expectServerError("empty answer", {}, {});
  EXPECT_EQ(decode(requestWith({}), Object(vkq::platform::JSON{{"a", 1}}))->responseCode()->code(), -4);
}

TEST(VKQKXPResponse, VersionMismatchIsAProtocolErrorAndLogsBothVersions) {
  LogCapture log;
  auto request = requestWith({.version = 2});
  const auto result = decode(request, Object(Bytes{0x03}));  // nothing after the version byte
  EXPECT_EQ(result->responseCode()->code(), -3);
  EXPECT_EQ(result->request(), request);
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("current protocol version not matching, [request version =", "2",
                                                     "remote version =]", "3")));
  Bytes matching{0x02};
  matching.insert(matching.end(), kABCFrame.begin(), kABCFrame.end());
  EXPECT_EQ(codeOf({.version = 2}, matching), 0);
}

TEST(VKQKXPResponse, RequestDefaultsReadMarkerLengthCRCAndDecompressWithoutRequestOnlyFields) {
  const Bytes payload(5000, 'z');
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", nullptr);
  vesk->packageNamePromise()("com.example")->releaseVersionPromise()(12);
  const Bytes compressed = Deflate::compress(payload).value();
  Bytes answer{0x20, 0x18};
  kxp_testing::put32(answer, static_cast<std::uint32_t>(compressed.size()));
  kxp_testing::put32(answer, kxp_testing::crcOf(compressed));
  answer.insert(answer.end(), compressed.begin(), compressed.end());
  EXPECT_EQ(decode(vesk, Object(answer))->data(), Object(payload));
}

TEST(VKQKXPResponse, NonProtocolPassesAnyAnswerThrough) {
  VKQKXPFrameSettings settings = kMarkedAndVersioned;
  settings.nonProtocol = true;
  for (const Object& answer : {Object(), Object(Bytes{}), Object(Bytes{0xDE, 0xAD}),
                               Object(vkq::platform::URL::fileURLWithPath("/tmp/x"))}) {
    auto request = requestWith(settings);
    const auto result = decode(request, answer);
    EXPECT_EQ(result->responseCode()->code(), 0);
    EXPECT_EQ(result->data(), answer);
    EXPECT_EQ(result->request(), request);
  }
}

TEST(VKQKXPResponse, TransportErrorWinsOverAValidFrameAndCarriesNoRequest) {
  LogCapture log;
  auto request = requestWith({});
  request->setResponseData(Object(kABCFrame));
  ErrorPtr transportError = vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001);
  const ErrorPtr before = transportError;
  const auto result = VKQKXPResponseSerializer::serializer()->deserialize(request, &transportError);
  EXPECT_EQ(result->responseCode()->code(), -2);
  EXPECT_EQ(result->request(), nullptr);
  EXPECT_TRUE(result->data().isNull());
  EXPECT_EQ(transportError, before);  // only read
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("request faild", request->description())));
  // No error slot at all means no transport error.
  EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(request, nullptr)->responseCode()->code(), 0);
}

TEST(VKQKXPResponse, EveryTruncationIsAServerErrorAndOnlyAShortHeaderLogs) {
  const Bytes frame = referenceResponseFrame(kMarkedAndVersioned, {0x61, 0x62, 0x63});
  const std::size_t header = VKQKXPFrame::responseHeaderSize(kMarkedAndVersioned);
  ASSERT_EQ(header, 11u);
  for (std::size_t length = 0; length < frame.size(); ++length) {
    LogCapture log;
    EXPECT_EQ(codeOf(kMarkedAndVersioned, Bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length))),
              -4)
        << length;
    if (length < header) {
      EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("kxp response too short for its header"))) << length;
    } else {
      EXPECT_TRUE(log.entries().empty()) << length;
    }
  }
}

TEST(VKQKXPResponse, BytesAfterThePayloadAreIgnored) {
  Bytes frame = referenceResponseFrame(kMarkedAndVersioned, {0x61, 0x62, 0x63});
  for (int extra = 1; extra <= 64; extra *= 2) {
    frame.insert(frame.end(), static_cast<std::size_t>(extra), 0xEE);
    EXPECT_EQ(codeOf(kMarkedAndVersioned, frame), 0) << extra;
  }
}

// Flipping any bit: the begin marker is not checked, the version gives -3, anything
// else -4.
TEST(VKQKXPResponse, EverySingleBitFlipIsCaughtOutsideTheMarker) {
  VKQKXPFrameSettings settings = kMarkedAndVersioned;
  settings.compress = true;
  settings.xorKey = 0x77;
  const Bytes frame = referenceResponseFrame(settings, kxp_testing::transformed(settings, Bytes(300, 'q')));
  ASSERT_EQ(codeOf(settings, frame), 0);
  for (std::size_t at = 0; at < frame.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes flipped = frame;
      flipped[at] ^= static_cast<std::uint8_t>(1 << bit);
      const std::int64_t expected = at < 2 ? 0 : at == 2 ? -3 : -4;
      ASSERT_EQ(codeOf(settings, flipped), expected) << "byte " << at << " bit " << bit;
    }
  }
}

TEST(VKQKXPResponse, UnmaskingLeavesTheRawAnswerAsReceived) {
  const Bytes frame = referenceResponseFrame({.xorKey = 0x0F}, {0x0E, 0x0D, 0x0C});
  auto request = requestWith({.xorKey = 0x0F});
  EXPECT_EQ(decode(request, Object(frame))->data(), Object(Bytes{1, 2, 3}));
  EXPECT_EQ(request->responseData(), Object(frame));
}

// What the client frames, a server answering with the same settings makes readable
// again: the request frame without its request-only fields is the answer.
TEST(VKQKXPResponse, RoundTripsWithTheRequestFramingForRandomSettingsAndPayloads) {
  std::mt19937 random(4242);  // fixed seed: a failure replays
  for (int i = 0; i < 400; ++i) {
    const VKQKXPFrameSettings settings = kxp_testing::randomSettings(random);
    const Bytes payload = kxp_testing::randomPayload(random);
    auto request = requestWith(settings);
    const auto requestFrame =
        VKQKXPRequestSerializer::serializerWithRequest(request)->createDataWithParameters(Object(Bytes(payload)));
    ASSERT_TRUE(requestFrame) << i;

    auto parsed = NRDByteArray::initWithData(*requestFrame, VKQKXPFrame::kBigEndian);
    const auto reading = VKQKXPFrame::readRequestHeader(*parsed, settings);
    ASSERT_TRUE(reading.complete) << i;
    EXPECT_EQ(reading.header.packageCRC, VKQKXPFrame::packageCRC(settings));
    EXPECT_EQ(reading.header.releaseCRC, VKQKXPFrame::releaseCRC(settings));
    const Bytes wire(requestFrame->begin() + static_cast<std::ptrdiff_t>(parsed->position()), requestFrame->end());
    ASSERT_EQ(reading.header.payloadLength, wire.size()) << i;

    auto answer = NRDByteArray::initWithBigEndian(VKQKXPFrame::kBigEndian);
    VKQKXPFrame::appendResponseHeader(*answer, settings, wire);
    answer->appendData(wire, false);
    ASSERT_EQ(*answer->data(), referenceResponseFrame(settings, wire)) << i;

    const auto result = decode(request, Object(*answer->data()));
    ASSERT_EQ(result->responseCode()->code(), 0) << i;
    ASSERT_EQ(result->data(), Object(payload)) << i;
  }
}

TEST(VKQKXPFrameLayout, HeaderReadingStopsAtTheFirstMissingField) {
  auto bytes = NRDByteArray::initWithData(Bytes{0x20, 0x18, 0x02, 0x00, 0x00}, VKQKXPFrame::kBigEndian);
  const auto reading = VKQKXPFrame::readResponseHeader(*bytes, kMarkedAndVersioned);
  EXPECT_FALSE(reading.complete);
  EXPECT_EQ(reading.header.beginMarker, std::int16_t{0x2018});
  EXPECT_EQ(reading.header.version, 2);
  EXPECT_EQ(bytes->position(), 3u);
}

TEST(VKQKXPResponseSerializer, ErrorWithErrorCodeOnlyForFailures) {
  const auto serializer = VKQKXPResponseSerializer::serializer();
  EXPECT_EQ(serializer->errorWithErrorCode(VKQResponseCode(0)), nullptr);
  const ErrorPtr error = serializer->errorWithErrorCode(VKQResponseCode(-3));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "com.vkqlabs.request");
  EXPECT_EQ(error->code(), -3);
  EXPECT_EQ(error->localizedDescription(), "protocol error");
  EXPECT_EQ(serializer->errorWithErrorCode(VKQResponseCode(12))->userInfo().localizedDescription, std::nullopt);
}

}  // namespace
