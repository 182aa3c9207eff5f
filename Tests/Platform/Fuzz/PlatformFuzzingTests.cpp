// Seeded runs of the platform fuzz bodies (libFuzzer explores them at length); seeds
// marked "found" are inputs fuzzing found that broke a promise.
#include <gtest/gtest.h>

#include "Platform/Serialization/HTTPResponseSerializer.h"
#include "Platform/Transport/ResumeData.h"
#include "Tests/Platform/Fuzz/PlatformFuzzing.h"

namespace vkq::testing {
namespace {

using namespace std::string_literals;

TEST(PlatformFuzzing, SeededJSONAnswersAreRefusedOrParsedWithinTheDepthLimit) {
  const std::string deep(vkq::platform::JSONResponseSerializer::kMaximumJSONDepth, '[');
  runSeeded(decodeJSONAnswer, 1301, 20000,
            {"\0\0{\"a\":[1,2.5e3,\"x\\u00e9\\\"\"],\"b\":{\"c\":null}}"s, "\1\1"s, "\0\1<p>"s,
             "\0\0"s + deep + std::string(deep.size(), ']'), "\0\0"s + deep + "[" + std::string(deep.size() + 1, ']')},
            "[]{}\",:0123456789.eE+-truefalsnul\\ ");
}

TEST(PlatformFuzzing, SeededResumeDataIsRefusedOrSurvivesEncodingAgain) {
  const auto encoded = [](const vkq::platform::ResumeData& resume) {
    const vkq::platform::Bytes bytes = resume.encoded();
    return std::string(bytes.begin(), bytes.end());
  };
  std::string notUTF8 = encoded({"http://h/f", {{"Accept", "*/*"}}, 30, 4096, "/tmp/partial", "\"etag\""});
  std::string keyWithNul = notUTF8;
  notUTF8[notUTF8.find("http")] = '\xEA';  // found: text the archiver cannot write back
  keyWithNul.replace(keyWithNul.find("\x56""Accept"), 7, "\x63\0A\0\0\0c"s);  // found: libplist aborts on it
  runSeeded(decodeResumeData, 1303, 20000,
            {notUTF8, keyWithNul, encoded({"https://example.com/a%20b", {{"X", "y"}}, 1e300, 1, "p", "Tue, 01 Jan 2030"}),
             "<?xml version=\"1.0\"?><plist><dict><key>VKQResumeDataVersion</key><integer>1</integer></dict></plist>"});
}

TEST(PlatformFuzzing, SeededHeaderLinesParseIntoCleanFieldsThatAgreeWithTheLines) {
  runSeeded(parseHeaderLines, 1304, 20000,
            {"Content-Type: Text/HTML; charset=utf-8\r\nContent-Length: 12\r\nX-A:  a  \r\n\r\n",
             "Content-Length: 5\r\nContent-Length: 5\r\nContent-Encoding: gzip\r\n",  // found: "5, 5" once merged
             "Content-\rLength: 5\r\nX: a\rb\r\nY: \0\r\n: no name\r\nFolded:\r\n  more\r\n"s},  // found: broken lines
            ":; \r\n\t,=-Content-TypLgh0123456789");
}

}  // namespace
}  // namespace vkq::testing
