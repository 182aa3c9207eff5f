#include "Platform/Serialization/Object.h"

namespace vkq::platform {

std::string Object::description() const {
  if (isJSON()) return json().dump();
  if (isURL()) return url().absoluteString();
  if (isData()) {
    static constexpr char kHex[] = "0123456789abcdef";
    const Bytes& bytes = *data();
    std::string text = "<";
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (i > 0 && i % 4 == 0) text += ' ';
      text += kHex[bytes[i] >> 4];
      text += kHex[bytes[i] & 0xF];
    }
    return text + ">";
  }
  return "(null)";
}

bool operator==(const Object& a, const Object& b) {
  if (a.value_.index() != b.value_.index()) return false;
  if (a.isData()) return *a.data() == *b.data();
  return a.value_ == b.value_;
}

}  // namespace vkq::platform
