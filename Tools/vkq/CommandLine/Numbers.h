// The command line's number rules, shared by every subcommand: integers in decimal or
// 0x-hexadecimal, range checked against their target; seconds as positive, finite
// decimals. A value that breaks them throws UsageError with a text fit for the user.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace vkq::tool {

// A mistake in the command line; what() is the message for the user.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An integer in decimal ("-12", "300") or hexadecimal ("0x1F"), within
// [minimum, maximum]. `what` names the value in the error message.
std::int64_t parseInteger(std::string_view text, std::int64_t minimum, std::int64_t maximum, std::string_view what);

template <std::integral T>
  requires(std::signed_integral<T> || sizeof(T) < sizeof(std::int64_t))
T parseInteger(std::string_view text, std::string_view what) {
  return static_cast<T>(parseInteger(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), what));
}

// A positive, finite number of seconds ("30", "0.5").
double parseSeconds(std::string_view text, std::string_view what);

}  // namespace vkq::tool
