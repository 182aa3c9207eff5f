#include "Classes/Serialization/Request/VKQKXPRequestSerializer.h"

#include "Classes/Codec/VKQKXPFrame.h"
#include "Classes/Serialization/VKQKXPRequestSettings.h"

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
  if (!parameters.isData()) return std::nullopt;
  const VKQKXPFrameSettings settings = request() ? VKQKXPFrameSettingsOf(*request()) : VKQKXPFrameSettings();
  // The caller's own bytes: without compression the mask works on them in place.
  return VKQKXPFrame::packRequest(*parameters.data(), settings);
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
