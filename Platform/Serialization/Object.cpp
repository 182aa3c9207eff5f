#include "Platform/Serialization/Object.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace vkq::platform {

std::size_t nestingDepth(const JSON& value) {
  std::size_t deepest = 0;
  std::vector<std::pair<const JSON*, std::size_t>> pending{{&value, 0}};
  while (!pending.empty()) {
    const auto [node, depth] = pending.back();
    pending.pop_back();
    if (!node->is_structured()) continue;
    deepest = std::max(deepest, depth + 1);
    for (const JSON& child : *node) pending.emplace_back(&child, depth + 1);
  }
  return deepest;
}

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
