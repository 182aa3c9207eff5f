// Data tasks against the in-process test server.
#include "Platform/Session/HTTPSessionManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <zlib.h>

#include <cstring>

#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

using platform::HTTPSessionManager;
using platform::URLRequest;

std::string gzip(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);  // +16: gzip framing
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

class DataTaskTest : public ::testing::Test {
 protected:
  DataOutcome run(const URLRequest& request) { return runToEnd(*manager, request); }
  DataOutcome get(const std::string& path, double timeout = 20.0) { return run(makeRequest(server.url(path), timeout)); }

  TestServer server;  // declared first: outlives the manager's connections
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

TEST_F(DataTaskTest, AnswersArriveOnTheCompletionQueueAndStatusesOutside2xxAreErrorsThatKeepTheBody) {
  const std::tuple<int, const char*, std::int64_t> cases[] = {
      {200, R"({"id":7})", 0},
      {204, "", 0},
      {404, "not here", platform::kURLErrorBadServerResponse},
      {500, "broken", platform::kURLErrorBadServerResponse},
  };
  for (const auto& [status, body, error] : cases) {
    server.answer("/status", ScriptedAnswer(status, body).type("application/json"));
    const DataOutcome outcome = get("/status");
    ASSERT_NE(outcome.response, nullptr) << status;
    EXPECT_EQ(outcome.response->statusCode, status);
    EXPECT_EQ(outcome.response->MIMEType(), "application/json");
    EXPECT_EQ(outcome.body(), body);
    EXPECT_EQ(codeOf(outcome.error), error);
    EXPECT_NE(outcome.thread, std::this_thread::get_id());
  }
}

TEST_F(DataTaskTest, ServerThatNeverAnswersTimesOutAfterTheIdleTimeout) {
  server.answer("/silent", ScriptedAnswer().neverAnswer());
  const auto started = std::chrono::steady_clock::now();
  const DataOutcome outcome = get("/silent", 0.5);
  const auto elapsed = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(codeOf(outcome.error), platform::kURLErrorTimedOut);
  EXPECT_EQ(outcome.error->userInfo().failingURL, server.url("/silent"));
  EXPECT_GE(elapsed, 450ms);
  EXPECT_LT(elapsed, 5s);
}

TEST_F(DataTaskTest, SlowButSteadyAnswerOutlivingTheTimeoutSucceeds) {
  const std::string body = patternBytes(20 * 100);
  server.answer("/trickle", ScriptedAnswer(200, body).slow(100ms, 100));  // 2 s in all, 0.1 s between pieces
  const auto started = std::chrono::steady_clock::now();
  const DataOutcome outcome = get("/trickle", 0.5);
  EXPECT_GT(std::chrono::steady_clock::now() - started, 1500ms);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.body(), body);
}

TEST_F(DataTaskTest, SuspendedTaskMovesNoDataAndDoesNotTimeOutThenResumesOrCancels) {
  const std::string body = patternBytes(20 * 100);
  for (const bool cancelWhileSuspended : {false, true}) {
    SCOPED_TRACE(cancelWhileSuspended ? "cancel while suspended" : "resume");
    server.answer("/trickle", ScriptedAnswer(200, body).slow(30ms, 100));  // 0.6 s in all
    Outcomes<DataOutcome> outcomes;
    auto task = manager->dataTaskWithRequest(makeRequest(server.url("/trickle"), 0.3), nullptr, nullptr,
                                             outcomes.collector());
    task->resume();
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (task->countOfBytesReceived() == 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(5ms);
    }
    task->suspend();
    EXPECT_EQ(task->state(), platform::URLSessionTaskState::Suspended);
    std::this_thread::sleep_for(100ms);  // the pause reaches the worker
    const std::int64_t held = task->countOfBytesReceived();
    ASSERT_LT(held, static_cast<std::int64_t>(body.size()));
    std::this_thread::sleep_for(700ms);  // longer than the idle time-out and the whole answer
    EXPECT_EQ(task->countOfBytesReceived(), held);
    EXPECT_TRUE(outcomes.all().empty());

    if (cancelWhileSuspended) {
      task->cancel();
    } else {
      task->resume();
    }
    ASSERT_TRUE(outcomes.waitFor(1));
    std::this_thread::sleep_for(50ms);
    const auto all = outcomes.all();
    ASSERT_EQ(all.size(), 1u);
    if (cancelWhileSuspended) {
      EXPECT_EQ(codeOf(all[0].error), platform::kURLErrorCancelled);
    } else {
      EXPECT_EQ(all[0].error, nullptr);
      EXPECT_EQ(all[0].body(), body);
    }
    EXPECT_EQ(task->state(), platform::URLSessionTaskState::Completed);
  }
}

TEST_F(DataTaskTest, CookieSetByOneAnswerIsSentWithTheNextRequest) {
  server.answer("/login", ScriptedAnswer(200, "ok").header("Set-Cookie", "session=abc123; Path=/"));
  server.answer("/profile", ScriptedAnswer(200, "me"));
  ASSERT_EQ(get("/login").error, nullptr);
  ASSERT_EQ(get("/profile").error, nullptr);
  EXPECT_FALSE(server.requests().at(0).header("Cookie").has_value());
  EXPECT_EQ(server.requests().at(1).header("Cookie"), "session=abc123");
}

TEST_F(DataTaskTest, GzipAnswerIsDecodedTransparently) {
  const std::string text(10000, 'z');
  server.answer("/packed", ScriptedAnswer(200, gzip(text)).header("Content-Encoding", "gzip"));
  EXPECT_EQ(get("/packed").body(), text);
  EXPECT_THAT(server.requests().at(0).header("Accept-Encoding").value_or(""), ::testing::HasSubstr("gzip"));
}

TEST_F(DataTaskTest, BodiesBeyondTheLimitFailWhetherAnnouncedStreamedOrCompressed) {
  manager->setMaximumDataLength(64 * 1024);
  server.answer("/announced", ScriptedAnswer(200, std::string(100 * 1024, 'a')));
  server.answer("/streamed", ScriptedAnswer(200, std::string(100 * 1024, 'b')).slow(0ms, 16 * 1024));
  // 16 MiB of zeros in a few KiB: a compression bomb.
  server.answer("/bomb", ScriptedAnswer(200, gzip(std::string(16 << 20, '\0'))).header("Content-Encoding", "gzip"));
  server.answer("/fits", ScriptedAnswer(200, std::string(64 * 1024, 'c')));
  for (const char* path : {"/announced", "/streamed", "/bomb"}) {
    EXPECT_EQ(codeOf(get(path).error), platform::kURLErrorDataLengthExceedsMaximum) << path;
  }
  EXPECT_EQ(get("/fits").body().size(), 64u * 1024);
}

TEST_F(DataTaskTest, CancellingCompletesATaskOnceWithCancelledAndASuspendedOneIsNeverSent) {
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  Outcomes<DataOutcome> running, suspended;
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/hang")), nullptr, nullptr, running.collector());
  task->resume();
  ASSERT_TRUE(server.waitForRequests(1, 10s));
  task->cancel();
  task->cancel();
  auto unsent = manager->dataTaskWithRequest(makeRequest(server.url("/unsent")), nullptr, nullptr, suspended.collector());
  unsent->cancel();
  unsent->resume();  // no effect once cancelled
  ASSERT_TRUE(running.waitFor(1) && suspended.waitFor(1));
  task->resume();                       // no effect once completed
  std::this_thread::sleep_for(200ms);  // a second delivery would arrive by now
  for (const auto& outcomes : {running.all(), suspended.all()}) {
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(codeOf(outcomes[0].error), platform::kURLErrorCancelled);
  }
  EXPECT_EQ(task->state(), platform::URLSessionTaskState::Completed);
  EXPECT_EQ(task->error(), running.all()[0].error);
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(DataTaskTest, ConcurrentTasksSendTheirMethodAndBodyAndEachGetsItsOwnAnswerOnce) {
  server.handle("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.method + ":" + request.body, "application/octet-stream");
  });
  const std::string methods[] = {"POST", "PUT", "PATCH", "DELETE"};
  std::vector<Outcomes<DataOutcome>> outcomes(std::size(methods));
  std::vector<Outcomes<platform::Progress>> progress(std::size(methods));
  std::vector<std::shared_ptr<platform::URLSessionDataTask>> tasks;
  for (std::size_t i = 0; i < std::size(methods); ++i) {
    URLRequest request = makeRequest(server.url("/echo"));
    request.HTTPMethod = methods[i];
    request.HTTPBody = platform::bytesFromString(patternBytes(2 << 20, static_cast<std::uint32_t>(i)));  // large enough for libcurl's Expect
    request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
    tasks.push_back(manager->dataTaskWithRequest(request, progress[i].collector(), nullptr, outcomes[i].collector()));
    EXPECT_GT(tasks[i]->taskIdentifier(), i > 0 ? tasks[i - 1]->taskIdentifier() : 0u);  // increasing, never 0
  }
  for (auto& task : tasks) task->resume();
  for (auto& outcome : outcomes) ASSERT_TRUE(outcome.waitFor(1));
  std::this_thread::sleep_for(50ms);  // a second delivery would arrive by now
  for (std::size_t i = 0; i < std::size(methods); ++i) {
    ASSERT_EQ(outcomes[i].all().size(), 1u);
    EXPECT_TRUE(outcomes[i].all()[0].body() == methods[i] + ":" + patternBytes(2 << 20, static_cast<std::uint32_t>(i))) << methods[i];
    ASSERT_FALSE(progress[i].all().empty());  // upload progress, delivered before the completion
    EXPECT_EQ(progress[i].all().back().completedUnitCount, 2 << 20);
    EXPECT_EQ(progress[i].all().back().totalUnitCount, 2 << 20);
  }
  for (const auto& recorded : server.requests()) EXPECT_FALSE(recorded.header("Expect").has_value());
  URLRequest head = makeRequest(server.url("/echo"));
  head.HTTPMethod = "HEAD";
  EXPECT_EQ(codeOf(run(head).error), 0);
}

// One after another, the exchanges reuse one easy handle: none may inherit the method
// or body of the one before.
TEST_F(DataTaskTest, ExchangesOnAReusedHandleSendTheirOwnMethodAndBody) {
  server.handle("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_header("X-Seen", request.method + ":" + std::to_string(request.body.size()));
  });
  const std::pair<const char*, const char*> exchanges[] = {  // method, body (null: none)
      {"GET", nullptr}, {"GET", nullptr}, {"POST", "abc"}, {"GET", nullptr}, {"HEAD", nullptr},
      {"GET", nullptr}, {"POST", nullptr}, {"GET", nullptr}, {"PUT", "xy"},   {"GET", nullptr}};
  for (const auto& [method, body] : exchanges) {
    URLRequest request = makeRequest(server.url("/echo"));
    request.HTTPMethod = method;
    if (body) request.HTTPBody = platform::bytesFromString(body);
    const DataOutcome outcome = run(request);
    ASSERT_EQ(codeOf(outcome.error), 0) << method;
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->allHeaderFields().value("X-Seen"),
              std::string(method) + ":" + std::to_string(body ? std::strlen(body) : 0));
  }
}

TEST_F(DataTaskTest, TransportFailuresMapToTheirURLErrors) {
  TestServer closed;
  const std::string closedURL = closed.url("/gone");
  closed.stop();
  server.answer("/cut", ScriptedAnswer(200, std::string(4096, 'x')).dropAfter(1000));
  server.answer("/loop", ScriptedAnswer(302).header("Location", "/loop"));
  URLRequest injecting = makeRequest(server.url("/injected"));
  injecting.setValueForHTTPHeaderField("a\r\nInjected: 1", "X-Bad");
  const std::pair<URLRequest, std::int64_t> cases[] = {
      {makeRequest(closedURL), platform::kURLErrorCannotConnectToHost},
      {makeRequest("ftp://127.0.0.1/file"), platform::kURLErrorUnsupportedURL},
      {URLRequest{}, platform::kURLErrorBadURL},  // no URL at all
      {injecting, platform::kURLErrorBadURL},     // a line break in a header field: refused before sending
      {makeRequest(server.url("/cut")), platform::kURLErrorNetworkConnectionLost},
      {makeRequest(server.url("/loop")), platform::kURLErrorHTTPTooManyRedirects},  // redirects are followed, up to a limit
  };
  for (const auto& [request, code] : cases) EXPECT_EQ(codeOf(run(request).error), code);
  for (const auto& recorded : server.requests()) EXPECT_NE(recorded.path, "/injected");
}

TEST_F(DataTaskTest, ThrowingHandlersDoNotStopLaterCompletions) {
  server.answer("/a", ScriptedAnswer(200, "a"));
  auto throwing = [](auto&&...) { throw std::runtime_error("handler"); };
  manager->dataTaskWithRequest(makeRequest(server.url("/a")), nullptr, throwing, throwing)->resume();
  EXPECT_EQ(get("/a").body(), "a");
}

TEST_F(DataTaskTest, DestroyingTheManagerCancelsRunningTasks) {
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  Outcomes<DataOutcome> outcomes;
  manager->dataTaskWithRequest(makeRequest(server.url("/hang")), nullptr, nullptr, outcomes.collector())->resume();
  ASSERT_TRUE(server.waitForRequests(1, 10s));
  manager.reset();
  ASSERT_EQ(outcomes.all().size(), 1u);
  EXPECT_EQ(codeOf(outcomes.all()[0].error), platform::kURLErrorCancelled);
}

TEST_F(DataTaskTest, AManagerReleasedByItsOwnHandlerShutsDownCleanly) {
  server.answer("/a", ScriptedAnswer(200, "a"));
  Outcomes<DataOutcome> outcomes;
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/a")), nullptr, nullptr,
                                           [collect = outcomes.collector(), keep = manager](auto... outcome) {
                                             collect(outcome...);
                                           });
  manager.reset();  // the handler now holds the last reference
  task->resume();
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(outcomes.all()[0].body(), "a");
}

// A key and a self-signed certificate for 127.0.0.1 in one PEM file.
void writeSelfSignedCertificate(const std::filesystem::path& file) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
  X509_set_pubkey(certificate, key);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_sign(certificate, key, EVP_sha256());
  FILE* out = std::fopen(file.c_str(), "wb");
  PEM_write_X509(out, certificate);
  PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
  std::fclose(out);
  X509_free(certificate);
  EVP_PKEY_free(key);
}

TEST(SessionManagerTLS, SelfSignedServerIsRefusedAsUntrusted) {
  ScratchFolder folder;
  writeSelfSignedCertificate(folder / "server.pem");
  TestServer::Options options;
  options.certificateFile = options.privateKeyFile = folder / "server.pem";
  TestServer server(options);
  const DataOutcome outcome = runToEnd(*HTTPSessionManager::manager(), makeRequest(server.url("/secret")));
  EXPECT_EQ(codeOf(outcome.error), platform::kURLErrorServerCertificateUntrusted);
  EXPECT_EQ(server.requestCount(), 0u);
}

}  // namespace
}  // namespace vkq::testing
