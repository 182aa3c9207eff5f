#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"

std::shared_ptr<VKQHTTPRequestSerializer> VKQHTTPRequestSerializer::serializerWithRequest(
    std::shared_ptr<VKQVeskRequest> request) {
  std::shared_ptr<VKQHTTPRequestSerializer> serializer(new VKQHTTPRequestSerializer());
  serializer->setRequest(std::move(request));
  return serializer;
}

std::shared_ptr<vkq::platform::HTTPRequestSerializer> VKQHTTPRequestSerializer::copy() const {
  return std::shared_ptr<VKQHTTPRequestSerializer>(new VKQHTTPRequestSerializer(*this));
}
