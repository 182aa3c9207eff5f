// The request serializer base: turns a method, a URL string and parameters into a
// URL request. Subclasses replace requestBySerializingRequest() to write other bodies.
//
// Defaults of a new serializer: header fields "Accept-Language" (from the process
// locale, "lang;q=1"; "en;q=1" when none) and "User-Agent" (program name and version,
// operating system), both worked out once per process, on first use, so that making a
// serializer per request stays cheap; time-out 60 s; cellular access allowed; answer bodies
// up to kDefaultMaximumBodyLength; the methods "GET",
// "HEAD" and "DELETE" carry their parameters in the URI; strings are UTF-8.
//
// A serializer is configured on one thread and then used by one thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Base/Error.h"
#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/Serialization/KeyedArchive.h"
#include "Platform/Serialization/Object.h"
#include "Platform/HTTP/URLRequest.h"

namespace vkq::platform {

// The parts of a multipart/form-data body, appended by a body callback.
class MultipartFormData {
 public:
  virtual ~MultipartFormData() = default;
  // A file part from bytes.
  virtual void appendPartWithFileData(const Bytes& data, std::string_view name, std::string_view fileName,
                                      std::string_view mimeType) = 0;
  // A file part from a file's contents; its file name is the URL's last path component
  // and its MIME type follows the extension. False, with an error, when unreadable.
  virtual bool appendPartWithFileURL(const URL& fileURL, std::string_view name, ErrorPtr* error) = 0;
  // A plain form field.
  virtual void appendPartWithFormData(const Bytes& data, std::string_view name) = 0;
};
// Appends the parts of a multipart/form-data body.
using MultipartBodyBlock = std::function<void(MultipartFormData& formData)>;

class HTTPRequestSerializer {
 public:
  // A serializer with the defaults.
  static std::shared_ptr<HTTPRequestSerializer> serializer();

  // The defaults; prefer serializer(), which shares it.
  HTTPRequestSerializer();
  virtual ~HTTPRequestSerializer();

  // The "Accept-Language" value of the locale the environment names now (LC_ALL, then
  // LC_MESSAGES, then LANG).
  static std::string acceptLanguageFromEnvironment();

  // Default header fields applied to every request built, unless the request has them.
  const HTTPHeaders& HTTPRequestHeaders() const { return headers_; }
  // Sets a default field; an absent value removes it. A name that is empty or holds a
  // colon, or a name or value holding CR, LF or NUL, is refused: nothing is stored,
  // the result is false and `error` (kURLRequestSerializationErrorDomain) names the field.
  bool setValue(std::optional<std::string_view> value, std::string_view field, ErrorPtr* error = nullptr);
  // The default field `field`, absent when not set.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  // "Authorization" = "Basic " + base64("username:password").
  void setAuthorizationHeaderFieldWithUsername(std::string_view username, std::string_view password);
  // Removes the default "Authorization" field.
  void clearAuthorizationHeader();

  // The idle time-out of the requests built, in seconds.
  double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }
  // URLRequest::allowsCellularAccess of the requests built.
  bool allowsCellularAccess() const { return allowsCellularAccess_; }
  void setAllowsCellularAccess(bool allowed) { allowsCellularAccess_ = allowed; }
  // URLRequest::retryPolicy of the requests built; not archived.
  const RetryPolicy& retryPolicy() const { return retryPolicy_; }
  void setRetryPolicy(RetryPolicy policy) { retryPolicy_ = std::move(policy); }
  // URLRequest::deadlineInterval of the requests built; not archived.
  std::optional<double> deadlineInterval() const { return deadlineInterval_; }
  void setDeadlineInterval(std::optional<double> seconds) { deadlineInterval_ = seconds; }
  // URLRequest::maximumBodyLength of the requests built.
  std::size_t maximumBodyLength() const { return maximumBodyLength_; }
  void setMaximumBodyLength(std::size_t bytes) { maximumBodyLength_ = bytes; }
  // The methods whose parameters go into the URI's query rather than the body.
  const std::set<std::string>& HTTPMethodsEncodingParametersInURI() const { return methodsInURI_; }
  void setHTTPMethodsEncodingParametersInURI(std::set<std::string> methods) { methodsInURI_ = std::move(methods); }
  // Whether `method`, in any letter case, carries its parameters in the URI.
  bool encodesParametersInURI(std::string_view method) const;

  // Builds the URL request (method, URL, time-out, cellular access, body limit, retries,
  // deadline) and hands it with the parameters to requestBySerializingRequest(). Absent,
  // with an error, when the URL string is not a valid URL, a header field is unsafe, or
  // serializing failed.
  std::optional<URLRequest> requestWithMethod(std::string_view method, std::string_view URLString,
                                              const Object& parameters, ErrorPtr* error) const;
  // A multipart/form-data request with a random boundary: the parameters (a JSON
  // object, flattened as for queries) first, as form fields, then the parts `block`
  // appends; "Content-Type" and "Content-Length" describe the body. The method must
  // not be "GET" or "HEAD" (a parameter assertion); other parameters than an object
  // are an error.
  std::optional<URLRequest> multipartFormRequestWithMethod(std::string_view method, std::string_view URLString,
                                                           const Object& parameters, const MultipartBodyBlock& block,
                                                           ErrorPtr* error) const;

  // Applies the default header fields the request does not carry; for a method in the
  // URI set appends the parameters as a query string, otherwise writes them as a
  // form-urlencoded body ("Content-Type" "application/x-www-form-urlencoded" unless the
  // request sets one). Absent (or JSON null) parameters leave URL and body alone. A JSON
  // object or array is encoded by queryStringFromParameters(); a JSON string or number
  // is used as it is. Bytes become the body ("application/octet-stream" unless set);
  // bytes or a URL for a URI method are an error (kURLRequestSerializationErrorDomain,
  // kURLErrorCannotDecodeContentData), as is a query that leaves no valid URL.
  virtual std::optional<URLRequest> requestBySerializingRequest(const URLRequest& request, const Object& parameters,
                                                                ErrorPtr* error) const;

  // Copying and keyed archiving keep the settings above (an archive without a body
  // limit restores the default).
  virtual std::shared_ptr<HTTPRequestSerializer> copy() const;
  // Writes the settings into `coder`.
  virtual void encodeWithCoder(KeyedArchiver& coder) const;
  // Restores the settings; false when the archive does not hold a serializer.
  virtual bool initWithCoder(const KeyedUnarchiver& coder);

 protected:
  HTTPRequestSerializer(const HTTPRequestSerializer&) = default;
  HTTPRequestSerializer& operator=(const HTTPRequestSerializer&) = default;

  // A copy of `request` with each default header field it does not carry; the fields
  // it carries keep their values.
  URLRequest requestWithDefaultHeaders(const URLRequest& request) const;

 private:
  HTTPHeaders headers_;
  double timeoutInterval_ = 60.0;
  bool allowsCellularAccess_ = true;
  RetryPolicy retryPolicy_;
  std::optional<double> deadlineInterval_;
  std::size_t maximumBodyLength_ = kDefaultMaximumBodyLength;
  std::set<std::string> methodsInURI_{"GET", "HEAD", "DELETE"};
};

// Query-string encoding of parameters: object keys ascending, `key[sub]=value` for
// nested objects, `key[]=value` per array element (a top-level array's elements have
// the key "[]"), a bare key for null, numbers and booleans as decimal text (true is 1,
// floats in their shortest round-trip form), pairs joined by "&". Keys and values are
// percent-encoded with RFC 3986's query characters minus ":#[]@!$&'()*+,;=".
std::string queryStringFromParameters(const JSON& parameters);
// `text` percent-encoded as a key or value of such a query.
std::string percentEscapedQueryString(std::string_view text);

}  // namespace vkq::platform
