// The contract by which the agent asks a response serializer for a request's result.
#pragma once

#include <memory>

#include "Platform/Error.h"

class VKQVeskRequest;
class VKQVeskResult;

class VKQResponseDeserializer {
 public:
  virtual ~VKQResponseDeserializer() = default;
  // Decodes the answer recorded in `request` (its response and responseData) into a
  // result, never null. `error` points at the transport's error slot (which may hold
  // nothing); it is only read. Never throws. Thread-safe: one instance serves every
  // request of its kind.
  virtual std::shared_ptr<VKQVeskResult> deserialize(const std::shared_ptr<VKQVeskRequest>& request,
                                                     const vkq::platform::ErrorPtr* error) const = 0;
};
