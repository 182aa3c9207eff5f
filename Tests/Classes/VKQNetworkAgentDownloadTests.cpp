// Resumable downloads through the agent: where the file lands, resume data stored under
// the right names when a download fails or is cancelled and taken up by the next
// download (also one started right after the cancel), resume data that is not offered,
// refused or replaced and its partial file, the folder guard, and what a failure (a
// full disk included) leaves at the target. (How the transport continues a download
// is tested with the transport.)
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <future>

#include "Tests/Classes/AgentTestSupport.h"
#include "Tests/Platform/Transport/TransportTesting.h"

namespace {

namespace fs = std::filesystem;
using vkq::testing::FileOptions;
using vkq::testing::readFile;
using vkq::testing::writeFile;

class VKQNetworkAgentDownload : public vkq::testing::AgentTest {
 protected:
  // Serves `content` at "/files/<name>", with an ETag.
  void serve(const std::string& name, const std::string& content, FileOptions options = {}) {
    writeFile(folder / "source.bin", content);
    server.serveFile("/files/" + name, folder / "source.bin", options.withETag("\"v1\""));
  }
  // Starts a download of "/files/<name>" (or of `name` when it is a URL) into
  // `target`, keeping the bytes its progress reports.
  std::shared_ptr<vkq::testing::Calls> download(const std::string& name, const std::string& target) {
    request = VKQVesk::initWithDownloadURL(name.starts_with("http:") ? name : server.url("/files/" + name), target,
                                           nullptr);
    auto calls = vkq::testing::attach(*request);
    auto progress = [this, hold = progressHold, complete = onComplete](const vkq::platform::Progress& p) {
      received = p.completedUnitCount;
      if (complete && p.completedUnitCount == p.totalUnitCount) complete();
      EXPECT_TRUE(!hold.valid() || hold.wait_for(std::chrono::seconds(20)) == std::future_status::ready);
    };
    request->downloadtWithSuccess(request->successResultBlock(), progress, request->failureResultBlock());
    return calls;
  }
  // The code the download delivered (1 when it did not hear back).
  std::int64_t downloadToEnd(const std::string& name, const std::string& target) {
    auto calls = download(name, target);
    return runUntil([&] { return calls->outcomes() == 1; }) ? calls->lastCode() : 1;
  }
  bool hasResumeData(const std::string& name) {
    return fs::exists(agent().incompleteDownloadTempPathForDownloadPath(name)->filePath());
  }
  std::optional<std::string> lastRange() { return server.requests().back().header("Range"); }

  vkq::testing::PrivateTemporaryDirectory temporary;  // the resume data and partial files are this test's
  vkq::testing::TestServer server;
  vkq::testing::ScratchFolder folder;
  std::shared_ptr<VKQVesk> request;
  std::atomic<std::int64_t> received = 0;
  std::shared_future<void> progressHold;  // when valid, progress callbacks wait for it (bounded)
  // When set, runs in the progress callback that reports the last byte: on the
  // transport's completion queue, before the file is moved to its target.
  std::function<void()> onComplete;
};

TEST_F(VKQNetworkAgentDownload, AnInterruptedDownloadLeavesResumeDataUnderItsNamesAndTheNextOneContinues) {
  fs::create_directory(folder / "inbox");
  const std::string content = vkq::testing::patternBytes(400'000, 3);
  ::umask(027);
  // Into a file; into a folder, under the URL's name: stored under the folder's name and
  // the file's.
  for (const auto& [target, file] : {std::pair<std::string, std::string>{folder / "b.zip", folder / "b.zip"},
                                     {folder / "inbox", folder / "inbox/b.zip"}}) {
    SCOPED_TRACE(target);
    serve("b.zip", content, FileOptions().dropAfter(150'000));
    writeFile(file, "an older file");
    // Resume data of another URL of the same name is not continued: b.zip starts afresh.
    server.serveFile("/mirror/b.zip", folder / "source.bin", FileOptions().withETag("\"v1\"").dropAfter(100'000));
    EXPECT_EQ(downloadToEnd(server.url("/mirror/b.zip"), target), VKQResponseCodeHTTPError);
    EXPECT_EQ(downloadToEnd("b.zip", target), VKQResponseCodeHTTPError);
    EXPECT_EQ(readFile(file), "an older file");  // replaced by a complete file only
    EXPECT_TRUE(hasResumeData(target) && hasResumeData(file));

    serve("b.zip", content);
    EXPECT_EQ(downloadToEnd("b.zip", target), VKQResponseCodeSuccess);
    EXPECT_EQ(lastRange(), "bytes=150000-");
    EXPECT_EQ(readFile(file), content);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640));  // as any new file
    EXPECT_EQ(request->responseData(), vkq::platform::Object(vkq::platform::URL::fileURLWithPath(file, false)));
    EXPECT_FALSE(hasResumeData(target) || hasResumeData(file));  // nothing left to mislead a later download
  }
}

TEST_F(VKQNetworkAgentDownload, ACancelledDownloadStartedAgainAtOnceContinuesWhereItStopped) {
  const std::string content = vkq::testing::patternBytes(1'000'000, 5), target = folder / "big.bin";
  serve("big.bin", content, FileOptions().slow(std::chrono::milliseconds(40)));
  // The completion queue is held up in a progress callback while the test cancels and
  // starts again: the resume data must not wait for it.
  std::promise<void> restarted;
  progressHold = restarted.get_future().share();
  download("big.bin", target);
  ASSERT_TRUE(runUntil([&] { return received > 0; }));
  agent().cancelRequest(request);
  auto again = download("big.bin", target);
  restarted.set_value();
  ASSERT_TRUE(runUntil([&] { return again->outcomes() == 1; }));
  EXPECT_EQ(again->lastCode(), VKQResponseCodeSuccess);
  EXPECT_GT(std::stoll(lastRange().value_or("bytes=0-").substr(6)), 0) << lastRange().value_or("no Range");
  EXPECT_EQ(readFile(target), content);
  EXPECT_TRUE(vkq::testing::partialFiles().empty());  // the first attempt's file became the download's
}

// Resume data that is no property list is not offered, and resume data the transport
// refuses is logged; either way the download starts afresh. The partial file of resume
// data that is refused, or replaced by resume data for another file, goes.
TEST_F(VKQNetworkAgentDownload, ResumeDataThatIsReplacedOrRefusedTakesItsPartialFileAlong) {
  const fs::path inbox = folder / "inbox", target = inbox / "b.zip";
  fs::create_directory(inbox);
  const std::string content = vkq::testing::patternBytes(400'000, 3);
  // b.zip's resume data replaces a.zip's under the folder's name, which a.zip needs.
  for (const char* name : {"a.zip", "b.zip"}) {
    serve(name, content, FileOptions().dropAfter(150'000));
    EXPECT_EQ(downloadToEnd(name, inbox), VKQResponseCodeHTTPError);
  }
  ASSERT_EQ(vkq::testing::partialFiles().size(), 1u);
  // Longer than its resume data says: refused.
  std::ofstream(vkq::testing::partialFiles()[0], std::ios::app) << "x";
  serve("b.zip", content);
  for (const std::size_t refusals : {1u, 0u}) {
    vkq::testing::LogCapture log;
    EXPECT_EQ(downloadToEnd("b.zip", target), VKQResponseCodeSuccess);
    EXPECT_EQ(log.count("Resume download failed, reason = "), refusals);
    EXPECT_FALSE(lastRange().has_value() || !vkq::testing::partialFiles().empty());
    writeFile(agent().incompleteDownloadTempPathForDownloadPath(target.string())->filePath(), "<plist");
  }
}

// A name that would leave the folder, or a folder at the target (never replaced), or a
// partial downloads folder that someone else could have planted fail the request.
TEST_F(VKQNetworkAgentDownload, ADownloadWithNowhereSafeToGoFailsBeforeAnythingIsSent) {
  fs::create_directories(folder / "taken/inside");
  fs::create_directory_symlink(folder.path(), vkq::platform::HTTPSessionManager::partialDownloadsFolder());
  for (const char* name : {"%2E%2E", "..", ".", "a%2F..%2Fkeep.txt", "..%2F", "taken", "x"}) {
    EXPECT_EQ(downloadToEnd(name, folder.path()), VKQResponseCodeHTTPError) << name;
    EXPECT_EQ(request->error()->domain(), vkq::platform::kURLErrorDomain);
    EXPECT_EQ(request->error()->code(), vkq::platform::kURLErrorCannotCreateFile);
  }
  EXPECT_TRUE(fs::exists(folder / "taken/inside"));
  EXPECT_NE(request->description().find("is a symbolic link"), std::string::npos) << request->description();
  EXPECT_EQ(server.requestCount(), 0u);
}

// A 206 is appended only when it names the stored entity and starts where its bytes
// end; otherwise the download starts over, and never splices.
TEST_F(VKQNetworkAgentDownload, APartialAnswerThatDoesNotContinueTheEntityStartsTheDownloadOver) {
  const std::string older = vkq::testing::patternBytes(300'000, 1), newer = vkq::testing::patternBytes(300'000, 2);
  // The ETag and first byte of the 206: another entity's; the stored one's, but from the start.
  for (const auto& [etag, start] : {std::pair<std::string, std::size_t>{"\"v2\"", 100'000}, {"\"v1\"", 0}}) {
    serve("e.bin", older, FileOptions().dropAfter(100'000));
    EXPECT_EQ(downloadToEnd("e.bin", folder / "e.bin"), VKQResponseCodeHTTPError);
    server.handle("/files/e.bin", [newer, etag, start](const httplib::Request& in, httplib::Response& out) {
      out.status = in.has_header("Range") ? 206 : 200;
      out.set_header("ETag", out.status == 206 ? etag : "\"v2\"");
      if (out.status == 206) out.set_header("Content-Range", "bytes " + std::to_string(start) + "-299999/300000");
      out.set_content(newer.substr(out.status == 206 ? start : 0), "application/octet-stream");
    });
    EXPECT_EQ(downloadToEnd("e.bin", folder / "e.bin"), VKQResponseCodeSuccess);
    EXPECT_TRUE(readFile(folder / "e.bin") == newer && vkq::testing::partialFiles().empty());
  }
}

// A full disk in the temporary directory keeps no cut resume data and no partial file
// that nothing refers to; on the target's file system (a copy across file systems) it
// leaves the target as it was and no copy beside it.
TEST_F(VKQNetworkAgentDownload, AFullDiskLeavesNeitherCutFilesNorOrphansNorAChangedTarget) {
  // Pieces under 64 KiB are gathered, so the first failed write is the one on closing.
  const std::string content = vkq::testing::patternBytes(60'000, 4), target = folder / "f.bin";
  serve("f.bin", content);
  // Writes past `bytes` fail from now on in this process, as on a full disk (EFBIG, with
  // SIGXFSZ ignored); RLIM_INFINITY lifts the limit.
  std::signal(SIGXFSZ, SIG_IGN);
  const auto limitFileSize = [](rlim_t bytes) {
    const rlimit limit{bytes, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  };
  limitFileSize(4096);  // the resume data, with its long URL, is larger
  EXPECT_NE(downloadToEnd(server.url("/files/f.bin?pad=" + std::string(5000, 'x')), target), VKQResponseCodeSuccess);
  limitFileSize(RLIM_INFINITY);
  EXPECT_TRUE(fs::is_empty(*agent().incompleteDownloadTempCacheFolder()) && vkq::testing::partialFiles().empty());

  // The rest moves the file across file systems: /dev/shm must be another one.
  struct stat here {}, shm {};
  if (::stat("/dev/shm", &shm) || ::stat(folder.path().c_str(), &here) || shm.st_dev == here.st_dev) GTEST_SKIP();
  const vkq::testing::PrivateTemporaryDirectory elsewhere("/dev/shm");
  writeFile(target, "an older file");
  onComplete = [limitFileSize] { limitFileSize(4096); };
  EXPECT_NE(downloadToEnd("f.bin", target), VKQResponseCodeSuccess);
  limitFileSize(RLIM_INFINITY);
  EXPECT_TRUE(readFile(target) == "an older file");
  EXPECT_NE(request->description().find("write: File too large"), std::string::npos) << request->description();
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 2);  // source.bin and f.bin
  onComplete = nullptr;
  EXPECT_EQ(downloadToEnd("f.bin", target), VKQResponseCodeSuccess);
  EXPECT_TRUE(readFile(target) == content);
}

}  // namespace
