#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <variant>

#include <unistd.h>

#include "Tools/vkq/Server/FileResponder.h"

namespace vkq::tool {
namespace {

namespace fs = std::filesystem;

class ResolveUnderRoot : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = fs::temp_directory_path() / ("vkq-resolve-" + std::to_string(getpid()));
    fs::create_directories(base_ / "root" / "sub");
    std::ofstream(base_ / "root" / "sub" / "a.bin") << "abc";
    std::ofstream(base_ / "secret.txt") << "outside";
    fs::create_symlink(base_ / "secret.txt", base_ / "root" / "escape");
    fs::create_symlink(base_ / "root" / "sub" / "a.bin", base_ / "root" / "inside-link");
  }
  void TearDown() override { fs::remove_all(base_); }

  ResolvedFile resolve(std::string_view path) { return resolveUnderRoot(base_ / "root", path); }

  fs::path base_;
};

TEST_F(ResolveUnderRoot, FindsRegularFilesInside) {
  ASSERT_TRUE(std::holds_alternative<fs::path>(resolve("sub/a.bin")));
  EXPECT_EQ(std::get<fs::path>(resolve("sub/a.bin")), fs::canonical(base_ / "root" / "sub" / "a.bin"));
  EXPECT_TRUE(std::holds_alternative<fs::path>(resolve("inside-link")));
  EXPECT_TRUE(std::holds_alternative<fs::path>(resolve("sub/./a.bin")));
}

TEST_F(ResolveUnderRoot, RefusesEscapesWith403AndMissingWith404) {
  EXPECT_EQ(std::get<int>(resolve("../secret.txt")), 403);
  EXPECT_EQ(std::get<int>(resolve("sub/../../secret.txt")), 403);
  EXPECT_EQ(std::get<int>(resolve("escape")), 403);      // a link pointing out
  EXPECT_EQ(std::get<int>(resolve("/etc/passwd")), 404);  // absolute
  EXPECT_EQ(std::get<int>(resolve("")), 404);
  EXPECT_EQ(std::get<int>(resolve("sub")), 404);  // a folder
  EXPECT_EQ(std::get<int>(resolve("missing.bin")), 404);
}

TEST(FileValidators, ChangeWhenTheFileChanges) {
  const fs::path file = fs::temp_directory_path() / ("vkq-validators-" + std::to_string(getpid()));
  std::ofstream(file) << "one";
  const auto first = FileValidators::of(file);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->size, 3u);
  EXPECT_EQ(first->etag.front(), '"');
  EXPECT_TRUE(first->lastModified.ends_with(" GMT"));
  std::ofstream(file) << "three";
  EXPECT_NE(FileValidators::of(file)->etag, first->etag);
  fs::remove(file);
  EXPECT_FALSE(FileValidators::of(file).has_value());
}

using Kind = RangeDecision::Kind;
const FileValidators kFile{"\"v1\"", "Sat, 21 Nov 2026 10:00:00 GMT", 1000};

RangeDecision decide(std::optional<std::string> range, std::optional<std::string> ifRange = std::nullopt) {
  return decideRange(range, ifRange, kFile);
}

TEST(DecideRange, HonoursOneRangeClampedToTheEnd) {
  struct Case {
    const char* header;
    std::uint64_t first, length;
  };
  for (const Case& c : {Case{"bytes=0-99", 0, 100}, Case{"bytes=500-", 500, 500}, Case{"bytes=990-5000", 990, 10},
                        Case{"bytes=-10", 990, 10}, Case{"bytes=-5000", 0, 1000}, Case{"bytes=999-999", 999, 1}}) {
    const auto decision = decide(c.header);
    ASSERT_EQ(decision.kind, Kind::Partial) << c.header;
    EXPECT_EQ(decision.range.first, c.first) << c.header;
    EXPECT_EQ(decision.range.length, c.length) << c.header;
  }
}

TEST(DecideRange, IgnoresWhatItDoesNotUnderstand) {
  for (const char* header : {"bytes=0-1,5-6", "items=0-5", "bytes=5-2", "bytes=x-", "bytes=", "bytes=-", "bytes=1"}) {
    EXPECT_EQ(decide(header).kind, Kind::Whole) << header;
  }
  EXPECT_EQ(decide(std::nullopt).kind, Kind::Whole);
}

TEST(DecideRange, StartPastTheEndIsUnsatisfiable) {
  EXPECT_EQ(decide("bytes=1000-").kind, Kind::Unsatisfiable);
  EXPECT_EQ(decide("bytes=-0").kind, Kind::Unsatisfiable);
  EXPECT_EQ(decideRange("bytes=0-", std::nullopt, FileValidators{"\"e\"", "d", 0}).kind, Kind::Unsatisfiable);
}

TEST(DecideRange, IfRangeMustNameTheCurrentVersion) {
  EXPECT_EQ(decide("bytes=10-", "\"v1\"").kind, Kind::Partial);
  EXPECT_EQ(decide("bytes=10-", kFile.lastModified).kind, Kind::Partial);
  EXPECT_EQ(decide("bytes=10-", "\"v0\"").kind, Kind::Whole);
  EXPECT_EQ(decide("bytes=10-", "W/\"v1\"").kind, Kind::Whole);  // weak validators never match
  EXPECT_EQ(decide("bytes=10-", "Fri, 20 Nov 2026 10:00:00 GMT").kind, Kind::Whole);
}

}  // namespace
}  // namespace vkq::tool
