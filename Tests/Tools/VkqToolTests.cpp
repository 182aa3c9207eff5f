// The vkq binary as a user runs it: every subcommand against `vkq serve` or an
// in-process test server, each exit status, and interrupted downloads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <httplib.h>
#include <nlohmann/json.hpp>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Tests/Support/TestServer.h"
#include "Tests/Tools/ChildProcess.h"

namespace vkq::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kVkq = VKQ_BINARY;
const std::string kTour = VKQ_TOUR_BINARY;

std::string readFile(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

std::string randomText(std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

// A port on which nothing listens: bound once, then released.
int closedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

// `vkq serve` in a child process, on a free port.
class ServeProcess {
 public:
  explicit ServeProcess(std::vector<std::string> options) : child_(kVkq, withServe(std::move(options))) {
    const auto line = child_.waitForOutputLine("listening on http://127.0.0.1:", 20s);
    if (!line) throw std::runtime_error("vkq serve did not start: " + child_.standardError());
    base_ = line->substr(line->find("http://"));
  }

  std::string url(const std::string& path) const { return base_ + path; }
  ChildProcess& process() { return child_; }
  std::string log() const { return child_.standardError(); }

 private:
  static std::vector<std::string> withServe(std::vector<std::string> options) {
    options.insert(options.begin(), "serve");
    return options;
  }

  ChildProcess child_;
  std::string base_;
};

class VkqTool : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() /
              ("vkq-tool-test-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(folder_);
    fs::create_directories(folder_ / "tmp");
    fs::create_directories(folder_ / "root");
  }
  void TearDown() override { fs::remove_all(folder_); }

  // The client's temporary folder (and so its resume data) is the test's own.
  ChildProcess::Options clientOptions() const { return {{{"TMPDIR", (folder_ / "tmp").string()}}, ""}; }
  Completed vkq(const std::vector<std::string>& arguments) {
    return run(kVkq, arguments, 60s, clientOptions());
  }

  fs::path folder_;
};

TEST_F(VkqTool, HelpPrintsUsageOnStandardOutputAndSucceeds) {
  const auto general = vkq({"--help"});
  EXPECT_EQ(general.status, 0);
  for (const char* subcommand : {"kxp", "json", "download", "serve"}) {
    EXPECT_THAT(general.out, HasSubstr(std::string("usage: vkq ") + subcommand));
    const auto help = vkq({subcommand, "--help"});
    EXPECT_EQ(help.status, 0) << subcommand;
    EXPECT_THAT(help.out, HasSubstr(std::string("usage: vkq ") + subcommand));
    EXPECT_EQ(help.err, "");
  }
}

TEST_F(VkqTool, BadArgumentsExitWith64AndAUsageMessage) {
  const std::vector<std::vector<std::string>> lines = {
      {},
      {"fetch"},
      {"kxp", "http://127.0.0.1:1/kxp/echo", "--data", "x", "--xor-key", "256"},
      {"kxp", "http://127.0.0.1:1/kxp/echo"},
      {"json", "http://127.0.0.1:1/json/echo", "--arg", "{"},
      {"download", "http://127.0.0.1:1/files/a"},
      {"serve", "--port", "70000"},
  };
  for (const auto& line : lines) {
    const auto result = vkq(line);
    EXPECT_EQ(result.status, 64) << ::testing::PrintToString(line);
    EXPECT_THAT(result.err, HasSubstr("usage: vkq")) << ::testing::PrintToString(line);
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(VkqTool, KXPEchoWithTheDefaults) {
  ServeProcess server({});
  const auto result = vkq({"kxp", server.url("/kxp/echo"), "--data", "hello, kxp"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "hello, kxp");
}

TEST_F(VkqTool, KXPEchoWithKeyVersionAndIdentityFromAFileToAFile) {
  const std::vector<std::string> frame = {"--xor-key",    "0x5A",   "--version",         "3",
                                          "--package-name", "com.vkq.demo", "--release-version", "7"};
  std::vector<std::string> serve = frame;
  ServeProcess server(serve);
  const std::string payload = randomText(100000);
  writeFile(folder_ / "payload.bin", payload);

  std::vector<std::string> line = {"kxp", server.url("/kxp/echo"), "--data-file", (folder_ / "payload.bin").string(),
                                   "--output", (folder_ / "answer.bin").string()};
  line.insert(line.end(), frame.begin(), frame.end());
  const auto result = vkq(line);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(readFile(folder_ / "answer.bin") == payload);
}

TEST_F(VkqTool, KXPFrameTheServerRefusesIsAnHttpError) {
  ServeProcess server({"--version", "2"});
  const auto result = vkq({"kxp", server.url("/kxp/echo"), "--data", "x", "--version", "3"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("http error (code -2)"));
  EXPECT_THAT(result.err, HasSubstr("400"));
  EXPECT_THAT(result.err, HasSubstr("the server said: kxp frame refused: protocol version 0x03, expected 0x02"));
}

// An in-process server that answers every KXP request with `body`.
class ScriptedKXPServer {
 public:
  explicit ScriptedKXPServer(ScriptedAnswer answer) { server_.answer("/kxp", std::move(answer)); }
  std::string url() const { return server_.url("/kxp"); }
  TestServer& server() { return server_; }

 private:
  TestServer server_;
};

std::string responseFrame(const std::string& payload, const VKQKXPFrameSettings& settings) {
  const auto frame = VKQKXPServerCodec::makeResponseFrame(
      std::span(reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()), settings);
  return std::string(frame->begin(), frame->end());
}

TEST_F(VkqTool, AnswerOfAnotherVersionIsAProtocolError) {
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x2018;
  settings.compress = true;
  settings.version = 9;
  ScriptedKXPServer server(ScriptedAnswer(200, responseFrame("payload", settings)).type("application/octet-stream"));
  const auto result = vkq({"kxp", server.url(), "--data", "x", "--version", "3"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("protocol error (code -3)"));
  EXPECT_EQ(result.out, "");
}

TEST_F(VkqTool, CorruptedAnswerIsAServerError) {
  VKQKXPFrameSettings settings;
  settings.insertAtBeginBody = 0x2018;
  settings.compress = true;
  std::string frame = responseFrame("payload", settings);
  frame.back() = static_cast<char>(frame.back() ^ 0x40);
  ScriptedKXPServer server(ScriptedAnswer(200, frame).type("application/octet-stream"));
  const auto result = vkq({"kxp", server.url(), "--data", "x"});
  EXPECT_EQ(result.status, 4);
  EXPECT_THAT(result.err, HasSubstr("server error (code -4)"));
}

TEST_F(VkqTool, StatusFiveHundredIsAnHttpError) {
  ScriptedKXPServer server(ScriptedAnswer(500, "boom").type("text/plain"));
  const auto result = vkq({"kxp", server.url(), "--data", "x"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("500"));
}

TEST_F(VkqTool, ClosedPortIsAnHttpError) {
  const auto result = vkq({"json", "http://127.0.0.1:" + std::to_string(closedPort()) + "/json/echo"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("http error (code -2)"));
}

TEST_F(VkqTool, JSONEchoOfAQueryAndOfBodies) {
  ServeProcess server({});
  const auto get = vkq({"json", server.url("/json/echo"), "--arg", R"({"q":"tour","n":2})"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(nlohmann::json::parse(get.out), nlohmann::json({{"q", "tour"}, {"n", "2"}}));  // a query has only texts

  for (const char* method : {"POST", "PUT", "PATCH"}) {
    const auto sent = vkq({"json", server.url("/json/echo"), "--method", method, "--arg", R"({"a":[1,true,null]})"});
    EXPECT_EQ(sent.status, 0) << method << sent.err;
    EXPECT_EQ(nlohmann::json::parse(sent.out), nlohmann::json::parse(R"({"a":[1,true,null]})")) << method;
  }
}

TEST_F(VkqTool, JSONSendsHeadersAndBasicAuthorization) {
  TestServer server;
  server.answer("/json", ScriptedAnswer(200, R"({"ok":true})").type("application/json"));
  const auto result = vkq({"json", server.url("/json"), "--header", "X-Trace: 7", "--user", "me", "--password", "pw"});
  EXPECT_EQ(result.status, 0) << result.err;
  ASSERT_EQ(server.requestCount(), 1u);
  const RecordedRequest request = server.requests().front();
  EXPECT_EQ(request.header("X-Trace"), "7");
  EXPECT_EQ(request.header("Authorization"), "Basic bWU6cHc=");
}

TEST_F(VkqTool, TimeoutEndsAStalledExchange) {
  TestServer server;
  server.answer("/json", ScriptedAnswer().neverAnswer());
  const auto started = std::chrono::steady_clock::now();
  const auto result = vkq({"json", server.url("/json"), "--timeout", "0.5"});
  EXPECT_EQ(result.status, 2);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 20s);
  server.stop();
}

class VkqDownload : public VkqTool {
 protected:
  static constexpr std::size_t kSize = 3 << 20;
  static constexpr const char* kRate = "1048576";  // 3 s for the whole file

  void SetUp() override {
    VkqTool::SetUp();
    content_ = randomText(kSize);
    writeFile(folder_ / "root" / "big.bin", content_);
  }

  ChildProcess startDownload(ServeProcess& server) {
    return ChildProcess(kVkq, {"download", server.url("/files/big.bin"), target().string()}, clientOptions());
  }
  fs::path target() const { return folder_ / "big.bin"; }

  // Lets the download run for a while once the server has begun to send: about a
  // sixth of the file at the server's rate.
  static void partWay(ServeProcess& server) {
    ASSERT_TRUE(server.process().waitForErrorText("sending bytes 0-", 20s)) << server.log();
    std::this_thread::sleep_for(500ms);
  }

  std::string content_;
};

TEST_F(VkqDownload, RunsToAByteExactFile) {
  ServeProcess server({"--root", (folder_ / "root").string()});
  const auto result = vkq({"download", server.url("/files/big.bin"), target().string()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("saved " + target().string()));
  EXPECT_TRUE(readFile(target()) == content_);
}

TEST_F(VkqDownload, InterruptedBySIGINTResumesOnTheNextRun) {
  ServeProcess server({"--root", (folder_ / "root").string(), "--rate-limit", kRate});
  {
    ChildProcess first = startDownload(server);
    partWay(server);
    first.signal(SIGINT);
    EXPECT_EQ(first.wait(20s), 130);
    EXPECT_THAT(first.standardError(), HasSubstr("interrupted"));
  }
  const auto second = vkq({"download", server.url("/files/big.bin"), target().string()});
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_TRUE(readFile(target()) == content_);

  // The second request asked for the rest only.
  std::smatch match;
  const std::string log = server.log();
  ASSERT_TRUE(std::regex_search(log, match, std::regex(R"(206  Range: bytes=(\d+)-)"))) << log;
  const auto resumedAt = std::stoull(match[1]);
  EXPECT_GT(resumedAt, 0u);
  EXPECT_LT(resumedAt, kSize);
}

TEST_F(VkqDownload, KilledWithoutResumeDataStartsAfreshOnTheNextRun) {
  ServeProcess server({"--root", (folder_ / "root").string(), "--rate-limit", kRate});
  {
    ChildProcess first = startDownload(server);
    partWay(server);
    first.signal(SIGKILL);
    EXPECT_EQ(first.wait(20s), 128 + SIGKILL);
  }
  const auto second = vkq({"download", server.url("/files/big.bin"), target().string()});
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_TRUE(readFile(target()) == content_);
  EXPECT_THAT(server.log(), Not(HasSubstr("Range:")));
}

TEST_F(VkqDownload, TheReadmeTourRunsAgainstTheServer) {
  ServeProcess server({"--root", (folder_ / "root").string()});
  const auto result = run(kTour, {server.url("")}, 60s, clientOptions());
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("kxp answer: hello, kxp\n"));
  EXPECT_THAT(result.out, HasSubstr(R"(json answer: {"city":"Oslo","days":3})"));
  EXPECT_THAT(result.out, HasSubstr("downloaded to " + (folder_ / "tmp" / "vkq-tour-big.bin").string()));
  EXPECT_TRUE(readFile(folder_ / "tmp" / "vkq-tour-big.bin") == content_);
}

TEST_F(VkqTool, ServeStopsCleanlyOnSIGINTAndSIGTERM) {
  for (int signal : {SIGINT, SIGTERM}) {
    ServeProcess server({});
    server.process().signal(signal);
    EXPECT_EQ(server.process().wait(10s), 0) << signal;
  }
}

TEST_F(VkqTool, ServeRefusesPathsOutsideItsRoot) {
  writeFile(folder_ / "secret.txt", "secret");
  writeFile(folder_ / "root" / "a.txt", "inside");
  ServeProcess server({"--root", (folder_ / "root").string()});
  httplib::Client client(server.url(""));
  const auto inside = client.Get("/files/a.txt");
  ASSERT_TRUE(inside);
  EXPECT_EQ(inside->status, 200);
  EXPECT_EQ(inside->body, "inside");
  for (const char* path : {"/files/../secret.txt", "/files/%2e%2e/secret.txt", "/files/a/../../secret.txt"}) {
    const auto refused = client.Get(path);
    ASSERT_TRUE(refused) << path;
    EXPECT_EQ(refused->status, 403) << path;
  }
}

}  // namespace
}  // namespace vkq::testing
