// Download tasks and resumable downloads against the in-process test server.
#include <gtest/gtest.h>

#include <fstream>

#include "Platform/HTTPSessionManager.h"
#include "Platform/KeyedArchive.h"
#include "Platform/ResumeData.h"
#include "Tests/Platform/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

namespace fs = std::filesystem;
using platform::Bytes;
using platform::HTTPSessionManager;

// Peak resident memory of the process, in KiB (VmHWM).
long peakResidentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) return std::stol(line.substr(6));
  }
  return -1;
}

std::size_t partialFileCount() {
  std::error_code ignored;
  std::size_t count = 0;
  for (auto it = fs::directory_iterator(HTTPSessionManager::partialDownloadsFolder(), ignored);
       it != fs::directory_iterator(); ++it) {
    ++count;
  }
  return count;
}

class DownloadTaskTest : public ::testing::Test {
 protected:
  // Runs a download to its end; the destination is `target`.
  DownloadOutcome download(const std::shared_ptr<platform::URLSessionDownloadTask>& task) {
    const std::size_t expected = outcomes.count() + 1;
    task->resume();
    EXPECT_TRUE(outcomes.waitFor(expected, 60s));
    return outcomes.all().back();
  }
  std::shared_ptr<platform::URLSessionDownloadTask> fresh(const std::string& path, platform::ProgressBlock progress = {}) {
    return manager->downloadTaskWithRequest(makeRequest(server.url(path)), std::move(progress), destination(),
                                            collect(outcomes));
  }
  std::shared_ptr<platform::URLSessionDownloadTask> resumed(const Bytes& data) {
    return manager->downloadTaskWithResumeData(data, nullptr, destination(), collect(outcomes));
  }
  HTTPSessionManager::DownloadDestination destination() {
    return [this](const platform::URL& temporary, auto) {
      temporaryFiles.push_back(temporary.filePath());
      return platform::URL::fileURLWithPath(target.string());
    };
  }
  // Interrupts a download of `path` after `bytes` and returns its resume data.
  Bytes interruptedDownload(const std::string& path, const fs::path& file, FileOptions options, std::size_t bytes) {
    options.dropAfterBytes = bytes;
    server.serveFile(path, file, options);
    const DownloadOutcome failed = download(fresh(path));
    EXPECT_NE(failed.error, nullptr);
    if (!failed.error || !failed.error->userInfo().resumeData) {
      ADD_FAILURE() << "no resume data";
      return {};
    }
    EXPECT_EQ(failed.error->code(), platform::kURLErrorNetworkConnectionLost);
    EXPECT_FALSE(failed.filePath.has_value());
    return *failed.error->userInfo().resumeData;
  }

  ScratchFolder folder;
  fs::path target = folder / "target.bin";
  std::vector<std::string> temporaryFiles;
  TestServer server;
  Outcomes<DownloadOutcome> outcomes;
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

TEST_F(DownloadTaskTest, FileIsMovedToTheDestinationWithThrottledProgress) {
  const std::string content = patternBytes(3 << 20);
  writeFile(folder / "source.bin", content);
  server.serveFile("/file", folder / "source.bin", FileOptions().withETag("\"v1\""));
  Outcomes<platform::Progress> progress;
  const std::size_t partialsBefore = partialFileCount();

  const DownloadOutcome outcome = download(fresh("/file", [&](const platform::Progress& p) { progress.add(p); }));
  ASSERT_EQ(outcome.error, nullptr);
  ASSERT_TRUE(outcome.filePath.has_value());
  EXPECT_EQ(outcome.filePath->filePath(), target.string());
  EXPECT_EQ(readFile(target), content);
  ASSERT_EQ(temporaryFiles.size(), 1u);
  EXPECT_FALSE(fs::exists(temporaryFiles[0]));
  EXPECT_EQ(partialFileCount(), partialsBefore);

  const auto reports = progress.all();
  ASSERT_FALSE(reports.empty());
  for (std::size_t i = 1; i < reports.size(); ++i) EXPECT_GT(reports[i].completedUnitCount, reports[i - 1].completedUnitCount);
  EXPECT_EQ(reports.back().completedUnitCount, 3 << 20);
  EXPECT_EQ(reports.back().totalUnitCount, 3 << 20);
}

TEST_F(DownloadTaskTest, ErrorStatusFailsAndMovesNothing) {
  server.answer("/missing", ScriptedAnswer(404, "no such file"));
  const DownloadOutcome outcome = download(fresh("/missing"));
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), platform::kURLErrorBadServerResponse);
  EXPECT_FALSE(outcome.error->userInfo().resumeData.has_value());
  EXPECT_FALSE(outcome.filePath.has_value());
  EXPECT_TRUE(temporaryFiles.empty());
  EXPECT_FALSE(fs::exists(target));
}

TEST_F(DownloadTaskTest, LargeDownloadKeepsMemoryFlat) {
  constexpr std::size_t kSize = std::size_t{64} << 20;
  {
    std::ofstream out(folder / "large.bin", std::ios::binary);
    const std::string block = patternBytes(1 << 20);
    for (std::size_t written = 0; written < kSize; written += block.size()) out.write(block.data(), block.size());
  }
  server.serveFile("/large", folder / "large.bin");
  std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM where the kernel allows it
  const long before = peakResidentKiB();
  const DownloadOutcome outcome = download(fresh("/large"));
  const long after = peakResidentKiB();
  ASSERT_EQ(outcome.error, nullptr);
  EXPECT_EQ(fs::file_size(target), kSize);
  // Generous: buffers are a few MiB; holding the file would add 64 MiB.
  EXPECT_LT(after - before, 24 * 1024) << "peak RSS grew by " << (after - before) << " KiB";
}

TEST_F(DownloadTaskTest, InterruptedDownloadResumesByteExactWithRangeAndIfRange) {
  const std::string content = patternBytes(4 << 20);
  writeFile(folder / "source.bin", content);
  const Bytes resumeData = interruptedDownload("/file", folder / "source.bin", FileOptions().withETag("\"v1\""), 1 << 20);
  ASSERT_FALSE(resumeData.empty());

  server.serveFile("/file", folder / "source.bin", FileOptions().withETag("\"v1\""));
  const DownloadOutcome outcome = download(resumed(resumeData));
  ASSERT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.response->statusCode, 206);
  EXPECT_TRUE(readFile(target) == content);
  const auto last = server.requests().back();
  EXPECT_EQ(last.header("Range"), "bytes=1048576-");
  EXPECT_EQ(last.header("If-Range"), "\"v1\"");
}

TEST_F(DownloadTaskTest, ChangedEntityOnResumeGivesTheWholeNewFile) {
  writeFile(folder / "source.bin", patternBytes(2 << 20, 1));
  const Bytes resumeData = interruptedDownload("/file", folder / "source.bin", FileOptions().withETag("\"v1\""), 512 << 10);

  const std::string changed = patternBytes(3 << 20, 2);
  writeFile(folder / "source.bin", changed);
  server.serveFile("/file", folder / "source.bin", FileOptions().withETag("\"v2\""));
  const DownloadOutcome outcome = download(resumed(resumeData));
  ASSERT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.response->statusCode, 200);
  EXPECT_TRUE(readFile(target) == changed);
}

TEST_F(DownloadTaskTest, RangeAnsweredFromTheWrongPositionIsNeverAppended) {
  const std::string content = patternBytes(2 << 20);
  writeFile(folder / "source.bin", content);
  const Bytes resumeData =
      interruptedDownload("/file", folder / "source.bin", FileOptions().withLastModified("Mon, 02 Jan 2023 10:00:00 GMT"), 700000);

  // A server that claims to resume but sends the entity from its start.
  server.handle("/file", [&content](const httplib::Request& request, httplib::Response& response) {
    response.set_header("Last-Modified", "Mon, 02 Jan 2023 10:00:00 GMT");
    if (request.has_header("Range")) {
      response.status = 206;
      response.set_header("Content-Range", "bytes 0-" + std::to_string(content.size() - 1) + "/" +
                                               std::to_string(content.size()));
    }
    response.set_content(content, "application/octet-stream");
  });
  const std::size_t before = server.requestCount();
  const DownloadOutcome outcome = download(resumed(resumeData));
  ASSERT_EQ(outcome.error, nullptr);
  EXPECT_TRUE(readFile(target) == content);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), before + 2);  // the refused resume, then a plain request
  EXPECT_TRUE(requests[before].header("Range").has_value());
  EXPECT_FALSE(requests[before + 1].header("Range").has_value());
}

TEST_F(DownloadTaskTest, ResumePastTheEndGets416AndStartsOver) {
  writeFile(folder / "source.bin", patternBytes(2 << 20, 3));
  const Bytes resumeData = interruptedDownload("/file", folder / "source.bin", FileOptions().withETag("\"same\""), 1 << 20);
  const std::string shorter = patternBytes(512 << 10, 4);
  writeFile(folder / "source.bin", shorter);
  server.serveFile("/file", folder / "source.bin", FileOptions().withETag("\"same\""));
  const DownloadOutcome outcome = download(resumed(resumeData));
  ASSERT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.response->statusCode, 200);
  EXPECT_TRUE(readFile(target) == shorter);
}

TEST_F(DownloadTaskTest, ResumeDataItCannotContinueFromIsRefused) {
  writeFile(folder / "source.bin", patternBytes(1 << 20));
  const Bytes good = interruptedDownload("/file", folder / "source.bin", FileOptions().withETag("\"v1\""), 256 << 10);
  std::string reason;
  const auto decoded = platform::ResumeData::decode(good, reason);
  ASSERT_TRUE(decoded.has_value()) << reason;

  platform::KeyedArchiver other;
  other.encodeString("something else", "key");
  auto elsewhere = *decoded;
  elsewhere.partialFilePath = (folder / "outside.part").string();
  writeFile(elsewhere.partialFilePath, std::string(static_cast<std::size_t>(decoded->bytesReceived), 'x'));
  auto missing = *decoded;
  missing.partialFilePath += ".gone";
  auto longer = *decoded;
  longer.bytesReceived += 1;

  const std::vector<std::pair<const char*, Bytes>> refused = {
      {"empty", Bytes{}},
      {"not a property list", platform::bytesFromString("hello")},
      {"another archive", other.encodedData()},
      {"partial file outside our folder", elsewhere.encoded()},
      {"partial file missing", missing.encoded()},
      {"partial file of another size", longer.encoded()},
  };
  for (const auto& [label, data] : refused) {
    SCOPED_TRACE(label);
    EXPECT_THROW(resumed(data), platform::ResumeDataRefused);
  }
  EXPECT_NO_THROW(resumed(good));
}

TEST_F(DownloadTaskTest, CancelByProducingResumeDataThenResume) {
  const std::string content = patternBytes(2 << 20);
  writeFile(folder / "source.bin", content);
  server.serveFile("/slow", folder / "source.bin", FileOptions().withETag("\"v1\"").slow(20ms));
  auto task = fresh("/slow");
  task->resume();
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (task->countOfBytesReceived() < (256 << 10) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  Outcomes<std::optional<Bytes>> produced;
  std::atomic<bool> completionSeenFirst{false};
  task->cancelByProducingResumeData([&](std::optional<Bytes> data) {
    completionSeenFirst = outcomes.count() > 0;
    produced.add(std::move(data));
  });
  ASSERT_TRUE(produced.waitFor(1));
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_FALSE(completionSeenFirst);
  EXPECT_EQ(outcomes.all()[0].error->code(), platform::kURLErrorCancelled);
  const auto data = produced.all()[0];
  ASSERT_TRUE(data.has_value());

  server.serveFile("/slow", folder / "source.bin", FileOptions().withETag("\"v1\""));
  const DownloadOutcome outcome = download(resumed(*data));
  ASSERT_EQ(outcome.error, nullptr);
  EXPECT_TRUE(readFile(target) == content);
  EXPECT_NE(server.requests().back().header("Range"), std::nullopt);
}

TEST_F(DownloadTaskTest, PlainCancelOrNoValidatorLeavesNoPartialFileAndNoResumeData) {
  writeFile(folder / "source.bin", patternBytes(1 << 20));
  const std::size_t partialsBefore = partialFileCount();

  server.serveFile("/plain", folder / "source.bin", FileOptions().dropAfter(300000));
  const DownloadOutcome failed = download(fresh("/plain"));
  ASSERT_NE(failed.error, nullptr);
  EXPECT_FALSE(failed.error->userInfo().resumeData.has_value());

  server.serveFile("/slow", folder / "source.bin", FileOptions().withETag("\"v1\"").slow(50ms));
  auto task = fresh("/slow");
  task->resume();
  ASSERT_TRUE(server.waitForRequests(server.requestCount() + 1, 10s));
  task->cancel();
  ASSERT_TRUE(outcomes.waitFor(2));
  EXPECT_EQ(outcomes.all()[1].error->code(), platform::kURLErrorCancelled);
  EXPECT_FALSE(outcomes.all()[1].error->userInfo().resumeData.has_value());
  EXPECT_EQ(partialFileCount(), partialsBefore);
}

TEST_F(DownloadTaskTest, CancelByProducingResumeDataOnAFinishedDownloadGivesAbsent) {
  writeFile(folder / "source.bin", "small");
  server.serveFile("/small", folder / "source.bin", FileOptions().withETag("\"v1\""));
  auto task = fresh("/small");
  ASSERT_EQ(download(task).error, nullptr);
  Outcomes<std::optional<Bytes>> produced;
  task->cancelByProducingResumeData([&](std::optional<Bytes> data) { produced.add(std::move(data)); });
  ASSERT_TRUE(produced.waitFor(1));
  EXPECT_FALSE(produced.all()[0].has_value());
  EXPECT_EQ(outcomes.count(), 1u);
}

}  // namespace
}  // namespace vkq::testing
