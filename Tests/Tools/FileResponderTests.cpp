#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <variant>

#include "Tests/Support/Files.h"
#include "Tools/vkq/Server/FileResponder.h"

namespace vkq::tool {
namespace {

namespace fs = std::filesystem;

TEST(ResolveUnderRoot, FindsFilesInsideAndRefusesEscapesWith403AndTheRestWith404) {
  const vkq::testing::ScratchFolder base;
  fs::create_directories(base / "root" / "sub");
  vkq::testing::writeFile(base / "root" / "sub" / "a.bin", "abc");
  vkq::testing::writeFile(base / "secret.txt", "outside");
  fs::create_symlink(base / "secret.txt", base / "root" / "escape");
  fs::create_symlink(base / "root" / "sub" / "a.bin", base / "root" / "inside-link");
  const ResolvedFile inside = fs::canonical(base / "root" / "sub" / "a.bin");
  const std::pair<const char*, ResolvedFile> cases[] = {
      {"sub/./a.bin", inside},
      {"inside-link", inside},
      {"../secret.txt", 403},
      {"escape", 403},        // a link pointing out
      {"/etc/passwd", 404},   // absolute
      {"sub", 404},           // a folder
      {"missing.bin", 404},
  };
  for (const auto& [path, expected] : cases) EXPECT_EQ(resolveUnderRoot(base / "root", path), expected) << path;
}

TEST(FileValidators, ChangeWhenTheFileChanges) {
  const vkq::testing::ScratchFolder folder;
  const fs::path file = folder / "file";
  vkq::testing::writeFile(file, "one");
  const auto first = FileValidators::of(file);
  ASSERT_TRUE(first.has_value());
  vkq::testing::writeFile(file, "three");
  const auto second = FileValidators::of(file);
  EXPECT_NE(second->etag, first->etag);
  fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(1));
  EXPECT_NE(FileValidators::of(file)->etag, second->etag) << "the same size, a later time";
  fs::remove(file);
  EXPECT_FALSE(FileValidators::of(file).has_value());
}

const FileValidators kFile{"\"v1\"", "Sat, 21 Nov 2026 10:00:00 GMT", 1000};

TEST(DecideRange, HonoursOneRangeOfTheCurrentVersionClampedToTheEnd) {
  // The status of the answer; for 206 also the first byte and the length.
  const auto answer = [](std::optional<std::string> range, std::optional<std::string> ifRange = std::nullopt,
                         const FileValidators& validators = kFile) {
    const RangeDecision decision = decideRange(range, ifRange, validators);
    if (decision.kind == RangeDecision::Kind::Whole) return std::string("200");
    if (decision.kind == RangeDecision::Kind::Unsatisfiable) return std::string("416");
    return "206 " + std::to_string(decision.range.first) + "+" + std::to_string(decision.range.length);
  };
  const std::pair<const char*, const char*> ranges[] = {
      {"bytes=990-5000", "206 990+10"},  // clamped
      {"bytes=-5000", "206 0+1000"}, {"bytes=999-999", "206 999+1"}, {"bytes=1000-", "416"}, {"bytes=-0", "416"},
  };
  for (const auto& [range, expected] : ranges) EXPECT_EQ(answer(range), expected) << range;
  EXPECT_EQ(answer("bytes=0-", std::nullopt, FileValidators{"\"e\"", "d", 0}), "416") << "an empty file";
  // What is not understood is ignored.
  for (const char* range : {"bytes=0-1,5-6", "items=0-5", "bytes=5-2", "bytes=x-", "bytes=", "bytes=-", "bytes=1"}) {
    EXPECT_EQ(answer(range), "200") << range;
  }
  EXPECT_EQ(answer(std::nullopt), "200");
  // If-Range must name the current version; weak validators never match.
  EXPECT_EQ(answer("bytes=10-", "\"v1\""), "206 10+990");
  EXPECT_EQ(answer("bytes=10-", kFile.lastModified), "206 10+990");
  for (const char* other : {"\"v0\"", "W/\"v1\"", "Fri, 20 Nov 2026 10:00:00 GMT"}) {
    EXPECT_EQ(answer("bytes=10-", other), "200") << other;
  }
}

}  // namespace
}  // namespace vkq::tool
