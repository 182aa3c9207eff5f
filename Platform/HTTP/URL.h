// URLs: absolute ones ("https://host/a?b"), relative references ("a/b", "/a") and file
// URLs. Built on libcurl's URL API.
//
// A URL made from a string keeps that string as its absoluteString unchanged; parts
// are read from the parsed form. An absolute URL with an authority ("scheme://...")
// is checked by libcurl; other forms ("a/b", "/a", "mailto:x") only for their
// characters. Values; copies share the (immutable) text and parts, so copying is cheap;
// thread-safe.
#pragma once

#include <memory>
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

  // The parts, empty when the URL has none. The scheme is as written.
  const std::string& scheme() const { return parts().scheme; }
  // The host; an IPv6 host comes without its brackets.
  const std::string& host() const { return parts().host; }
  // The port, absent when the URL names none.
  std::optional<int> port() const { return parts().port; }
  // The path, still percent-encoded.
  const std::string& path() const { return parts().path; }
  // The query, without its "?" and still percent-encoded.
  const std::string& query() const { return parts().query; }
  // The last segment of the path, percent-decoded ("" for "http://h" or "http://h/").
  std::string lastPathComponent() const;
  // For file URLs: the local file path, percent-decoded.
  std::string filePath() const;
  // Whether the scheme is "file".
  bool isFileURL() const;

  // Appends a segment to the path, adding a "/" between; "" gives a trailing "/".
  // Characters a path cannot hold (" ", "?", "#", "%", ...) are percent-encoded.
  URL URLByAppendingPathComponent(std::string_view component) const;

  // The URL as text: the string it was made from.
  const std::string& absoluteString() const { return text(); }
  // The same text, for logs.
  std::string description() const { return text(); }

  // Equal texts.
  friend bool operator==(const URL& a, const URL& b) {
    return a.storage_ == b.storage_ || a.text() == b.text();
  }

 private:
  struct Parts {
    std::string scheme;
    bool hasAuthority = false;  // "//" follows the scheme (or starts the reference)
    std::string host;
    std::optional<int> port;
    std::string path;
    std::string query;
  };

  // The text and its parts, shared by the copies of a URL (it never changes).
  struct Storage {
    std::string text;
    Parts parts;
  };

  URL(std::string text, Parts parts)
      : storage_(std::make_shared<const Storage>(Storage{std::move(text), std::move(parts)})) {}

  const std::string& text() const { return storage_->text; }
  const Parts& parts() const { return storage_->parts; }

  std::shared_ptr<const Storage> storage_;  // never null
};

}  // namespace vkq::platform
