#include "Tests/Classes/Fuzz/KXPResponseFuzzing.h"

#include <cstdio>
#include <cstdlib>

#include "Classes/Codec/Encrypt.h"
#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/Serialization/VKQKXPFrameLayout.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/KXPTesting.h"

namespace kxp_fuzzing {
namespace {

using vkq::platform::Bytes;

void require(bool promise, const char* what) {
  if (promise) return;
  std::fprintf(stderr, "KXP decoder broke a promise: %s\n", what);
  std::abort();
}

std::uint8_t prefixByte(std::span<const std::uint8_t> input, std::size_t at) {
  return at < input.size() ? input[at] : 0;
}

VKQKXPFrameSettings settingsOf(std::span<const std::uint8_t> input) {
  const std::uint8_t flags = prefixByte(input, 0);
  VKQKXPFrameSettings settings;
  settings.compress = flags & 0x01;
  settings.nonProtocol = (flags & 0x30) == 0x30;
  settings.xorKey = prefixByte(input, 1);
  if (flags & 0x04) settings.version = prefixByte(input, 2) != 0 ? prefixByte(input, 2) : 1;
  if (flags & 0x02) {
    const auto marker = static_cast<std::uint16_t>(prefixByte(input, 3) << 8 | prefixByte(input, 4));
    settings.insertAtBeginBody = marker != 0 ? marker : 1;
  }
  return settings;
}

void patchWord(Bytes& answer, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) answer[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

// Makes the length and CRC fields agree with the rest of the answer, as the flags ask.
void patchFields(Bytes& answer, const VKQKXPFrameSettings& settings, std::uint8_t flags) {
  const std::size_t header = VKQKXPFrame::responseHeaderSize(settings);
  if (answer.size() < header) return;
  const std::size_t lengthAt = header - 8;
  const std::size_t rest = answer.size() - header;
  if (flags & 0x40) patchWord(answer, lengthAt, static_cast<std::uint32_t>(rest));
  if (flags & 0x80) {
    const std::size_t claimed = std::size_t{answer[lengthAt]} << 24 | std::size_t{answer[lengthAt + 1]} << 16 |
                                std::size_t{answer[lengthAt + 2]} << 8 | answer[lengthAt + 3];
    if (claimed <= rest) {
      const std::span<const std::uint8_t> payload(answer.data() + header, claimed);
      patchWord(answer, lengthAt + 4, static_cast<std::uint32_t>(Encrypt::crc32(payload)));
    }
  }
}

}  // namespace

std::int64_t decodeOneInput(std::span<const std::uint8_t> input) {
  const std::uint8_t flags = prefixByte(input, 0);
  const VKQKXPFrameSettings settings = settingsOf(input);
  Bytes answer(input.size() > kPrefixSize ? input.begin() + kPrefixSize : input.end(), input.end());
  patchFields(answer, settings, flags);
  const vkq::platform::Object answerObject(answer);

  auto request = kxp_testing::requestWith(settings);
  request->setResponseData(answerObject);
  const vkq::platform::ErrorPtr transportError =
      (flags & 0x08) ? vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001) : nullptr;
  static const auto serializer = VKQKXPResponseSerializer::serializer();
  const auto result = serializer->deserialize(request, &transportError);

  require(result != nullptr && result->responseCode() != nullptr, "a result with a code");
  const std::int64_t code = result->responseCode()->code();
  require(code == 0 || code == -2 || code == -3 || code == -4, "a known code");
  require(result->request() == (code == -2 ? nullptr : request), "the request it was made for, none for -2");
  require(request->responseData() == answerObject, "the raw answer left as received");
  if (code == 0) {
    require(result->data().isData(), "bytes on success");
    if (settings.nonProtocol) require(result->data() == answerObject, "the raw answer when unframed");
  } else {
    require(result->data().isNull(), "no data on failure");
  }
  return code;
}

}  // namespace kxp_fuzzing
