#include "Platform/HTTP/URL.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace vkq::platform {
namespace {

TEST(URL, KeepsTheGivenTextAndSplitsItIntoPartsOrRefusesIt) {
  // Text; its scheme, host, port (0: none), path, query and last path component.
  const std::tuple<const char*, const char*, const char*, int, const char*, const char*, const char*> cases[] = {
      // libcurl would lower-case the scheme and remove dot segments; the text stays as given.
      {"HTTPS://user:pw@Api.Example.com:8443/v1/a%20b/?q=1&r=%2F#top", "HTTPS", "Api.Example.com", 8443,
       "/v1/a%20b/", "q=1&r=%2F", "a b"},
      {"http://h/a/../b/./c?x=%2F&y", "http", "h", 0, "/a/../b/./c", "x=%2F&y", "c"},
      {"http://h:8080", "http", "h", 8080, "", "", ""},  // libcurl reports the path "/"
      {"http://[::1]:80/x", "http", "::1", 80, "/x", "", "x"},
      // Relative references: libcurl refuses them, they are valid all the same.
      {"/a/b.zip?c=d", "", "", 0, "/a/b.zip", "c=d", "b.zip"},
      // "host:port" without "//" reads as a scheme and a path: not usable as a request URL.
      {"localhost:8080/api", "localhost", "", 0, "8080/api", "", "api"},
  };
  for (const auto& [text, scheme, host, port, path, query, last] : cases) {
    const auto url = URL::URLWithString(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(std::tuple(url->absoluteString(), url->scheme(), url->host(), url->port().value_or(0), url->path(),
                         url->query(), url->lastPathComponent()),
              std::tuple(text, scheme, host, port, path, query, last));
  }
  // A raw space, a broken escape, two fragments, a bad port, no host, raw non-ASCII.
  for (const char* text : {"", "a b", "http://h/%4", "http://h/a#b#c", "http://h:99999/", "http://", "http://h/\xc3"}) {
    EXPECT_FALSE(URL::URLWithString(text)) << text;
  }
}

TEST(URL, ResolvesReferencesAgainstABase) {
  constexpr const char* kRFC = "http://a/b/c/d;p?q";  // the base of the examples of RFC 3986, 5.4.1
  constexpr const char* kAPI = "https://api.example.com/api/";
  const std::tuple<const char*, const char*, const char*> cases[] = {  // reference, base, result
      {"//g", kRFC, "http://g/"},   {"?y", kRFC, "http://a/b/c/d;p?y"},
      {"../g", kRFC, "http://a/b/g"}, {"a b", kRFC, "(invalid)"},
      // Request URL building: a relative path goes below the base's path, one with "/" replaces it.
      {"v1/users?id=1", kAPI, "https://api.example.com/api/v1/users?id=1"},
      {"/v1/users", kAPI, "https://api.example.com/v1/users"},
  };
  for (const auto& [reference, base, expected] : cases) {
    const auto url = URL::URLWithString(reference, URL::URLWithString(base).value());
    EXPECT_EQ(url ? url->absoluteString() : "(invalid)", expected) << reference;
  }
}

TEST(URL, FileURLsRoundTripTheirPath) {
  const URL file = URL::fileURLWithPath("/tmp/a dir/50%#?.zip");
  EXPECT_EQ(file.absoluteString(), "file:///tmp/a%20dir/50%25%23%3F.zip");
  EXPECT_EQ(file.lastPathComponent(), "50%#?.zip");
  EXPECT_EQ(URL::URLWithString(file.absoluteString())->filePath(), "/tmp/a dir/50%#?.zip");
  EXPECT_EQ(URL::fileURLWithPath("/tmp/x", true).absoluteString(), "file:///tmp/x/");
  EXPECT_EQ(URL::fileURLWithPath("rel/f").filePath(), std::filesystem::current_path() / "rel/f");
}

}  // namespace
}  // namespace vkq::platform
