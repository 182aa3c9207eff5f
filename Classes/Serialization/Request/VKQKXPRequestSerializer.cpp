#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"

#include "Classes/Codec/Deflate.h"
#include "Classes/Codec/Encrypt.h"
#include "Classes/Serialization/VKQKXPFrameLayout.h"
#include "Classes/VKQVeskRequest.h"

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;
using vkq::platform::URLRequest;

std::shared_ptr<VKQKXPRequestSerializer> VKQKXPRequestSerializer::serializerWithRequest(
    std::shared_ptr<VKQVeskRequest> request) {
  std::shared_ptr<VKQKXPRequestSerializer> serializer(new VKQKXPRequestSerializer());
  serializer->setRequest(std::move(request));
  return serializer;
}

std::shared_ptr<vkq::platform::HTTPRequestSerializer> VKQKXPRequestSerializer::copy() const {
  return std::shared_ptr<VKQKXPRequestSerializer>(new VKQKXPRequestSerializer(*this));
}

std::optional<Bytes> VKQKXPRequestSerializer::createDataWithParameters(const Object& parameters) const {
  if (!parameters.isData() || parameters.data()->empty()) return std::nullopt;
  Bytes& argument = *parameters.data();
  const VKQKXPFrameSettings settings = request() ? VKQKXPFrameSettings::fromRequest(*request()) : VKQKXPFrameSettings();
  if (settings.nonProtocol) return argument;

  std::optional<Bytes> compressed;
  std::span<std::uint8_t> payload = argument;
  if (settings.compress) {
    compressed = Deflate::compress(argument);
    if (!compressed || compressed->empty()) return std::nullopt;
    payload = *compressed;
  }
  // Masks in place: the compressed copy, or the caller's own bytes.
  if (settings.xorKey != 0) Encrypt::xorInPlace(payload, settings.xorKey);

  Bytes frame;
  frame.reserve(VKQKXPFrame::requestHeaderSize(settings) + payload.size());
  VKQKXPFrame::appendRequestHeader(frame, settings, payload);
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

std::optional<URLRequest> VKQKXPRequestSerializer::requestBySerializingRequest(const URLRequest& request,
                                                                               const Object& parameters,
                                                                               ErrorPtr* error) const {
  URLRequest mutableRequest = requestWithDefaultHeaders(request);
  std::optional<Bytes> frame = createDataWithParameters(parameters);
  if (frame) {
    if (!mutableRequest.allHTTPHeaderFields.contains("Content-Type")) {
      mutableRequest.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
    }
    mutableRequest.HTTPBody = std::move(*frame);
  } else {
    vkq::platform::ErrorUserInfo info;
    info.localizedFailureReason = "kxp request serializer error";
    vkq::platform::setError(error, vkq::platform::makeError(VKQKXPRequestSerializerErrorDomain,
                                                            vkq::platform::kURLErrorCannotDecodeContentData,
                                                            std::move(info)));
  }
  return mutableRequest;
}
