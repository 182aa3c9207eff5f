// The README's code snippets are the marked sections of the programs in Tools/examples/,
// which the build compiles: this keeps the two from drifting apart.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Tests/Support/Files.h"

namespace {

std::string readSource(const std::string& relativePath) {
  return vkq::testing::readFile(std::filesystem::path(VKQ_SOURCE_DIR) / relativePath);
}

// The lines between "// --8<-- NAME" and "// --8<--", less the indentation of the
// section's first line.
std::vector<std::string> markedSections(const std::string& source) {
  const std::string marker = "// --8<--";
  std::vector<std::string> sections;
  for (auto open = source.find(marker); open != std::string::npos; open = source.find(marker, open)) {
    const auto begin = source.find('\n', open) + 1;
    const auto close = source.find(marker, begin);
    const auto indent = source.find_first_not_of(' ', begin) - begin;
    std::istringstream lines(source.substr(begin, source.rfind('\n', close) + 1 - begin));
    std::string& section = sections.emplace_back();
    for (std::string line; std::getline(lines, line);) section += line.substr(std::min(indent, line.size())) + "\n";
    open = close == std::string::npos ? close : close + marker.size();
  }
  return sections;
}

TEST(ReadmeTour, EverySnippetOfTheExampleProgramsIsInTheReadme) {
  const std::string readme = readSource("README.md");
  const auto sections =
      markedSections(readSource("Tools/examples/tour.cpp") + readSource("Tools/examples/poll_loop.cpp"));
  ASSERT_EQ(sections.size(), 7u);
  for (const std::string& section : sections) {
    EXPECT_NE(readme.find("```cpp\n" + section + "```"), std::string::npos) << "not in README.md:\n" << section;
  }
}

}  // namespace
