// URLs: absolute ones ("https://host/a?b"), relative references ("a/b", "/a") and file
// URLs. Built on libcurl's URL API.
//
// A URL made from a string keeps that string as its absoluteString unchanged; parts
// are read from the parsed form. An absolute URL with an authority ("scheme://...")
// is checked by libcurl; other forms ("a/b", "/a", "mailto:x") only for their
// characters. Values; cheap to copy; thread-compatible.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vkq::platform {

class URL {
 public:
  // Parses an absolute URL or a relative reference. Absent when the text is not a
  // valid URL (empty, illegal characters, a malformed scheme, host or port).
  static std::optional<URL> URLWithString(std::string_view text);
  // Resolves `text` as a reference against `base` (RFC 3986, section 5): a reference
  // with a scheme stands alone, "/p" replaces the base's path, "p" replaces its last
  // segment, "" gives the base. Absent when `text` is not a valid URL.
  static std::optional<URL> URLWithString(std::string_view text, const URL& base);
  // "file://" URL of an absolute or relative (to the working folder) path. A folder's
  // URL ends with "/".
  static URL fileURLWithPath(std::string_view path, bool isDirectory = false);

  // Parts; empty when the URL has none. path() and query() keep their percent-encoding;
  // the scheme is as written; an IPv6 host comes without its brackets.
  const std::string& scheme() const { return parts_.scheme; }
  const std::string& host() const { return parts_.host; }
  std::optional<int> port() const { return parts_.port; }
  const std::string& path() const { return parts_.path; }
  const std::string& query() const { return parts_.query; }
  // The last segment of the path, percent-decoded ("" for "http://h" or "http://h/").
  std::string lastPathComponent() const;
  // For file URLs: the local file path, percent-decoded.
  std::string filePath() const;
  bool isFileURL() const;

  // Appends a segment to the path, adding a "/" between; "" gives a trailing "/".
  // Characters a path cannot hold (" ", "?", "#", "%", ...) are percent-encoded.
  URL URLByAppendingPathComponent(std::string_view component) const;

  const std::string& absoluteString() const { return text_; }
  std::string description() const { return text_; }

  friend bool operator==(const URL& a, const URL& b) { return a.text_ == b.text_; }

 private:
  struct Parts {
    std::string scheme;
    bool hasAuthority = false;  // "//" follows the scheme (or starts the reference)
    std::string host;
    std::optional<int> port;
    std::string path;
    std::string query;
  };

  URL(std::string text, Parts parts) : text_(std::move(text)), parts_(std::move(parts)) {}

  std::string text_;
  Parts parts_;
};

}  // namespace vkq::platform
