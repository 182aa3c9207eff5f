// ArgumentParser: splits a subcommand's arguments into options and positional
// arguments, by a table of the options it accepts.
//
//   --name VALUE, --name=VALUE   an option that takes a value
//   --name                       a switch
//   --                           everything after it is positional
//
// Anything else that starts with "-" (except "-" alone, which conventionally names
// standard input) is an unknown option. Problems are reported by throwing UsageError
// with a text fit for the user; nothing is printed here.
//
// The number parsers share the command line's rules: decimal or 0x-hexadecimal, range
// checked against the target type.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vkq::tool {

// A mistake in the command line; what() is the message for the user.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct OptionSpec {
  std::string name;  // with the leading "--"
  bool takesValue = false;
  bool repeatable = false;
};

// What parse() found. Options are looked up by their full name ("--timeout").
class ParsedArguments {
 public:
  const std::vector<std::string>& positionals() const { return positionals_; }
  bool has(std::string_view name) const { return values_.find(name) != values_.end(); }
  // The option's value; absent when it was not given.
  std::optional<std::string> value(std::string_view name) const;
  // Every value of a repeatable option, in command-line order.
  std::vector<std::string> values(std::string_view name) const;

 private:
  friend class ArgumentParser;
  std::vector<std::string> positionals_;
  // A switch maps to one empty value.
  std::map<std::string, std::vector<std::string>, std::less<>> values_;
};

class ArgumentParser {
 public:
  explicit ArgumentParser(std::vector<OptionSpec> options) : options_(std::move(options)) {}

  // Throws UsageError for an unknown option, a missing value, a value given to a
  // switch, or a second use of an option that is not repeatable.
  ParsedArguments parse(std::span<const std::string> arguments) const;

 private:
  const OptionSpec* find(std::string_view name) const;

  std::vector<OptionSpec> options_;
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
