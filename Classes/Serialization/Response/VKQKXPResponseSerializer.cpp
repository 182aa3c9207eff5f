#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"

#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"
#include "Classes/Serialization/VKQKXPFrameLayout.h"
#include "Classes/VKQResponseCode.h"
#include "Classes/VKQVeskRequest.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/Assert.h"
#include "Platform/Base/Log.h"

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;

namespace {

constexpr std::int64_t kHTTPError = -2;
constexpr std::int64_t kProtocolError = -3;
constexpr std::int64_t kServerError = -4;

// The answer's bytes; none when it holds no byte string.
std::span<const std::uint8_t> answerBytes(const Object& responseData) {
  if (!responseData.isData()) return {};
  return *responseData.data();
}

// Unmasks, then decompresses: the reverse of the framing's order. Absent when
// decompression gives nothing.
std::optional<Bytes> unpack(std::span<const std::uint8_t> payload, const VKQKXPFrameSettings& settings) {
  if (settings.xorKey == 0) {
    if (settings.compress) return Deflate::decompress(payload);
    return Bytes(payload.begin(), payload.end());
  }
  // The answer itself stays as received: the mask works on a copy.
  Bytes unmasked(payload.begin(), payload.end());
  Encrypt::xorInPlace(unmasked, settings.xorKey);
  if (settings.compress) return Deflate::decompress(unmasked);
  return unmasked;
}

}  // namespace

std::shared_ptr<VKQKXPResponseSerializer> VKQKXPResponseSerializer::serializer() {
  return std::make_shared<VKQKXPResponseSerializer>();
}

std::shared_ptr<VKQVeskResult> VKQKXPResponseSerializer::deserialize(const std::shared_ptr<VKQVeskRequest>& request,
                                                                     const ErrorPtr* error) const {
  VKQParameterAssert(request != nullptr);
  if (error != nullptr && *error) {
    DDDebug("request faild", request->description());
    return VKQVeskResult::resultWithErrorCode(kHTTPError);
  }
  const VKQKXPFrameSettings settings = VKQKXPFrameSettings::fromRequest(*request);
  if (settings.nonProtocol) {
    return VKQVeskResult::initWith(VKQResponseCode::responseCode(0), request->responseData(), request);
  }

  const std::span<const std::uint8_t> answer = answerBytes(request->responseData());
  const auto reading = VKQKXPFrame::readResponseHeader(answer, settings);
  if (reading.header.version && *reading.header.version != settings.version) {
    DDDebug("current protocol version not matching, [request version =", settings.version, "remote version =]",
            *reading.header.version);
    return VKQVeskResult::resultWithErrorCode(kProtocolError, request);
  }
  if (!reading.complete) {
    DDDebug("kxp response too short for its header");
    return VKQVeskResult::resultWithErrorCode(kServerError, request);
  }

  const std::span<const std::uint8_t> rest = answer.subspan(reading.size);
  const std::uint32_t length = reading.header.payloadLength;
  if (length == 0 || length > rest.size()) return VKQVeskResult::resultWithErrorCode(kServerError, request);
  const std::span<const std::uint8_t> payload = rest.first(length);
  if (static_cast<std::uint32_t>(Encrypt::crc32(payload)) != reading.header.payloadCRC) {
    return VKQVeskResult::resultWithErrorCode(kServerError, request);
  }
  std::optional<Bytes> data = unpack(payload, settings);
  if (!data) return VKQVeskResult::resultWithErrorCode(kServerError, request);
  return VKQVeskResult::resultWithSuccessData(std::move(*data), request);
}

ErrorPtr VKQKXPResponseSerializer::errorWithErrorCode(const VKQResponseCode& code) const {
  if (code.code() == 0) return nullptr;
  vkq::platform::ErrorUserInfo info;
  info.localizedDescription = code.msg();
  return vkq::platform::makeError(VKQRequestErrorDomain, code.code(), std::move(info));
}
