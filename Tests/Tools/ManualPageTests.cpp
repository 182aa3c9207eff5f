// The manual page vkq(1) is written by hand: it must name every subcommand and option
// the tool's help lists, so that an option added to the tool without a word in the
// manual fails here.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "Tests/Support/Files.h"
#include "Tests/Tools/ChildProcess.h"

namespace vkq::testing {
namespace {

using namespace std::chrono_literals;

TEST(VkqManualPage, NamesEverySubcommandAndOptionOfTheHelp) {
  ChildProcess help({VKQ_BINARY, "--help"});  // lists every subcommand with its options
  ASSERT_EQ(help.wait(60s), 0);
  const std::string text = help.contents(ChildProcess::Stream::Output);
  const std::string manual = readFile(std::filesystem::path(VKQ_SOURCE_DIR) / "Tools/vkq/vkq.1");

  std::set<std::string> options;
  const std::regex option("--[a-z][a-z-]*");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), option); it != std::sregex_iterator(); ++it) {
    options.insert(it->str());
  }
  ASSERT_GT(options.size(), 20u);
  for (const std::string& name : options) {
    // In roff a hyphen of an option is written "\-".
    EXPECT_NE(manual.find(std::regex_replace(name, std::regex("-"), "\\-")), std::string::npos) << name;
  }
  for (const char* subcommand : {"kxp", "json", "download", "serve"}) {
    EXPECT_NE(text.find(std::string("\n") + subcommand + "\n"), std::string::npos) << subcommand;
    EXPECT_NE(manual.find(std::string(".B vkq ") + subcommand), std::string::npos) << subcommand;
  }
}

}  // namespace
}  // namespace vkq::testing
