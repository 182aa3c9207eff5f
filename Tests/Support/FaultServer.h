// A raw HTTP/1.1 server for answers no well-behaved server sends: bytes written
// exactly as scripted, cut off anywhere, dripped, or never sent.
//
// One thread on 127.0.0.1 (ephemeral port) serves one connection at a time, one
// request per connection. Answers are keyed by the target's path (query left out);
// an unknown path gets an empty 404. Every request is recorded before it is answered.
// A client silent for 10 s is dropped. The destructor stops the server at once, also
// inside a stalled or dripping answer. Not copyable.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vkq::testing {

struct FaultRequest {
  std::string method, target, head, body;  // head: the header lines, each ended by CRLF
  // The value of field `name` (any letter case) in `head`, trimmed.
  static std::optional<std::string> field(const std::string& head, std::string_view name);
  std::optional<std::string> header(std::string_view name) const { return field(head, name); }
};

// What the server writes. The named modes: FaultAnswer() closes at once, stalled() sends
// nothing until the client hangs up; reply() is a whole answer, which cutAfter() ends
// early (after the status line, inside the head or the body) and dripping() slows
// down. Wrong framing, 206 and redirects are replies with those fields.
struct FaultAnswer {
  explicit FaultAnswer(std::string bytes = {}) : bytes(std::move(bytes)) {}

  std::string bytes;
  std::optional<std::size_t> closeAfter;  // bytes written before closing; absent: all
  std::chrono::milliseconds drip{0};      // pause before each byte
  bool stall = false;

  // Status line, `fields` ("Name: value\r\n" lines), Content-Length unless `fields`
  // frame the body themselves, "Connection: close", the body.
  static FaultAnswer reply(int status, std::string body = {}, std::string fields = {});
  static FaultAnswer stalled() { FaultAnswer answer; answer.stall = true; return answer; }
  FaultAnswer& dripping(std::chrono::milliseconds interval) { drip = interval; return *this; }
  // Closes `extra` bytes after the end of the first `marker`.
  FaultAnswer& cutAfter(std::string_view marker, std::size_t extra = 0);
};

class FaultServer {
 public:
  FaultServer();
  ~FaultServer();

  std::string url(std::string_view path) const;  // "http://127.0.0.1:<port><path>"
  // The answer to every request for `path` from now on.
  void answer(std::string path, FaultAnswer answer) { answerInTurn(std::move(path), {std::move(answer)}); }
  // The answers to the next requests for `path`, one each; the last one then stays.
  void answerInTurn(std::string path, std::deque<FaultAnswer> answers);
  std::vector<FaultRequest> requests() const;

 private:
  void serve(int client);
  // Until `fd` is readable (true), the server stops or `limit` passes.
  bool awaitReadable(int fd, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

  int listener_ = -1;
  int stopEvent_ = -1;  // an eventfd, readable once the server stops
  int port_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, std::deque<FaultAnswer>, std::less<>> answers_;  // guarded by mutex_
  std::vector<FaultRequest> requests_;                       // guarded by mutex_
  std::thread thread_;
};

}  // namespace vkq::testing
