// Resumable downloads through the agent: where the file lands, resume data stored under
// the right names when a download fails or is cancelled and taken up by the next
// download, resume data that is not offered or refused, and the folder guard. (How the
// transport continues a download is tested with the transport.)
#include <atomic>

#include "Tests/Classes/AgentTestSupport.h"

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
    request->downloadtWithSuccess(
        request->successResultBlock(), [this](const vkq::platform::Progress& p) { received = p.completedUnitCount; },
        request->failureResultBlock());
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

TEST_F(VKQNetworkAgentDownload, ACancelledDownloadIsSilentAndResumesLater) {
  const std::string content = vkq::testing::patternBytes(1'000'000, 5), target = folder / "big.bin";
  serve("big.bin", content, FileOptions().slow(std::chrono::milliseconds(40)));
  vkq::testing::LogCapture log;
  auto calls = download("big.bin", target);
  ASSERT_TRUE(runUntil([&] { return received > 0; }));
  agent().cancelRequest(request);
  ASSERT_TRUE(runUntil([&] { return hasResumeData(target) && log.count("request has cancel") == 1; }));
  EXPECT_TRUE(calls->order.empty());

  serve("big.bin", content);
  EXPECT_EQ(downloadToEnd("big.bin", target), VKQResponseCodeSuccess);
  EXPECT_EQ(lastRange().value_or("").rfind("bytes=", 0), 0u);
  EXPECT_EQ(readFile(target), content);
}

TEST_F(VKQNetworkAgentDownload, ResumeDataThatIsNoPropertyListOrRefusedGivesAFreshDownload) {
  const std::string target = folder / "out.bin";
  serve("a.bin", "fresh");
  // Only a property list is offered to the transport, which refuses one that is no
  // resume data of its own.
  const std::pair<std::string, std::size_t> table[] = {
      {"<plist", 0}, {R"(<?xml version="1.0"?><plist version="1.0"><dict><key>k</key><true/></dict></plist>)", 1}};
  for (const auto& [resumeData, refusals] : table) {
    writeFile(agent().incompleteDownloadTempPathForDownloadPath(target)->filePath(), resumeData);
    vkq::testing::LogCapture log;
    EXPECT_EQ(downloadToEnd("a.bin", target), VKQResponseCodeSuccess);
    EXPECT_EQ(log.count("Resume download failed, reason = "), refusals) << resumeData;
    EXPECT_FALSE(lastRange().has_value());
    EXPECT_EQ(readFile(target), "fresh");
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
