#include "Platform/Serialization/MultipartFormBuilder.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <utility>

namespace vkq::platform {
namespace {

std::string randomBoundary() {
  std::random_device device;
  std::uniform_int_distribution<std::uint32_t> next;
  char text[32];
  std::snprintf(text, sizeof text, "Boundary+%08X%08X", next(device), next(device));
  return text;
}

// A quoted-string parameter value of Content-Disposition.
std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"': out += "%22"; break;
      case '\r': out += "%0D"; break;
      case '\n': out += "%0A"; break;
      default: out += c;
    }
  }
  return out + "\"";
}

ErrorPtr fileError(const URL& fileURL, std::string reason) {
  ErrorUserInfo info;
  info.localizedFailureReason = std::move(reason);
  info.failingURL = fileURL.absoluteString();
  return makeError(kURLRequestSerializationErrorDomain, kURLErrorBadURL, std::move(info));
}

}  // namespace

MultipartFormBuilder::MultipartFormBuilder() : MultipartFormBuilder(randomBoundary()) {}

MultipartFormBuilder::MultipartFormBuilder(std::string boundary) : boundary_(std::move(boundary)) {}

void MultipartFormBuilder::appendPart(std::string_view headerLines, const Bytes& data) {
  const std::string head = "--" + boundary_ + "\r\n" + std::string(headerLines) + "\r\n";
  parts_.insert(parts_.end(), head.begin(), head.end());
  parts_.insert(parts_.end(), data.begin(), data.end());
  parts_.push_back('\r');
  parts_.push_back('\n');
}

void MultipartFormBuilder::appendPartWithFileData(const Bytes& data, std::string_view name, std::string_view fileName,
                                                  std::string_view mimeType) {
  appendPart("Content-Disposition: form-data; name=" + quoted(name) + "; filename=" + quoted(fileName) +
                 "\r\nContent-Type: " + std::string(mimeType) + "\r\n",
             data);
}

bool MultipartFormBuilder::appendPartWithFileURL(const URL& fileURL, std::string_view name, ErrorPtr* error) {
  if (!fileURL.isFileURL()) {
    setError(error, fileError(fileURL, "Expected URL to be a file URL"));
    return false;
  }
  const std::string path = fileURL.filePath();
  struct stat info {};
  std::ifstream file;
  if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) file.open(path, std::ios::binary);
  if (!file.is_open()) {
    setError(error, fileError(fileURL, "File URL not reachable."));
    return false;
  }
  const Bytes data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) {
    setError(error, fileError(fileURL, "Failed to read from the file."));
    return false;
  }
  const std::string fileName = fileURL.lastPathComponent();
  appendPartWithFileData(data, name, fileName, MIMETypeForFileName(fileName));
  return true;
}

void MultipartFormBuilder::appendPartWithFormData(const Bytes& data, std::string_view name) {
  appendPart("Content-Disposition: form-data; name=" + quoted(name) + "\r\n", data);
}

std::string MultipartFormBuilder::contentType() const { return "multipart/form-data; boundary=" + boundary_; }

Bytes MultipartFormBuilder::body() const {
  Bytes body = parts_;
  const std::string close = "--" + boundary_ + "--\r\n";
  body.insert(body.end(), close.begin(), close.end());
  return body;
}

std::string MIMETypeForFileName(std::string_view fileName) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 24> kTypes{{
      {"bmp", "image/bmp"},        {"css", "text/css"},
      {"csv", "text/csv"},         {"gif", "image/gif"},
      {"gz", "application/gzip"},  {"heic", "image/heic"},
      {"htm", "text/html"},        {"html", "text/html"},
      {"jpeg", "image/jpeg"},      {"jpg", "image/jpeg"},
      {"js", "text/javascript"},   {"json", "application/json"},
      {"m4a", "audio/mp4"},        {"mov", "video/quicktime"},
      {"mp3", "audio/mpeg"},       {"mp4", "video/mp4"},
      {"pdf", "application/pdf"},  {"png", "image/png"},
      {"svg", "image/svg+xml"},    {"txt", "text/plain"},
      {"wav", "audio/wav"},        {"webp", "image/webp"},
      {"xml", "application/xml"},  {"zip", "application/zip"},
  }};
  const auto dot = fileName.rfind('.');
  if (dot == std::string_view::npos) return "application/octet-stream";
  std::string extension(fileName.substr(dot + 1));
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  for (const auto& [known, type] : kTypes) {
    if (known == extension) return std::string(type);
  }
  return "application/octet-stream";
}

}  // namespace vkq::platform
