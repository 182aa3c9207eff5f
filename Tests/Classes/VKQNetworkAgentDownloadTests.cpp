// Resumable downloads end to end: fresh, into a folder, interrupted and resumed,
// cancelled and resumed, a changed entity, refused resume data and the folder guard.
#include <gtest/gtest.h>

#include <plist/plist.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <random>

#include "Classes/VKQVesk.h"
#include "Platform/Error.h"
#include "Tests/Classes/AgentTestSupport.h"
#include "Tests/Support/TestServer.h"

namespace {

namespace fs = std::filesystem;
using vkq::platform::Bytes;
using vkq::testing::AgentTest;
using vkq::testing::Calls;
using vkq::testing::FileOptions;
using vkq::testing::LogCapture;
using vkq::testing::TemporaryFolder;
using vkq::testing::TestServer;

std::string randomContent(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string content(size, '\0');
  for (auto& c : content) c = static_cast<char>(random());
  return content;
}

void writeFile(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class VKQNetworkAgentDownload : public AgentTest {
 protected:
  // Starts a download of `path` on the server into `target` and records its callbacks;
  // progress calls are counted.
  std::shared_ptr<Calls> download(const std::string& path, const std::string& target) {
    request = VKQVesk::initWithDownloadURL(server.url(path), target, nullptr);
    auto calls = std::make_shared<Calls>();
    vkq::testing::attach(*request, calls);
    progressCalls = std::make_shared<std::atomic<int>>(0);
    receivedBytes = std::make_shared<std::atomic<std::int64_t>>(0);
    request->downloadtWithSuccess(
        request->successResultBlock(),
        [counter = progressCalls, received = receivedBytes](const vkq::platform::Progress& progress) {
          ++*counter;
          received->store(progress.completedUnitCount);
        },
        request->failureResultBlock());
    return calls;
  }
  std::shared_ptr<Calls> downloadToEnd(const std::string& path, const std::string& target) {
    auto calls = download(path, target);
    EXPECT_TRUE(runUntil([&] { return calls->outcomes() == 1; }));
    return calls;
  }
  std::optional<std::string> resumeFile(const std::string& downloadPath) {
    const auto url = agent().incompleteDownloadTempPathForDownloadPath(downloadPath);
    return url ? std::optional(url->filePath()) : std::nullopt;
  }
  bool hasResumeData(const std::string& downloadPath) { return fs::exists(*resumeFile(downloadPath)); }
  std::optional<std::string> lastRange() { return server.requests().back().header("Range"); }

  TestServer server;
  TemporaryFolder folder;
  std::shared_ptr<VKQVesk> request;
  std::shared_ptr<std::atomic<int>> progressCalls;
  std::shared_ptr<std::atomic<std::int64_t>> receivedBytes;
};

TEST_F(VKQNetworkAgentDownload, AFreshDownloadReplacesTheFileAtItsPath) {
  const std::string content = randomContent(300'000, 1);
  writeFile(folder / "source.bin", content);
  server.serveFile("/files/a.bin", folder / "source.bin", FileOptions().withETag("\"v1\""));
  const std::string target = folder / "out.bin";
  writeFile(target, "an older file");

  auto calls = downloadToEnd("/files/a.bin", target);
  EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "success"}));
  const auto& data = calls->results.back()->data();
  ASSERT_TRUE(data.isURL());
  EXPECT_EQ(data.url().filePath(), target);
  EXPECT_EQ(readFile(target), content);
  EXPECT_GT(progressCalls->load(), 0);
  EXPECT_FALSE(hasResumeData(target));
}

TEST_F(VKQNetworkAgentDownload, IntoAFolderTheFileTakesTheURLsLastPathComponent) {
  const std::string content = randomContent(10'000, 2);
  writeFile(folder / "source.bin", content);
  server.serveFile("/files/b.zip", folder / "source.bin");
  fs::create_directory(folder / "inbox");

  auto calls = downloadToEnd("/files/b.zip", folder / "inbox");
  EXPECT_EQ(calls->lastCode(), 0);
  EXPECT_EQ(readFile(folder / "inbox/b.zip"), content);
}

TEST_F(VKQNetworkAgentDownload, AnInterruptedDownloadResumesByteExact) {
  const std::string content = randomContent(400'000, 3);
  writeFile(folder / "source.bin", content);
  server.serveFile("/files/a.bin", folder / "source.bin", FileOptions().withETag("\"v1\"").dropAfter(150'000));
  const std::string target = folder / "out.bin";
  writeFile(target, "an older file");

  auto failed = downloadToEnd("/files/a.bin", target);
  EXPECT_EQ(failed->order, (std::vector<std::string>{"completion", "failure"}));
  EXPECT_EQ(failed->lastCode(), -2);
  EXPECT_FALSE(fs::exists(target));  // the older file went when the download started
  ASSERT_TRUE(hasResumeData(target));

  server.serveFile("/files/a.bin", folder / "source.bin", FileOptions().withETag("\"v1\""));
  auto resumed = downloadToEnd("/files/a.bin", target);
  EXPECT_EQ(resumed->lastCode(), 0);
  EXPECT_EQ(lastRange(), "bytes=150000-");
  EXPECT_EQ(readFile(target), content);
  EXPECT_FALSE(hasResumeData(target));  // nothing left to mislead a later download
}

TEST_F(VKQNetworkAgentDownload, AnInterruptedDownloadIntoAFolderResumes) {
  const std::string content = randomContent(300'000, 4);
  writeFile(folder / "source.bin", content);
  server.serveFile("/files/b.zip", folder / "source.bin", FileOptions().withETag("\"v1\"").dropAfter(100'000));
  const std::string inbox = folder / "inbox";
  fs::create_directory(inbox);

  EXPECT_EQ(downloadToEnd("/files/b.zip", inbox)->lastCode(), -2);
  // Tested under the target's name, read under the folder's.
  EXPECT_TRUE(hasResumeData(inbox + "/b.zip"));
  EXPECT_TRUE(hasResumeData(inbox));

  server.serveFile("/files/b.zip", folder / "source.bin", FileOptions().withETag("\"v1\""));
  EXPECT_EQ(downloadToEnd("/files/b.zip", inbox)->lastCode(), 0);
  EXPECT_EQ(lastRange(), "bytes=100000-");
  EXPECT_EQ(readFile(inbox + "/b.zip"), content);
  EXPECT_FALSE(hasResumeData(inbox + "/b.zip"));
  EXPECT_FALSE(hasResumeData(inbox));
}

TEST_F(VKQNetworkAgentDownload, ACancelledDownloadIsSilentAndResumesLater) {
  const std::string content = randomContent(1'000'000, 5);
  writeFile(folder / "source.bin", content);
  server.serveFile("/files/big.bin", folder / "source.bin",
                   FileOptions().withETag("\"v1\"").slow(std::chrono::milliseconds(40)));
  const std::string target = folder / "big.bin";

  auto calls = download("/files/big.bin", target);
  ASSERT_TRUE(runUntil([&] { return receivedBytes->load() > 0; }));
  agent().cancelRequest(request);
  ASSERT_TRUE(runUntil([&] { return hasResumeData(target); }));
  runFor(std::chrono::milliseconds(100));
  EXPECT_TRUE(calls->order.empty());

  server.serveFile("/files/big.bin", folder / "source.bin", FileOptions().withETag("\"v1\""));
  EXPECT_EQ(downloadToEnd("/files/big.bin", target)->lastCode(), 0);
  ASSERT_TRUE(lastRange().has_value());
  EXPECT_EQ(lastRange()->rfind("bytes=", 0), 0u);
  EXPECT_EQ(readFile(target), content);
}

TEST_F(VKQNetworkAgentDownload, AChangedEntityIsDownloadedWhole) {
  writeFile(folder / "source.bin", randomContent(300'000, 6));
  server.serveFile("/files/a.bin", folder / "source.bin", FileOptions().withETag("\"v1\"").dropAfter(100'000));
  const std::string target = folder / "out.bin";
  EXPECT_EQ(downloadToEnd("/files/a.bin", target)->lastCode(), -2);
  ASSERT_TRUE(hasResumeData(target));

  const std::string changed = randomContent(250'000, 7);
  writeFile(folder / "source.bin", changed);
  server.serveFile("/files/a.bin", folder / "source.bin", FileOptions().withETag("\"v2\""));
  EXPECT_EQ(downloadToEnd("/files/a.bin", target)->lastCode(), 0);
  EXPECT_EQ(readFile(target), changed);
}

TEST_F(VKQNetworkAgentDownload, RefusedResumeDataFallsBackToAFreshDownload) {
  const std::string content = randomContent(50'000, 8);
  writeFile(folder / "source.bin", content);
  server.serveFile("/files/a.bin", folder / "source.bin", FileOptions().withETag("\"v1\""));
  const std::string target = folder / "out.bin";
  // A well-formed property list that is no resume data of the transport.
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "NSURLSessionResumeBytesReceived", plist_new_uint(10));
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(dict, &xml, &length);
  writeFile(*resumeFile(target), std::string(xml, length));
  std::free(xml);
  plist_free(dict);

  LogCapture log;
  auto calls = downloadToEnd("/files/a.bin", target);
  EXPECT_EQ(calls->lastCode(), 0);
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
    auto calls = downloadToEnd(path, inbox);
    EXPECT_EQ(calls->order, (std::vector<std::string>{"completion", "failure"}));
    EXPECT_EQ(calls->lastCode(), -2);
    ASSERT_NE(request->error(), nullptr);
    EXPECT_EQ(request->error()->domain(), vkq::platform::kURLErrorDomain);
    EXPECT_EQ(request->error()->code(), vkq::platform::kURLErrorCannotCreateFile);
  }
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(readFile(folder / "keep.txt"), "untouched");
  EXPECT_TRUE(fs::is_directory(inbox));
}

}  // namespace
