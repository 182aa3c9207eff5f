// Resume data of an interrupted download: what the transport needs to continue it.
// Internal to the transport; applications treat it as opaque bytes.
//
// Encoded as a binary property list (a keyed archive) with the keys below; version 1.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"

namespace vkq::platform {

struct ResumeData {
  std::string url;
  // The original request's header fields, sent again with the continuation.
  std::vector<std::pair<std::string, std::string>> headerFields;
  double timeoutInterval = 60.0;
  // Bytes of the entity in the partial file, from its start.
  std::int64_t bytesReceived = 0;
  std::string partialFilePath;
  // The entity's ETag or Last-Modified, sent as If-Range.
  std::string validator;

  Bytes encoded() const;
  // Absent, with a refusal in `error`, when `data` is not resume data of this version
  // or a field is missing or out of range.
  static std::optional<ResumeData> decode(const Bytes& data, ErrorPtr* error);
};

// The error for resume data the transport cannot continue from (kURLErrorDomain,
// kURLErrorCannotDecodeRawData), described as "resume data refused: <reason>".
ErrorPtr makeResumeDataRefusal(std::string_view reason);

}  // namespace vkq::platform
