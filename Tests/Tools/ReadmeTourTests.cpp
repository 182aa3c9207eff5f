// The README's API snippets are the marked sections of Tools/examples/tour.cpp, which
// the build compiles: this keeps the two from drifting apart.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string readSource(const std::string& relativePath) {
  std::ifstream file(std::string(VKQ_SOURCE_DIR) + "/" + relativePath);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The lines between "// --8<-- NAME" and "// --8<--", without the indentation of the
// section's first line.
std::vector<std::string> markedSections(const std::string& source) {
  std::vector<std::string> sections;
  std::istringstream lines(source);
  std::string line;
  std::string* section = nullptr;
  std::size_t indent = 0;
  while (std::getline(lines, line)) {
    const auto marker = line.find("// --8<--");
    if (marker != std::string::npos) {
      if (section == nullptr) {
        section = &sections.emplace_back();
        indent = std::string::npos;
      } else {
        section = nullptr;
      }
      continue;
    }
    if (section == nullptr) continue;
    if (indent == std::string::npos) indent = line.find_first_not_of(' ');
    *section += (line.size() >= indent ? line.substr(indent) : line) + "\n";
  }
  return sections;
}

TEST(ReadmeTour, EverySnippetOfTheTourProgramIsInTheReadme) {
  const std::string readme = readSource("README.md");
  const auto sections = markedSections(readSource("Tools/examples/tour.cpp"));
  ASSERT_EQ(sections.size(), 3u);
  for (const std::string& section : sections) {
    EXPECT_NE(readme.find("```cpp\n" + section + "```"), std::string::npos) << "not in README.md:\n" << section;
  }
}

}  // namespace
