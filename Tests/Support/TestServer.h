// An in-process HTTP(S) server for tests: cpp-httplib on 127.0.0.1 with an ephemeral
// port, playing back scripted answers, named failure modes and files with validators,
// and recording every request it receives.
//
// Routes are keyed by exact path and serve every method; registering a path again
// replaces its route, also while the server runs. A request for an unknown path gets
// 404. Every request is recorded (method, path, query, headers, body) before its route
// runs, so a request that is never answered is recorded too.
//
// Thread-safe. The server starts in the constructor and stops in the destructor (or
// stop()); stopping releases handlers that wait (NeverAnswer, Stall).
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
  std::string query;  // without "?"; empty when none
  httplib::Headers headers;
  std::string body;

  // The first value of a header field (names compare case-insensitively).
  std::optional<std::string> header(const std::string& name) const;
};

// How a scripted answer misbehaves.
enum class Failure {
  None,
  // Sends the head (with the full Content-Length) and `dropAfterBytes` of the body,
  // then closes the connection.
  DropMidBody,
  // Waits `delay` before answering normally.
  StallBeforeAnswer,
  // Never answers; the connection stays open until the server stops.
  NeverAnswer,
  // Sends the body in pieces of `pieceSize` bytes, waiting `delay` before each.
  SlowBody,
};

// An answer to play back, built fluently:
//   ScriptedAnswer(200, "{}").type("application/json").header("ETag", "\"1\"")
//   ScriptedAnswer(200, body).slow(100ms, 512)
struct ScriptedAnswer {
  explicit ScriptedAnswer(int status = 200, std::string body = {}) : status(status), body(std::move(body)) {}

  ScriptedAnswer& type(std::string value) {
    contentType = std::move(value);
    return *this;
  }
  ScriptedAnswer& header(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  ScriptedAnswer& dropAfter(std::size_t bytes) {
    failure = Failure::DropMidBody;
    dropAfterBytes = bytes;
    return *this;
  }
  ScriptedAnswer& stall(std::chrono::milliseconds duration) {
    failure = Failure::StallBeforeAnswer;
    delay = duration;
    return *this;
  }
  ScriptedAnswer& neverAnswer() {
    failure = Failure::NeverAnswer;
    return *this;
  }
  ScriptedAnswer& slow(std::chrono::milliseconds pause, std::size_t piece) {
    failure = Failure::SlowBody;
    delay = pause;
    pieceSize = piece;
    return *this;
  }

  int status;
  std::string body;
  std::string contentType = "text/plain";
  std::vector<std::pair<std::string, std::string>> headers;
  Failure failure = Failure::None;
  std::chrono::milliseconds delay{0};
  std::size_t pieceSize = 1024;
  std::size_t dropAfterBytes = 0;
};

// How serveFile() answers. Validators go into ETag and Last-Modified when set; Range
// ("bytes=N-" or "bytes=N-M") is honoured unless If-Range names another validator,
// in which case the whole file is sent with 200. A start at or past the end gets 416
// with "Content-Range: bytes */size".
struct FileOptions {
  FileOptions& withETag(std::string value) {
    etag = std::move(value);
    return *this;
  }
  FileOptions& withLastModified(std::string value) {
    lastModified = std::move(value);
    return *this;
  }
  FileOptions& dropAfter(std::size_t bytes) {
    dropAfterBytes = bytes;
    return *this;
  }
  FileOptions& slow(std::chrono::milliseconds delay) {
    pieceDelay = delay;
    return *this;
  }

  std::optional<std::string> etag;          // e.g. "\"v1\""
  std::optional<std::string> lastModified;  // an HTTP date
  // Closes the connection after this many body bytes of each answer.
  std::optional<std::size_t> dropAfterBytes;
  // Waits this long before each piece of 64 KiB.
  std::chrono::milliseconds pieceDelay{0};
};

class TestServer {
 public:
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  struct Options {
    // Handler threads: each keep-alive connection holds one while it is open.
    std::size_t threads = 16;
    // Serve HTTPS with these PEM files instead of plain HTTP.
    std::optional<std::filesystem::path> certificateFile;
    std::optional<std::filesystem::path> privateKeyFile;
  };

  TestServer();
  explicit TestServer(Options options);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:<port>" (or https).
  std::string baseURL() const;
  // baseURL() + path; `path` starts with "/".
  std::string url(std::string_view path) const;

  void answer(const std::string& path, ScriptedAnswer answer);
  void handle(const std::string& path, Handler handler);
  void serveFile(const std::string& path, std::filesystem::path file, FileOptions options = {});

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;
  // Waits until at least `count` requests have arrived; false on time-out.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;

  // Stops serving and joins the server's threads. Idempotent.
  void stop();

 private:
  void dispatch(const httplib::Request& request, httplib::Response& response);
  void play(const ScriptedAnswer& answer, httplib::Response& response);
  void sendFile(const std::filesystem::path& file, const FileOptions& options, const httplib::Request& request,
                httplib::Response& response);
  // Sleeps for `duration`, or less when the server stops; false when it stopped.
  bool pause(std::chrono::milliseconds duration);

  std::unique_ptr<httplib::Server> server_;
  std::function<void()> widenBacklog_;
  int port_ = 0;
  bool tls_ = false;
  std::thread thread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, Handler> routes_;   // guarded by mutex_
  std::vector<RecordedRequest> requests_;   // guarded by mutex_
  bool stopping_ = false;                   // guarded by mutex_
};

// "\"<size>-<mtime>\"" style validators are up to the caller; this gives an HTTP date.
std::string httpDate(std::chrono::system_clock::time_point time);

}  // namespace vkq::testing
