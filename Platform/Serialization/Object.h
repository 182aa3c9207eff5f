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

// JSON values: nlohmann::json.
using JSON = nlohmann::json;

// How deeply arrays and objects nest in `value` (0 for a scalar, 1 for "[1]"); walked
// with a stack of its own, so a deep value does not exhaust the caller's.
std::size_t nestingDepth(const JSON& value);

class Object {
 public:
  Object() = default;
  // Absent, as the default.
  Object(std::nullptr_t) {}
  // A JSON value (a JSON null too: that is not absent).
  Object(JSON json) : value_(std::move(json)) {}
  // A byte string, moved into shared storage.
  Object(Bytes bytes) : value_(std::make_shared<Bytes>(std::move(bytes))) {}
  // A byte string, shared; a null pointer gives absent.
  Object(std::shared_ptr<Bytes> bytes) {
    if (bytes) value_ = std::move(bytes);
  }
  // A file URL.
  Object(URL fileURL) : value_(std::move(fileURL)) {}

  // Absent.
  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  // A JSON value.
  bool isJSON() const { return std::holds_alternative<JSON>(value_); }
  // A byte string.
  bool isData() const { return std::holds_alternative<std::shared_ptr<Bytes>>(value_); }
  // A file URL.
  bool isURL() const { return std::holds_alternative<URL>(value_); }
  // Not absent.
  explicit operator bool() const { return !isNull(); }

  // The JSON value.
  const JSON& json() const { return std::get<JSON>(value_); }
  JSON& json() { return std::get<JSON>(value_); }
  // The shared bytes; never null.
  const std::shared_ptr<Bytes>& data() const { return std::get<std::shared_ptr<Bytes>>(value_); }
  // The file URL.
  const URL& url() const { return std::get<URL>(value_); }

  // Compact JSON, "<hex bytes>", the URL's string, or "(null)".
  std::string description() const;

  // Same kind and equal content (bytes compared by value).
  friend bool operator==(const Object& a, const Object& b);

 private:
  std::variant<std::monostate, JSON, std::shared_ptr<Bytes>, URL> value_;
};

}  // namespace vkq::platform
