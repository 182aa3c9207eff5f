#include "Tools/vkq/CommandLine/ArgumentParser.h"

#include <charconv>
#include <cmath>
#include <system_error>

namespace vkq::tool {

std::optional<std::string> ParsedArguments::value(std::string_view name) const {
  auto it = values_.find(name);
  if (it == values_.end()) return std::nullopt;
  return it->second.back();
}

std::vector<std::string> ParsedArguments::values(std::string_view name) const {
  auto it = values_.find(name);
  return it == values_.end() ? std::vector<std::string>{} : it->second;
}

const OptionSpec* ArgumentParser::find(std::string_view name) const {
  for (const OptionSpec& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

ParsedArguments ArgumentParser::parse(std::span<const std::string> arguments) const {
  ParsedArguments parsed;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--") {
      parsed.positionals_.insert(parsed.positionals_.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                 arguments.end());
      break;
    }
    if (argument.size() < 2 || argument[0] != '-') {
      parsed.positionals_.push_back(argument);
      continue;
    }

    std::string_view name = argument;
    std::optional<std::string> inlineValue;
    if (auto equals = name.find('='); equals != std::string_view::npos) {
      inlineValue = std::string(name.substr(equals + 1));
      name = name.substr(0, equals);
    }
    const OptionSpec* option = find(name);
    if (option == nullptr) throw UsageError("unknown option " + std::string(name));
    if (!option->repeatable && parsed.has(name)) throw UsageError(std::string(name) + " given twice");

    std::string value;
    if (option->takesValue) {
      if (inlineValue) {
        value = *inlineValue;
      } else if (i + 1 < arguments.size()) {
        value = arguments[++i];
      } else {
        throw UsageError(std::string(name) + " needs a value");
      }
    } else if (inlineValue) {
      throw UsageError(std::string(name) + " takes no value");
    }
    parsed.values_[std::string(name)].push_back(std::move(value));
  }
  return parsed;
}

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
