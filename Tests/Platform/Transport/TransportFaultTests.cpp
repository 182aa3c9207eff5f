// Data tasks against servers that misbehave (connection faults, broken framing,
// redirects) and requests the transport must refuse before sending.
#include <gtest/gtest.h>

#include "Platform/Session/HTTPSessionManager.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/FaultServer.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

using namespace platform;
namespace fs = std::filesystem;

class TransportFaultTest : public ::testing::Test {
 protected:
  URLRequest request(const std::string& path, const char* method = "GET", const char* body = nullptr) {
    URLRequest made = makeRequest(server.url(path), 5.0);
    made.HTTPMethod = method;
    if (body != nullptr) made.HTTPBody = bytesFromString(body);
    return made;
  }

  FaultServer server;  // declared first: outlives the manager's connections
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
  ScratchFolder folder;
};

// Only an answer whose head and body arrived whole, as framed, is a success, for data
// tasks and downloads alike.
TEST_F(TransportFaultTest, AnswersCutShortOrFramedWronglyFailAndWholeOnesSucceed) {
  const auto hello = [](std::string fields = {}) { return FaultAnswer::reply(200, "hello", std::move(fields)); };
  const auto chunked = [](std::string chunks) {
    return FaultAnswer::reply(200, std::move(chunks), "Transfer-Encoding: chunked\r\n");
  };
  const FaultAnswer dripped = hello().dripping(std::chrono::milliseconds(5));
  const struct {
    const char* name;
    FaultAnswer answer;
    std::int64_t error;  // 0: success with the body "hello"
    double timeout = 5.0;
    bool dataTakesDeclared = false;  // a data task succeeds with the declared bytes instead
  } cases[] = {
      {"whole", hello(), 0},
      {"closed at once", FaultAnswer(), kURLErrorNetworkConnectionLost},
      {"closed after the status line", hello().cutAfter("\r\n"), kURLErrorNetworkConnectionLost},
      {"closed inside a field line", hello().cutAfter("Content-Len"), kURLErrorNetworkConnectionLost},
      {"closed after a field line", hello().cutAfter("Content-Length: 5\r\n"), kURLErrorNetworkConnectionLost},
      {"closed inside the body", hello().cutAfter("\r\n\r\n", 2), kURLErrorNetworkConnectionLost},
      {"shorter than declared", hello("Content-Length: 9\r\n"), kURLErrorNetworkConnectionLost},
      {"longer than declared", hello("Content-Length: 3\r\n"), kURLErrorBadServerResponse, 5.0, true},
      {"overflowing length", hello("Content-Length: 99999999999999999999999\r\n"), kURLErrorBadServerResponse},
      {"negative length", hello("Content-Length: -5\r\n"), kURLErrorBadServerResponse},
      {"length not a number", hello("Content-Length: 5x\r\n"), kURLErrorBadServerResponse},
      {"chunked", chunked("2\r\nhe\r\n3\r\nllo\r\n0\r\n\r\n"), 0},
      {"chunk size not hex", chunked("zz\r\nhello\r\n0\r\n\r\n"), kURLErrorNetworkConnectionLost},
      {"no last chunk", chunked("5\r\nhello\r\n"), kURLErrorNetworkConnectionLost},
      // A time-out too small to mean "never" and one too large for the clock both work.
      {"stalled", FaultAnswer::stalled(), kURLErrorTimedOut, 1e-10},
      {"dripped", dripped, 0, 1e12},
      // The idle time-out counts silence, not duration: the drip takes longer in all.
      {"dripped past the time-out", dripped, 0, 0.3},
  };
  for (const auto& fault : cases) {
    SCOPED_TRACE(fault.name);
    server.answer("/fault", fault.answer);
    URLRequest faulty = request("/fault");
    faulty.timeoutInterval = fault.timeout;
    const DataOutcome outcome = runToEnd(*manager, faulty);
    EXPECT_EQ(codeOf(outcome.error), fault.dataTakesDeclared ? 0 : fault.error);
    EXPECT_EQ(outcome.body(), fault.dataTakesDeclared ? "hel" : fault.error == 0 ? "hello" : "");

    Outcomes<DownloadOutcome> downloads;
    const auto target = folder.path() / "download";
    manager
        ->downloadTaskWithRequest(
            faulty, nullptr, [&](const URL&, auto) { return URL::fileURLWithPath(target.string(), false); },
            downloads.collector())
        ->resume();
    ASSERT_TRUE(downloads.waitFor(1));
    EXPECT_EQ(codeOf(downloads.all().at(0).error), fault.error) << "download";
    EXPECT_EQ(fs::exists(target) ? readFile(target) : "", fault.error == 0 ? "hello" : "");
    fs::remove(target);
  }
}

TEST_F(TransportFaultTest, RequestsThatCannotBeSentSafelyFailBeforeAnythingIsSent) {
  TestServer::Options untrusted;  // a self-signed certificate for 127.0.0.1, valid for a century
  untrusted.certificateAndKeyFile = VKQ_SOURCE_DIR "/Tests/Support/untrusted-127.0.0.1.pem";
  TestServer tls(untrusted);
  URLRequest injecting = request("/injected");
  injecting.setValueForHTTPHeaderField("a\r\nInjected: 1", "X-Bad");
  const std::pair<URLRequest, std::int64_t> cases[] = {
      {makeRequest("ftp://127.0.0.1/file"), kURLErrorUnsupportedURL},
      {makeRequest("file:///etc/passwd"), kURLErrorUnsupportedURL},
      {makeRequest("127.0.0.1/schemeless"), kURLErrorUnsupportedURL},  // never guessed to be plain HTTP
      {URLRequest{}, kURLErrorBadURL},                                  // no URL at all
      {injecting, kURLErrorBadURL},                                     // a line break in a header field
      {makeRequest(tls.url("/secret")), kURLErrorServerCertificateUntrusted},  // peers are verified
  };
  for (const auto& [refused, code] : cases) {
    const ErrorPtr error = runToEnd(*manager, refused).error;
    ASSERT_EQ(codeOf(error), code);
    const auto url = refused.url ? std::optional(refused.url->absoluteString()) : std::nullopt;
    EXPECT_EQ(error->userInfo().failingURL, url) << code;
  }
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(tls.requestCount(), 0u);
}

// 303 asks for another resource: fetched with GET whatever the method was. 307 and 308
// repeat the request as it was; 301 and 302 turn only a POST into a GET. A request
// carries its own fields only: no Content-Type of libcurl's making for a POST.
TEST_F(TransportFaultTest, RedirectsFollowWithTheMethodAndBodyTheirStatusCallsForUpTo16HTTPHops) {
  server.answer("/target", FaultAnswer::reply(200, "hello"));
  server.answer("/loop", FaultAnswer::reply(302, "", "Location: /loop\r\n"));
  const struct {
    int status;
    const char* method;
    const char* followedWith;  // null: not followed
    const char* location = "/target?from=moved";
    std::int64_t error = 0;
    std::size_t sent = 2;  // requests in all
  } cases[] = {
      {303, "POST", "GET"},   {303, "PUT", "GET"},     {303, "DELETE", "GET"},  {303, "PATCH", "GET"},
      {307, "POST", "POST"},  {307, "DELETE", "DELETE"}, {308, "PUT", "PUT"}, {301, "POST", "GET"},
      {302, "PUT", "PUT"},    {303, "HEAD", "HEAD"},
      {302, "GET", nullptr, "/loop", kURLErrorHTTPTooManyRedirects, 17},  // the first request and 16 redirects
      {307, "GET", nullptr, "file:///etc/passwd", kURLErrorUnsupportedURL, 1},
  };
  for (const auto& redirect : cases) {
    SCOPED_TRACE(std::to_string(redirect.status) + " " + redirect.method);
    const std::string location = "Location: " + std::string(redirect.location) + "\r\n";
    server.answer("/moved", FaultAnswer::reply(redirect.status, "moved", location));
    const std::size_t before = server.requests().size();
    const bool head = std::string(redirect.method) == "HEAD";
    const DataOutcome outcome = runToEnd(*manager, request("/moved", redirect.method, head ? nullptr : "a=1"));
    ASSERT_EQ(codeOf(outcome.error), redirect.error);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size() - before, redirect.sent);
    EXPECT_EQ(requests[before].header("Content-Type"), std::nullopt);
    if (redirect.followedWith == nullptr) continue;
    const bool keepsBody = !head && redirect.method == std::string(redirect.followedWith);
    EXPECT_EQ(outcome.body(), head ? "" : "hello");
    EXPECT_EQ(outcome.response->url->absoluteString(), server.url("/target?from=moved"));
    EXPECT_EQ(requests.back().method, redirect.followedWith);
    EXPECT_EQ(requests.back().body, keepsBody ? "a=1" : "");
    EXPECT_EQ(requests.back().header("Content-Length").has_value(), keepsBody);
  }
}

}  // namespace
}  // namespace vkq::testing
