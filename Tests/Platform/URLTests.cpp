#include "Platform/URL.h"

#include <gtest/gtest.h>

#include <string>

namespace vkq::platform {
namespace {

std::string resolved(std::string_view reference, std::string_view base) {
  const auto baseURL = URL::URLWithString(base);
  if (!baseURL) return "<invalid base>";
  const auto url = URL::URLWithString(reference, *baseURL);
  return url ? url->absoluteString() : "<absent>";
}

TEST(URL, KeepsTheGivenTextWhereCurlWouldNormalizeIt) {
  // libcurl would lower-case the scheme, add a "/" path and remove dot segments.
  for (const char* text : {"HTTPS://Example.com", "http://h/a/../b/./c?x=%2F&y", "http://h:8080", "myapp://x/y#frag"}) {
    const auto url = URL::URLWithString(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->absoluteString(), text);
  }
}

TEST(URL, RefusesTextThatIsNotAURL) {
  for (const char* text : {
           "",                      // empty
           "http://h/a b",          // raw space
           "a b",                   // raw space in a relative reference
           "http://h/%zz",          // broken escape
           "http://h/%4",           // truncated escape
           "http://h/<x>",          // characters outside RFC 3986
           "http://h/a#b#c",        // two fragments
           "1http://h",             // scheme must start with a letter
           "http://h:99999/",       // port out of range
           "http://h:port/",        // port not a number
           "http://",               // authority without a host
           "http://h/\xc3\xa9",     // raw non-ASCII
       }) {
    EXPECT_FALSE(URL::URLWithString(text)) << text;
  }
}

TEST(URL, PartsOfAnAbsoluteURL) {
  const auto url = URL::URLWithString("HTTPS://user:pw@Api.Example.com:8443/v1/a%20b/?q=1&r=%2F#top");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme(), "HTTPS");
  EXPECT_EQ(url->host(), "Api.Example.com");
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->path(), "/v1/a%20b/");
  EXPECT_EQ(url->query(), "q=1&r=%2F");
  EXPECT_EQ(url->lastPathComponent(), "a b");
  EXPECT_FALSE(url->isFileURL());
}

TEST(URL, MissingPartsAreEmpty) {
  const auto url = URL::URLWithString("http://h");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), "");  // libcurl reports "/"
  EXPECT_EQ(url->query(), "");
  EXPECT_EQ(url->port(), std::nullopt);
  EXPECT_EQ(url->lastPathComponent(), "");
  EXPECT_EQ(URL::URLWithString("http://h/")->lastPathComponent(), "");
  EXPECT_EQ(URL::URLWithString("http://[::1]:80/x")->host(), "::1");
}

TEST(URL, RelativeReferencesHaveNoSchemeOrHost) {
  // libcurl refuses these; they are valid references all the same.
  for (const char* text : {"a/b", "/a/b?c=d", "v1/users", "localhost"}) {
    const auto url = URL::URLWithString(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->absoluteString(), text);
    EXPECT_EQ(url->scheme(), "") << text;
    EXPECT_EQ(url->host(), "") << text;
  }
  const auto url = URL::URLWithString("/a/b.zip?c=d");
  EXPECT_EQ(url->path(), "/a/b.zip");
  EXPECT_EQ(url->query(), "c=d");
  EXPECT_EQ(url->lastPathComponent(), "b.zip");
}

TEST(URL, SchemeWithoutAuthorityHasNoHost) {
  // "host:port" without "//" reads as a scheme and a path: not usable as a request URL.
  const auto url = URL::URLWithString("localhost:8080/api");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme(), "localhost");
  EXPECT_EQ(url->host(), "");
  EXPECT_EQ(url->path(), "8080/api");
}

TEST(URL, ResolvesReferencesAgainstABase) {
  struct Case {
    const char* reference;
    const char* expected;
  };
  // RFC 3986, 5.4.1, with the base "http://a/b/c/d;p?q".
  const Case cases[] = {
      {"g", "http://a/b/c/g"},          {"./g", "http://a/b/c/g"},       {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},             {"//g", "http://g/"},            {"?y", "http://a/b/c/d;p?y"},
      {"g?y", "http://a/b/c/g?y"},      {"#s", "http://a/b/c/d;p?q#s"},  {"g#s", "http://a/b/c/g#s"},
      {"..", "http://a/b/"},            {"../g", "http://a/b/g"},        {"../..", "http://a/"},
      {"", "http://a/b/c/d;p?q"},       {"https://x/y", "https://x/y"},
  };
  for (const auto& c : cases) EXPECT_EQ(resolved(c.reference, "http://a/b/c/d;p?q"), c.expected) << c.reference;
  EXPECT_EQ(resolved("a b", "http://a/"), "<absent>");
}

TEST(URL, BuildsRequestURLsFromHostAndPath) {
  // What request URL building needs: a host with a path gains a trailing "/", a
  // relative path is appended after it, a path with "/" replaces the host's path.
  const auto host = URL::URLWithString("https://api.example.com/api");
  ASSERT_TRUE(host);
  const URL base = host->URLByAppendingPathComponent("");
  EXPECT_EQ(base.absoluteString(), "https://api.example.com/api/");
  EXPECT_EQ(URL::URLWithString("v1/users", base)->absoluteString(), "https://api.example.com/api/v1/users");
  EXPECT_EQ(URL::URLWithString("/v1/users", base)->absoluteString(), "https://api.example.com/v1/users");
  EXPECT_EQ(URL::URLWithString("v1/users?id=1", base)->absoluteString(), "https://api.example.com/api/v1/users?id=1");
  // A bare host gets a "/" path first.
  EXPECT_EQ(URL::URLWithString("http://h")->URLByAppendingPathComponent("").absoluteString(), "http://h/");
}

TEST(URL, AppendingPathComponents) {
  const auto url = URL::URLWithString("http://h/a?q=1#f");
  ASSERT_TRUE(url);
  const URL appended = url->URLByAppendingPathComponent("b c?");
  EXPECT_EQ(appended.absoluteString(), "http://h/a/b%20c%3F?q=1#f");
  EXPECT_EQ(appended.path(), "/a/b%20c%3F");
  EXPECT_EQ(appended.lastPathComponent(), "b c?");
  EXPECT_EQ(URL::URLWithString("http://h/a/")->URLByAppendingPathComponent("b").absoluteString(), "http://h/a/b");
  EXPECT_EQ(URL::URLWithString("dir")->URLByAppendingPathComponent("f").absoluteString(), "dir/f");
}

TEST(URL, FileURLsRoundTripTheirPath) {
  const URL file = URL::fileURLWithPath("/tmp/a dir/50%#?.zip");
  EXPECT_EQ(file.absoluteString(), "file:///tmp/a%20dir/50%25%23%3F.zip");
  EXPECT_TRUE(file.isFileURL());
  EXPECT_EQ(file.filePath(), "/tmp/a dir/50%#?.zip");
  EXPECT_EQ(file.lastPathComponent(), "50%#?.zip");
  EXPECT_EQ(URL::URLWithString(file.absoluteString())->filePath(), "/tmp/a dir/50%#?.zip");

  const URL folder = URL::fileURLWithPath("/tmp/x", true);
  EXPECT_EQ(folder.absoluteString(), "file:///tmp/x/");
  EXPECT_EQ(folder.lastPathComponent(), "x");
  EXPECT_EQ(URL::fileURLWithPath("/tmp/x/", true).absoluteString(), "file:///tmp/x/");

  const URL relative = URL::fileURLWithPath("rel/f");
  EXPECT_TRUE(relative.filePath().starts_with("/"));
  EXPECT_TRUE(relative.filePath().ends_with("/rel/f"));
  EXPECT_TRUE(URL::URLWithString("FILE:///x")->isFileURL());
}

}  // namespace
}  // namespace vkq::platform
