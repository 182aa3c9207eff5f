#include "Classes/Serialization/Response/VKQKXPResponseSerializer.h"

#include "Classes/Codec/VKQKXPFrame.h"
#include "Classes/Serialization/VKQKXPRequestSettings.h"
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
  const VKQKXPFrameSettings settings = VKQKXPFrameSettingsOf(*request);
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

  ErrorPtr refused;
  std::optional<Bytes> data =
      VKQKXPFrame::unpack(answer.subspan(reading.size), reading.header.payloadLength, reading.header.payloadCRC,
                          settings, VKQKXPFrame::TrailingBytes::kIgnored, &refused);
  if (!data && refused->code() == VKQKXPFrameErrorTooLong) {
    // Not the server's fault: more than this request takes.
    request->setError(refused);
    return VKQVeskResult::resultWithErrorCode(kHTTPError, request);
  }
  if (!data) return VKQVeskResult::resultWithErrorCode(kServerError, request);
  return VKQVeskResult::resultWithSuccessData(std::move(*data), request);
}

ErrorPtr VKQKXPResponseSerializer::errorWithErrorCode(const VKQResponseCode& code) const {
  if (code.code() == 0) return nullptr;
  vkq::platform::ErrorUserInfo info;
  info.localizedDescription = code.msg();
  return vkq::platform::makeError(VKQRequestErrorDomain, code.code(), std::move(info));
}
