#include "Platform/HTTP/HTTPHeaders.h"

#include <algorithm>

namespace vkq::platform {
namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

bool isHeaderSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A received field is kept only when its name is a token (RFC 9110) and its value holds
// no CR or NUL: a broken line must not become a field an application may pass on.
bool isCleanField(std::string_view name, std::string_view value) {
  const auto tokenChar = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  };
  return !name.empty() && std::all_of(name.begin(), name.end(), tokenChar) &&
         value.find_first_of(std::string_view("\r\0", 2)) == std::string_view::npos;
}

// Takes the next line off `lines` (without its line break).
std::string_view nextLine(std::string_view& lines) {
  const auto end = lines.find('\n');
  const std::string_view line = lines.substr(0, end);
  lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
  return line;
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

HTTPHeaders HTTPHeaders::fromFieldLines(std::string_view lines) {
  HTTPHeaders headers;
  headers.reserve(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')));
  while (!lines.empty()) {
    const std::string_view line = trimHeaderSpace(nextLine(lines));
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = trimHeaderSpace(line.substr(0, colon));
    const std::string_view value = trimHeaderSpace(line.substr(colon + 1));
    if (isCleanField(name, value)) headers.append(name, value);
  }
  return headers;
}

std::optional<std::string_view> HTTPHeaders::firstValueInFieldLines(std::string_view lines, std::string_view name) {
  // Reads as fromFieldLines() does, but looks only at lines that start with the name.
  while (!lines.empty()) {
    std::string_view line = nextLine(lines);
    while (!line.empty() && isHeaderSpace(line.front())) line.remove_prefix(1);
    // The name's last letter first: names of one family ("Content-") share the start.
    if (name.empty() || line.size() <= name.size() || lower(line[name.size() - 1]) != lower(name.back()) ||
        !sameName(line.substr(0, name.size()), name)) {
      continue;
    }
    line.remove_prefix(name.size());
    while (!line.empty() && isHeaderSpace(line.front())) line.remove_prefix(1);
    if (line.empty() || line.front() != ':') continue;
    const std::string_view value = trimHeaderSpace(line.substr(1));
    if (isCleanField(name, value)) return value;
  }
  return std::nullopt;
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

std::string_view trimHeaderSpace(std::string_view text) {
  while (!text.empty() && isHeaderSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isHeaderSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool isValidHeaderField(std::string_view name, std::string_view value) {
  const auto framing = [](char c) { return c == '\r' || c == '\n' || c == '\0'; };
  return !name.empty() && name.find(':') == std::string_view::npos && std::none_of(name.begin(), name.end(), framing) &&
         std::none_of(value.begin(), value.end(), framing);
}

std::optional<std::string> firstInvalidHeaderField(const HTTPHeaders& fields) {
  for (const auto& [name, value] : fields) {
    if (!isValidHeaderField(name, value)) return name;
  }
  return std::nullopt;
}

}  // namespace vkq::platform
