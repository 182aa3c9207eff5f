// Resumable downloads through the agent: where the file lands, resume data stored under
// the right names when a download fails or is cancelled and taken up by the next
// download (also one started right after the cancel), resume data that is not offered,
// refused or replaced and its partial file, and the folder guard. (How the transport
// continues a download is tested with the transport.)
#include <atomic>
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
  // Starts a download of "/files/<name>" into `target`, keeping the bytes its progress
  // reports.
  std::shared_ptr<vkq::testing::Calls> download(const std::string& name, const std::string& target) {
    request = VKQVesk::initWithDownloadURL(server.url("/files/" + name), target, nullptr);
    auto calls = vkq::testing::attach(*request);
    auto progress = [this, hold = progressHold](const vkq::platform::Progress& p) {
      received = p.completedUnitCount;
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
};

TEST_F(VKQNetworkAgentDownload, AnInterruptedDownloadLeavesResumeDataUnderItsNamesAndTheNextOneContinues) {
  fs::create_directory(folder / "inbox");
  const std::string content = vkq::testing::patternBytes(400'000, 3);
  // Into a file; into a folder, under the URL's name: stored under the folder's name and
  // the file's.
  for (const auto& [target, file] : {std::pair<std::string, std::string>{folder / "b.zip", folder / "b.zip"},
                                     {folder / "inbox", folder / "inbox/b.zip"}}) {
    SCOPED_TRACE(target);
    serve("b.zip", content, FileOptions().dropAfter(150'000));
    writeFile(file, "an older file");
    EXPECT_EQ(downloadToEnd("b.zip", target), VKQResponseCodeHTTPError);
    EXPECT_FALSE(fs::exists(file));  // the older file went when the download started
    EXPECT_TRUE(hasResumeData(target) && hasResumeData(file));

    serve("b.zip", content);
    EXPECT_EQ(downloadToEnd("b.zip", target), VKQResponseCodeSuccess);
    EXPECT_EQ(lastRange(), "bytes=150000-");
    EXPECT_EQ(readFile(file), content);
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

TEST_F(VKQNetworkAgentDownload, ANameThatWouldLeaveTheFolderFailsTheRequestBeforeAnythingIsSent) {
  for (const char* name : {"%2E%2E", "..", ".", "a%2F..%2Fkeep.txt"}) {
    EXPECT_EQ(downloadToEnd(name, folder.path()), VKQResponseCodeHTTPError) << name;
    EXPECT_EQ(request->error()->domain(), vkq::platform::kURLErrorDomain);
    EXPECT_EQ(request->error()->code(), vkq::platform::kURLErrorCannotCreateFile);
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

}  // namespace
