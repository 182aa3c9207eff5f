// Writes a request's argument as a JSON body ("Content-Type" "application/json" unless
// the request names one), or, for the methods that carry parameters in the URI ("GET",
// "HEAD", "DELETE"), leaves them to the base class's query-string encoding.
#pragma once

#include <cstdint>
#include <memory>

#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"

// Option bits of the JSON writer.
enum VKQJSONWritingOptions : std::uint64_t {
  VKQJSONWritingPrettyPrinted = 1 << 0,
  VKQJSONWritingSortedKeys = 1 << 1,
  VKQJSONWritingWithoutEscapingSlashes = 1 << 3,
};

class VKQJSONRequestSerializer : public VKQHTTPRequestSerializer {
 public:
  // writingOptions 0: compact JSON.
  static std::shared_ptr<VKQJSONRequestSerializer> serializer();
  static std::shared_ptr<VKQJSONRequestSerializer> serializerWithWritingOptions(std::uint64_t writingOptions);
  static std::shared_ptr<VKQJSONRequestSerializer> serializerWithRequest(std::shared_ptr<VKQVeskRequest> request);
  // Restores an archived serializer; null when the archive holds none.
  static std::shared_ptr<VKQJSONRequestSerializer> unarchive(const vkq::platform::Bytes& archive);

  std::uint64_t writingOptions() const { return writingOptions_; }
  void setWritingOptions(std::uint64_t options) { writingOptions_ = options; }

  // Fails (absent, error of kURLRequestSerializationErrorDomain, code -1016, failure
  // reason "The `parameters` argument is not valid JSON.") when the parameters are not
  // a JSON array or object.
  std::optional<vkq::platform::URLRequest> requestBySerializingRequest(const vkq::platform::URLRequest& request,
                                                                      const vkq::platform::Object& parameters,
                                                                      vkq::platform::ErrorPtr* error) const override;

  // Copying and archiving keep writingOptions (archived under "writingOptions").
  std::shared_ptr<vkq::platform::HTTPRequestSerializer> copy() const override;
  void encodeWithCoder(vkq::platform::KeyedArchiver& coder) const override;
  bool initWithCoder(const vkq::platform::KeyedUnarchiver& coder) override;

 protected:
  VKQJSONRequestSerializer() = default;
  VKQJSONRequestSerializer(const VKQJSONRequestSerializer&) = default;

 private:
  std::uint64_t writingOptions_ = 0;
};
