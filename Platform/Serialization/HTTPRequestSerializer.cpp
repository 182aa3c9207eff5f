#include "Platform/Serialization/HTTPRequestSerializer.h"

#include <errno.h>
#include <openssl/evp.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <vector>

#include "Platform/Base/Assert.h"
#include "Platform/Serialization/MultipartFormBuilder.h"
#include "Platform/HTTP/PercentEncoding.h"

#ifndef VKQ_VERSION
#error "VKQ_VERSION must be defined by the build"
#endif

namespace vkq::platform {
namespace {

// Archive keys.
constexpr std::string_view kHeadersKey = "mutableHTTPRequestHeaders";
constexpr std::string_view kTimeoutKey = "timeoutInterval";
constexpr std::string_view kCellularKey = "allowsCellularAccess";
constexpr std::string_view kBodyLimitKey = "maximumBodyLength";
constexpr std::string_view kURIMethodsKey = "HTTPMethodsEncodingParametersInURI";

std::string upperCased(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

}  // namespace

// "de_DE.UTF-8@euro" -> "de-DE;q=1"; the C locale, an unset or a malformed one -> "en;q=1".
std::string HTTPRequestSerializer::acceptLanguageFromEnvironment() {
  std::string_view locale;
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') {
      locale = value;
      break;
    }
  }
  locale = locale.substr(0, locale.find_first_of(".@"));
  std::string tag;
  for (char c : locale) {
    const bool letterOrDigit = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    if (!letterOrDigit && c != '_' && c != '-') return "en;q=1";
    tag += c == '_' ? '-' : c;
  }
  if (tag.empty() || tag == "C" || tag == "POSIX") return "en;q=1";
  return tag + ";q=1";
}

namespace {

std::string programName() {
  char path[4096];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (length > 0) {
    const std::string_view exe(path, static_cast<std::size_t>(length));
    return std::string(exe.substr(exe.rfind('/') + 1));
  }
  return program_invocation_short_name;
}

// "<program>/<library version> (<system> <release>)", printable ASCII only.
std::string userAgent() {
  struct utsname system {};
  const bool known = ::uname(&system) == 0;
  const std::string text = programName() + "/" + VKQ_VERSION + " (" + (known ? system.sysname : "unknown") + " " +
                           (known ? system.release : "") + ")";
  std::string printable;
  for (char c : text) {
    if (c >= 0x20 && c < 0x7F) printable += c;
  }
  return printable;
}

std::string base64(std::string_view text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

ErrorPtr serializationError(std::string reason) {
  ErrorUserInfo info;
  info.localizedFailureReason = std::move(reason);
  return makeError(kURLRequestSerializationErrorDomain, kURLErrorCannotDecodeContentData, std::move(info));
}

// Decimal text of a JSON scalar: integers as they are, true as 1, floats in their
// shortest round-trip form ("0.1", "1", "1e+100").
std::string scalarText(const JSON& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  if (value.is_number_float()) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value.get<double>());
    return std::string(text, result.ptr);
  }
  return value.dump();
}

// A parameter flattened to one field: "key[sub][]" and its text, no value for null.
struct FieldPair {
  std::string field;
  std::optional<std::string> value;
};

void flatten(const std::string& key, const JSON& value, std::vector<FieldPair>& out) {
  if (value.is_object()) {
    for (const auto& [name, nested] : value.items()) flatten(key + "[" + name + "]", nested, out);
  } else if (value.is_array()) {
    for (const auto& nested : value) flatten(key + "[]", nested, out);
  } else if (value.is_null()) {
    out.push_back({key, std::nullopt});
  } else {
    out.push_back({key, scalarText(value)});
  }
}

// Top-level object keys stand alone; a top-level array's elements are "[]".
std::vector<FieldPair> fieldPairs(const JSON& parameters) {
  std::vector<FieldPair> pairs;
  if (parameters.is_object()) {
    for (const auto& [name, nested] : parameters.items()) flatten(name, nested, pairs);
  } else {
    flatten("", parameters, pairs);
  }
  return pairs;
}

bool isQueryValueByte(unsigned char byte) { return isUnreservedByte(byte) || byte == '/' || byte == '?'; }

// The parameters as query text: a JSON string or number as it is, an object or an
// array encoded. Absent for bytes and URLs, which have no query form.
std::optional<std::string> queryText(const Object& parameters) {
  if (!parameters.isJSON()) return std::nullopt;
  const JSON& json = parameters.json();
  if (json.is_object() || json.is_array()) return queryStringFromParameters(json);
  return scalarText(json);
}

// `url` with `query` added: after an existing query with "&", otherwise after "?";
// a fragment stays last.
std::optional<URL> appendingQuery(const URL& url, std::string_view query) {
  const std::string& text = url.absoluteString();
  const auto fragmentStart = std::min(text.find('#'), text.size());
  std::string head = text.substr(0, fragmentStart);
  if (!head.ends_with('?')) head += head.find('?') != std::string::npos ? '&' : '?';
  return URL::URLWithString(head + std::string(query) + text.substr(fragmentStart));
}

// The error for a header field that could break the message framing.
ErrorPtr unsafeHeaderError(std::string_view name) {
  const std::string shown = percentEncode(name, [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
  ErrorUserInfo info;
  info.localizedDescription = "The header field \"" + shown +
                              "\" cannot be sent: its name is empty or holds a colon, or it holds a CR, LF or NUL.";
  info.localizedFailureReason = info.localizedDescription;
  return makeError(kURLRequestSerializationErrorDomain, kURLErrorCannotDecodeContentData, std::move(info));
}

// Refuses a request whose header fields could break the message framing.
bool checkHeaderSafety(const URLRequest& request, ErrorPtr* error) {
  const std::optional<std::string> invalid = firstInvalidHeaderField(request.allHTTPHeaderFields);
  if (invalid) setError(error, unsafeHeaderError(*invalid));
  return !invalid;
}

}  // namespace

std::shared_ptr<HTTPRequestSerializer> HTTPRequestSerializer::serializer() {
  return std::make_shared<HTTPRequestSerializer>();
}

HTTPRequestSerializer::HTTPRequestSerializer() {
  static const HTTPHeaders kDefaultHeaders = [] {
    HTTPHeaders headers;
    headers.set("Accept-Language", acceptLanguageFromEnvironment());
    headers.set("User-Agent", userAgent());
    return headers;
  }();
  headers_ = kDefaultHeaders;
}

HTTPRequestSerializer::~HTTPRequestSerializer() = default;

bool HTTPRequestSerializer::setValue(std::optional<std::string_view> value, std::string_view field,
                                     ErrorPtr* error) {
  if (!isValidHeaderField(field, value.value_or(""))) {
    setError(error, unsafeHeaderError(field));
    return false;
  }
  if (value) {
    headers_.set(field, *value);
  } else {
    headers_.remove(field);
  }
  return true;
}

std::optional<std::string> HTTPRequestSerializer::valueForHTTPHeaderField(std::string_view field) const {
  return headers_.value(field);
}

void HTTPRequestSerializer::setAuthorizationHeaderFieldWithUsername(std::string_view username,
                                                                    std::string_view password) {
  headers_.set("Authorization", "Basic " + base64(std::string(username) + ":" + std::string(password)));
}

void HTTPRequestSerializer::clearAuthorizationHeader() { headers_.remove("Authorization"); }

std::optional<URLRequest> HTTPRequestSerializer::requestWithMethod(std::string_view method, std::string_view URLString,
                                                                   const Object& parameters, ErrorPtr* error) const {
  std::optional<URL> url = URL::URLWithString(URLString);
  if (!url) {
    ErrorUserInfo info;
    info.localizedDescription = "unsupported URL";
    info.failingURL = std::string(URLString);
    setError(error, makeError(kURLErrorDomain, kURLErrorBadURL, std::move(info)));
    return std::nullopt;
  }
  URLRequest request;
  request.HTTPMethod = std::string(method);
  request.url = std::move(url);
  request.timeoutInterval = timeoutInterval_;
  request.allowsCellularAccess = allowsCellularAccess_;
  request.retryPolicy = retryPolicy_;
  request.deadlineInterval = deadlineInterval_;
  request.maximumBodyLength = maximumBodyLength_;

  std::optional<URLRequest> serialized = requestBySerializingRequest(request, parameters, error);
  if (!serialized || !checkHeaderSafety(*serialized, error)) return std::nullopt;
  return serialized;
}

std::optional<URLRequest> HTTPRequestSerializer::multipartFormRequestWithMethod(std::string_view method,
                                                                                std::string_view URLString,
                                                                                const Object& parameters,
                                                                                const MultipartBodyBlock& block,
                                                                                ErrorPtr* error) const {
  const std::string upper = upperCased(method);
  VKQParameterAssert(upper != "GET" && upper != "HEAD");
  if (parameters && !(parameters.isJSON() && (parameters.json().is_object() || parameters.json().is_null()))) {
    setError(error, serializationError("Multipart form parameters must be a JSON object."));
    return std::nullopt;
  }
  std::optional<URLRequest> request = requestWithMethod(method, URLString, Object(), error);
  if (!request) return std::nullopt;

  MultipartFormBuilder form;
  if (parameters.isJSON()) {
    for (const auto& pair : fieldPairs(parameters.json())) {
      form.appendPartWithFormData(bytesFromString(pair.value.value_or("")), pair.field);
    }
  }
  if (block) block(form);
  request->HTTPBody = form.body();
  request->setValueForHTTPHeaderField(form.contentType(), "Content-Type");
  request->setValueForHTTPHeaderField(std::to_string(request->HTTPBody->size()), "Content-Length");
  return request;
}

std::optional<URLRequest> HTTPRequestSerializer::requestBySerializingRequest(const URLRequest& request,
                                                                             const Object& parameters,
                                                                             ErrorPtr* error) const {
  URLRequest result = requestWithDefaultHeaders(request);
  if (!parameters || (parameters.isJSON() && parameters.json().is_null())) return result;

  if (encodesParametersInURI(request.HTTPMethod)) {
    const std::optional<std::string> query = queryText(parameters);
    if (!query) {
      setError(error, serializationError("The parameters cannot be encoded in the URL."));
      return std::nullopt;
    }
    if (query->empty() || !result.url) return result;
    std::optional<URL> url = appendingQuery(*result.url, *query);
    if (!url) {
      setError(error, serializationError("The parameters do not make a valid URL query."));
      return std::nullopt;
    }
    result.url = std::move(url);
    return result;
  }

  if (parameters.isData()) {
    if (!result.allHTTPHeaderFields.contains("Content-Type")) {
      result.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
    }
    result.HTTPBody = *parameters.data();
    return result;
  }
  const std::optional<std::string> query = queryText(parameters);
  if (!query) {
    setError(error, serializationError("The parameters cannot be encoded in a form body."));
    return std::nullopt;
  }
  if (!result.allHTTPHeaderFields.contains("Content-Type")) {
    result.setValueForHTTPHeaderField("application/x-www-form-urlencoded", "Content-Type");
  }
  result.HTTPBody = bytesFromString(*query);
  return result;
}

std::shared_ptr<HTTPRequestSerializer> HTTPRequestSerializer::copy() const {
  return std::shared_ptr<HTTPRequestSerializer>(new HTTPRequestSerializer(*this));
}

void HTTPRequestSerializer::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeStringPairs(std::vector<HTTPHeaders::Field>(headers_.begin(), headers_.end()), kHeadersKey);
  coder.encodeDouble(timeoutInterval_, kTimeoutKey);
  coder.encodeBool(allowsCellularAccess_, kCellularKey);
  coder.encodeInteger(static_cast<std::int64_t>(maximumBodyLength_), kBodyLimitKey);
  coder.encodeStrings(std::vector<std::string>(methodsInURI_.begin(), methodsInURI_.end()), kURIMethodsKey);
}

bool HTTPRequestSerializer::initWithCoder(const KeyedUnarchiver& coder) {
  auto headers = coder.decodeStringPairs(kHeadersKey);
  const auto timeout = coder.decodeDouble(kTimeoutKey);
  const auto cellular = coder.decodeBool(kCellularKey);
  auto methods = coder.decodeStrings(kURIMethodsKey);
  if (!headers || !timeout || !cellular || !methods) return false;
  headers_ = HTTPHeaders();
  for (const auto& [name, value] : *headers) headers_.set(name, value);
  timeoutInterval_ = *timeout;
  allowsCellularAccess_ = *cellular;
  const auto bodyLimit = coder.decodeInteger(kBodyLimitKey);
  maximumBodyLength_ = bodyLimit && *bodyLimit >= 0 ? static_cast<std::size_t>(*bodyLimit) : kDefaultMaximumBodyLength;
  methodsInURI_ = std::set<std::string>(methods->begin(), methods->end());
  return true;
}

bool HTTPRequestSerializer::encodesParametersInURI(std::string_view method) const {
  return methodsInURI_.contains(upperCased(method));
}

URLRequest HTTPRequestSerializer::requestWithDefaultHeaders(const URLRequest& request) const {
  URLRequest copy = request;
  for (const auto& [name, value] : headers_) {
    if (!request.allHTTPHeaderFields.contains(name)) copy.setValueForHTTPHeaderField(value, name);
  }
  return copy;
}

std::string queryStringFromParameters(const JSON& parameters) {
  std::string query;
  for (const auto& pair : fieldPairs(parameters)) {
    if (!query.empty()) query += '&';
    query += percentEscapedQueryString(pair.field);
    if (pair.value) {
      query += '=';
      query += percentEscapedQueryString(*pair.value);
    }
  }
  return query;
}

std::string percentEscapedQueryString(std::string_view text) { return percentEncode(text, isQueryValueByte); }

}  // namespace vkq::platform
