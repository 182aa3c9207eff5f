#include "Classes/Serialization/Request/VKQJSONRequestSerializer.h"

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::Object;
using vkq::platform::URLRequest;

namespace {

constexpr const char* kWritingOptionsKey = "writingOptions";

ErrorPtr invalidParametersError() {
  vkq::platform::ErrorUserInfo info;
  info.localizedFailureReason = "The `parameters` argument is not valid JSON.";
  return vkq::platform::makeError(vkq::platform::kURLRequestSerializationErrorDomain,
                                  vkq::platform::kURLErrorCannotDecodeContentData, std::move(info));
}

}  // namespace

std::shared_ptr<VKQJSONRequestSerializer> VKQJSONRequestSerializer::serializer() {
  return serializerWithWritingOptions(0);
}

std::shared_ptr<VKQJSONRequestSerializer> VKQJSONRequestSerializer::serializerWithWritingOptions(
    std::uint64_t writingOptions) {
  std::shared_ptr<VKQJSONRequestSerializer> serializer(new VKQJSONRequestSerializer());
  serializer->setWritingOptions(writingOptions);
  return serializer;
}

std::shared_ptr<VKQJSONRequestSerializer> VKQJSONRequestSerializer::serializerWithRequest(
    std::shared_ptr<VKQVeskRequest> request) {
  std::shared_ptr<VKQJSONRequestSerializer> serializer = VKQJSONRequestSerializer::serializer();
  serializer->setRequest(std::move(request));
  return serializer;
}

std::shared_ptr<VKQJSONRequestSerializer> VKQJSONRequestSerializer::unarchive(const Bytes& archive) {
  const auto coder = vkq::platform::KeyedUnarchiver::unarchiverWithData(archive);
  if (!coder) return nullptr;
  std::shared_ptr<VKQJSONRequestSerializer> serializer(new VKQJSONRequestSerializer());
  if (!serializer->initWithCoder(*coder)) return nullptr;
  return serializer;
}

std::optional<URLRequest> VKQJSONRequestSerializer::requestBySerializingRequest(const URLRequest& request,
                                                                                const Object& parameters,
                                                                                ErrorPtr* error) const {
  if (encodesParametersInURI(request.HTTPMethod)) {
    return VKQHTTPRequestSerializer::requestBySerializingRequest(request, parameters, error);
  }
  URLRequest mutableRequest = requestWithDefaultHeaders(request);
  // A JSON null stands for no parameters, as in the base class.
  if (parameters.isNull() || (parameters.isJSON() && parameters.json().is_null())) return mutableRequest;
  // Set before the parameters are checked: the caller's own type always wins.
  if (!mutableRequest.allHTTPHeaderFields.contains("Content-Type")) {
    mutableRequest.setValueForHTTPHeaderField("application/json", "Content-Type");
  }
  if (!parameters.isJSON() || !VKQJSONWriting::isValidJSONObject(parameters.json())) {
    vkq::platform::setError(error, invalidParametersError());
    return std::nullopt;
  }
  std::optional<Bytes> body = VKQJSONWriting::dataWithJSONObject(parameters.json(), writingOptions_, error);
  if (!body) return std::nullopt;
  mutableRequest.HTTPBody = std::move(*body);
  return mutableRequest;
}

std::shared_ptr<vkq::platform::HTTPRequestSerializer> VKQJSONRequestSerializer::copy() const {
  return std::shared_ptr<VKQJSONRequestSerializer>(new VKQJSONRequestSerializer(*this));
}

void VKQJSONRequestSerializer::encodeWithCoder(vkq::platform::KeyedArchiver& coder) const {
  VKQHTTPRequestSerializer::encodeWithCoder(coder);
  coder.encodeInteger(static_cast<std::int64_t>(writingOptions_), kWritingOptionsKey);
}

bool VKQJSONRequestSerializer::initWithCoder(const vkq::platform::KeyedUnarchiver& coder) {
  if (!VKQHTTPRequestSerializer::initWithCoder(coder)) return false;
  writingOptions_ = static_cast<std::uint64_t>(coder.decodeInteger(kWritingOptionsKey).value_or(0));
  return true;
}
