// Response serializers: validate an answer and turn its body into an object.
//
// Stateless after configuration; safe to call from several threads at once.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/Serialization/Object.h"

namespace vkq::platform {

// Accepts statuses 200-299 and every content type, and hands the body over as it came.
class HTTPResponseSerializer {
 public:
  // A serializer with the defaults.
  static std::shared_ptr<HTTPResponseSerializer> serializer();

  // The defaults; prefer serializer(), which shares it.
  HTTPResponseSerializer();
  virtual ~HTTPResponseSerializer();

  // Statuses accepted; default 200-299; absent accepts every status.
  const std::optional<std::set<int>>& acceptableStatusCodes() const { return acceptableStatusCodes_; }
  void setAcceptableStatusCodes(std::optional<std::set<int>> codes) { acceptableStatusCodes_ = std::move(codes); }
  // MIME types accepted; absent (the default here) accepts every type.
  const std::optional<std::set<std::string>>& acceptableContentTypes() const { return acceptableContentTypes_; }
  void setAcceptableContentTypes(std::optional<std::set<std::string>> types) {
    acceptableContentTypes_ = std::move(types);
  }

  // Checks the status, then the content type when the body is non-empty (an empty
  // answer of any type passes). A failure is an error of kURLErrorDomain:
  // kURLErrorBadServerResponse for the status, kURLErrorCannotDecodeContentData for
  // the type, carrying the response and the body. An absent response passes.
  bool validateResponse(const HTTPResponse* response, const Object& data, ErrorPtr* error) const;

  // Validates and returns the raw body, also when validation fails.
  virtual Object responseObjectForResponse(const HTTPResponse* response, const Object& data, ErrorPtr* error) const;

 private:
  std::optional<std::set<int>> acceptableStatusCodes_;
  std::optional<std::set<std::string>> acceptableContentTypes_;
};

// Answers in JSON: acceptable types application/json, text/json, text/javascript.
// An empty body or a single space gives absent without an error; malformed JSON, and
// JSON nested deeper than kMaximumJSONDepth arrays and objects, is an error
// (kURLErrorCannotDecodeContentData, whose description says which); after a validation
// failure the body is not parsed and absent is returned. A parsed value is at most
// kMaximumJSONDepth deep, so code that walks it recursively stays within its stack.
class JSONResponseSerializer : public HTTPResponseSerializer {
 public:
  // Nesting of arrays and objects deeper than this is refused before parsing.
  static constexpr std::size_t kMaximumJSONDepth = 512;

  // A JSON serializer with the defaults.
  static std::shared_ptr<JSONResponseSerializer> serializer();

  // The defaults; prefer serializer(), which shares it.
  JSONResponseSerializer();
  // Validates, then parses the body as JSON.
  Object responseObjectForResponse(const HTTPResponse* response, const Object& data, ErrorPtr* error) const override;
};

}  // namespace vkq::platform
