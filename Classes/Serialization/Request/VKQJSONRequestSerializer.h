// Writes a request's argument as a JSON body ("Content-Type" "application/json" unless
// the request names one), or, for the methods that carry parameters in the URI ("GET",
// "HEAD", "DELETE" by default; the method is upper-cased first), leaves them to the
// base class's query-string encoding. Used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"
#include "Classes/Serialization/VKQJSONWriting.h"

class VKQJSONRequestSerializer : public VKQHTTPRequestSerializer {
 public:
  // writingOptions 0: compact JSON.
  static std::shared_ptr<VKQJSONRequestSerializer> serializer();
  // `writingOptions`: bits of VKQJSONWritingOptions.
  static std::shared_ptr<VKQJSONRequestSerializer> serializerWithWritingOptions(std::uint64_t writingOptions);
  // A compact-JSON serializer bound to `request`.
  static std::shared_ptr<VKQJSONRequestSerializer> serializerWithRequest(std::shared_ptr<VKQVeskRequest> request);
  // Restores an archived serializer (see encodeWithCoder); null when `archive` holds none.
  static std::shared_ptr<VKQJSONRequestSerializer> unarchive(const vkq::platform::Bytes& archive);

  // Bits of VKQJSONWritingOptions that shape the body.
  std::uint64_t writingOptions() const { return writingOptions_; }
  void setWritingOptions(std::uint64_t options) { writingOptions_ = options; }

  // Outside the URI methods: a copy of `request` with the default header fields it
  // lacks, and, when `parameters` is not absent (nor a JSON null), "Content-Type"
  // (unless set) and the JSON body. Fails (absent, error of
  // kURLRequestSerializationErrorDomain, code -1016, failure reason "The `parameters`
  // argument is not valid JSON.") when the parameters are not a JSON array or object;
  // a writer failure gives the writer's error.
  std::optional<vkq::platform::URLRequest> requestBySerializingRequest(const vkq::platform::URLRequest& request,
                                                                      const vkq::platform::Object& parameters,
                                                                      vkq::platform::ErrorPtr* error) const override;

  // Copying and archiving keep writingOptions (archived under "writingOptions", after
  // the base's settings); the bound request is neither copied nor archived.
  std::shared_ptr<vkq::platform::HTTPRequestSerializer> copy() const override;
  void encodeWithCoder(vkq::platform::KeyedArchiver& coder) const override;
  bool initWithCoder(const vkq::platform::KeyedUnarchiver& coder) override;

 protected:
  VKQJSONRequestSerializer() = default;
  VKQJSONRequestSerializer(const VKQJSONRequestSerializer&) = default;

 private:
  std::uint64_t writingOptions_ = 0;
};
