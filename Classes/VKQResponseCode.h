// A result code and its fixed message.
//
//    0  "Success"
//   -1  "network error"   the network was not reachable when the request started
//   -2  "http error"      the task could not be made, or the exchange failed
//   -3  "protocol error"  a KXP answer's protocol version differs from the request's
//   -4  "server error"    a KXP answer's payload is missing, corrupt or unpacks to nothing
// Any other code has no message.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

// The known codes.
inline constexpr std::int64_t VKQResponseCodeSuccess = 0;
inline constexpr std::int64_t VKQResponseCodeNetworkError = -1;
inline constexpr std::int64_t VKQResponseCodeHTTPError = -2;
inline constexpr std::int64_t VKQResponseCodeProtocolError = -3;
inline constexpr std::int64_t VKQResponseCodeServerError = -4;

class VKQResponseCode {
 public:
  // A shared code object, as results hold it.
  static std::shared_ptr<VKQResponseCode> responseCode(std::int64_t code);

  // The code, VKQResponseCodeSuccess by default.
  explicit VKQResponseCode(std::int64_t code = VKQResponseCodeSuccess) : code_(code) {}

  // The code: one of the VKQResponseCode constants, or any other value.
  std::int64_t code() const { return code_; }
  void setCode(std::int64_t code) { code_ = code; }
  // The code's message; absent for an unknown code.
  std::optional<std::string> msg() const;
  // "code = <code>, msg = <msg>"
  std::string description() const;

 private:
  std::int64_t code_;
};
