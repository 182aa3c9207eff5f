#include "Platform/HTTPHeaders.h"

#include <algorithm>

namespace vkq::platform {
namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

// A dictionary description quotes a string unless it is made of letters, digits
// and "_", "." or "/" only.
std::string quotedIfNeeded(std::string_view text) {
  const bool bare = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == '/';
  });
  if (bare) return std::string(text);
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

}  // namespace

HTTPHeaders::HTTPHeaders(std::initializer_list<Field> fields) {
  for (const auto& [name, value] : fields) set(name, value);
}

std::optional<std::string> HTTPHeaders::value(std::string_view name) const {
  if (const std::string* found = find(name)) return *found;
  return std::nullopt;
}

const std::string* HTTPHeaders::find(std::string_view name) const {
  for (const auto& field : fields_) {
    if (sameName(field.first, name)) return &field.second;
  }
  return nullptr;
}

void HTTPHeaders::set(std::string_view name, std::string_view value) {
  for (auto& field : fields_) {
    if (sameName(field.first, name)) {
      field.second = std::string(value);
      return;
    }
  }
  fields_.emplace_back(std::string(name), std::string(value));
}

void HTTPHeaders::append(std::string_view name, std::string_view value) {
  for (auto& field : fields_) {
    if (sameName(field.first, name)) {
      field.second.append(", ").append(value);
      return;
    }
  }
  fields_.emplace_back(std::string(name), std::string(value));
}

void HTTPHeaders::remove(std::string_view name) {
  std::erase_if(fields_, [name](const Field& field) { return sameName(field.first, name); });
}

std::string HTTPHeaders::description() const {
  std::vector<const Field*> sorted;
  sorted.reserve(fields_.size());
  for (const auto& field : fields_) sorted.push_back(&field);
  std::sort(sorted.begin(), sorted.end(), [](const Field* a, const Field* b) { return a->first < b->first; });
  std::string text = "{\n";
  for (const Field* field : sorted) {
    text += "    " + quotedIfNeeded(field->first) + " = " + quotedIfNeeded(field->second) + ";\n";
  }
  return text + "}";
}

bool isSafeHeaderText(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

}  // namespace vkq::platform
