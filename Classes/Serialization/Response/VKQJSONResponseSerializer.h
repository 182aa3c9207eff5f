// Decodes the answer of a JSON request: code 0 with the parsed JSON (absent for an
// empty body), or -2 when the exchange failed or the answer was rejected (status,
// content type, malformed or too deeply nested JSON). Each failure writes one debug log
// entry; a rejected answer's reason then becomes the request's error.
#pragma once

#include <memory>

#include "Classes/Serialization/VKQResponseDeserializer.h"
#include "Platform/Serialization/HTTPResponseSerializer.h"

class VKQJSONResponseSerializer : public vkq::platform::JSONResponseSerializer, public VKQResponseDeserializer {
 public:
  // A serializer with the JSON defaults.
  static std::shared_ptr<VKQJSONResponseSerializer> serializer();

  std::shared_ptr<VKQVeskResult> deserialize(const std::shared_ptr<VKQVeskRequest>& request,
                                             const vkq::platform::ErrorPtr* error) const override;
};
