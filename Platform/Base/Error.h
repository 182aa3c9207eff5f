// Error values: a domain, an integer code and user information.
//
// Operations that can fail take an optional error slot, `ErrorPtr* error`: a null
// pointer means the caller does not want the error; otherwise a failure stores a new
// error there. Errors are immutable once made and shared freely between threads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Base/Bytes.h"

namespace vkq::platform {

class HTTPResponse;

// Domain of transport failures (connection, time-out, cancellation, bad status).
inline constexpr const char* kURLErrorDomain = "vkq.platform.url";
// Domain of failures to build a URL request from parameters.
inline constexpr const char* kURLRequestSerializationErrorDomain = "vkq.platform.serialization.request";
// Domain of failed system calls; the code is the errno value.
inline constexpr const char* kPOSIXErrorDomain = "vkq.platform.posix";

// Codes of the URL-loading domain, with the platform's values.
enum URLErrorCode : std::int64_t {
  kURLErrorUnknown = -1,
  kURLErrorCancelled = -999,
  kURLErrorBadURL = -1000,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorHTTPTooManyRedirects = -1007,
  kURLErrorResourceUnavailable = -1008,
  kURLErrorNotConnectedToInternet = -1009,
  kURLErrorBadServerResponse = -1011,
  kURLErrorCannotDecodeRawData = -1015,
  kURLErrorCannotDecodeContentData = -1016,
  kURLErrorDataLengthExceedsMaximum = -1103,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateUntrusted = -1202,
  kURLErrorCannotCreateFile = -3000,
  kURLErrorCannotWriteToFile = -3003,
};

// What an error carries besides its domain and code. Every field may be absent.
struct ErrorUserInfo {
  // What went wrong, in words for a person.
  std::optional<std::string> localizedDescription;
  // Why it went wrong, when known apart from the description.
  std::optional<std::string> localizedFailureReason;
  // The URL of the failed exchange, as text.
  std::optional<std::string> failingURL;
  // Validation failures of an answer: the response and the body that failed.
  std::shared_ptr<const HTTPResponse> response;
  std::optional<Bytes> responseData;  // the body that failed validation
  // Failed downloads: what the transport needs to continue later.
  std::optional<Bytes> resumeData;
};

// One failure: a domain (kURLErrorDomain, ...), a code within it and user information.
class Error {
 public:
  // The error; prefer makeError(), which shares it.
  Error(std::string domain, std::int64_t code, ErrorUserInfo userInfo = {});

  // The domain, which gives the code its meaning.
  const std::string& domain() const { return domain_; }
  // The code within the domain: a URLErrorCode in kURLErrorDomain, errno in kPOSIXErrorDomain.
  std::int64_t code() const { return code_; }
  // What the error carries besides.
  const ErrorUserInfo& userInfo() const { return userInfo_; }

  // The localized description if set, otherwise a text made of domain and code.
  std::string localizedDescription() const;
  // "Error Domain=<domain> Code=<code> \"<localized description>\""
  std::string description() const;

 private:
  std::string domain_;
  std::int64_t code_;
  ErrorUserInfo userInfo_;
};

// How errors are passed and stored: shared and immutable; null means no error.
using ErrorPtr = std::shared_ptr<const Error>;

// Makes an error; the usual way to fill an error slot.
ErrorPtr makeError(std::string domain, std::int64_t code, ErrorUserInfo userInfo = {});

// The error of the system call `call` that failed with errno `code`, described as
// "<call>: <the code's text>".
ErrorPtr makePOSIXError(std::string_view call, int code);

// Stores `value` in the slot when the caller gave one.
inline void setError(ErrorPtr* slot, ErrorPtr value) {
  if (slot != nullptr) *slot = std::move(value);
}

}  // namespace vkq::platform
