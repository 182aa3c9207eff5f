// An in-process HTTP(S) server for tests: cpp-httplib on 127.0.0.1 with an ephemeral
// port, playing back scripted answers, named failure modes and files with validators,
// and recording every request it receives.
//
// Routes are keyed by exact path and serve every method; registering a path again
// replaces its route, also while the server runs. A request for an unknown path gets
// 404. Every request is recorded (method, path, headers, body) before its route runs,
// so a request that is never answered is recorded too.
//
// Thread-safe. The server starts in the constructor and stops in the destructor (or
// stop()); stopping releases handlers that wait (neverAnswer, slow).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <httplib.h>

namespace vkq::testing {

struct RecordedRequest {
  std::string method;
  std::string path;
  httplib::Headers headers;
  std::string body;

  // The first value of a header field (names compare case-insensitively).
  std::optional<std::string> header(const std::string& name) const {
    const auto it = headers.find(name);
    return it == headers.end() ? std::nullopt : std::optional(it->second);
  }
};

// How a body is sent: whole, or in pieces with a pause before each, or cut short by
// closing the connection after some bytes (the head announces the full length).
struct BodyPacing {
  std::optional<std::size_t> dropAfterBytes;
  std::chrono::milliseconds pieceDelay{0};
  std::size_t pieceSize = 64 * 1024;
};

// An answer to play back, built fluently:
//   ScriptedAnswer(200, "{}").type("application/json").header("ETag", "\"1\"")
//   ScriptedAnswer(200, body).slow(100ms, 512)
struct ScriptedAnswer {
  explicit ScriptedAnswer(int status = 200, std::string body = {}) : status(status), body(std::move(body)) {}

  ScriptedAnswer& type(std::string value) { contentType = std::move(value); return *this; }
  ScriptedAnswer& header(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  // Never answers; the connection stays open until the server stops.
  ScriptedAnswer& neverAnswer() { answers = false; return *this; }
  ScriptedAnswer& slow(std::chrono::milliseconds pause, std::size_t piece) {
    pacing.pieceDelay = pause;
    pacing.pieceSize = piece;
    return *this;
  }

  int status;
  std::string body;
  std::string contentType = "text/plain";
  std::vector<std::pair<std::string, std::string>> headers;
  bool answers = true;
  BodyPacing pacing;
};

// How serveFile() answers. Validators go into ETag and Last-Modified when set; Range and
// If-Range are decided as the reference server decides them (Tools/vkq/Server/FileResponder.h),
// under these validators.
struct FileOptions {
  FileOptions& withETag(std::string value) { etag = std::move(value); return *this; }
  FileOptions& withLastModified(std::string value) { lastModified = std::move(value); return *this; }
  // Closes the connection after this many body bytes of each answer.
  FileOptions& dropAfter(std::size_t bytes) { pacing.dropAfterBytes = bytes; return *this; }
  // Waits this long before each piece of 64 KiB.
  FileOptions& slow(std::chrono::milliseconds delay) { pacing.pieceDelay = delay; return *this; }

  std::optional<std::string> etag;          // e.g. "\"v1\""
  std::optional<std::string> lastModified;  // an HTTP date
  BodyPacing pacing;
};

class TestServer {
 public:
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  struct Options {
    // Handler threads: each keep-alive connection holds one while it is open.
    std::size_t threads = 16;
    // Serve HTTPS instead of plain HTTP, with the certificate and private key in this PEM file.
    std::optional<std::filesystem::path> certificateAndKeyFile;
  };

  TestServer();
  explicit TestServer(Options options);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  // "http://127.0.0.1:<port>" (or https) + `path`, which starts with "/".
  std::string url(std::string_view path) const;
  // The port the server listens on (for a server in a child process to report).
  int port() const { return port_; }

  void answer(const std::string& path, ScriptedAnswer answer);
  void handle(const std::string& path, Handler handler);
  void serveFile(const std::string& path, std::filesystem::path file, FileOptions options = {});

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const { return requests().size(); }
  // Waits until at least `count` requests have arrived; false on time-out.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;

  // Stops serving and joins the server's threads. Idempotent.
  void stop();

 private:
  void dispatch(const httplib::Request& request, httplib::Response& response);
  void sendFile(const std::filesystem::path& file, const FileOptions& options, const httplib::Request& request,
                httplib::Response& response);
  // Sends `length` bytes that `read(offset, buffer, count)` provides, paced as `pacing` says.
  using Reader = std::function<std::size_t(std::size_t offset, char* buffer, std::size_t count)>;
  void sendBody(httplib::Response& response, std::size_t length, const std::string& type, const BodyPacing& pacing,
                Reader read);
  // Sleeps for `duration`, or less when the server stops; false when it stopped.
  bool pause(std::chrono::milliseconds duration);

  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::string base_;
  std::thread thread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, Handler> routes_;   // guarded by mutex_
  std::vector<RecordedRequest> requests_;   // guarded by mutex_
  bool stopping_ = false;                   // guarded by mutex_
};

}  // namespace vkq::testing
