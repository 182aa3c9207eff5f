// Base of the library's request serializers: the platform request serializer bound to
// the one request it is made for. A serializer is made afresh per request and holds
// that request strongly.
#pragma once

#include <memory>

#include "Platform/Serialization/HTTPRequestSerializer.h"

class VKQVeskRequest;

class VKQHTTPRequestSerializer : public vkq::platform::HTTPRequestSerializer {
 public:
  // A plain VKQHTTPRequestSerializer bound to `request`.
  static std::shared_ptr<VKQHTTPRequestSerializer> serializerWithRequest(std::shared_ptr<VKQVeskRequest> request);

  // The request whose settings and body it serializes; null when bound to none.
  const std::shared_ptr<VKQVeskRequest>& request() const { return request_; }
  void setRequest(std::shared_ptr<VKQVeskRequest> request) { request_ = std::move(request); }

  // Copies the settings; the copy is bound to no request.
  std::shared_ptr<vkq::platform::HTTPRequestSerializer> copy() const override;

 protected:
  VKQHTTPRequestSerializer() = default;
  // Copies the settings only: the bound request is never copied.
  VKQHTTPRequestSerializer(const VKQHTTPRequestSerializer& other) : vkq::platform::HTTPRequestSerializer(other) {}

 private:
  std::shared_ptr<VKQVeskRequest> request_;
};
