// Data tasks against the in-process test server.
#include "Platform/HTTPSessionManager.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <zlib.h>

#include <atomic>
#include <set>

#include "Tests/Platform/TransportTesting.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

using platform::HTTPSessionManager;
using platform::URLSessionTaskState;

std::string gzip(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()) + 32, '\0');
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
  // Runs one data task to its end and returns its single outcome.
  DataOutcome run(const platform::URLRequest& request) {
    Outcomes<DataOutcome> outcomes;
    auto task = manager->dataTaskWithRequest(request, nullptr, nullptr, collect(outcomes));
    task->resume();
    EXPECT_TRUE(outcomes.waitFor(1));
    EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
    auto all = outcomes.all();
    return all.empty() ? DataOutcome{} : all.front();
  }
  DataOutcome get(const std::string& path, double timeout = 20.0) { return run(makeRequest(server.url(path), timeout)); }

  TestServer server;  // declared first: outlives the manager's connections
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

TEST_F(DataTaskTest, JSONAnswerArrivesWithItsHeadOnTheCompletionQueue) {
  server.answer("/user", ScriptedAnswer(200, R"({"id":7,"name":"Ann"})").type("application/json"));
  const DataOutcome outcome = get("/user");
  ASSERT_EQ(outcome.error, nullptr);
  ASSERT_NE(outcome.response, nullptr);
  EXPECT_EQ(outcome.response->statusCode, 200);
  EXPECT_EQ(outcome.response->MIMEType(), "application/json");
  EXPECT_EQ(outcome.body(), R"({"id":7,"name":"Ann"})");
  EXPECT_NE(outcome.thread, std::this_thread::get_id());
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.requests()[0].method, "GET");
}

TEST_F(DataTaskTest, StatusesOutside2xxBecomeErrorsWhileTheBodyIsStillHandedBack) {
  struct Case {
    int status;
    std::string body;
    bool fails;
  };
  for (const Case& c : {Case{200, "fine", false}, Case{204, "", false}, Case{404, "not here", true},
                        Case{500, "broken", true}}) {
    SCOPED_TRACE(c.status);
    server.answer("/status", ScriptedAnswer(c.status, c.body));
    const DataOutcome outcome = get("/status");
    ASSERT_NE(outcome.response, nullptr);
    EXPECT_EQ(outcome.response->statusCode, c.status);
    EXPECT_EQ(outcome.body(), c.body);
    if (c.fails) {
      ASSERT_NE(outcome.error, nullptr);
      EXPECT_EQ(outcome.error->domain(), platform::kURLErrorDomain);
      EXPECT_EQ(outcome.error->code(), platform::kURLErrorBadServerResponse);
    } else {
      EXPECT_EQ(outcome.error, nullptr);
    }
  }
}

TEST_F(DataTaskTest, ServerThatNeverAnswersTimesOutAfterTheIdleTimeout) {
  server.answer("/silent", ScriptedAnswer().neverAnswer());
  const auto started = std::chrono::steady_clock::now();
  const DataOutcome outcome = get("/silent", 0.5);
  const auto elapsed = std::chrono::steady_clock::now() - started;
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), platform::kURLErrorTimedOut);
  EXPECT_EQ(outcome.error->userInfo().failingURL, server.url("/silent"));
  EXPECT_GE(elapsed, 450ms);
  EXPECT_LT(elapsed, 5s);
}

TEST_F(DataTaskTest, SlowButSteadyAnswerOutlivingTheTimeoutSucceeds) {
  const std::string body = patternBytes(20 * 100);
  server.answer("/trickle", ScriptedAnswer(200, body).type("application/octet-stream").slow(100ms, 100));
  const auto started = std::chrono::steady_clock::now();
  const DataOutcome outcome = get("/trickle", 0.5);
  EXPECT_GT(std::chrono::steady_clock::now() - started, 1500ms);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.body(), body);
}

TEST_F(DataTaskTest, CookieSetByOneAnswerIsSentWithTheNextRequest) {
  server.answer("/login", ScriptedAnswer(200, "ok").header("Set-Cookie", "session=abc123; Path=/"));
  server.answer("/profile", ScriptedAnswer(200, "me"));
  ASSERT_EQ(get("/login").error, nullptr);
  ASSERT_EQ(get("/profile").error, nullptr);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_FALSE(requests[0].header("Cookie").has_value());
  EXPECT_EQ(requests[1].header("Cookie"), "session=abc123");
}

TEST_F(DataTaskTest, GzipAnswerIsDecodedTransparently) {
  const std::string text(10000, 'z');
  server.answer("/packed",
                ScriptedAnswer(200, gzip(text)).type("application/octet-stream").header("Content-Encoding", "gzip"));
  const DataOutcome outcome = get("/packed");
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.body(), text);
  const auto accepted = server.requests().at(0).header("Accept-Encoding").value_or("");
  EXPECT_NE(accepted.find("gzip"), std::string::npos);
  EXPECT_NE(accepted.find("deflate"), std::string::npos);
}

TEST_F(DataTaskTest, RedirectsAreFollowedAndALoopFailsAsTooManyRedirects) {
  server.answer("/old", ScriptedAnswer(302).header("Location", "/new"));
  server.answer("/new", ScriptedAnswer(200, "moved here"));
  const DataOutcome moved = get("/old");
  ASSERT_EQ(moved.error, nullptr);
  EXPECT_EQ(moved.body(), "moved here");
  ASSERT_TRUE(moved.response->url.has_value());
  EXPECT_EQ(moved.response->url->path(), "/new");

  server.answer("/loop", ScriptedAnswer(302).header("Location", "/loop"));
  const DataOutcome looped = get("/loop");
  ASSERT_NE(looped.error, nullptr);
  EXPECT_EQ(looped.error->code(), platform::kURLErrorHTTPTooManyRedirects);
}

TEST_F(DataTaskTest, BodiesBeyondTheLimitFailWhetherAnnouncedStreamedOrCompressed) {
  manager->setMaximumDataLength(64 * 1024);
  server.answer("/announced", ScriptedAnswer(200, std::string(100 * 1024, 'a')).type("application/octet-stream"));
  server.answer("/streamed",
                ScriptedAnswer(200, std::string(100 * 1024, 'b')).type("application/octet-stream").slow(0ms, 16 * 1024));
  // 16 MiB of zeros in a few KiB: a compression bomb.
  server.answer("/bomb", ScriptedAnswer(200, gzip(std::string(16 << 20, '\0')))
                            .type("application/octet-stream")
                            .header("Content-Encoding", "gzip"));
  server.answer("/fits", ScriptedAnswer(200, std::string(64 * 1024, 'c')).type("application/octet-stream"));
  for (const char* path : {"/announced", "/streamed", "/bomb"}) {
    SCOPED_TRACE(path);
    const DataOutcome outcome = get(path);
    ASSERT_NE(outcome.error, nullptr);
    EXPECT_EQ(outcome.error->code(), platform::kURLErrorDataLengthExceedsMaximum);
  }
  EXPECT_EQ(get("/fits").body().size(), 64u * 1024);
}

TEST_F(DataTaskTest, CancellingARunningTaskCompletesItOnceWithCancelled) {
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  Outcomes<DataOutcome> outcomes;
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/hang")), nullptr, nullptr, collect(outcomes));
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  task->resume();
  EXPECT_EQ(task->state(), URLSessionTaskState::Running);
  ASSERT_TRUE(server.waitForRequests(1, 10s));
  task->cancel();
  task->cancel();
  ASSERT_TRUE(outcomes.waitFor(1));
  std::this_thread::sleep_for(200ms);  // a second delivery would arrive by now
  ASSERT_EQ(outcomes.count(), 1u);
  const auto error = outcomes.all()[0].error;
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), platform::kURLErrorCancelled);
  EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
  EXPECT_EQ(task->error(), error);
  task->resume();  // no effect once completed
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(outcomes.count(), 1u);
}

TEST_F(DataTaskTest, CancellingASuspendedTaskCompletesItWithoutSendingAnything) {
  Outcomes<DataOutcome> outcomes;
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/never")), nullptr, nullptr, collect(outcomes));
  task->cancel();
  task->resume();
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(outcomes.all()[0].error->code(), platform::kURLErrorCancelled);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(outcomes.count(), 1u);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST(SessionManagerConcurrency, ManyConcurrentTasksEachGetTheirOwnAnswerExactlyOnce) {
  // Each of the many connections holds a handler thread until its keep-alive expires.
  TestServer::Options options;
  options.threads = 128;
  TestServer server(options);
  auto manager = HTTPSessionManager::manager();
  server.handle("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.get_param_value("n"), "text/plain");
  });
  constexpr int kTasks = 200;
  std::mutex mutex;
  std::map<int, std::vector<std::string>> answers;
  std::atomic<int> done{0};
  std::vector<std::shared_ptr<platform::URLSessionDataTask>> tasks;
  for (int n = 0; n < kTasks; ++n) {
    tasks.push_back(manager->dataTaskWithRequest(
        makeRequest(server.url("/echo?n=" + std::to_string(n))), nullptr, nullptr,
        [&, n](auto, platform::Object object, platform::ErrorPtr error) {
          std::lock_guard lock(mutex);
          answers[n].push_back(error ? "error: " + error->description() : platform::stringFromBytes(*object.data()));
          ++done;
        }));
  }
  std::set<std::uint64_t> identifiers;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    identifiers.insert(tasks[i]->taskIdentifier());
    if (i > 0) {
      EXPECT_GT(tasks[i]->taskIdentifier(), tasks[i - 1]->taskIdentifier());
    }
  }
  EXPECT_EQ(identifiers.size(), tasks.size());
  for (auto& task : tasks) task->resume();
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (done < kTasks && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(10ms);
  std::this_thread::sleep_for(50ms);
  std::lock_guard lock(mutex);
  ASSERT_EQ(answers.size(), static_cast<std::size_t>(kTasks));
  for (const auto& [n, list] : answers) {
    ASSERT_EQ(list.size(), 1u) << n;
    EXPECT_EQ(list[0], std::to_string(n));
  }
}

TEST_F(DataTaskTest, BodyMethodAndHeadersAreSentAsGiven) {
  server.handle("/submit", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.method + ":" + request.body, "text/plain");
  });
  for (const std::string method : {"POST", "PUT", "PATCH", "DELETE"}) {
    SCOPED_TRACE(method);
    platform::URLRequest request = makeRequest(server.url("/submit"));
    request.HTTPMethod = method;
    request.HTTPBody = platform::bytesFromString("payload-" + method);
    request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
    request.setValueForHTTPHeaderField("yes", "X-Custom");
    EXPECT_EQ(run(request).body(), method + ":payload-" + method);
    const auto recorded = server.requests().back();
    EXPECT_EQ(recorded.header("X-Custom"), "yes");
    EXPECT_FALSE(recorded.header("Expect").has_value());
  }
  platform::URLRequest head = makeRequest(server.url("/submit"));
  head.HTTPMethod = "HEAD";
  const DataOutcome outcome = run(head);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(outcome.body(), "");
}

TEST_F(DataTaskTest, UploadProgressEndsAtTheBodySize) {
  server.answer("/upload", ScriptedAnswer(200, "stored"));
  Outcomes<platform::Progress> progress;
  Outcomes<DataOutcome> outcomes;
  platform::URLRequest request = makeRequest(server.url("/upload"));
  request.HTTPMethod = "PUT";
  request.HTTPBody = platform::bytesFromString(patternBytes(3 << 20));
  request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
  auto task = manager->dataTaskWithRequest(
      request, [&](const platform::Progress& p) { progress.add(p); }, nullptr, collect(outcomes));
  task->resume();
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(outcomes.all()[0].error, nullptr);
  const auto reports = progress.all();
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back().completedUnitCount, 3 << 20);
  EXPECT_EQ(reports.back().totalUnitCount, 3 << 20);
  EXPECT_EQ(server.requests().back().body.size(), 3u << 20);
}

TEST_F(DataTaskTest, HeaderFieldWithALineBreakIsRefusedAndNeverSent) {
  platform::URLRequest request = makeRequest(server.url("/x"));
  request.setValueForHTTPHeaderField("a\r\nInjected: 1", "X-Bad");
  const DataOutcome outcome = run(request);
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), platform::kURLErrorBadURL);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(DataTaskTest, ClosedPortAndUnknownSchemeMapToTheirErrors) {
  TestServer closed;
  const std::string url = closed.url("/gone");
  closed.stop();
  EXPECT_EQ(run(makeRequest(url)).error->code(), platform::kURLErrorCannotConnectToHost);
  EXPECT_EQ(run(makeRequest("ftp://127.0.0.1/file")).error->code(), platform::kURLErrorUnsupportedURL);
  EXPECT_EQ(run(platform::URLRequest{}).error->code(), platform::kURLErrorBadURL);
}

TEST_F(DataTaskTest, ConnectionDroppedMidBodyIsConnectionLost) {
  server.answer("/cut", ScriptedAnswer(200, std::string(4096, 'x')).type("application/octet-stream").dropAfter(1000));
  const DataOutcome outcome = get("/cut");
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), platform::kURLErrorNetworkConnectionLost);
  EXPECT_FALSE(outcome.error->localizedDescription().empty());
}

TEST_F(DataTaskTest, ThrowingHandlersDoNotStopLaterCompletions) {
  server.answer("/a", ScriptedAnswer(200, "a"));
  auto throwing = manager->dataTaskWithRequest(
      makeRequest(server.url("/a")), nullptr, [](const platform::Progress&) { throw std::runtime_error("progress"); },
      [](auto, auto, auto) { throw std::runtime_error("completion"); });
  throwing->resume();
  EXPECT_EQ(get("/a").body(), "a");
}

TEST(SessionManagerLifetime, DestroyingTheManagerCancelsRunningTasks) {
  TestServer server;
  server.answer("/hang", ScriptedAnswer().neverAnswer());
  Outcomes<DataOutcome> outcomes;
  auto manager = HTTPSessionManager::manager();
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/hang")), nullptr, nullptr, collect(outcomes));
  task->resume();
  ASSERT_TRUE(server.waitForRequests(1, 10s));
  manager.reset();
  ASSERT_EQ(outcomes.count(), 1u);
  EXPECT_EQ(outcomes.all()[0].error->code(), platform::kURLErrorCancelled);
}

TEST(SessionManagerLifetime, AManagerReleasedByItsOwnHandlerShutsDownCleanly) {
  TestServer server;
  server.answer("/a", ScriptedAnswer(200, "a"));
  Outcomes<DataOutcome> outcomes;
  auto manager = HTTPSessionManager::manager();
  auto task = manager->dataTaskWithRequest(makeRequest(server.url("/a")), nullptr, nullptr,
                                           [&outcomes, keep = manager](auto response, auto object, auto error) {
                                             outcomes.add({response, object, error, std::this_thread::get_id()});
                                           });
  manager.reset();  // the handler now holds the last reference
  task->resume();
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(outcomes.all()[0].body(), "a");
  task.reset();
}

// A key and a self-signed certificate for 127.0.0.1, made with OpenSSL.
void writeSelfSignedCertificate(const std::filesystem::path& certificate, const std::filesystem::path& key) {
  EVP_PKEY* pkey = EVP_EC_gen("P-256");
  X509* x509 = X509_new();
  X509_set_version(x509, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
  X509_gmtime_adj(X509_getm_notBefore(x509), 0);
  X509_gmtime_adj(X509_getm_notAfter(x509), 3600);
  X509_set_pubkey(x509, pkey);
  X509_NAME* name = X509_get_subject_name(x509);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(x509, name);
  X509_sign(x509, pkey, EVP_sha256());
  FILE* out = std::fopen(certificate.c_str(), "wb");
  PEM_write_X509(out, x509);
  std::fclose(out);
  out = std::fopen(key.c_str(), "wb");
  PEM_write_PrivateKey(out, pkey, nullptr, nullptr, 0, nullptr, nullptr);
  std::fclose(out);
  X509_free(x509);
  EVP_PKEY_free(pkey);
}

TEST(SessionManagerTLS, SelfSignedServerIsRefusedAsUntrusted) {
  ScratchFolder folder;
  writeSelfSignedCertificate(folder / "cert.pem", folder / "key.pem");
  TestServer::Options options;
  options.certificateFile = folder / "cert.pem";
  options.privateKeyFile = folder / "key.pem";
  TestServer server(options);
  server.answer("/secret", ScriptedAnswer(200, "secret"));
  Outcomes<DataOutcome> outcomes;
  auto manager = HTTPSessionManager::manager();
  manager->dataTaskWithRequest(makeRequest(server.url("/secret")), nullptr, nullptr, collect(outcomes))->resume();
  ASSERT_TRUE(outcomes.waitFor(1));
  const auto error = outcomes.all()[0].error;
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), platform::kURLErrorServerCertificateUntrusted);
  EXPECT_EQ(server.requestCount(), 0u);
}

}  // namespace
}  // namespace vkq::testing
