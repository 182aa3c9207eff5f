#include "Tools/vkq/CommandLine/Numbers.h"

#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

namespace vkq::tool {

std::int64_t parseInteger(std::string_view text, std::int64_t minimum, std::int64_t maximum, std::string_view what) {
  const auto invalid = [&] {
    return UsageError(std::string(what) + " must be a number from " + std::to_string(minimum) + " to " +
                      std::to_string(maximum) + " (decimal or 0x-hex), not \"" + std::string(text) + "\"");
  };
  std::string_view digits = text;
  bool negative = false;
  if (!digits.empty() && digits.front() == '-') {
    negative = true;
    digits.remove_prefix(1);
  }
  int base = 10;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    base = 16;
    digits.remove_prefix(2);
  }
  // from_chars would accept a second sign; the sign was taken above.
  if (digits.empty() || digits.front() == '-' || digits.front() == '+') throw invalid();

  std::uint64_t magnitude = 0;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
  if (error != std::errc() || end != digits.data() + digits.size()) throw invalid();

  // Compare magnitudes in unsigned arithmetic so that no value can overflow.
  if (negative) {
    const std::uint64_t limit = minimum < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(minimum) : 0;
    if (magnitude > limit) throw invalid();
    return static_cast<std::int64_t>(std::uint64_t{0} - magnitude);
  }
  if (maximum < 0 || magnitude > static_cast<std::uint64_t>(maximum)) throw invalid();
  const auto value = static_cast<std::int64_t>(magnitude);
  if (value < minimum) throw invalid();
  return value;
}

double parseSeconds(std::string_view text, std::string_view what) {
  double value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) ||
      value <= 0) {
    throw UsageError(std::string(what) + " must be a positive number of seconds, not \"" + std::string(text) + "\"");
  }
  return value;
}

}  // namespace vkq::tool
