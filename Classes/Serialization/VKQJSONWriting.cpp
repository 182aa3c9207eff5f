#include "Classes/Serialization/VKQJSONWriting.h"

#include <cmath>
#include <string>

using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;
using vkq::platform::JSON;

namespace {

bool holdsOnlyJSONValues(const JSON& value) {
  switch (value.type()) {
    case JSON::value_t::object:
    case JSON::value_t::array:
      for (const JSON& element : value) {
        if (!holdsOnlyJSONValues(element)) return false;
      }
      return true;
    case JSON::value_t::number_float:
      return std::isfinite(value.get<double>());
    case JSON::value_t::binary:
    case JSON::value_t::discarded:
      return false;
    default:
      return true;
  }
}

void newLine(int depth, std::string& out) {
  out += '\n';
  out.append(static_cast<std::size_t>(depth) * 2, ' ');
}

// Pretty form: containers laid out here, scalars (and their escaping) left to the
// library's own writer. Throws JSON::type_error for a string that is not UTF-8.
void writePretty(const JSON& value, int depth, std::string& out) {
  const bool isObject = value.is_object();
  if (!isObject && !value.is_array()) {
    out += value.dump();
    return;
  }
  if (value.empty()) {
    out += isObject ? "{}" : "[]";
    return;
  }
  out += isObject ? '{' : '[';
  bool first = true;
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (!first) out += ',';
    first = false;
    newLine(depth + 1, out);
    if (isObject) {
      out += JSON(item.key()).dump();
      out += " : ";
    }
    writePretty(item.value(), depth + 1, out);
  }
  newLine(depth, out);
  out += isObject ? '}' : ']';
}

// "/" can only occur inside strings in JSON text, so escaping every one is safe.
std::string escapingSlashes(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '/') out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

namespace VKQJSONWriting {

bool isValidJSONObject(const JSON& object) {
  return (object.is_object() || object.is_array()) && holdsOnlyJSONValues(object);
}

std::optional<Bytes> dataWithJSONObject(const JSON& object, std::uint64_t options, ErrorPtr* error) {
  std::string text;
  try {
    if (options & VKQJSONWritingPrettyPrinted) {
      writePretty(object, 0, text);
    } else {
      text = object.dump();
    }
  } catch (const JSON::type_error& failure) {
    vkq::platform::ErrorUserInfo info;
    info.localizedFailureReason = failure.what();
    vkq::platform::setError(error, vkq::platform::makeError(VKQJSONWritingErrorDomain,
                                                            VKQJSONWritingErrorInvalidString, std::move(info)));
    return std::nullopt;
  }
  if (!(options & VKQJSONWritingWithoutEscapingSlashes) && text.find('/') != std::string::npos) {
    text = escapingSlashes(text);
  }
  return Bytes(text.begin(), text.end());
}

}  // namespace VKQJSONWriting
