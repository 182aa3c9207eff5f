// ReferenceServer: the server side of everything the library speaks, on 127.0.0.1.
//
//   POST /kxp/echo      parses the request frame strictly under the server's frame
//                       settings and answers a response frame with the same payload
//                       (application/octet-stream); a frame that does not match the
//                       settings gets 400 with the reason as text.
//   * /json/echo        answers the JSON body (POST, PUT, PATCH, ...) or, without a
//                       body, the query parameters as a JSON object (application/json).
//   GET /files/PATH     the file PATH under the root folder, with Accept-Ranges,
//                       ETag and Last-Modified; one Range is honoured unless If-Range
//                       names an older version. Paths leaving the folder get 403.
//
// Faults on demand, to show and test clients on a bad network: the first `failFirst`
// requests get 503 with "Retry-After: 1"; with `dropEvery`, every answer whose body is
// longer is cut off after that many body bytes (the connection is closed).
//
// Every answer is logged as one line on the log stream once sent, with the Range asked
// for; a file answer also logs the bytes it is about to send.
//
// Threads: bind() and run() on one thread; run() serves on threads of its own until
// stop(), which may be called from any thread (a signal watcher's, say), at any time
// after construction.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Tools/vkq/Server/Pacer.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace vkq::tool {

class ReferenceServer {
 public:
  struct Options {
    VKQKXPFrameSettings frame;
    std::optional<std::filesystem::path> root;  // absent: /files/ answers 404
    std::optional<std::uint64_t> rateLimit;     // bytes per second per file answer
    std::FILE* log = stderr;                    // null: no log
    std::optional<std::uint64_t> dropEvery;     // body bytes per answer before the cut
    std::uint64_t failFirst = 0;                // requests answered 503 first
  };

  explicit ReferenceServer(Options options);
  ~ReferenceServer();
  ReferenceServer(const ReferenceServer&) = delete;
  ReferenceServer& operator=(const ReferenceServer&) = delete;

  // Binds 127.0.0.1:`port` (0: a free port). The port bound, or absent on failure.
  std::optional<int> bind(std::uint16_t port);
  // Serves until stop() (returns at once if it came already). REQUIRES: bind()
  // succeeded.
  void run();
  // Makes run() return and cuts file answers short. Idempotent; any thread.
  void stop();

 private:
  void echoKXP(const httplib::Request& request, httplib::Response& response) const;
  void echoJSON(const httplib::Request& request, httplib::Response& response) const;
  void sendFile(const httplib::Request& request, httplib::Response& response) const;
  // Sets `body` as the answer's content, cut off after options_.dropEvery bytes.
  void setBody(httplib::Response& response, std::string body, const char* contentType) const;
  void logExchange(const httplib::Request& request, const httplib::Response& response) const;
  void logLine(const std::string& line) const;

  Options options_;
  std::unique_ptr<httplib::Server> server_;
  std::atomic<std::uint64_t> requestsSeen_{0};
  // Shared with the content providers of answers still being sent.
  std::shared_ptr<StopSignal> stop_ = std::make_shared<StopSignal>();
};

}  // namespace vkq::tool
