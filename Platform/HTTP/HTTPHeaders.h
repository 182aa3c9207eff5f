// HTTP header fields: names compare case-insensitively, the first spelling set is
// kept, and fields keep the order in which they were first set.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vkq::platform {

class HTTPHeaders {
 public:
  // A name and its value.
  using Field = std::pair<std::string, std::string>;

  HTTPHeaders() = default;
  // The fields, set() one after the other.
  HTTPHeaders(std::initializer_list<Field> fields);

  // The fields of an answer's header lines ("Name: value", each ended by a line break);
  // a field sent more than once reads as one (see append()). Lines without a name, with
  // a name that is not a token, or with a CR or NUL in the value are skipped.
  static HTTPHeaders fromFieldLines(std::string_view lines);
  // The value of the first line of field `name` in such lines, trimmed; absent when
  // no line has it.
  static std::optional<std::string_view> firstValueInFieldLines(std::string_view lines, std::string_view name);

  // The field's value, absent when the field is not set.
  std::optional<std::string> value(std::string_view name) const;
  // The field's value without a copy, or null when absent; valid until the fields
  // change.
  const std::string* find(std::string_view name) const;
  // Whether the field is set.
  bool contains(std::string_view name) const { return find(name) != nullptr; }
  // Sets or replaces a field; an existing field keeps its place and spelling.
  void set(std::string_view name, std::string_view value);
  // Adds a field, or appends ", value" to the one of that name: how a field that an
  // answer sends more than once reads as one.
  void append(std::string_view name, std::string_view value);
  // Room for `count` fields without reallocating.
  void reserve(std::size_t count) { fields_.reserve(count); }
  // Removes the field; no effect when it is not set.
  void remove(std::string_view name);

  // Whether no field is set.
  bool empty() const { return fields_.empty(); }
  // The number of fields.
  std::size_t size() const { return fields_.size(); }
  // The first field; fields iterate in the order they were first set.
  std::vector<Field>::const_iterator begin() const { return fields_.begin(); }
  // Past the last field.
  std::vector<Field>::const_iterator end() const { return fields_.end(); }

  // The fields as a property-list style dictionary, sorted by name:
  // {\n    "Name" = "value";\n}
  std::string description() const;

  friend bool operator==(const HTTPHeaders&, const HTTPHeaders&) = default;

 private:
  std::vector<Field> fields_;
};

// `text` without the spaces, tabs and line breaks around it.
std::string_view trimHeaderSpace(std::string_view text);

// The one rule for header fields that may be sent: a name that is not empty and holds
// no ':', and neither name nor value holding CR, LF or NUL (which would break the
// message's framing).
bool isValidHeaderField(std::string_view name, std::string_view value);

// The name of the first field of `fields` that breaks that rule, or absent.
std::optional<std::string> firstInvalidHeaderField(const HTTPHeaders& fields);

}  // namespace vkq::platform
