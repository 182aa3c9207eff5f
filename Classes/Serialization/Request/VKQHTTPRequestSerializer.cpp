#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"

using vkq::platform::URLRequest;

std::shared_ptr<VKQHTTPRequestSerializer> VKQHTTPRequestSerializer::serializerWithRequest(
    std::shared_ptr<VKQVeskRequest> request) {
  std::shared_ptr<VKQHTTPRequestSerializer> serializer(new VKQHTTPRequestSerializer());
  serializer->setRequest(std::move(request));
  return serializer;
}

std::shared_ptr<vkq::platform::HTTPRequestSerializer> VKQHTTPRequestSerializer::copy() const {
  return std::shared_ptr<VKQHTTPRequestSerializer>(new VKQHTTPRequestSerializer(*this));
}

URLRequest VKQHTTPRequestSerializer::requestWithDefaultHeaders(const URLRequest& request) const {
  URLRequest copy = request;
  for (const auto& [field, value] : HTTPRequestHeaders()) {
    if (!request.allHTTPHeaderFields.contains(field)) copy.setValueForHTTPHeaderField(value, field);
  }
  return copy;
}
