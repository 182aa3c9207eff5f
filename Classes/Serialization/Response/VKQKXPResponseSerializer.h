// Decodes the answer of a KXP request: checks its frame (layout: VKQKXPFrame.h)
// against the request's settings (version, CRC-32), unmasks and decompresses the
// payload. The raw answer is never changed.
//   0  success, the payload bytes as data (raw answer when the request is nonProtocol)
//  -2  the exchange failed (this result carries no request), or the payload
//      decompresses to more than the request's maximumResponseLength (the request's
//      error says so)
//  -3  the protocol version differs from the request's
//  -4  payload missing, short or corrupt, answer shorter than its header, or
//      decompression gave nothing
// -2, -3 and a header cut short each write one debug log entry. Stateless.
#pragma once

#include <memory>

#include "Classes/Serialization/Response/VKQHTTPResponseSerializer.h"
#include "Classes/Serialization/VKQResponseDeserializer.h"

class VKQResponseCode;

class VKQKXPResponseSerializer : public VKQHTTPResponseSerializer, public VKQResponseDeserializer {
 public:
  // A new serializer.
  static std::shared_ptr<VKQKXPResponseSerializer> serializer();

  std::shared_ptr<VKQVeskResult> deserialize(const std::shared_ptr<VKQVeskRequest>& request,
                                             const vkq::platform::ErrorPtr* error) const override;

  // An error of VKQRequestErrorDomain for a non-zero code (its msg as the localized
  // description); absent for code 0.
  vkq::platform::ErrorPtr errorWithErrorCode(const VKQResponseCode& code) const;
};
