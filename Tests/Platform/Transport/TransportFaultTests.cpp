// Data tasks against servers that misbehave: connection faults, broken framing,
// redirects, and requests the transport must refuse before sending.
#include <gtest/gtest.h>

#include <limits>

#include "Platform/Session/HTTPSessionManager.h"
#include "Tests/Platform/Transport/TransportTesting.h"
#include "Tests/Support/FaultServer.h"
#include "Tests/Support/TestServer.h"

namespace vkq::testing {
namespace {

using namespace platform;

class TransportFaultTest : public ::testing::Test {
 protected:
  URLRequest request(const std::string& path, const std::string& method = "GET",
                     std::optional<std::string> body = std::nullopt) {
    URLRequest made = makeRequest(server.url(path), 5.0);
    made.HTTPMethod = method;
    if (body) made.HTTPBody = bytesFromString(*body);
    return made;
  }

  FaultServer server;  // declared first: outlives the manager's connections
  std::shared_ptr<HTTPSessionManager> manager = HTTPSessionManager::manager();
};

// Only an answer whose head and body arrived whole, as framed, is a success.
TEST_F(TransportFaultTest, AnswersCutShortOrFramedWronglyFailAndWholeOnesSucceed) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n";
  const struct {
    const char* name;
    FaultAnswer answer;
    std::int64_t error;  // 0: success with the body "hello"
    double timeout = 5.0;
  } cases[] = {
      {"whole", FaultAnswer::reply(200, "hello"), 0},
      {"closed at once", FaultAnswer::closeAtOnce(), kURLErrorNetworkConnectionLost},
      {"closed after the status line", FaultAnswer::reply(200, "hello").cutAfter("\r\n"),
       kURLErrorNetworkConnectionLost},
      {"closed inside the header block", FaultAnswer::raw(head + "X-Half: ab"), kURLErrorNetworkConnectionLost},
      {"closed after a whole field line", FaultAnswer::raw(head), kURLErrorNetworkConnectionLost},
      {"closed inside the body", FaultAnswer::reply(200, "hello").cutAfterBodyBytes(2),
       kURLErrorNetworkConnectionLost},
      {"shorter than declared", FaultAnswer::withContentLength("9", "hello"), kURLErrorNetworkConnectionLost},
      {"longer than declared", FaultAnswer::withContentLength("5", "hello, and more"),
       kURLErrorBadServerResponse},
      {"overflowing length", FaultAnswer::withContentLength("99999999999999999999999", "hello"),
       kURLErrorBadServerResponse},
      {"negative length", FaultAnswer::withContentLength("-5", "hello"), kURLErrorBadServerResponse},
      {"length not a number", FaultAnswer::withContentLength("5x", "hello"), kURLErrorBadServerResponse},
      {"chunked", FaultAnswer::chunked("2\r\nhe\r\n3\r\nllo\r\n0\r\n\r\n"), 0},
      {"chunk size not hex", FaultAnswer::chunked("zz\r\nhello\r\n0\r\n\r\n"), kURLErrorNetworkConnectionLost},
      {"chunked without its last chunk", FaultAnswer::chunked("5\r\nhello\r\n"), kURLErrorNetworkConnectionLost},
      {"stalled", FaultAnswer::stalled(), kURLErrorTimedOut, 0.3},
      // The idle time-out counts silence, not duration: the drip takes longer in all.
      {"dripped", FaultAnswer::reply(200, "hello").dripping(std::chrono::milliseconds(5)), 0, 0.3},
  };
  for (const auto& fault : cases) {
    SCOPED_TRACE(fault.name);
    server.answer("/fault", fault.answer);
    URLRequest faulty = request("/fault");
    faulty.timeoutInterval = fault.timeout;
    const DataOutcome outcome = runToEnd(*manager, faulty);
    EXPECT_EQ(codeOf(outcome.error), fault.error);
    EXPECT_EQ(outcome.body(), fault.error == 0 ? "hello" : "");
    if (outcome.error) {
      EXPECT_EQ(outcome.error->userInfo().failingURL, server.url("/fault"));
    }
  }
}

TEST_F(TransportFaultTest, RequestsThatCannotBeSentSafelyFailBeforeAnythingIsSent) {
  TestServer::Options untrusted;  // a self-signed certificate for 127.0.0.1, valid for a century
  untrusted.certificateFile = untrusted.privateKeyFile = VKQ_SOURCE_DIR "/Tests/Support/untrusted-127.0.0.1.pem";
  TestServer tls(untrusted);
  std::string closedURL;
  {
    const FaultServer closed;
    closedURL = closed.url("/gone");
  }
  URLRequest injecting = request("/injected");
  injecting.setValueForHTTPHeaderField("a\r\nInjected: 1", "X-Bad");
  const std::pair<URLRequest, std::int64_t> cases[] = {
      {makeRequest(closedURL), kURLErrorCannotConnectToHost},
      {makeRequest("ftp://127.0.0.1/file"), kURLErrorUnsupportedURL},
      {makeRequest("file:///etc/passwd"), kURLErrorUnsupportedURL},
      {makeRequest("127.0.0.1/schemeless"), kURLErrorUnsupportedURL},  // never guessed to be plain HTTP
      {URLRequest{}, kURLErrorBadURL},  // no URL at all
      {injecting, kURLErrorBadURL},     // a line break in a header field
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

// A request carries the fields it has and no others of libcurl's making.
TEST_F(TransportFaultTest, ABodylessPostCarriesNoContentTypeAndOneWithABodyOnlyItsOwn) {
  server.answer("/post", FaultAnswer::reply(200, "hello"));
  URLRequest typed = request("/post", "POST", "{}");
  typed.setValueForHTTPHeaderField("application/json", "Content-Type");
  for (const URLRequest& post : {request("/post", "POST"), request("/post", "POST", "a=1"), typed}) {
    ASSERT_EQ(codeOf(runToEnd(*manager, post).error), 0);
    EXPECT_EQ(server.requests().back().header("Content-Type"), post.valueForHTTPHeaderField("Content-Type"));
  }
}

// 303 means "see the other resource": fetched with GET whatever the method was. 307 and
// 308 repeat the request as it was; 301 and 302 turn only a POST into a GET.
TEST_F(TransportFaultTest, RedirectsFollowWithTheMethodAndBodyTheirStatusCalls) {
  server.answer("/target", FaultAnswer::reply(200, "hello"));
  const struct {
    int status;
    const char* method;
    const char* followedWith;
    bool keepsBody;
  } cases[] = {
      {303, "POST", "GET", false},   {303, "PUT", "GET", false},   {303, "DELETE", "GET", false},
      {303, "PATCH", "GET", false},  {307, "POST", "POST", true},  {307, "DELETE", "DELETE", true},
      {308, "PUT", "PUT", true},     {301, "POST", "GET", false},  {302, "PUT", "PUT", true},
      {302, "HEAD", "HEAD", false},
  };
  for (const auto& redirect : cases) {
    SCOPED_TRACE(std::to_string(redirect.status) + " " + redirect.method);
    server.answer("/moved", FaultAnswer::redirect(redirect.status, "/target?from=moved"));
    const std::size_t before = server.requests().size();
    const bool head = std::string(redirect.method) == "HEAD";
    const DataOutcome outcome = runToEnd(*manager, request("/moved", redirect.method, head ? std::nullopt : std::optional<std::string>("body")));
    ASSERT_EQ(codeOf(outcome.error), 0);
    EXPECT_EQ(outcome.body(), head ? "" : "hello");
    EXPECT_EQ(outcome.response->url->absoluteString(), server.url("/target?from=moved"));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), before + 2);
    const FaultRequest& followed = requests.back();
    EXPECT_EQ(followed.method, redirect.followedWith);
    EXPECT_EQ(followed.body, redirect.keepsBody ? "body" : "");
    EXPECT_EQ(followed.header("Content-Length").has_value(), redirect.keepsBody);
  }
}

TEST_F(TransportFaultTest, RedirectsAreLimitedInNumberAndToHTTP) {
  server.answer("/loop", FaultAnswer::redirect(302, "/loop"));
  server.answer("/away", FaultAnswer::redirect(307, "file:///etc/passwd"));
  EXPECT_EQ(codeOf(runToEnd(*manager, request("/loop")).error), kURLErrorHTTPTooManyRedirects);
  EXPECT_EQ(server.requests().size(), 17u);  // the first request and 16 redirects
  EXPECT_EQ(codeOf(runToEnd(*manager, request("/away")).error), kURLErrorUnsupportedURL);
}

// A time-out too small to mean "never" and one too large for the clock both work.
TEST_F(TransportFaultTest, TimeOutsOutsideTheirRangeAreClampedToIt) {
  server.answer("/stall", FaultAnswer::stalled());
  server.answer("/drip", FaultAnswer::reply(200, "hello").dripping(std::chrono::milliseconds(5)));
  URLRequest tiny = request("/stall");
  tiny.timeoutInterval = 1e-10;
  EXPECT_EQ(codeOf(runToEnd(*manager, tiny).error), kURLErrorTimedOut);
  for (const double huge : {1e12, std::numeric_limits<double>::infinity()}) {
    URLRequest patient = request("/drip");
    patient.timeoutInterval = huge;
    EXPECT_EQ(runToEnd(*manager, patient).body(), "hello");
  }
}

}  // namespace
}  // namespace vkq::testing
