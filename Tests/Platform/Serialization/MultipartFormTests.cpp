#include <gtest/gtest.h>

#include "Platform/Serialization/HTTPRequestSerializer.h"
#include "Platform/Serialization/MultipartFormBuilder.h"
#include "Tests/Support/Files.h"

namespace vkq::platform {
namespace {

using vkq::testing::ScratchFolder;

// Parameters come first, flattened in key order; a file part's type follows its
// extension in any letter case. Quotes and line breaks in names are escaped.
TEST(MultipartForm, RequestsCarryTheParametersThenThePartsWithTheirLength) {
  ScratchFolder folder;
  const std::string photo("\xff\xd8\0\r\n--binary", 12);
  vkq::testing::writeFile(folder / "photo.JPG", photo);
  ErrorPtr error;
  const auto request = HTTPRequestSerializer::serializer()->multipartFormRequestWithMethod(
      "POST", "http://h/upload", Object(JSON{{"user", {{"id", 7}}}, {"tags", {"a", "b"}}, {"note", nullptr}}),
      [&folder](MultipartFormData& form) {
        form.appendPartWithFileData(Bytes{0, 1, 2, 255}, "bl\"ob", "a\nb.bin", "application/x-test");
        EXPECT_TRUE(form.appendPartWithFileURL(URL::fileURLWithPath((folder / "photo.JPG").string()), "photo", nullptr));
      },
      &error);
  ASSERT_TRUE(request) << (error ? error->description() : "");
  const std::string type = request->valueForHTTPHeaderField("Content-Type").value_or("");
  const std::string boundary = "--" + type.substr(type.find("boundary=") + 9);
  const auto part = [&boundary](const std::string& head, const std::string& content) {
    return boundary + "\r\nContent-Disposition: form-data; " + head + "\r\n\r\n" + content + "\r\n";
  };
  EXPECT_EQ(stringFromBytes(*request->HTTPBody),
            part("name=\"note\"", "") + part("name=\"tags[]\"", "a") + part("name=\"tags[]\"", "b") +
                part("name=\"user[id]\"", "7") +
                part("name=\"bl%22ob\"; filename=\"a%0Ab.bin\"\r\nContent-Type: application/x-test",
                     std::string("\0\1\2\xff", 4)) +
                part("name=\"photo\"; filename=\"photo.JPG\"\r\nContent-Type: image/jpeg", photo) + boundary + "--\r\n");
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(request->HTTPBody->size()));
}

TEST(MultipartForm, UnreadableFilesAreReportedAndLeaveTheBodyAlone) {
  MultipartFormBuilder form("B");
  const auto folder = std::filesystem::temp_directory_path();
  for (const URL& url : {URL::fileURLWithPath((folder / "vkq-surely-missing-file").string()),
                         URL::fileURLWithPath(folder.string(), true), *URL::URLWithString("https://h/file.txt")}) {
    ErrorPtr error;
    EXPECT_FALSE(form.appendPartWithFileURL(url, "f", &error)) << url.absoluteString();
    ASSERT_TRUE(error);
    EXPECT_EQ(std::tuple(error->domain(), error->code(), error->userInfo().failingURL),
              std::tuple(kURLRequestSerializationErrorDomain, kURLErrorBadURL, url.absoluteString()));
  }
  EXPECT_EQ(stringFromBytes(form.body()), "--B--\r\n");
}

}  // namespace
}  // namespace vkq::platform
