#include "Tests/Classes/Fuzz/KXPResponseFuzzing.h"

#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"
#include "Classes/VKQVeskResult.h"
#include "Tests/Classes/KXPTesting.h"
#include "Tests/Support/Fuzzing.h"

namespace kxp_fuzzing {

std::int64_t decodeOneInput(std::span<const std::uint8_t> input) {
  const auto at = [&](std::size_t index) -> std::uint8_t { return index < input.size() ? input[index] : 0; };
  const std::uint8_t flags = at(0);
  VKQKXPFrameSettings settings{.nonProtocol = (flags & 0x30) == 0x30, .compress = (flags & 0x01) != 0, .xorKey = at(1)};
  if (flags & 0x04) settings.version = at(2) != 0 ? at(2) : 1;
  const auto marker = static_cast<std::uint16_t>(at(3) << 8 | at(4));
  if (flags & 0x02) settings.insertAtBeginBody = marker != 0 ? marker : 1;
  vkq::platform::Bytes answer(input.size() > kPrefixSize ? input.begin() + kPrefixSize : input.end(), input.end());
  if (flags & 0x40) {  // framed as it is: neither compressed nor masked
    const VKQKXPFrameSettings framing{.insertAtBeginBody = settings.insertAtBeginBody, .version = settings.version};
    if (auto frame = VKQKXPFrame::packResponse(answer, framing)) answer = std::move(*frame);
  }
  const vkq::platform::Object answerObject(answer);
  auto request = kxp_testing::requestWith(settings);
  request->setResponseData(answerObject);
  const vkq::platform::ErrorPtr transportError =
      (flags & 0x08) ? vkq::platform::makeError(vkq::platform::kURLErrorDomain, -1001) : nullptr;
  static const auto serializer = VKQKXPResponseSerializer::serializer();
  const auto result = serializer->deserialize(request, &transportError);

  using vkq::testing::require;
  require(result != nullptr && result->responseCode() != nullptr, "a result with a code");
  const std::int64_t code = result->responseCode()->code();
  require(code == 0 || code == -2 || code == -3 || code == -4, "a known code");
  require(result->request() == (code == -2 ? nullptr : request), "the request it was made for, none for -2");
  require(request->responseData() == answerObject, "the raw answer left as received");
  require(code == 0 ? result->data().isData() : result->data().isNull(), "bytes on success, no data on failure");
  require(code != 0 || !settings.nonProtocol || result->data() == answerObject, "the raw answer when unframed");
  return code;
}

}  // namespace kxp_fuzzing
