// Builds a multipart/form-data body (RFC 7578) in memory.
//
// Each part is framed as "--<boundary>\r\n", its header lines, an empty line, its
// bytes and "\r\n"; the body ends with "--<boundary>--\r\n". Names and file names are
// quoted; a '"', CR or LF in them is percent-encoded so it cannot break the framing.
// One builder makes one body; not thread-safe.
#pragma once

#include <string>
#include <string_view>

#include "Platform/Serialization/HTTPRequestSerializer.h"

namespace vkq::platform {

class MultipartFormBuilder final : public MultipartFormData {
 public:
  // A builder with a fresh random boundary.
  MultipartFormBuilder();
  // A builder with the given boundary; the caller makes sure no part contains it.
  explicit MultipartFormBuilder(std::string boundary);

  void appendPartWithFileData(const Bytes& data, std::string_view name, std::string_view fileName,
                              std::string_view mimeType) override;
  // Reads the whole file now. Errors (kURLRequestSerializationErrorDomain,
  // kURLErrorBadURL): not a file URL, no readable regular file at its path.
  bool appendPartWithFileURL(const URL& fileURL, std::string_view name, ErrorPtr* error) override;
  void appendPartWithFormData(const Bytes& data, std::string_view name) override;

  // The boundary between the parts.
  const std::string& boundary() const { return boundary_; }
  // "multipart/form-data; boundary=<boundary>"
  std::string contentType() const;
  // The parts appended so far and the closing delimiter.
  Bytes body() const;

 private:
  void appendPart(std::string_view headerLines, const Bytes& data);

  std::string boundary_;
  Bytes parts_;
};

// The MIME type of a file name by its extension (case-insensitive), from a table of
// common types; "application/octet-stream" for any other.
std::string MIMETypeForFileName(std::string_view fileName);

}  // namespace vkq::platform
