#include "Tests/Platform/Fuzz/PlatformFuzzing.h"

#include <cmath>

#include "Platform/HTTP/HTTPResponse.h"
#include "Platform/Serialization/HTTPResponseSerializer.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Transport/ResumeData.h"

namespace vkq::testing {

using namespace vkq::platform;

void decodeJSONAnswer(FuzzInput input) {
  const auto at = [&](std::size_t index) -> std::uint8_t { return index < input.size() ? input[index] : 0; };
  const char* const types[] = {"application/json", "text/html", "text/json; charset=utf-8"};
  const HTTPResponse head(std::nullopt, at(0) % 2 == 0 ? 200 : 204, {{"Content-Type", types[at(1) % 3]}});
  ErrorPtr error;
  const Object parsed = JSONResponseSerializer().responseObjectForResponse(
      &head, Object(Bytes(input.size() > 2 ? input.begin() + 2 : input.end(), input.end())), &error);
  require(parsed.isNull() || (parsed.isJSON() && !error), "JSON or nothing, nothing with an error");
  if (!parsed.isJSON()) return;
  require(nestingDepth(parsed.json()) <= JSONResponseSerializer::kMaximumJSONDepth, "JSON within the depth limit");
  require(JSON::parse(parsed.json().dump()) == parsed.json(), "JSON prints and parses back to itself");
}

void decodeResumeData(FuzzInput input) {
  const Bytes data(input.begin(), input.end());
  HTTPSessionManager::hasResumeDataForm(data);
  ErrorPtr error;
  const auto decoded = ResumeData::decode(data, &error);
  require(decoded.has_value() != (error != nullptr), "either resume data or a refusal");
  if (!decoded) return;
  const auto again = ResumeData::decode(decoded->encoded(), nullptr);
  require(again && again->url == decoded->url && again->partialFilePath == decoded->partialFilePath &&
              again->validator == decoded->validator && again->bytesReceived == decoded->bytesReceived &&
              (again->timeoutInterval == decoded->timeoutInterval || std::isnan(decoded->timeoutInterval)),
          "resume data keeps its fields through encoding");
}

void parseHeaderLines(FuzzInput input) {
  const auto received = HTTPResponse::withFieldLines(std::nullopt, 200, std::string(input.begin(), input.end()));
  // Read from the raw lines before the fields are parsed, then from the parsed fields.
  const auto length = received->expectedContentLength();
  const auto type = received->MIMEType();
  for (const auto& [name, value] : received->allHeaderFields()) {
    require(!name.empty() && name.find_first_of(":\r\n") == std::string::npos, "a field name without separators");
    require(value.find_first_of("\r\n") == std::string::npos, "a value without line breaks");
  }
  const HTTPResponse parsed(std::nullopt, 200, received->allHeaderFields());
  require(length >= -1 && parsed.expectedContentLength() == length, "the same length from lines and fields");
  require(parsed.MIMEType() == type, "the same media type from lines and fields");
}

}  // namespace vkq::testing
