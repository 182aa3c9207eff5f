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

using kxp_testing::allOff;
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

std::shared_ptr<VKQVeskResult> decode(const VKQKXPFrameSettings& settings, Bytes answer) {
  return decode(requestWith(settings), Object(std::move(answer)));
}

std::int64_t codeOf(const VKQKXPFrameSettings& settings, Bytes answer) {
  return decode(settings, std::move(answer))->responseCode()->code();
}

const Bytes kABCFrame{0x00, 0x00, 0x00, 0x03, 0x35, 0x24, 0x41, 0xC2, 0x61, 0x62, 0x63};

VKQKXPFrameSettings markedAndVersioned() {
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x2018;
  settings.version = 2;
  return settings;
}

TEST(VKQKXPResponse, AllFieldsOffReadsLengthCRCAndPayload) {
  auto request = requestWith(allOff());
  const auto result = decode(request, Object(kABCFrame));
  EXPECT_EQ(result->responseCode()->code(), 0);
  EXPECT_EQ(result->data(), Object(Bytes{0x61, 0x62, 0x63}));
  EXPECT_EQ(result->request(), request);
}

TEST(VKQKXPResponse, CorruptPayloadOrLengthIsAServerError) {
  Bytes changed = kABCFrame;
  changed[9] ^= 0x01;
  EXPECT_EQ(codeOf(allOff(), changed), -4);

  Bytes longer = kABCFrame;
  longer[3] = 4;  // claims a byte more than there is
  EXPECT_EQ(codeOf(allOff(), longer), -4);

  // A zero length fails even when the CRC field matches the CRC of no bytes.
  EXPECT_EQ(codeOf(allOff(), Bytes(8, 0x00)), -4);
}

TEST(VKQKXPResponse, VersionMismatchIsAProtocolErrorAndLogsBothVersions) {
  VKQKXPFrameSettings settings;
  settings.version = 2;
  LogCapture log;
  auto request = requestWith(settings);
  const auto result = decode(request, Object(Bytes{0x03}));  // nothing after the version byte
  EXPECT_EQ(result->responseCode()->code(), -3);
  EXPECT_EQ(result->request(), request);
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("current protocol version not matching, [request version =", "2",
                                                     "remote version =]", "3")));

  Bytes matching{0x02};
  matching.insert(matching.end(), kABCFrame.begin(), kABCFrame.end());
  EXPECT_EQ(decode(settings, matching)->data(), Object(Bytes{0x61, 0x62, 0x63}));
}

TEST(VKQKXPResponse, BeginMarkerIsSkippedWhateverItHolds) {
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x2018;
  for (std::uint16_t marker : {0x0000, 0x2018, 0xFFFF, 0x8000}) {
    Bytes answer;
    kxp_testing::put16(answer, marker);
    answer.insert(answer.end(), kABCFrame.begin(), kABCFrame.end());
    EXPECT_EQ(codeOf(settings, answer), 0) << marker;
  }
}

TEST(VKQKXPResponse, RequestDefaultsReadMarkerLengthCRCAndDecompress) {
  const Bytes payload(5000, 'z');
  auto vesk = VKQVesk::initWithKXPUrl("http://h/k", nullptr);
  vesk->packageNamePromise()("com.example")->releaseVersionPromise()(12);  // request-only fields
  const Bytes compressed = Deflate::compress(payload).value();
  Bytes answer{0x20, 0x18};
  kxp_testing::put32(answer, static_cast<std::uint32_t>(compressed.size()));
  kxp_testing::put32(answer, kxp_testing::crcOf(compressed));
  answer.insert(answer.end(), compressed.begin(), compressed.end());
  const auto result = decode(vesk, Object(answer));
  EXPECT_EQ(result->responseCode()->code(), 0);
  EXPECT_EQ(result->data(), Object(payload));
}

TEST(VKQKXPResponse, NonProtocolPassesAnyAnswerThrough) {
  VKQKXPFrameSettings settings = markedAndVersioned();
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
  auto request = requestWith(allOff());
  ErrorPtr transportError = vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001);
  const ErrorPtr before = transportError;
  request->setResponseData(Object(kABCFrame));
  const auto result = VKQKXPResponseSerializer::serializer()->deserialize(request, &transportError);
  EXPECT_EQ(result->responseCode()->code(), -2);
  EXPECT_EQ(result->request(), nullptr);
  EXPECT_TRUE(result->data().isNull());
  EXPECT_EQ(transportError, before);  // only read
  EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("request faild", request->description())));
}

TEST(VKQKXPResponse, NullErrorSlotMeansNoTransportError) {
  auto request = requestWith(allOff());
  request->setResponseData(Object(kABCFrame));
  EXPECT_EQ(VKQKXPResponseSerializer::serializer()->deserialize(request, nullptr)->responseCode()->code(), 0);
}

TEST(VKQKXPResponse, EveryTruncationIsAServerErrorAndOnlyAShortHeaderLogs) {
  const VKQKXPFrameSettings settings = markedAndVersioned();
  const Bytes frame = referenceResponseFrame(settings, {0x61, 0x62, 0x63});
  const std::size_t header = VKQKXPFrame::responseHeaderSize(settings);
  ASSERT_EQ(header, 11u);
  for (std::size_t length = 0; length < frame.size(); ++length) {
    LogCapture log;
    EXPECT_EQ(codeOf(settings, Bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length))), -4)
        << length;
    if (length < header) {
      EXPECT_THAT(log.entries(), ElementsAre(ElementsAre("kxp response too short for its header"))) << length;
    } else {
      EXPECT_TRUE(log.entries().empty()) << length;
    }
  }
}

TEST(VKQKXPResponse, AnswersThatAreNotBytesAreTooShort) {
  auto request = requestWith(allOff());
  EXPECT_EQ(decode(request, Object())->responseCode()->code(), -4);
  EXPECT_EQ(decode(request, Object(vkq::platform::JSON{{"a", 1}}))->responseCode()->code(), -4);
}

TEST(VKQKXPResponse, BytesAfterThePayloadAreIgnored) {
  const VKQKXPFrameSettings settings = markedAndVersioned();
  Bytes frame = referenceResponseFrame(settings, {0x61, 0x62, 0x63});
  for (int extra = 1; extra <= 64; extra *= 2) {
    frame.insert(frame.end(), static_cast<std::size_t>(extra), 0xEE);
    EXPECT_EQ(decode(settings, frame)->data(), Object(Bytes{0x61, 0x62, 0x63})) << extra;
  }
}

// Flipping any bit: the marker is ignored, the version gives -3, anything else -4.
TEST(VKQKXPResponse, EverySingleBitFlipIsCaughtOutsideTheMarker) {
  VKQKXPFrameSettings settings = markedAndVersioned();
  settings.compress = true;
  settings.xorKey = 0x77;
  const Bytes frame = referenceResponseFrame(settings, kxp_testing::transformed(settings, Bytes(300, 'q')));
  for (std::size_t at = 0; at < frame.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes flipped = frame;
      flipped[at] ^= static_cast<std::uint8_t>(1 << bit);
      const std::int64_t expected = at < 2 ? 0 : at == 2 ? -3 : -4;
      ASSERT_EQ(codeOf(settings, flipped), expected) << "byte " << at << " bit " << bit;
    }
  }
}

TEST(VKQKXPResponse, PayloadThatDoesNotDecompressIsAServerError) {
  VKQKXPFrameSettings settings;
  settings.compress = true;
  EXPECT_EQ(codeOf(settings, referenceResponseFrame(settings, {0x61, 0x62, 0x63})), -4);
}

TEST(VKQKXPResponse, DecompressionBombIsAServerError) {
  VKQKXPFrameSettings settings;
  settings.compress = true;
  const Bytes bomb = Deflate::compress(Bytes(Deflate::kMaxDecompressedSize + 1, 0)).value();
  ASSERT_LT(bomb.size(), 1u << 20);
  EXPECT_EQ(codeOf(settings, referenceResponseFrame(settings, bomb)), -4);
}

TEST(VKQKXPResponse, UnmaskingLeavesTheRawAnswerAsReceived) {
  VKQKXPFrameSettings settings;
  settings.xorKey = 0x0F;
  const Bytes frame = referenceResponseFrame(settings, kxp_testing::transformed(settings, {1, 2, 3}));
  auto request = requestWith(settings);
  const auto result = decode(request, Object(frame));
  EXPECT_EQ(result->data(), Object(Bytes{1, 2, 3}));
  EXPECT_EQ(request->responseData(), Object(frame));
}

// What the client frames, a server answering with the same settings and payload makes
// readable again: the request frame minus its request-only fields is the answer.
TEST(VKQKXPResponse, RoundTripsWithTheRequestFramingForRandomSettingsAndPayloads) {
  std::mt19937 random(4242);  // fixed seed: a failure replays
  for (int i = 0; i < 400; ++i) {
    const VKQKXPFrameSettings settings = kxp_testing::randomSettings(random);
    const Bytes payload = kxp_testing::randomPayload(random);
    auto request = requestWith(settings);
    const auto requestFrame = VKQKXPRequestSerializer::serializerWithRequest(request)->createDataWithParameters(
        Object(Bytes(payload)));
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

TEST(VKQKXPResponse, HeaderReadingStopsAtTheFirstMissingField) {
  VKQKXPFrameSettings settings = markedAndVersioned();
  auto bytes = NRDByteArray::initWithData(Bytes{0x20, 0x18, 0x02, 0x00, 0x00}, VKQKXPFrame::kBigEndian);
  const auto reading = VKQKXPFrame::readResponseHeader(*bytes, settings);
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
