#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "Tools/vkq/CommandLine/CommandLine.h"

namespace vkq::tool {
namespace {

using ::testing::HasSubstr;

Invocation parseLine(std::vector<std::string> arguments) { return parseCommandLine(arguments); }

TEST(CommandLine, NumbersAreDecimalOrHexWithinTheirRange) {
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

// Both spellings, options among positionals, a repeatable option in order, "-" as a value,
// and everything after "--" positional. The JSON, download and serve options are checked
// on the wire by the tool's process tests.
TEST(CommandLine, FollowsTheOptionRulesAndKXPOptionsChangeEveryFrameSetting) {
  const auto download = std::get<DownloadCommand>(
      parseLine({"download", "--timeout=5", "u", "--retries", "3", "--max-time", "9", "--metrics", "--", "-p"})
          .command);
  const auto& exchange = download.exchange;
  EXPECT_EQ(std::tuple(download.url, download.path, exchange.timeout, exchange.retries, exchange.maxTime,
                       exchange.metrics),
            std::tuple("u", "-p", 5.0, 3, 9.0, true));
  const auto invocation = parseLine({"kxp", "--header=A: b", "u", "--data-file", "-", "--xor-key", "0x5A", "--version", "2",
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
  EXPECT_THAT(command.headers, ::testing::ElementsAre(std::pair<std::string, std::string>("A", "b"),
                                                     std::pair<std::string, std::string>("X-A", "1")));
  EXPECT_EQ(std::tuple(command.exchange.timeout, command.output, invocation.verbose), std::tuple(2.5, "out.bin", true));
}

TEST(CommandLine, MistakesNameTheProblemAndShowTheUsageButHelpWinsOverThem) {
  EXPECT_THAT(std::get<HelpCommand>(parseLine({"kxp", "--bogus", "--help"}).command).text,
              HasSubstr("usage: vkq kxp"));
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "missing subcommand"},
      {{"fetch"}, "unknown subcommand \"fetch\""},
      {{"kxp", "u"}, "exactly one of --data and --data-file"},
      {{"kxp", "u", "--data", "a", "--bogus"}, "not expected: --bogus"},
      {{"kxp", "u", "--data", "a", "--timeout", "1", "--timeout", "2"}, "--timeout"},
      {{"kxp", "u", "--data", "a", "--xor-key", "256"}, "--xor-key must be a number from 0 to 255"},
      {{"kxp", "u", "--data", "a", "--header", "X-Split: a\r\nX-Injected: 1"}, "\"X-Split\" holds a line break"},
      {{"json", "u", "--timeout", "1e12"}, "--timeout must be from 0.001 to 604800 seconds, not 1e12"},
      {{"download", "u", "p", "--retry-non-idempotent"}, "not expected: --retry-non-idempotent"},
      {{"json", "u", "--user", "me:x", "--password", "pw"}, "--user must not contain ':'"},
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
