// Download tasks and resumable downloads against the in-process test server.
#include <gtest/gtest.h>

#include <atomic>
#include <tuple>

#include "Platform/Session/HTTPSessionManager.h"
#include "Platform/Transport/ResumeData.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

namespace fs = std::filesystem;
using platform::Bytes;
using platform::HTTPSessionManager;
using DownloadTask = std::shared_ptr<platform::URLSessionDownloadTask>;

class DownloadTaskTest : public ::testing::Test {
 protected:
  // Runs a download to its end and returns its outcome; every download lands at `target`.
  DownloadOutcome download(const DownloadTask& task) {
    const std::size_t expected = outcomes.all().size() + 1;
    task->resume();
    return outcomes.waitFor(expected, 60s) ? outcomes.all().back() : DownloadOutcome{};
  }
  DownloadTask fresh(const std::string& path, platform::ProgressBlock progress = {}) {
    platform::URLRequest request = makeRequest(server.url(path));
    request.setValueForHTTPHeaderField("1", "X-Client");  // resume data must carry it to the continuation
    return manager->downloadTaskWithRequest(request, std::move(progress), destination, outcomes.collector());
  }
  DownloadTask resumed(const Bytes& data, platform::ErrorPtr* error = nullptr, platform::ProgressBlock progress = {}) {
    return manager->downloadTaskWithResumeData(data, std::move(progress), destination, outcomes.collector(), error);
  }
  // Serves `content` at /file, cuts its download after `bytes` and returns the resume data.
  Bytes interruptedDownload(const std::string& content, FileOptions options, std::size_t bytes) {
    writeFile(source, content);
    server.serveFile("/file", source, options.dropAfter(bytes));
    const DownloadOutcome failed = download(fresh("/file"));
    EXPECT_EQ(codeOf(failed.error), platform::kURLErrorNetworkConnectionLost);
    return failed.error ? failed.error->userInfo().resumeData.value_or(Bytes{}) : Bytes{};
  }

  PrivateTemporaryDirectory temporaryDirectory;  // partial files of this test only
  ScratchFolder folder;
  const fs::path source = folder / "source.bin";
  const fs::path target = folder / "target.bin";
  const HTTPSessionManager::DownloadDestination destination = [this](auto...) {
    return platform::URL::fileURLWithPath(target.string());
  };
  TestServer server;
  Outcomes<DownloadOutcome> outcomes;
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

TEST_F(DownloadTaskTest, ResumedDownloadEndsWithTheServersCurrentEntityByteExactAndNeverAppendsElsewhere) {
  const std::string original = patternBytes(2 << 20, 1);
  const FileOptions v1 = FileOptions().withETag("\"v1\""), v2 = FileOptions().withETag("\"v2\"");
  const FileOptions dated = FileOptions().withLastModified("Mon, 02 Jan 2023");
  // Label; the entity when the download resumes; its validator before and then; the final
  // status; the requests it takes. (206 answers that do not continue the entity: with the
  // agent's download tests.)
  const std::tuple<const char*, std::string, FileOptions, FileOptions, int, std::size_t> cases[] = {
      {"unchanged: the rest is appended", original, dated, dated, 206, 1},
      {"changed: If-Range gives the whole new file", patternBytes(3 << 20, 2), v1, v2, 200, 1},
      {"shorter under the same validator: 416, then start over", patternBytes(512 << 10, 3), v1, v1, 200, 2},
  };
  for (const auto& [label, now, before, after, status, exchanges] : cases) {
    SCOPED_TRACE(label);
    const Bytes resumeData = interruptedDownload(original, before, 1 << 20);
    writeFile(source, now);
    server.serveFile("/file", source, after);
    const std::size_t sent = server.requestCount();
    const DownloadOutcome outcome = download(resumed(resumeData));
    ASSERT_EQ(outcome.error, nullptr);
    EXPECT_EQ(outcome.response->statusCode, status);
    EXPECT_TRUE(readFile(target) == now);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), sent + exchanges);
    EXPECT_EQ(requests[sent].header("Range"), "bytes=1048576-");
    EXPECT_EQ(requests[sent].header("If-Range"), before.etag.value_or(before.lastModified.value_or("")));
    EXPECT_EQ(requests[sent].header("X-Client"), "1");
    EXPECT_FALSE(exchanges > 1 && requests.back().header("Range").has_value());  // a restart asks for all
    EXPECT_TRUE(partialFiles().empty());  // the partial file was moved to the target
  }
}

// A download without a validator for If-Range has no resume data, and one refused by
// its status no file; resume data that cannot be continued from is refused.
TEST_F(DownloadTaskTest, ResumeDataIsMadeAndAcceptedOnlyWhereTheDownloadCanContinue) {
  EXPECT_TRUE(interruptedDownload(patternBytes(1 << 20), FileOptions(), 300000).empty());
  server.answer("/missing", ScriptedAnswer(404, "no such file"));
  EXPECT_EQ(codeOf(download(fresh("/missing")).error), platform::kURLErrorBadServerResponse);
  EXPECT_TRUE(partialFiles().empty());
  const Bytes good = interruptedDownload(patternBytes(1 << 20), FileOptions().withETag("\"v1\""), 256 << 10);
  const platform::ResumeData decoded = platform::ResumeData::decode(good, nullptr).value();
  const auto changed = [&decoded](auto change) {
    platform::ResumeData copy = decoded;
    change(copy);
    return copy.encoded();
  };
  writeFile(folder / "outside.part", std::string(static_cast<std::size_t>(decoded.bytesReceived), 'x'));
  const std::pair<const char*, Bytes> refused[] = {
      {"not resume data", Bytes{}},
      {"partial file outside our folder", changed([&](auto& d) { d.partialFilePath = folder / "outside.part"; })},
      {"partial file missing", changed([](auto& d) { d.partialFilePath += ".gone"; })},
      {"partial file of another size", changed([](auto& d) { d.bytesReceived += 1; })},
      {"nothing to continue from", changed([](auto& d) { d.bytesReceived = 0; })},
      {"no validator for If-Range", changed([](auto& d) { d.validator.clear(); })},
      {"not an HTTP URL", changed([](auto& d) { d.url = "file:///etc/passwd"; })},
  };
  for (const auto& [label, data] : refused) {
    platform::ErrorPtr refusal;
    EXPECT_EQ(resumed(data, &refusal), nullptr) << label;
    EXPECT_EQ(codeOf(refusal), platform::kURLErrorCannotDecodeRawData) << label;
  }
  EXPECT_NE(resumed(good), nullptr);
  EXPECT_FALSE(platform::URLSessionDownloadTask::partialFileOfResumeData(refused[1].second).has_value());
}

// A plain cancel gives the download up; cancelling by producing resume data keeps it to
// continue, with progress that counts the bytes already on disk.
TEST_F(DownloadTaskTest, CancelGivesUpButCancelByProducingResumeDataContinuesAndNoneOnceFinished) {
  const std::string content = patternBytes(2 << 20);
  writeFile(source, content);
  server.serveFile("/slow", source, FileOptions().withETag("\"v1\"").slow(20ms));
  const auto started = [&] {
    auto task = fresh("/slow");
    task->resume();
    EXPECT_TRUE(waitUntil([&] { return task->countOfBytesReceived() >= (256 << 10); }));
    return task;
  };
  started()->cancel();
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_FALSE(outcomes.all()[0].error->userInfo().resumeData.has_value());
  EXPECT_TRUE(partialFiles().empty());

  Outcomes<std::optional<Bytes>> produced;
  std::atomic<bool> completionSeenFirst{false};
  const DownloadTask cancelled = started();
  cancelled->cancelByProducingResumeData([&](std::optional<Bytes> data) {
    completionSeenFirst = outcomes.all().size() > 1;
    produced.add(std::move(data));
  });
  // Asked again, for the data as soon as the transfer stops: the handler stays.
  const std::optional<Bytes> ending = cancelled->cancelByProducingResumeData().get();
  ASSERT_TRUE(outcomes.waitFor(2));
  EXPECT_FALSE(completionSeenFirst);
  EXPECT_EQ(codeOf(outcomes.all()[1].error), platform::kURLErrorCancelled);
  ASSERT_TRUE(ending.has_value() && ending == produced.all().at(0));
  EXPECT_EQ(cancelled->cancelByProducingResumeData().get(), ending);  // asked once it has ended

  server.serveFile("/slow", source, FileOptions().withETag("\"v1\""));
  Outcomes<platform::Progress> progress;
  auto continued = resumed(*produced.all()[0], nullptr, progress.collector());
  ASSERT_EQ(download(continued).error, nullptr);
  EXPECT_TRUE(readFile(target) == content);
  ASSERT_FALSE(progress.all().empty());
  EXPECT_GE(progress.all().front().completedUnitCount, 256 << 10);  // continued, not started over
  EXPECT_EQ(progress.all().back(), (platform::Progress{2 << 20, 2 << 20}));
  continued->cancelByProducingResumeData(produced.collector());  // already finished: nothing to resume
  ASSERT_TRUE(produced.waitFor(2));
  EXPECT_FALSE(produced.all()[1].has_value() || continued->cancelByProducingResumeData().get().has_value());
  const DownloadTask orphan = fresh("/slow");  // resumed after its manager went: finished at once
  manager.reset();
  orphan->resume();
  EXPECT_EQ(orphan->cancelByProducingResumeData().wait_for(20s), std::future_status::ready);
}

}  // namespace
}  // namespace vkq::testing
