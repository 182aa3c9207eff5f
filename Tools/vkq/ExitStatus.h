// The exit statuses of `vkq`. A request's outcome maps onto its negated result code:
// 0 success, 1 network error, 2 http error, 3 protocol error, 4 server error.
#pragma once

#include <cstdint>

namespace vkq::tool {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitUsage = 64;          // bad arguments
inline constexpr int kExitNoInput = 66;        // an input file cannot be read
inline constexpr int kExitSoftware = 70;       // an unexpected failure inside vkq
inline constexpr int kExitCannotCreate = 73;   // an output file cannot be written
inline constexpr int kExitInterrupted = 130;   // cancelled by SIGINT or SIGTERM

// The status for a result code: its negation for the library's codes (0 to -4 and any
// other small negative one); kExitSoftware for a code that cannot be an exit status.
inline int exitStatusForResultCode(std::int64_t code) {
  if (code == 0) return kExitSuccess;
  if (code < 0 && code > -64) return static_cast<int>(-code);
  return kExitSoftware;
}

}  // namespace vkq::tool
