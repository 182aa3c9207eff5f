#include <gtest/gtest.h>

#include "Platform/Serialization/HTTPRequestSerializer.h"
#include "Platform/Serialization/MultipartFormBuilder.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::platform {
namespace {

using vkq::testing::runToEnd;
using vkq::testing::ScratchFolder;
using vkq::testing::TestServer;

TEST(MultipartForm, FramesEveryPartBetweenBoundaries) {
  MultipartFormBuilder form("B");
  form.appendPartWithFormData(bytesFromString("v"), "field");
  form.appendPartWithFileData(bytesFromString("x\r\ny"), "up\"load", "a\nb.txt", "text/plain");
  EXPECT_EQ(form.contentType(), "multipart/form-data; boundary=B");
  EXPECT_EQ(stringFromBytes(form.body()),
            "--B\r\nContent-Disposition: form-data; name=\"field\"\r\n\r\nv\r\n"
            "--B\r\nContent-Disposition: form-data; name=\"up%22load\"; filename=\"a%0Ab.txt\"\r\n"
            "Content-Type: text/plain\r\n\r\nx\r\ny\r\n"
            "--B--\r\n");
  EXPECT_EQ(stringFromBytes(MultipartFormBuilder("B").body()), "--B--\r\n");
  EXPECT_NE(MultipartFormBuilder().boundary(), MultipartFormBuilder().boundary());
}

TEST(MultipartForm, RequestBodyIsParsedBackIntoItsPartsByTheServer) {
  ScratchFolder folder;
  const std::string photo("\xff\xd8\0\r\n--binary", 12);
  vkq::testing::writeFile(folder / "photo.JPG", photo);
  TestServer server;
  // Answers with the parts its multipart parser found, in name order, one line each. A
  // file part's type follows its extension in any letter case.
  server.handle("/upload", [](const httplib::Request& request, httplib::Response& response) {
    std::string parts;
    for (const auto& [name, part] : request.files) {
      parts += part.name + "|" + part.filename + "|" + part.content_type + "|" + part.content + "\n";
    }
    response.set_content(parts, "text/plain");
  });
  ErrorPtr error;
  const auto request = HTTPRequestSerializer::serializer()->multipartFormRequestWithMethod(
      "POST", server.url("/upload"), Object(JSON{{"user", {{"id", 7}}}, {"tags", {"a", "b"}}, {"note", nullptr}}),
      [&folder](MultipartFormData& form) {
        form.appendPartWithFileData(Bytes{0, 1, 2, 255}, "blob", "blob.bin", "application/x-test");
        const URL photoURL = URL::fileURLWithPath((folder / "photo.JPG").string());
        EXPECT_TRUE(form.appendPartWithFileURL(photoURL, "photo", nullptr));
        form.appendPartWithFormData(bytesFromString("plain text"), "text");
      },
      &error);
  ASSERT_TRUE(request) << (error ? error->description() : "");
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(request->HTTPBody->size()));
  // Parameters come first, in key order.
  const std::string body = stringFromBytes(*request->HTTPBody);
  EXPECT_LT(body.find("name=\"note\""), body.find("name=\"tags[]\""));
  EXPECT_LT(body.find("name=\"user[id]\""), body.find("name=\"blob\""));

  const auto outcome = runToEnd(*HTTPSessionManager::manager(), *request);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.body(), "blob|blob.bin|application/x-test|" + std::string("\0\1\2\xff", 4) + "\n" +
                                "note|||\n"
                                "photo|photo.JPG|image/jpeg|" + photo + "\n" +
                                "tags[]|||a\n"
                                "tags[]|||b\n"
                                "text|||plain text\n"
                                "user[id]|||7\n");
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
