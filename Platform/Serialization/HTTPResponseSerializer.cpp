#include "Platform/Serialization/HTTPResponseSerializer.h"

namespace vkq::platform {
namespace {

// True when JSON text nests arrays and objects deeper than `limit`. A lexical scan, so
// that the depth is known before any parser goes that deep; exact for valid JSON, where
// brackets outside strings are exactly its structure.
bool nestsDeeperThan(const Bytes& text, std::size_t limit) {
  std::size_t depth = 0;
  bool inString = false, escaped = false;
  for (const std::uint8_t c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return true;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

const Bytes& bodyBytes(const Object& data) {
  static const Bytes kEmpty;
  return data.isData() ? *data.data() : kEmpty;
}

// An answer failure of kURLErrorDomain carrying the response and the body.
ErrorPtr answerError(std::int64_t code, std::string description, const HTTPResponse& response, const Object& data) {
  ErrorUserInfo info;
  info.localizedDescription = std::move(description);
  if (response.url) info.failingURL = response.url->absoluteString();
  info.response = std::make_shared<const HTTPResponse>(response);
  if (data.isData()) info.responseData = *data.data();
  return makeError(kURLErrorDomain, code, std::move(info));
}

std::set<int> successfulStatusCodes() {
  std::set<int> codes;
  for (int code = 200; code < 300; ++code) codes.insert(code);
  return codes;
}

}  // namespace

std::shared_ptr<HTTPResponseSerializer> HTTPResponseSerializer::serializer() {
  return std::make_shared<HTTPResponseSerializer>();
}

HTTPResponseSerializer::HTTPResponseSerializer() : acceptableStatusCodes_(successfulStatusCodes()) {}

HTTPResponseSerializer::~HTTPResponseSerializer() = default;

bool HTTPResponseSerializer::validateResponse(const HTTPResponse* response, const Object& data,
                                              ErrorPtr* error) const {
  if (response == nullptr) return true;
  const int status = response->statusCode;
  if (acceptableStatusCodes_ && !acceptableStatusCodes_->contains(status)) {
    setError(error, answerError(kURLErrorBadServerResponse,
                                "Request failed: " + HTTPResponse::localizedStringForStatusCode(status) + " (" +
                                    std::to_string(status) + ")",
                                *response, data));
    return false;
  }
  if (!acceptableContentTypes_) return true;
  // An empty body has nothing to decode, so its type (often a framework's default
  // text/html on a 204) does not matter.
  if (bodyBytes(data).empty()) return true;
  const std::optional<std::string> type = response->MIMEType();
  if (!(type && acceptableContentTypes_->contains(*type))) {
    setError(error, answerError(kURLErrorCannotDecodeContentData,
                                "Request failed: unacceptable content-type: " + type.value_or("(null)"), *response,
                                data));
    return false;
  }
  return true;
}

Object HTTPResponseSerializer::responseObjectForResponse(const HTTPResponse* response, const Object& data,
                                                         ErrorPtr* error) const {
  validateResponse(response, data, error);
  return data;
}

std::shared_ptr<JSONResponseSerializer> JSONResponseSerializer::serializer() {
  return std::make_shared<JSONResponseSerializer>();
}

JSONResponseSerializer::JSONResponseSerializer() {
  setAcceptableContentTypes(std::set<std::string>{"application/json", "text/json", "text/javascript"});
}

Object JSONResponseSerializer::responseObjectForResponse(const HTTPResponse* response, const Object& data,
                                                         ErrorPtr* error) const {
  if (!validateResponse(response, data, error)) return Object();
  const Bytes& body = bodyBytes(data);
  // Some servers answer "nothing" with a single space.
  if (body.empty() || (body.size() == 1 && body[0] == ' ')) return Object();
  // Deeper documents are refused before parsing: whatever walks the tree later
  // (printing, copying, comparing) recurses once per level.
  const bool tooDeep = nestsDeeperThan(body, kMaximumJSONDepth);
  JSON parsed = tooDeep ? JSON(JSON::value_t::discarded) : JSON::parse(body.begin(), body.end(), nullptr, false);
  if (parsed.is_discarded()) {
    ErrorUserInfo info;
    info.localizedDescription = tooDeep ? "The JSON answer nests arrays and objects deeper than " +
                                              std::to_string(kMaximumJSONDepth) + " levels."
                                        : "The data couldn't be read because it isn't in the correct format.";
    if (response != nullptr) {
      if (response->url) info.failingURL = response->url->absoluteString();
      info.response = std::make_shared<const HTTPResponse>(*response);
    }
    info.responseData = body;
    setError(error, makeError(kURLErrorDomain, kURLErrorCannotDecodeContentData, std::move(info)));
    return Object();
  }
  return Object(std::move(parsed));
}

}  // namespace vkq::platform
