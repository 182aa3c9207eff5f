// A raw HTTP/1.1 server for tests that need answers no well-behaved server sends:
// bytes written exactly as scripted, cut off anywhere, dripped, or never sent.
//
// One thread on 127.0.0.1 with an ephemeral port serves one connection at a time and
// one request per connection, then closes it. Answers are keyed by the request
// target's path (query left out); an unknown path gets an empty 404. Every request is
// recorded (method, target, header fields, body) before it is answered. Waits are
// bounded: a client that sends nothing for kPatience is dropped.
//
// Thread-safe. The server starts in the constructor and stops in the destructor;
// stopping releases a stalled or dripping answer at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace vkq::testing {

struct FaultRequest {
  std::string method;
  std::string target;  // as sent, query included
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // The first value of a field; names compare case-insensitively.
  std::optional<std::string> header(std::string_view name) const;
};

// What the server writes for one request. Build one from a named mode below and
// adjust it with the modifiers.
struct FaultAnswer {
  std::string bytes;                      // written as they are
  std::optional<std::size_t> closeAfter;  // close after this many bytes; absent: all
  std::chrono::milliseconds drip{0};      // pause before each byte
  bool stall = false;                     // write nothing; hold the connection until the client goes

  // A complete answer: status line, the fields, "Content-Length" (unless a field
  // names the length or the coding), "Connection: close" and the body.
  static FaultAnswer reply(int status, std::string body = {},
                           std::vector<std::pair<std::string, std::string>> fields = {});
  static FaultAnswer raw(std::string bytes);
  static FaultAnswer closeAtOnce() { return raw({}); }
  static FaultAnswer stalled();
  // A redirect to `location` (301, 302, 303, 307 or 308).
  static FaultAnswer redirect(int status, std::string location);
  // 206 with `body` as the bytes `contentRange` names ("bytes 10-19/40") and its ETag.
  static FaultAnswer partial(std::string body, std::string contentRange, std::string etag);
  // `body` sent with "Content-Length: <declared>" whatever its real length.
  static FaultAnswer withContentLength(std::string declared, std::string body);
  // "Transfer-Encoding: chunked" followed by `chunks` as they are (well-formed or not).
  static FaultAnswer chunked(std::string chunks);

  // Closes right after the first `marker` in the bytes (e.g. "\r\n": after the status line).
  FaultAnswer& cutAfter(std::string_view marker);
  // Closes after `count` bytes of the body (the bytes after the blank line).
  FaultAnswer& cutAfterBodyBytes(std::size_t count);
  FaultAnswer& dripping(std::chrono::milliseconds interval) {
    drip = interval;
    return *this;
  }
};

class FaultServer {
 public:
  static constexpr std::chrono::seconds kPatience{10};

  FaultServer();
  ~FaultServer();
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  // "http://127.0.0.1:<port>" + `path`.
  std::string url(std::string_view path) const;
  // The answer to every request for `path` from now on.
  void answer(std::string path, FaultAnswer answer) { answerInTurn(std::move(path), {std::move(answer)}); }
  // The answers to the next requests for `path`, one each; the last one then stays.
  void answerInTurn(std::string path, std::deque<FaultAnswer> answers);
  std::vector<FaultRequest> requests() const;

 private:
  void run();
  void serve(int client);
  // Waits until `fd` is readable, the server stops or kPatience passes; true when readable.
  bool awaitReadable(int fd, std::chrono::milliseconds limit = kPatience) const;
  bool stopping() const;
  std::optional<FaultRequest> readRequest(int client) const;
  void write(int client, const FaultAnswer& answer) const;

  int listener_ = -1;
  int stopEvent_ = -1;  // an eventfd, readable once the server stops
  int port_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, std::deque<FaultAnswer>, std::less<>> answers_;  // guarded by mutex_
  std::vector<FaultRequest> requests_;                       // guarded by mutex_
  std::thread thread_;
};

}  // namespace vkq::testing
