// "Any object": the value a request's argument, a raw answer or a result's data holds.
//
// An Object holds nothing (absent), a JSON value, a byte string, or a file URL. Byte
// strings are shared, not copied: copies of an Object refer to the same bytes, as
// objects with identity do, so an in-place change is seen through every copy.
// Accessors are checked: asking for the wrong kind throws std::bad_variant_access.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "Platform/Base/Bytes.h"
#include "Platform/HTTP/URL.h"

namespace vkq::platform {

using JSON = nlohmann::json;

// How deeply arrays and objects nest in `value` (0 for a scalar, 1 for "[1]"); walked
// with a stack of its own, so a deep value does not exhaust the caller's.
std::size_t nestingDepth(const JSON& value);

class Object {
 public:
  Object() = default;
  Object(std::nullptr_t) {}
  Object(JSON json) : value_(std::move(json)) {}
  Object(Bytes bytes) : value_(std::make_shared<Bytes>(std::move(bytes))) {}
  Object(std::shared_ptr<Bytes> bytes) {
    if (bytes) value_ = std::move(bytes);
  }
  Object(URL fileURL) : value_(std::move(fileURL)) {}

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  bool isJSON() const { return std::holds_alternative<JSON>(value_); }
  bool isData() const { return std::holds_alternative<std::shared_ptr<Bytes>>(value_); }
  bool isURL() const { return std::holds_alternative<URL>(value_); }
  explicit operator bool() const { return !isNull(); }

  const JSON& json() const { return std::get<JSON>(value_); }
  JSON& json() { return std::get<JSON>(value_); }
  // The shared bytes; never null.
  const std::shared_ptr<Bytes>& data() const { return std::get<std::shared_ptr<Bytes>>(value_); }
  const URL& url() const { return std::get<URL>(value_); }

  // Compact JSON, "<hex bytes>", the URL's string, or "(null)".
  std::string description() const;

  // Same kind and equal content (bytes compared by value).
  friend bool operator==(const Object& a, const Object& b);

 private:
  std::variant<std::monostate, JSON, std::shared_ptr<Bytes>, URL> value_;
};

}  // namespace vkq::platform
