#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "Tools/vkq/CommandLine/ArgumentParser.h"
#include "Tools/vkq/CommandLine/CommandLine.h"

namespace vkq::tool {
namespace {

using ::testing::HasSubstr;

ParsedArguments parse(const ArgumentParser& parser, std::vector<std::string> arguments) {
  return parser.parse(arguments);
}

Invocation parseLine(std::vector<std::string> arguments) { return parseCommandLine(arguments); }

const ArgumentParser kParser({{"--timeout", true}, {"--header", true, true}, {"--verbose"}});

TEST(ArgumentParser, SeparatesOptionsFromPositionalsInEitherSpelling) {
  const auto parsed = parse(kParser, {"url", "--timeout", "5", "path", "--header=A: b", "--header", "C: d", "--verbose"});
  EXPECT_THAT(parsed.positionals(), ::testing::ElementsAre("url", "path"));
  EXPECT_EQ(parsed.value("--timeout"), "5");
  EXPECT_THAT(parsed.values("--header"), ::testing::ElementsAre("A: b", "C: d"));
  EXPECT_TRUE(parsed.has("--verbose"));
  EXPECT_FALSE(parsed.value("--missing").has_value());
}

TEST(ArgumentParser, DoubleDashAndLoneDashArePositional) {
  const auto parsed = parse(kParser, {"-", "--", "--timeout", "-x"});
  EXPECT_THAT(parsed.positionals(), ::testing::ElementsAre("-", "--timeout", "-x"));
  EXPECT_FALSE(parsed.has("--timeout"));
}

TEST(ArgumentParser, RefusesMalformedUse) {
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases = {
      {{"--bogus"}, "unknown option --bogus"},
      {{"-t"}, "unknown option -t"},
      {{"--timeout"}, "--timeout needs a value"},
      {{"--verbose=yes"}, "--verbose takes no value"},
      {{"--timeout", "1", "--timeout", "2"}, "--timeout given twice"},
  };
  for (const auto& [arguments, message] : cases) {
    try {
      parse(kParser, arguments);
      ADD_FAILURE() << "accepted " << arguments.front();
    } catch (const UsageError& error) {
      EXPECT_THAT(error.what(), HasSubstr(message));
    }
  }
}

TEST(ParseInteger, AcceptsDecimalAndHexWithinRange) {
  EXPECT_EQ(parseInteger<std::uint8_t>("255", "k"), 255);
  EXPECT_EQ(parseInteger<std::uint8_t>("0xff", "k"), 255);
  EXPECT_EQ(parseInteger<std::uint8_t>("0XAB", "k"), 0xAB);
  EXPECT_EQ(parseInteger<std::uint16_t>("0x2018", "m"), 0x2018);
  EXPECT_EQ(parseInteger<std::int32_t>("-2147483648", "r"), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(parseInteger("-0x10", -16, 0, "r"), -16);
}

TEST(ParseInteger, RefusesOutOfRangeAndGarbage) {
  for (const char* text : {"256", "0x100", "-1", "", "0x", "12a", "+5", "--1", "1.5", " 1", "18446744073709551616"}) {
    EXPECT_THROW(parseInteger<std::uint8_t>(text, "--xor-key"), UsageError) << text;
  }
  EXPECT_THROW(parseInteger<std::int64_t>("-9223372036854775809", "n"), UsageError);
  EXPECT_EQ(parseInteger<std::int64_t>("-9223372036854775808", "n"), std::numeric_limits<std::int64_t>::min());
  try {
    parseInteger<std::uint8_t>("300", "--xor-key");
  } catch (const UsageError& error) {
    EXPECT_THAT(error.what(), HasSubstr("--xor-key must be a number from 0 to 255"));
  }
}

TEST(ParseSeconds, AcceptsPositiveFiniteOnly) {
  EXPECT_DOUBLE_EQ(parseSeconds("0.25", "t"), 0.25);
  EXPECT_DOUBLE_EQ(parseSeconds("30", "t"), 30);
  for (const char* text : {"0", "-1", "inf", "nan", "", "5s"}) EXPECT_THROW(parseSeconds(text, "t"), UsageError) << text;
}

TEST(CommandLine, KXPFrameSettingsDefaultToTheRequestDefaults) {
  const auto invocation = parseLine({"kxp", "http://h/kxp", "--data", "hi"});
  const auto& command = std::get<KXPCommand>(invocation.command);
  EXPECT_EQ(command.url, "http://h/kxp");
  EXPECT_EQ(command.dataText, "hi");
  EXPECT_EQ(command.frame.insertAtBeginBody, 0x2018);
  EXPECT_EQ(command.frame.version, 0);
  EXPECT_EQ(command.frame.xorKey, 0);
  EXPECT_TRUE(command.frame.compress);
  EXPECT_TRUE(command.frame.uploadOSType);
  EXPECT_EQ(command.frame.releaseVersion, -1);
  EXPECT_FALSE(command.frame.packageName.has_value());
  EXPECT_FALSE(command.frame.nonProtocol);
  EXPECT_FALSE(invocation.verbose);
}

TEST(CommandLine, KXPOptionsChangeEveryFrameSetting) {
  const auto invocation = parseLine({"kxp", "u", "--data-file", "-", "--xor-key", "0x5A", "--version", "2",
                                     "--begin-marker", "0", "--no-compress", "--no-os-type", "--package-name",
                                     "com.x", "--release-version", "0xFFFFFFFE", "--non-protocol", "--header",
                                     "X-A:  1", "--timeout", "2.5", "--output", "out.bin", "--verbose"});
  const auto& command = std::get<KXPCommand>(invocation.command);
  EXPECT_EQ(command.dataFile, "-");
  EXPECT_EQ(command.frame.xorKey, 0x5A);
  EXPECT_EQ(command.frame.version, 2);
  EXPECT_EQ(command.frame.insertAtBeginBody, 0);
  EXPECT_FALSE(command.frame.compress);
  EXPECT_FALSE(command.frame.uploadOSType);
  EXPECT_EQ(command.frame.packageName, "com.x");
  EXPECT_EQ(command.frame.releaseVersion, -2);  // the 32-bit pattern, kept bit for bit
  EXPECT_TRUE(command.frame.nonProtocol);
  EXPECT_THAT(command.headers, ::testing::ElementsAre(std::pair<std::string, std::string>("X-A", "1")));
  EXPECT_EQ(command.timeout, 2.5);
  EXPECT_EQ(command.output, "out.bin");
  EXPECT_TRUE(invocation.verbose);
}

TEST(CommandLine, JSONAndDownloadAndServe) {
  const auto json = std::get<JSONCommand>(
      parseLine({"json", "u", "--method", "patch", "--arg", R"({"a":1})", "--user", "me", "--password", "pw"}).command);
  EXPECT_EQ(json.method, VKQRequestMethodPATCH);
  EXPECT_EQ(json.argument.json(), vkq::platform::JSON({{"a", 1}}));
  EXPECT_EQ(json.credentials, std::make_pair(std::string("me"), std::string("pw")));
  EXPECT_TRUE(std::get<JSONCommand>(parseLine({"json", "u"}).command).argument.isNull());

  const auto download = std::get<DownloadCommand>(parseLine({"download", "u", "out", "--timeout", "9"}).command);
  EXPECT_EQ(download.path, "out");
  EXPECT_EQ(download.timeout, 9);

  const auto serve = std::get<ServeCommand>(
      parseLine({"serve", "--port", "8080", "--root", "/tmp", "--rate-limit", "0x100000", "--version", "3"}).command);
  EXPECT_EQ(serve.port, 8080);
  EXPECT_EQ(serve.root, "/tmp");
  EXPECT_EQ(serve.rateLimit, 0x100000u);
  EXPECT_EQ(serve.frame.version, 3);
  EXPECT_EQ(serve.frame.insertAtBeginBody, 0x2018);
}

TEST(CommandLine, HelpWinsOverMistakes) {
  EXPECT_THAT(std::get<HelpCommand>(parseLine({"--help"}).command).text, HasSubstr("vkq serve"));
  EXPECT_THAT(std::get<HelpCommand>(parseLine({"kxp", "--bogus", "--help"}).command).text,
              HasSubstr("usage: vkq kxp"));
  for (const char* subcommand : {"json", "download", "serve"}) {
    EXPECT_THAT(std::get<HelpCommand>(parseLine({subcommand, "--help"}).command).text,
                HasSubstr(std::string("usage: vkq ") + subcommand));
  }
}

TEST(CommandLine, MistakesNameTheProblemAndShowTheUsage) {
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases = {
      {{}, "missing subcommand"},
      {{"fetch"}, "unknown subcommand \"fetch\""},
      {{"kxp", "u"}, "exactly one of --data and --data-file"},
      {{"kxp", "u", "--data", "a", "--data-file", "f"}, "exactly one of --data and --data-file"},
      {{"kxp", "--data", "a"}, "expected URL, got 0"},
      {{"kxp", "u", "--data", "a", "--xor-key", "256"}, "--xor-key must be a number from 0 to 255"},
      {{"kxp", "u", "--data", "a", "--release-version", "0x100000000"}, "--release-version"},
      {{"kxp", "u", "--data", "a", "--header", "no colon"}, "Name: value"},
      {{"json", "u", "--method", "TRACE"}, "--method must be"},
      {{"json", "u", "--arg", "{oops"}, "--arg is not valid JSON"},
      {{"json", "u", "--user", "me"}, "--user and --password go together"},
      {{"download", "u"}, "expected URL and PATH"},
      {{"serve", "extra"}, "expected no arguments"},
      {{"serve", "--port", "65536"}, "--port must be a number from 0 to 65535"},
      {{"serve", "--rate-limit", "0"}, "--rate-limit"},
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
