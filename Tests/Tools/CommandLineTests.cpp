#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "Tools/vkq/CommandLine/ArgumentParser.h"
#include "Tools/vkq/CommandLine/CommandLine.h"

namespace vkq::tool {
namespace {

using ::testing::HasSubstr;

Invocation parseLine(std::vector<std::string> arguments) { return parseCommandLine(arguments); }

// What a parser of "--timeout VALUE", the repeatable "--header VALUE" and the switch
// "--verbose" makes of `arguments`: "positionals; --name=value ..." or the UsageError.
std::string parsed(std::vector<std::string> arguments) {
  static const ArgumentParser parser({{"--timeout", true}, {"--header", true, true}, {"--verbose"}});
  try {
    const ParsedArguments result = parser.parse(arguments);
    std::string text;
    for (const std::string& positional : result.positionals()) text += positional + " ";
    text += ";";
    for (const char* name : {"--timeout", "--header", "--verbose"})
      for (const std::string& value : result.values(name)) text += std::string(" ") + name + "=" + value;
    return text;
  } catch (const UsageError& error) {
    return error.what();
  }
}

TEST(ArgumentParser, FollowsTheOptionRules) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      // Both spellings, options among positionals, a repeatable option in order.
      {{"url", "--timeout", "5", "path", "--header=A: b", "--header", "C: d", "--verbose"},
       "url path ; --timeout=5 --header=A: b --header=C: d --verbose="},
      // "-" names standard input; everything after "--" is positional.
      {{"-", "--", "--timeout", "-x"}, "- --timeout -x ;"},
      // A value is the next argument whatever it looks like, or may be empty.
      {{"--timeout", "--verbose", "--header="}, "; --timeout=--verbose --header="},
      {{"--bogus"}, "unknown option --bogus"},
      {{"-t"}, "unknown option -t"},
      {{"--timeout"}, "--timeout needs a value"},
      {{"--verbose=yes"}, "--verbose takes no value"},
      {{"--timeout", "1", "--timeout", "2"}, "--timeout given twice"},
  };
  for (const auto& [arguments, expected] : cases) EXPECT_EQ(parsed(arguments), expected);
}

TEST(ArgumentParser, NumbersAreDecimalOrHexWithinTheirRange) {
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  const struct {
    const char* text;
    std::int64_t minimum, maximum, value;
  } accepted[] = {
      {"255", 0, 255, 255},  {"0xff", 0, 255, 255}, {"0XAB", 0, 255, 0xAB}, {"-0x10", -16, 0, -16},
      {"-9223372036854775808", kMin, 0, kMin},  // a magnitude that only fits unsigned
  };
  for (const auto& c : accepted) EXPECT_EQ(parseInteger(c.text, c.minimum, c.maximum, "n"), c.value) << c.text;
  for (const char* text : {"256", "0x100", "-1", "", "0x", "12a", "+5", "1.5", " 1", "18446744073709551616"}) {
    EXPECT_THROW(parseInteger<std::uint8_t>(text, "n"), UsageError) << text;
  }
  EXPECT_THROW(parseInteger("-9223372036854775809", kMin, 0, "n"), UsageError);

  EXPECT_DOUBLE_EQ(parseSeconds("0.25", "t"), 0.25);
  for (const char* text : {"0", "-1", "inf", "nan", "", "5s"}) {
    EXPECT_THROW(parseSeconds(text, "t"), UsageError) << text;
  }
}

// The JSON, download and serve options are checked on the wire by the tool's process tests.
TEST(CommandLine, KXPOptionsChangeEveryFrameSetting) {
  const auto invocation = parseLine({"kxp", "u", "--data-file", "-", "--xor-key", "0x5A", "--version", "2",
                                     "--begin-marker", "0", "--no-compress", "--no-os-type", "--package-name",
                                     "com.x", "--release-version", "0xFFFFFFFE", "--non-protocol", "--header",
                                     "X-A:  1", "--timeout", "2.5", "--output", "out.bin", "--verbose"});
  const auto& command = std::get<KXPCommand>(invocation.command);
  EXPECT_EQ(command.dataFile, "-");
  // The release version is the 32-bit pattern, kept bit for bit.
  const auto& f = command.frame;
  EXPECT_EQ(std::tuple(f.xorKey, f.version, f.insertAtBeginBody, f.compress, f.uploadOSType, f.packageName,
                       f.releaseVersion, f.nonProtocol),
            std::tuple(0x5A, 2, 0, false, false, "com.x", -2, true));
  EXPECT_THAT(command.headers, ::testing::ElementsAre(std::pair<std::string, std::string>("X-A", "1")));
  EXPECT_EQ(std::tuple(command.timeout, command.output, invocation.verbose), std::tuple(2.5, "out.bin", true));
}

TEST(CommandLine, MistakesNameTheProblemAndShowTheUsageButHelpWinsOverThem) {
  EXPECT_THAT(std::get<HelpCommand>(parseLine({"kxp", "--bogus", "--help"}).command).text,
              HasSubstr("usage: vkq kxp"));
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "missing subcommand"},
      {{"fetch"}, "unknown subcommand \"fetch\""},
      {{"kxp", "u"}, "exactly one of --data and --data-file"},
      {{"kxp", "--data", "a"}, "expected URL, got 0"},
      {{"kxp", "u", "--data", "a", "--xor-key", "256"}, "--xor-key must be a number from 0 to 255"},
      {{"kxp", "u", "--data", "a", "--release-version", "0x100000000"}, "--release-version"},
      {{"kxp", "u", "--data", "a", "--header", ": no name"}, "Name: value"},
      {{"json", "u", "--method", "TRACE"}, "--method must be"},
      {{"json", "u", "--arg", "{oops"}, "--arg is not valid JSON"},
      {{"json", "u", "--user", "me"}, "--user and --password go together"},
      {{"json", "u", "--user", "me:x", "--password", "pw"}, "--user must not contain ':'"},
      {{"download", "u"}, "expected URL and PATH"},
      {{"serve", "--port", "65536"}, "--port must be a number from 0 to 65535"},
  };
  for (const auto& [arguments, message] : cases) {
    try {
      parseLine(arguments);
      ADD_FAILURE() << "accepted: " << ::testing::PrintToString(arguments);
    } catch (const UsageError& error) {
      EXPECT_THAT(error.what(), HasSubstr(message)) << ::testing::PrintToString(arguments);
      EXPECT_THAT(error.what(), HasSubstr("usage: vkq"));
    }
  }
}

}  // namespace
}  // namespace vkq::tool
