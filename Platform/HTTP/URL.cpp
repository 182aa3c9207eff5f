#include "Platform/HTTP/URL.h"

#include <curl/curl.h>
#include <strings.h>
#include <unistd.h>

#include <memory>

#include "Platform/HTTP/PercentEncoding.h"

namespace vkq::platform {
namespace {

// The five components of a URI reference (RFC 3986, appendix B), as written.
struct Components {
  std::optional<std::string_view> scheme;
  std::optional<std::string_view> authority;
  std::string_view path;
  std::optional<std::string_view> query;
  std::optional<std::string_view> fragment;
};

Components splitReference(std::string_view text) {
  Components parts;
  if (auto end = text.find_first_of(":/?#"); end != std::string_view::npos && end > 0 && text[end] == ':') {
    parts.scheme = text.substr(0, end);
    text.remove_prefix(end + 1);
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    const auto end = std::min(text.find_first_of("/?#"), text.size());
    parts.authority = text.substr(0, end);
    text.remove_prefix(end);
  }
  const auto pathEnd = std::min(text.find_first_of("?#"), text.size());
  parts.path = text.substr(0, pathEnd);
  text.remove_prefix(pathEnd);
  if (text.starts_with('?')) {
    const auto end = std::min(text.find('#'), text.size());
    parts.query = text.substr(1, end - 1);
    text.remove_prefix(end);
  }
  if (text.starts_with('#')) parts.fragment = text.substr(1);
  return parts;
}

bool isAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

// scheme = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." )
bool isValidScheme(std::string_view scheme) {
  if (scheme.empty() || !isAlpha(scheme[0])) return false;
  for (char c : scheme) {
    if (!isAlpha(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

// Only the characters RFC 3986 allows anywhere in a URI, "%" only as the start of an
// escape, and one "#" at most. Raw spaces, quotes, "<>{}|\^`", controls and non-ASCII
// bytes make the text invalid.
bool hasValidCharacters(std::string_view text) {
  bool fragment = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) return false;
      i += 2;
    } else if (c == '#') {
      if (fragment) return false;
      fragment = true;
    } else if (!isPathByte(static_cast<unsigned char>(c)) && c != '?' && c != '[' && c != ']') {
      return false;
    }
  }
  return true;
}

struct CurlURLDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using CurlURL = std::unique_ptr<CURLU, CurlURLDeleter>;

// Any scheme is accepted; only the syntax of an authority is libcurl's to check.
constexpr unsigned int kCurlFlags = CURLU_NON_SUPPORT_SCHEME;

CurlURL parseWithCurl(const std::string& text) {
  CurlURL handle(curl_url());
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), kCurlFlags) != CURLUE_OK) return nullptr;
  return handle;
}

std::optional<std::string> curlPart(const CurlURL& handle, CURLUPart part) {
  char* value = nullptr;
  if (curl_url_get(handle.get(), part, &value, 0) != CURLUE_OK || value == nullptr) return std::nullopt;
  std::string result(value);
  curl_free(value);
  return result;
}

std::string currentDirectory() {
  std::unique_ptr<char, decltype(&std::free)> cwd(getcwd(nullptr, 0), &std::free);
  return cwd ? std::string(cwd.get()) : std::string("/");
}

}  // namespace

std::optional<URL> URL::URLWithString(std::string_view text) {
  // An application talks to a few endpoints, so the same text comes again and again
  // (the agent alone parses each request's URL more than once): each thread keeps the
  // last URL it parsed.
  thread_local std::optional<URL> last;
  if (last && last->text() == text) return last;
  if (text.empty() || !hasValidCharacters(text)) return std::nullopt;
  const Components components = splitReference(text);
  Parts parts;
  if (components.scheme) {
    if (!isValidScheme(*components.scheme)) return std::nullopt;
    parts.scheme = std::string(*components.scheme);
  }
  parts.path = std::string(components.path);
  parts.query = std::string(components.query.value_or(""));
  if (components.authority) {
    parts.hasAuthority = true;
    // A network-path reference ("//host/p") is checked as if it had a scheme.
    const std::string checked = components.scheme ? std::string(text) : "http:" + std::string(text);
    const CurlURL handle = parseWithCurl(checked);
    if (!handle) return std::nullopt;
    std::string host = curlPart(handle, CURLUPART_HOST).value_or("");
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    parts.host = std::move(host);
    if (auto port = curlPart(handle, CURLUPART_PORT)) parts.port = std::stoi(*port);
  }
  last = URL(std::string(text), std::move(parts));
  return last;
}

std::optional<URL> URL::URLWithString(std::string_view text, const URL& base) {
  if (text.empty() || text.starts_with('#')) {
    const std::string_view unfragmented = std::string_view(base.text()).substr(0, base.text().find('#'));
    return URLWithString(std::string(unfragmented) + std::string(text));
  }
  std::optional<URL> reference = URLWithString(text);
  if (!reference || !reference->parts().scheme.empty()) return reference;

  if (base.parts().hasAuthority && !base.parts().scheme.empty()) {
    CurlURL handle = parseWithCurl(base.text());
    if (!handle) return std::nullopt;
    const std::string relative(text);
    if (curl_url_set(handle.get(), CURLUPART_URL, relative.c_str(), kCurlFlags) != CURLUE_OK) return std::nullopt;
    const auto resolved = curlPart(handle, CURLUPART_URL);
    return resolved ? URLWithString(*resolved) : std::nullopt;
  }

  // A base without an authority ("a/b/", "mailto:x"): merge the paths (RFC 3986, 5.2.3).
  const Components baseParts = splitReference(base.text());
  std::string merged = baseParts.scheme ? std::string(*baseParts.scheme) + ":" : std::string();
  if (!text.starts_with('/') && !text.starts_with('?')) {
    const auto slash = baseParts.path.rfind('/');
    if (slash != std::string_view::npos) merged += baseParts.path.substr(0, slash + 1);
  } else if (text.starts_with('?')) {
    merged += baseParts.path;
  }
  merged += text;
  return URLWithString(merged);
}

URL URL::fileURLWithPath(std::string_view path, bool isDirectory) {
  std::string absolute = path.starts_with('/') ? std::string(path) : currentDirectory() + "/" + std::string(path);
  if (isDirectory && !absolute.ends_with('/')) absolute += '/';
  const std::string encoded = percentEncode(absolute, isPathByte);
  Parts parts;
  parts.scheme = "file";
  parts.hasAuthority = true;
  parts.path = encoded;
  return URL("file://" + encoded, std::move(parts));
}

std::string URL::lastPathComponent() const {
  std::string_view path = parts().path;
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  if (path == "/") return "";
  const auto slash = path.rfind('/');
  return percentDecode(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string URL::filePath() const { return percentDecode(parts().path); }

bool URL::isFileURL() const {
  return strcasecmp(parts().scheme.c_str(), "file") == 0;
}

URL URL::URLByAppendingPathComponent(std::string_view component) const {
  const Components components = splitReference(text());
  const std::size_t pathStart = static_cast<std::size_t>(components.path.data() - text().data());
  const std::size_t pathEnd = pathStart + components.path.size();

  Parts appended = parts();
  if (!appended.path.ends_with('/')) appended.path += '/';
  appended.path += percentEncode(component, isPathByte);
  std::string appendedText = text().substr(0, pathStart) + appended.path + text().substr(pathEnd);
  return URL(std::move(appendedText), std::move(appended));
}

}  // namespace vkq::platform
