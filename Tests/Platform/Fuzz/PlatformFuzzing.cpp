#include "Tests/Platform/Fuzz/PlatformFuzzing.h"

#include <cmath>

#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Transport/ResumeData.h"

namespace vkq::testing {

using vkq::platform::Bytes;

void decodeResumeData(FuzzInput input) {
  const Bytes data(input.begin(), input.end());
  vkq::platform::HTTPSessionManager::hasResumeDataForm(data);
  vkq::platform::ErrorPtr error;
  const auto decoded = vkq::platform::ResumeData::decode(data, &error);
  require(decoded.has_value() != (error != nullptr), "either resume data or a refusal");
  if (!decoded) return;
  const auto again = vkq::platform::ResumeData::decode(decoded->encoded(), nullptr);
  require(again.has_value(), "resume data encoded again decodes");
  require(again->url == decoded->url && again->partialFilePath == decoded->partialFilePath &&
              again->validator == decoded->validator && again->bytesReceived == decoded->bytesReceived,
          "resume data keeps its fields through encoding");
  require(again->timeoutInterval == decoded->timeoutInterval ||
              (std::isnan(again->timeoutInterval) && std::isnan(decoded->timeoutInterval)),
          "resume data keeps its time-out");
}

void parseHeaderLines(FuzzInput input) {
  const std::string lines(input.begin(), input.end());
  const auto received = vkq::platform::HTTPResponse::withFieldLines(std::nullopt, 200, lines);
  // Read from the raw lines before the fields are parsed, then from the parsed fields.
  const auto length = received->expectedContentLength();
  const auto type = received->MIMEType();
  require(length >= -1, "a length of -1 or more");
  for (const auto& [name, value] : received->allHeaderFields()) {
    require(!name.empty() && name.find_first_of(":\r\n") == std::string::npos, "a field name without separators");
    require(value.find_first_of("\r\n") == std::string::npos, "a value without line breaks");
  }
  const vkq::platform::HTTPResponse parsed(std::nullopt, 200, received->allHeaderFields());
  require(parsed.expectedContentLength() == length, "the same length from lines and fields");
  require(parsed.MIMEType() == type, "the same media type from lines and fields");
}

}  // namespace vkq::testing
