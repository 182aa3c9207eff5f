// Writes a KXP request frame: the request's payload bytes, compressed and XOR-masked
// as its settings say, behind a big-endian header (layout and pipeline: VKQKXPFrame.h).
//
// The settings are read from the bound request; an unbound serializer frames as if
// every setting were off (no marker, version, OS type, package or release field, no
// compression, no mask). Used by one thread at a time.
#pragma once

#include <memory>
#include <optional>

#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"
#include "Platform/Base/Bytes.h"

// Domain of framing errors (code -1016, failure reason "kxp request serializer error").
inline constexpr const char* VKQKXPRequestSerializerErrorDomain = "com.error.serialization.request";

class VKQKXPRequestSerializer : public VKQHTTPRequestSerializer {
 public:
  // A serializer that frames under the settings of `request`.
  static std::shared_ptr<VKQKXPRequestSerializer> serializerWithRequest(std::shared_ptr<VKQVeskRequest> request);

  // The frame for `parameters` (bytes) under the bound request's settings; with
  // nonProtocol the bytes themselves. Absent when `parameters` holds no bytes or none,
  // or when compression gives nothing. With a key set and compression off the caller's
  // bytes are masked in place (the mask then works on them, not on a copy).
  std::optional<vkq::platform::Bytes> createDataWithParameters(const vkq::platform::Object& parameters) const;

  // Applies the default header fields the request lacks and sets the frame as the body
  // ("Content-Type" "application/octet-stream" unless the request names one). Without
  // a frame, reports the framing error and still returns the header-filled copy. The
  // method is not looked at.
  std::optional<vkq::platform::URLRequest> requestBySerializingRequest(const vkq::platform::URLRequest& request,
                                                                      const vkq::platform::Object& parameters,
                                                                      vkq::platform::ErrorPtr* error) const override;

  // Copies the settings; the copy is a VKQKXPRequestSerializer bound to no request.
  std::shared_ptr<vkq::platform::HTTPRequestSerializer> copy() const override;

 protected:
  VKQKXPRequestSerializer() = default;
  VKQKXPRequestSerializer(const VKQKXPRequestSerializer&) = default;
};
