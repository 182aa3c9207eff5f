#include "Platform/HTTP/HTTPHeaders.h"

#include <gtest/gtest.h>

#include "Platform/HTTP/HTTPResponse.h"

namespace vkq::platform {
namespace {

TEST(HTTPHeaders, NamesAreCaseInsensitiveAndKeepTheirFirstSpellingAndPlace) {
  HTTPHeaders headers{{"Content-Type", "text/plain"}, {"X-A", "1"}};
  headers.set("content-type", "application/json");
  headers.set("x-b", "2");
  EXPECT_EQ(headers.value("CONTENT-TYPE"), "application/json");
  const std::vector<HTTPHeaders::Field> expected{{"Content-Type", "application/json"}, {"X-A", "1"}, {"x-b", "2"}};
  EXPECT_EQ(std::vector<HTTPHeaders::Field>(headers.begin(), headers.end()), expected);
  headers.remove("X-a");
  EXPECT_EQ(headers.size(), 2u);
}

TEST(HTTPResponse, DescribesItselfAndReadsMIMETypeAndContentLengthLeniently) {
  HTTPResponse response{URL::URLWithString("http://h/x"), 404, {{"Server", "t"}}};
  EXPECT_EQ(response.description(),
            "<HTTPResponse> { URL: http://h/x } { Status Code: 404, Headers {\n    Server = t;\n} }");
  EXPECT_EQ(response.expectedContentLength(), -1);
  response.setAllHeaderFields({{"content-type", " Application/JSON ; charset=UTF-8"}, {"Content-Length", "42"}});
  EXPECT_EQ(response.MIMEType(), "application/json");
  EXPECT_EQ(response.expectedContentLength(), 42);
  for (const char* bad : {"", "-1", "12abc", "abc", "99999999999999999999"}) {
    response.setAllHeaderFields({{"Content-Length", bad}});
    EXPECT_EQ(response.expectedContentLength(), -1) << bad;
  }
}

// A received head keeps its lines: the cheap readers scan them, the fields parse them
// once, and both agree with what a head built from fields says.
TEST(HTTPResponse, ReadsReceivedHeaderLinesAsFields) {
  const std::string lines = "Content-Type: text/plain\r\nset-cookie: a=1\r\n Content-Length :  12 \r\nno colon here\r\n"
                            ": nameless\r\nSet-Cookie: b=2\r\nContent-Encoding: gzip\r\n\r\n";
  const auto response = HTTPResponse::withFieldLines(URL::URLWithString("http://h/x"), 200, lines);
  EXPECT_EQ(response->expectedContentLength(), 12);
  EXPECT_TRUE(response->isContentEncoded());
  const std::vector<HTTPHeaders::Field> expected{
      {"Content-Type", "text/plain"}, {"set-cookie", "a=1, b=2"}, {"Content-Length", "12"},
      {"Content-Encoding", "gzip"}};
  EXPECT_EQ(std::vector<HTTPHeaders::Field>(response->allHeaderFields().begin(), response->allHeaderFields().end()),
            expected);

  EXPECT_FALSE(HTTPResponse::withFieldLines(std::nullopt, 200, "Content-Encoding: identity\n")->isContentEncoded());
  EXPECT_EQ(HTTPHeaders::firstValueInFieldLines("A: 1\nB:\n", "b"), "");
}

}  // namespace
}  // namespace vkq::platform
