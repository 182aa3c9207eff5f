#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "Platform/HTTPRequestSerializer.h"
#include "Platform/MultipartFormBuilder.h"

namespace vkq::platform {
namespace {

struct Part {
  std::string name, content, fileName, contentType;
  friend bool operator==(const Part&, const Part&) = default;
};

// Sends a body to an in-process server and returns the parts its multipart parser found.
std::vector<Part> partsParsedByServer(const std::string& contentType, const Bytes& body) {
  httplib::Server server;
  std::vector<Part> parts;
  server.Post("/upload", [&parts](const httplib::Request& request, httplib::Response& response) {
    for (const auto& [key, file] : request.files) parts.push_back({file.name, file.content, file.filename, file.content_type});
    response.status = 204;
  });
  const int port = server.bind_to_any_port("127.0.0.1");  // listening from here on
  std::thread thread([&server] { server.listen_after_bind(); });
  httplib::Client client("127.0.0.1", port);
  const auto result = client.Post("/upload", reinterpret_cast<const char*>(body.data()), body.size(), contentType);
  server.stop();
  thread.join();
  EXPECT_TRUE(result && result->status == 204);
  std::sort(parts.begin(), parts.end(), [](const Part& a, const Part& b) { return a.name < b.name; });
  return parts;
}

class TemporaryFile {
 public:
  TemporaryFile(const std::string& name, const std::string& content)
      : path_(std::filesystem::temp_directory_path() / ("vkq-" + std::to_string(::getpid()) + "-" + name)) {
    std::ofstream(path_, std::ios::binary) << content;
  }
  ~TemporaryFile() { std::filesystem::remove(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

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
}

TEST(MultipartForm, RequestBodyParsesBackIntoItsParts) {
  const TemporaryFile file("photo.JPG", std::string("\xff\xd8\0\r\n--binary", 12));
  const auto serializer = HTTPRequestSerializer::serializer();
  ErrorPtr error;
  const auto request = serializer->multipartFormRequestWithMethod(
      "POST", "https://h/upload", Object(JSON{{"user", {{"id", 7}}}, {"tags", {"a", "b"}}, {"note", nullptr}}),
      [&file](MultipartFormData& form) {
        form.appendPartWithFileData(Bytes{0, 1, 2, 255}, "blob", "blob.bin", "application/x-test");
        ErrorPtr fileError;
        EXPECT_TRUE(form.appendPartWithFileURL(URL::fileURLWithPath(file.path().string()), "photo", &fileError));
        form.appendPartWithFormData(bytesFromString("plain text"), "text");
      },
      &error);
  ASSERT_TRUE(request) << (error ? error->description() : "");
  const std::string contentType = request->valueForHTTPHeaderField("Content-Type").value_or("");
  ASSERT_TRUE(contentType.starts_with("multipart/form-data; boundary=")) << contentType;
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(request->HTTPBody->size()));
  EXPECT_TRUE(request->allHTTPHeaderFields.contains("User-Agent"));

  const std::vector<Part> expected{
      {"blob", std::string("\0\1\2\xff", 4), "blob.bin", "application/x-test"},
      {"note", "", "", ""},
      {"photo", std::string("\xff\xd8\0\r\n--binary", 12), file.path().filename().string(), "image/jpeg"},
      {"tags[]", "a", "", ""},
      {"tags[]", "b", "", ""},
      {"text", "plain text", "", ""},
      {"user[id]", "7", "", ""},
  };
  EXPECT_EQ(partsParsedByServer(contentType, *request->HTTPBody), expected);

  // Parameters come first, in key order.
  const std::string body = stringFromBytes(*request->HTTPBody);
  EXPECT_LT(body.find("name=\"note\""), body.find("name=\"tags[]\""));
  EXPECT_LT(body.find("name=\"user[id]\""), body.find("name=\"blob\""));
}

TEST(MultipartForm, BoundariesDifferBetweenRequests) {
  EXPECT_NE(MultipartFormBuilder().boundary(), MultipartFormBuilder().boundary());
}

TEST(MultipartForm, UnreadableFilesAreReported) {
  MultipartFormBuilder form("B");
  const auto missing = std::filesystem::temp_directory_path() / "vkq-surely-missing-file";
  const auto folder = std::filesystem::temp_directory_path();
  for (const URL& url : {URL::fileURLWithPath(missing.string()), URL::fileURLWithPath(folder.string(), true),
                         *URL::URLWithString("https://h/file.txt")}) {
    ErrorPtr error;
    EXPECT_FALSE(form.appendPartWithFileURL(url, "f", &error)) << url.absoluteString();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kURLRequestSerializationErrorDomain);
    EXPECT_EQ(error->code(), kURLErrorBadURL);
    EXPECT_EQ(error->userInfo().failingURL, url.absoluteString());
  }
  EXPECT_EQ(stringFromBytes(form.body()), "--B--\r\n");
}

TEST(MultipartForm, MIMETypesFollowTheExtension) {
  EXPECT_EQ(MIMETypeForFileName("a.png"), "image/png");
  EXPECT_EQ(MIMETypeForFileName("A.JPEG"), "image/jpeg");
  EXPECT_EQ(MIMETypeForFileName("archive.tar.gz"), "application/gzip");
  EXPECT_EQ(MIMETypeForFileName("data.json"), "application/json");
  EXPECT_EQ(MIMETypeForFileName("noextension"), "application/octet-stream");
  EXPECT_EQ(MIMETypeForFileName("x.unknown"), "application/octet-stream");
  EXPECT_EQ(MIMETypeForFileName("trailingdot."), "application/octet-stream");
}

}  // namespace
}  // namespace vkq::platform
