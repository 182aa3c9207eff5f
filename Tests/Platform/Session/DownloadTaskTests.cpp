// Download tasks and resumable downloads against the in-process test server.
#include <gtest/gtest.h>

#include <atomic>

#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Serialization/KeyedArchive.h"
#include "Platform/Transport/ResumeData.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

namespace fs = std::filesystem;
using platform::Bytes;
using platform::HTTPSessionManager;
using DownloadTask = std::shared_ptr<platform::URLSessionDownloadTask>;

// Peak resident memory of the process, in KiB (VmHWM).
long peakResidentKiB() {
  const std::string status = readFile("/proc/self/status");
  const auto field = status.find("VmHWM:");
  return field == std::string::npos ? -1 : std::stol(status.substr(field + 6));
}

std::size_t partialFileCount() {
  std::error_code ignored;
  const fs::directory_iterator files(HTTPSessionManager::partialDownloadsFolder(), ignored);
  return static_cast<std::size_t>(std::distance(files, fs::directory_iterator()));
}

class DownloadTaskTest : public ::testing::Test {
 protected:
  // Runs a download to its end and returns its outcome; every download lands at `target`.
  DownloadOutcome download(const DownloadTask& task) {
    const std::size_t expected = outcomes.all().size() + 1;
    task->resume();
    EXPECT_TRUE(outcomes.waitFor(expected, 60s));
    const auto all = outcomes.all();
    return all.size() >= expected ? all.back() : DownloadOutcome{};
  }
  DownloadTask fresh(const std::string& path, platform::ProgressBlock progress = {}) {
    platform::URLRequest request = makeRequest(server.url(path));
    request.setValueForHTTPHeaderField("1", "X-Client");  // resume data must carry it to the continuation
    return manager->downloadTaskWithRequest(request, std::move(progress), destination(), outcomes.collector());
  }
  DownloadTask resumed(const Bytes& data, platform::ErrorPtr* error = nullptr) {
    return manager->downloadTaskWithResumeData(data, nullptr, destination(), outcomes.collector(), error);
  }
  HTTPSessionManager::DownloadDestination destination() {
    return [this](auto...) { return platform::URL::fileURLWithPath(target.string()); };
  }
  // Serves `content` at /file, cuts its download after `bytes` and returns the resume data.
  Bytes interruptedDownload(const std::string& content, FileOptions options, std::size_t bytes) {
    writeFile(source, content);
    server.serveFile("/file", source, options.dropAfter(bytes));
    const DownloadOutcome failed = download(fresh("/file"));
    EXPECT_EQ(codeOf(failed.error), platform::kURLErrorNetworkConnectionLost);
    EXPECT_FALSE(failed.filePath.has_value());
    return failed.error ? failed.error->userInfo().resumeData.value_or(Bytes{}) : Bytes{};
  }

  PrivateTemporaryDirectory temporaryDirectory;
  ScratchFolder folder;
  const fs::path source = folder / "source.bin";
  const fs::path target = folder / "target.bin";
  TestServer server;
  Outcomes<DownloadOutcome> outcomes;
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

TEST_F(DownloadTaskTest, FailuresWithoutAValidatorOrByPlainCancelLeaveNoFileAndNoResumeData) {
  writeFile(source, patternBytes(1 << 20));
  const std::size_t partialsBefore = partialFileCount();
  server.answer("/missing", ScriptedAnswer(404, "no such file"));
  server.serveFile("/unvalidated", source, FileOptions().dropAfter(300000));
  server.serveFile("/slow", source, FileOptions().withETag("\"v1\"").slow(50ms));
  download(fresh("/missing"));
  download(fresh("/unvalidated"));
  auto task = fresh("/slow");
  task->resume();
  ASSERT_TRUE(server.waitForRequests(3, 10s));
  task->cancel();
  ASSERT_TRUE(outcomes.waitFor(3));

  const std::int64_t codes[] = {platform::kURLErrorBadServerResponse, platform::kURLErrorNetworkConnectionLost,
                                platform::kURLErrorCancelled};
  const auto all = outcomes.all();
  ASSERT_EQ(all.size(), 3u);
  for (std::size_t i = 0; i < all.size(); ++i) {
    ASSERT_EQ(codeOf(all[i].error), codes[i]);
    EXPECT_FALSE(all[i].error->userInfo().resumeData.has_value()) << i;
    EXPECT_FALSE(all[i].filePath.has_value()) << i;
  }
  EXPECT_FALSE(fs::exists(target));
  EXPECT_EQ(partialFileCount(), partialsBefore);
}

TEST_F(DownloadTaskTest, LargeFileIsStreamedToTheDestinationWithRisingProgressAndFlatMemory) {
  constexpr std::int64_t kSize = std::int64_t{64} << 20;
  {
    std::ofstream out(source, std::ios::binary);
    const std::string block = patternBytes(1 << 20);
    for (int i = 0; i < 64; ++i) out.write(block.data(), block.size());
  }
  server.serveFile("/large", source);
  Outcomes<platform::Progress> progress;
  const std::size_t partialsBefore = partialFileCount();
  std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM where the kernel allows it
  const long before = peakResidentKiB();
  const DownloadOutcome outcome = download(fresh("/large", progress.collector()));
  const long after = peakResidentKiB();
  ASSERT_EQ(outcome.error, nullptr);
  // Generous: buffers are a few MiB; holding the file would add 64 MiB.
  EXPECT_LT(after - before, 24 * 1024) << "peak RSS grew by " << (after - before) << " KiB";
  EXPECT_EQ(outcome.filePath->filePath(), target.string());
  EXPECT_TRUE(readFile(target) == readFile(source));
  EXPECT_EQ(partialFileCount(), partialsBefore);  // the temporary file was moved, not copied

  const auto reports = progress.all();
  ASSERT_FALSE(reports.empty());
  for (std::size_t i = 1; i < reports.size(); ++i) EXPECT_GT(reports[i].completedUnitCount, reports[i - 1].completedUnitCount);
  EXPECT_EQ(reports.back().completedUnitCount, kSize);
  EXPECT_EQ(reports.back().totalUnitCount, kSize);
}

TEST_F(DownloadTaskTest, ResumedDownloadEndsWithTheServersCurrentEntityByteExact) {
  const std::string original = patternBytes(2 << 20, 1);
  const struct {
    const char* label;
    std::string now;   // the entity when the download resumes
    const char* etag;  // its validator
    int status;
  } cases[] = {
      {"unchanged: the rest is appended", original, "\"v1\"", 206},
      {"changed: If-Range gives the whole new file", patternBytes(3 << 20, 2), "\"v2\"", 200},
      {"shorter under the same validator: 416, then start over", patternBytes(512 << 10, 3), "\"v1\"", 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const Bytes resumeData = interruptedDownload(original, FileOptions().withETag("\"v1\""), 1 << 20);
    writeFile(source, c.now);
    server.serveFile("/file", source, FileOptions().withETag(c.etag));
    const std::size_t before = server.requestCount();
    const DownloadOutcome outcome = download(resumed(resumeData));
    ASSERT_EQ(outcome.error, nullptr);
    EXPECT_EQ(outcome.response->statusCode, c.status);
    EXPECT_TRUE(readFile(target) == c.now);
    const auto continuation = server.requests().at(before);
    EXPECT_EQ(continuation.header("Range"), "bytes=1048576-");
    EXPECT_EQ(continuation.header("If-Range"), "\"v1\"");
    EXPECT_EQ(continuation.header("X-Client"), "1");
  }
}

TEST_F(DownloadTaskTest, RangeAnsweredFromTheWrongPositionIsNeverAppended) {
  const std::string content = patternBytes(2 << 20);
  const std::string date = "Mon, 02 Jan 2023 10:00:00 GMT";
  const Bytes resumeData = interruptedDownload(content, FileOptions().withLastModified(date), 700000);
  // A server that claims to resume but sends the entity from its start. The handler keeps
  // its own copies: that the answer arrived orders it before this test's end only
  // through the socket, which a thread sanitizer does not see.
  server.handle("/file", [content, date](const httplib::Request& request, httplib::Response& response) {
    response.set_header("Last-Modified", date);
    if (request.has_header("Range")) {
      response.status = 206;
      response.set_header("Content-Range", "bytes 0-" + std::to_string(content.size() - 1) + "/" +
                                               std::to_string(content.size()));
    }
    response.set_content(content, "application/octet-stream");
  });
  const std::size_t before = server.requestCount();
  ASSERT_EQ(download(resumed(resumeData)).error, nullptr);
  EXPECT_TRUE(readFile(target) == content);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), before + 2);  // the refused resume, then a plain request
  EXPECT_TRUE(requests[before].header("Range").has_value());
  EXPECT_FALSE(requests[before + 1].header("Range").has_value());
}

TEST_F(DownloadTaskTest, ResumeDataItCannotContinueFromIsRefused) {
  const Bytes good = interruptedDownload(patternBytes(1 << 20), FileOptions().withETag("\"v1\""), 256 << 10);
  platform::ErrorPtr error;
  const auto decoded = platform::ResumeData::decode(good, &error);
  ASSERT_TRUE(decoded.has_value()) << error->description();
  const auto changed = [&decoded](auto change) {
    platform::ResumeData copy = *decoded;
    change(copy);
    return copy.encoded();
  };
  writeFile(folder / "outside.part", std::string(static_cast<std::size_t>(decoded->bytesReceived), 'x'));
  platform::KeyedArchiver other;
  other.encodeString("something else", "DownloadURL");

  const std::pair<const char*, Bytes> refused[] = {
      {"empty", Bytes{}},
      {"another archive", other.encodedData()},
      {"partial file outside our folder", changed([&](auto& d) { d.partialFilePath = folder / "outside.part"; })},
      {"partial file missing", changed([](auto& d) { d.partialFilePath += ".gone"; })},
      {"partial file of another size", changed([](auto& d) { d.bytesReceived += 1; })},
      {"nothing to continue from", changed([](auto& d) { d.bytesReceived = 0; })},
      {"no validator for If-Range", changed([](auto& d) { d.validator.clear(); })},
  };
  for (const auto& [label, data] : refused) {
    platform::ErrorPtr refusal;
    EXPECT_EQ(resumed(data, &refusal), nullptr) << label;
    EXPECT_EQ(codeOf(refusal), platform::kURLErrorCannotDecodeRawData) << label;
  }
  EXPECT_NE(resumed(good), nullptr);
}

TEST_F(DownloadTaskTest, CancelByProducingResumeDataThenResumeAndNoneOnceFinished) {
  const std::string content = patternBytes(2 << 20);
  writeFile(source, content);
  server.serveFile("/slow", source, FileOptions().withETag("\"v1\"").slow(20ms));
  auto task = fresh("/slow");
  task->resume();
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (task->countOfBytesReceived() < (256 << 10) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  Outcomes<std::optional<Bytes>> produced;
  std::atomic<bool> completionSeenFirst{false};
  task->cancelByProducingResumeData([&](std::optional<Bytes> data) {
    completionSeenFirst = !outcomes.all().empty();
    produced.add(std::move(data));
  });
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_FALSE(completionSeenFirst);
  EXPECT_EQ(codeOf(outcomes.all()[0].error), platform::kURLErrorCancelled);
  ASSERT_TRUE(produced.all().at(0).has_value());

  server.serveFile("/slow", source, FileOptions().withETag("\"v1\""));
  auto continued = resumed(*produced.all()[0]);
  ASSERT_EQ(download(continued).error, nullptr);
  EXPECT_TRUE(readFile(target) == content);
  EXPECT_TRUE(server.requests().back().header("Range").has_value());

  continued->cancelByProducingResumeData(produced.collector());  // already finished: nothing to resume
  ASSERT_TRUE(produced.waitFor(2));
  EXPECT_FALSE(produced.all()[1].has_value());
  EXPECT_EQ(outcomes.all().size(), 2u);
}

}  // namespace
}  // namespace vkq::testing
