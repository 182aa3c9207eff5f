// The vkq binary as a user runs it: every subcommand against `vkq serve` or an
// in-process test server, each exit status, and interrupted downloads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <regex>

#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Tests/Support/TestServer.h"
#include "Tests/Tools/ChildProcess.h"

namespace vkq::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Stream = ChildProcess::Stream;
using Arguments = std::vector<std::string>;

const std::string kVkq = VKQ_BINARY;

Arguments concat(Arguments first, const Arguments& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// `vkq serve` in a child process, on a free port.
class ServeProcess : public ChildProcess {
 public:
  explicit ServeProcess(const Arguments& options) : ChildProcess(concat({kVkq, "serve"}, options)) {
    base_ = waitFor(Stream::Output, R"(listening on (http://\S+)\n)", 20s).value_or("");
    if (base_.empty()) throw std::runtime_error("vkq serve did not start: " + contents(Stream::Error));
  }
  std::string url(const std::string& path) const { return base_ + path; }

 private:
  std::string base_;
};

class VkqTool : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_ / "tmp"); }

  // A command line that runs `program` with the test's own temporary folder (and so
  // its own resume data).
  Arguments inFolder(const Arguments& arguments, const std::string& program = kVkq) const {
    return concat({"/usr/bin/env", "-u", "XDG_CACHE_HOME", "TMPDIR=" + (folder_ / "tmp").string(), program}, arguments);
  }
  // Runs `program` to its end (at most a minute).
  struct Completed { std::optional<int> status; std::string out, err; };
  Completed vkq(const Arguments& arguments, const std::string& program = kVkq) {
    ChildProcess child(inFolder(arguments, program));
    const auto status = child.wait(60s);
    return {status, child.contents(Stream::Output), child.contents(Stream::Error)};
  }

  const ScratchFolder folder_;
};

TEST_F(VkqTool, HelpGoesToStandardOutputWith0AndMistakesToStandardErrorWith64) {
  // Which mistakes and which texts: the CommandLine tests.
  const std::pair<Arguments, int> cases[] = {{{"download", "--help"}, 0}, {{"serve", "-p"}, 64}};
  for (const auto& [line, status] : cases) {
    SCOPED_TRACE(::testing::PrintToString(line));
    const auto result = vkq(line);
    EXPECT_EQ(result.status, status);
    EXPECT_THAT(status == 0 ? result.out : result.err, HasSubstr("usage: vkq " + line[0]));
    EXPECT_EQ(status == 0 ? result.err : result.out, "");
  }
}

// The defaults are the README tour's part. From a file to a file; the payload does not
// compress.
TEST_F(VkqTool, KXPEchoesThroughServeWithEveryKindOfFrameSetting) {
  const Arguments frame = {"--xor-key", "0x5A", "--version", "3", "--package-name", "com.vkq.demo",
                           "--release-version", "7"};
  ServeProcess framed(frame);
  const std::string payload = patternBytes(100000);
  writeFile(folder_ / "payload.bin", payload);
  const auto toFile = vkq(concat({"kxp", framed.url("/kxp/echo"), "--data-file", (folder_ / "payload.bin").string(),
                                  "--output", (folder_ / "answer.bin").string()},
                                 frame));
  EXPECT_EQ(toFile.status, 0) << toFile.err;
  EXPECT_EQ(toFile.out, "");
  EXPECT_TRUE(readFile(folder_ / "answer.bin") == payload);
}

std::string responseFrame(const VKQKXPFrameSettings& settings) {
  const auto frame = VKQKXPServerCodec::makeResponseFrame(vkq::platform::Bytes{'o', 'k'}, settings);
  return std::string(frame->begin(), frame->end());
}

TEST_F(VkqTool, EachFailureExitsWithItsStatusAndSaysWhy) {
  ServeProcess version2({"--version", "2"});
  TestServer scripted;
  VKQKXPFrameSettings settings{.compress = true, .insertAtBeginBody = 0x2018};
  std::string corrupted = responseFrame(settings);
  corrupted.back() = static_cast<char>(corrupted.back() ^ 0x40);
  scripted.answer("/corrupted", ScriptedAnswer(200, corrupted).type("application/octet-stream"));
  settings.version = 9;
  scripted.answer("/version-9", ScriptedAnswer(200, responseFrame(settings)).type("application/octet-stream"));
  scripted.answer("/stall", ScriptedAnswer().neverAnswer());

  const struct {
    Arguments arguments;
    int status;
    const char* says;
  } cases[] = {
      {{"json", scripted.url("/stall"), "--timeout", "0.5"}, 2, "http error (code -2)"},
      {{"kxp", version2.url("/kxp/echo"), "--data", "x", "--version", "3"}, 2,
       "the server said: kxp frame refused: protocol version 0x03, expected 0x02"},
      {{"kxp", scripted.url("/version-9"), "--data", "x", "--version", "3"}, 3, "protocol error (code -3)"},
      {{"kxp", scripted.url("/corrupted"), "--data", "x"}, 4, "server error (code -4)"},
  };
  for (const auto& [arguments, status, says] : cases) {
    const auto result = vkq(arguments);
    EXPECT_EQ(result.status, status) << arguments[1];
    EXPECT_THAT(result.err, HasSubstr(says)) << arguments[1];
    EXPECT_EQ(result.out, "");
  }
}

// JSON against `vkq serve` is the README tour's part.
TEST_F(VkqTool, JSONSendsMethodBodyHeadersAndAuthorization) {
  TestServer recorder;
  recorder.answer("/json", ScriptedAnswer(200, R"({"ok":1})").type("application/json"));
  const auto patch = vkq({"json", recorder.url("/json"), "--method", "patch", "--arg", R"({"a":[1,true,null]})",
                          "--header", "X-Trace: 7", "--user", "me", "--password", "pw"});
  EXPECT_EQ(patch.status, 0) << patch.err;
  EXPECT_EQ(patch.out, "{\n  \"ok\": 1\n}\n");
  ASSERT_EQ(recorder.requestCount(), 1u);
  const auto sent = recorder.requests().front();
  EXPECT_EQ(std::tuple(sent.method, nlohmann::json::parse(sent.body), sent.header("X-Trace"),
                       sent.header("Authorization")),
            std::tuple("PATCH", nlohmann::json::parse(R"({"a":[1,true,null]})"), "7", "Basic bWU6cHc="));

  // Indenting a deep answer would multiply its size by its depth: it is printed on one line.
  const std::string deep = std::string(400, '[') + std::string(400, ']');
  recorder.answer("/deep", ScriptedAnswer(200, deep).type("application/json"));
  const auto printed = vkq({"json", recorder.url("/deep")});
  EXPECT_EQ(printed.status, 0) << printed.err;
  EXPECT_EQ(printed.out, deep + "\n");
}

class VkqDownload : public VkqTool {
 protected:
  static constexpr std::size_t kSize = 3 << 20;

  void SetUp() override {
    VkqTool::SetUp();
    fs::create_directories(folder_ / "root");
    writeFile(folder_ / "root" / "big.bin", content_);
  }
  // Bytes of the download received so far, in the partial file under the test's temporary folder.
  std::uintmax_t partialBytes() const {
    std::uintmax_t bytes = 0;
    std::error_code error, ignored;
    for (fs::recursive_directory_iterator file(folder_ / "tmp", error), end; !error && file != end;
         file.increment(error)) {
      if (const auto size = file->file_size(ignored); !ignored) bytes += size;
    }
    return bytes;
  }
  Arguments root() const { return {"--root", (folder_ / "root").string()}; }
  Arguments download(const ServeProcess& server) const {
    return {"download", server.url("/files/big.bin"), (folder_ / "big.bin").string()};
  }

  // Downloads from `vkq serve` at 1 MiB/s (3 s for the file), ends the client with
  // `signal` once a twelfth of the file has arrived, then downloads again to the end.
  // Then stops the server with SIGINT or SIGTERM, which it takes as a clean exit, and
  // gives its log.
  std::string interruptAndRunAgain(int signal, int interruptedStatus) {
    ServeProcess server(concat(root(), {"--rate-limit", "1048576"}));
    {
      ChildProcess first(inFolder(download(server)));
      EXPECT_TRUE(waitUntil([&] { return partialBytes() >= kSize / 12; }, 20s));
      first.signal(signal);
      EXPECT_EQ(first.wait(20s), interruptedStatus);
    }
    const auto second = vkq(download(server));
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_THAT(second.err, HasSubstr("saved " + (folder_ / "big.bin").string()));
    EXPECT_TRUE(readFile(folder_ / "big.bin") == content_);
    server.signal(signal == SIGINT ? SIGINT : SIGTERM);
    EXPECT_EQ(server.wait(10s), 0);
    return server.contents(Stream::Error);
  }

  const std::string content_ = patternBytes(kSize, 2);
};

TEST_F(VkqDownload, InterruptedBySIGINTResumesOnTheNextRun) {
  const std::string log = interruptAndRunAgain(SIGINT, 130);
  // The second request asked for the rest only.
  std::smatch match;
  ASSERT_TRUE(std::regex_search(log, match, std::regex(R"(206  Range: bytes=(\d+)-)"))) << log;
  EXPECT_TRUE(std::stoull(match[1]) > 0 && std::stoull(match[1]) < kSize) << match[1];
}

TEST_F(VkqDownload, KilledWithoutResumeDataStartsAfreshOnTheNextRun) {
  EXPECT_THAT(interruptAndRunAgain(SIGKILL, 128 + SIGKILL), ::testing::Not(HasSubstr("Range:")));
}

TEST_F(VkqDownload, ADownloadOverAConnectionThatDropsCompletesInOneRunWithRetries) {
  ServeProcess server(concat(root(), {"--drop-every", "1000000", "--fail-first", "1"}));
  EXPECT_EQ(vkq(download(server)).status, 2);  // 503, and no retries asked for
  const auto result = vkq(concat(download(server), {"--retries", "5", "--metrics"}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(readFile(folder_ / "big.bin") == content_);
  // Four exchanges of at most 1,000,000 bytes each, the last three continuing the first.
  const auto metrics = nlohmann::json::parse(result.err.substr(0, result.err.find('\n')));
  EXPECT_EQ(metrics["retries"], 3);
  EXPECT_EQ(metrics["resumed_from_byte"], 3000000);
  EXPECT_GE(metrics["total_s"].get<double>(), metrics["first_byte_s"].get<double>());
}

TEST_F(VkqDownload, TheExampleProgramsRunAgainstTheServer) {
  ServeProcess server(root());
  const auto result = vkq({server.url("")}, VKQ_TOUR_BINARY);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("kxp answer: hello, kxp\n"));
  EXPECT_THAT(result.out, HasSubstr(R"(json answer: {"city":"Oslo","days":3})"));
  EXPECT_THAT(result.out, HasSubstr("future: {\"city\":\"Lima\"}\ncoroutine: {\"days\":5}\n"));
  EXPECT_THAT(result.out, HasSubstr("0 retries, first byte after"));
  const fs::path downloaded = folder_ / "tmp" / "vkq-tour-big.bin";
  EXPECT_THAT(result.out, HasSubstr("downloaded to " + downloaded.string()));
  EXPECT_TRUE(readFile(downloaded) == content_);

  const auto polled = vkq({server.url("")}, VKQ_POLL_LOOP_BINARY);
  EXPECT_EQ(polled.status, 0) << polled.err;
  EXPECT_THAT(polled.out, HasSubstr("answer: {\"city\":\"Lima\"}\n"));
}

}  // namespace
}  // namespace vkq::testing
