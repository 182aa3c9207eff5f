// The contract by which the agent asks a response serializer for a request's result.
#pragma once

#include <memory>

#include "Platform/Base/Error.h"

class VKQVeskRequest;
class VKQVeskResult;

class VKQResponseDeserializer {
 public:
  virtual ~VKQResponseDeserializer() = default;
  // Decodes the answer recorded in `request` (its response and responseData) into a
  // result, never null. `error` points at the transport's error slot (which may hold
  // nothing, and may itself be null); it is only read. Failures are result codes, never
  // exceptions. Thread-safe: one instance serves every request of its kind.
  // REQUIRES: request is not null (fatal assertion otherwise).
  virtual std::shared_ptr<VKQVeskResult> deserialize(const std::shared_ptr<VKQVeskRequest>& request,
                                                     const vkq::platform::ErrorPtr* error) const = 0;
};
