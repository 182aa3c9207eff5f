// Resumable downloads end to end: fresh, into a folder, interrupted and resumed,
// a changed entity, cancelled and resumed, refused resume data and the folder guard.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iterator>

#include "Classes/VKQVesk.h"
#include "Tests/Classes/AgentTestSupport.h"

namespace {

namespace fs = std::filesystem;
using vkq::testing::AgentTest;
using vkq::testing::Calls;
using vkq::testing::FileOptions;
using vkq::testing::readFile;
using vkq::testing::writeFile;
using Order = std::vector<std::string>;

std::string randomContent(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string content(size, '\0');
  for (auto& c : content) c = static_cast<char>(random());
  return content;
}

class VKQNetworkAgentDownload : public AgentTest {
 protected:
  // Serves `content` at `path` with the ETag "v1" and the given options.
  void serve(const std::string& path, const std::string& content, FileOptions options = {}) {
    if (!options.etag) options.withETag("\"v1\"");
    writeFile(folder / "source.bin", content);
    server.serveFile(path, folder / "source.bin", options);
  }
  // Starts a download of `path` on the server into `target` and records its callbacks
  // and the bytes its progress reports.
  std::shared_ptr<Calls> download(const std::string& path, const std::string& target) {
    request = VKQVesk::initWithDownloadURL(server.url(path), target, nullptr);
    auto calls = std::make_shared<Calls>();
    vkq::testing::attach(*request, calls);
    receivedBytes = std::make_shared<std::atomic<std::int64_t>>(0);
    request->downloadtWithSuccess(
        request->successResultBlock(),
        [received = receivedBytes](const vkq::platform::Progress& progress) { *received = progress.completedUnitCount; },
        request->failureResultBlock());
    return calls;
  }
  std::int64_t downloadToEnd(const std::string& path, const std::string& target) {
    auto calls = download(path, target);
    EXPECT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    return calls->outcomes() == 1 ? calls->lastCode() : 1;
  }
  bool hasResumeData(const std::string& downloadPath) {
    return fs::exists(agent().incompleteDownloadTempPathForDownloadPath(downloadPath)->filePath());
  }
  std::optional<std::string> lastRange() { return server.requests().back().header("Range"); }

  vkq::testing::TestServer server;
  vkq::testing::ScratchFolder folder;
  std::shared_ptr<VKQVesk> request;
  std::shared_ptr<std::atomic<std::int64_t>> receivedBytes;
};

TEST_F(VKQNetworkAgentDownload, AFreshDownloadReplacesTheFileOrLandsInAFolderUnderTheURLsName) {
  const std::string content = randomContent(300'000, 1);
  serve("/files/a.zip", content);
  const std::string target = folder / "out.bin";
  writeFile(target, "an older file");
  auto calls = download("/files/a.zip", target);
  ASSERT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
  EXPECT_EQ(calls->order, (Order{"completion", "success"}));
  ASSERT_TRUE(calls->results.back()->data().isURL());
  EXPECT_EQ(calls->results.back()->data().url().filePath(), target);
  EXPECT_EQ(readFile(target), content);
  EXPECT_EQ(receivedBytes->load(), 300'000);
  EXPECT_FALSE(hasResumeData(target));

  fs::create_directory(folder / "inbox");
  EXPECT_EQ(downloadToEnd("/files/a.zip", folder / "inbox"), 0);
  EXPECT_EQ(readFile(folder / "inbox/a.zip"), content);
}

TEST_F(VKQNetworkAgentDownload, AnInterruptedDownloadResumesByteExactUnlessTheEntityChanged) {
  fs::create_directory(folder / "inbox");
  const std::string content = randomContent(400'000, 3), changed = randomContent(250'000, 7);
  const struct {
    std::string target, file;
    std::string etag;
    const std::string& resumed;  // what the second download serves
  } table[] = {
      {folder / "out.bin", folder / "out.bin", "\"v1\"", content},
      // Resume data tested under the target's name, read under the folder's.
      {folder / "inbox", folder / "inbox/b.zip", "\"v1\"", content},
      // Another validator: the server sends the whole new entity.
      {folder / "out.bin", folder / "out.bin", "\"v2\"", changed},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.target + " " + row.etag);
    serve("/files/b.zip", content, FileOptions().dropAfter(150'000));
    writeFile(row.file, "an older file");
    EXPECT_EQ(downloadToEnd("/files/b.zip", row.target), -2);
    EXPECT_FALSE(fs::exists(row.file));  // the older file went when the download started
    EXPECT_TRUE(hasResumeData(row.target) && hasResumeData(row.file));

    serve("/files/b.zip", row.resumed, FileOptions().withETag(row.etag));
    EXPECT_EQ(downloadToEnd("/files/b.zip", row.target), 0);
    EXPECT_EQ(lastRange(), "bytes=150000-");
    EXPECT_EQ(readFile(row.file), row.resumed);
    EXPECT_FALSE(hasResumeData(row.target) || hasResumeData(row.file));  // nothing left to mislead a later download
  }
}

TEST_F(VKQNetworkAgentDownload, ACancelledDownloadIsSilentAndResumesLater) {
  const std::string content = randomContent(1'000'000, 5);
  serve("/files/big.bin", content, FileOptions().slow(std::chrono::milliseconds(40)));
  const std::string target = folder / "big.bin";
  auto calls = download("/files/big.bin", target);
  ASSERT_TRUE(runUntil([&] { return receivedBytes->load() > 0; }));
  agent().cancelRequest(request);
  ASSERT_TRUE(runUntil([&] { return hasResumeData(target); }));
  runFor(std::chrono::milliseconds(100));
  EXPECT_TRUE(calls->order.empty());

  serve("/files/big.bin", content);
  EXPECT_EQ(downloadToEnd("/files/big.bin", target), 0);
  EXPECT_EQ(lastRange().value_or("").rfind("bytes=", 0), 0u);
  EXPECT_EQ(readFile(target), content);
}

TEST_F(VKQNetworkAgentDownload, RefusedResumeDataFallsBackToAFreshDownload) {
  const std::string content = randomContent(50'000, 8);
  serve("/files/a.bin", content);
  const std::string target = folder / "out.bin";
  // A well-formed property list that is no resume data of the transport.
  writeFile(agent().incompleteDownloadTempPathForDownloadPath(target)->filePath(),
            R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>k</key><integer>10</integer></dict></plist>)");
  vkq::testing::LogCapture log;
  EXPECT_EQ(downloadToEnd("/files/a.bin", target), 0);
  EXPECT_EQ(log.count("Resume download failed, reason = "), 1u);
  EXPECT_FALSE(lastRange().has_value());
  EXPECT_EQ(readFile(target), content);
}

TEST_F(VKQNetworkAgentDownload, ANameThatWouldLeaveTheFolderFailsTheRequest) {
  const std::string inbox = folder / "inbox";
  fs::create_directory(inbox);
  writeFile(folder / "keep.txt", "untouched");
  for (const char* path : {"/files/%2E%2E", "/files/..", "/files/.", "/", "/files/a%2F..%2Fkeep.txt"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(downloadToEnd(path, inbox), -2);
    ASSERT_NE(request->error(), nullptr);
    EXPECT_EQ(request->error()->domain(), vkq::platform::kURLErrorDomain);
    EXPECT_EQ(request->error()->code(), vkq::platform::kURLErrorCannotCreateFile);
  }
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(readFile(folder / "keep.txt"), "untouched");
  EXPECT_TRUE(fs::is_directory(inbox));
}

}  // namespace
