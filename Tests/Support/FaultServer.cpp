#include "Tests/Support/FaultServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace vkq::testing {
namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

}  // namespace

std::optional<std::string> FaultRequest::header(std::string_view name) const {
  for (const auto& [field, value] : headers) {
    if (sameName(field, name)) return value;
  }
  return std::nullopt;
}

FaultAnswer FaultAnswer::reply(int status, std::string body, std::vector<std::pair<std::string, std::string>> fields) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  bool framed = false;
  for (const auto& [name, value] : fields) {
    head += name + ": " + value + "\r\n";
    framed = framed || sameName(name, "Content-Length") || sameName(name, "Transfer-Encoding");
  }
  if (!framed) head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return raw(head + "Connection: close\r\n\r\n" + body);
}

FaultAnswer FaultAnswer::raw(std::string bytes) {
  FaultAnswer answer;
  answer.bytes = std::move(bytes);
  return answer;
}

FaultAnswer FaultAnswer::stalled() {
  FaultAnswer answer;
  answer.stall = true;
  return answer;
}

FaultAnswer FaultAnswer::redirect(int status, std::string location) {
  return reply(status, "moved", {{"Location", std::move(location)}});
}

FaultAnswer FaultAnswer::partial(std::string body, std::string contentRange, std::string etag) {
  return reply(206, std::move(body), {{"Content-Range", std::move(contentRange)}, {"ETag", std::move(etag)}});
}

FaultAnswer FaultAnswer::withContentLength(std::string declared, std::string body) {
  return reply(200, std::move(body), {{"Content-Length", std::move(declared)}});
}

FaultAnswer FaultAnswer::chunked(std::string chunks) {
  return reply(200, std::move(chunks), {{"Transfer-Encoding", "chunked"}});
}

FaultAnswer& FaultAnswer::cutAfter(std::string_view marker) {
  const auto at = bytes.find(marker);
  if (at == std::string::npos) throw std::logic_error("cutAfter: marker not in the answer");
  closeAfter = at + marker.size();
  return *this;
}

FaultAnswer& FaultAnswer::cutAfterBodyBytes(std::size_t count) {
  cutAfter("\r\n\r\n");
  *closeAfter += count;
  return *this;
}

FaultServer::FaultServer() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  stopEvent_ = ::eventfd(0, EFD_CLOEXEC);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || stopEvent_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("FaultServer: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

FaultServer::~FaultServer() {
  const std::uint64_t one = 1;
  (void)!::write(stopEvent_, &one, sizeof one);
  thread_.join();
  ::close(listener_);
  ::close(stopEvent_);
}

std::string FaultServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

void FaultServer::answerInTurn(std::string path, std::deque<FaultAnswer> answers) {
  std::lock_guard lock(mutex_);
  answers_.insert_or_assign(std::move(path), std::move(answers));
}

std::vector<FaultRequest> FaultServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool FaultServer::awaitReadable(int fd, std::chrono::milliseconds limit) const {
  pollfd watched[] = {{fd, POLLIN, 0}, {stopEvent_, POLLIN, 0}};
  const int ready = ::poll(watched, 2, static_cast<int>(limit.count()));
  return ready > 0 && watched[1].revents == 0 && watched[0].revents != 0;
}

bool FaultServer::stopping() const {
  pollfd watched = {stopEvent_, POLLIN, 0};
  return ::poll(&watched, 1, 0) > 0;
}

void FaultServer::run() {
  pollfd watched[] = {{listener_, POLLIN, 0}, {stopEvent_, POLLIN, 0}};
  while (::poll(watched, 2, -1) >= 0 && watched[1].revents == 0) {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    serve(client);
    ::close(client);
  }
}

void FaultServer::serve(int client) {
  std::optional<FaultRequest> request = readRequest(client);
  if (!request) return;
  FaultAnswer answer = FaultAnswer::reply(404);
  {
    std::lock_guard lock(mutex_);
    const std::string_view path = std::string_view(request->target).substr(0, request->target.find('?'));
    if (const auto found = answers_.find(path); found != answers_.end() && !found->second.empty()) {
      answer = found->second.front();
      if (found->second.size() > 1) found->second.pop_front();
    }
    // The head only, as for any HEAD request, unless the answer is cut anyway.
    if (request->method == "HEAD" && !answer.closeAfter && answer.bytes.find("\r\n\r\n") != std::string::npos) {
      answer.cutAfter("\r\n\r\n");
    }
    requests_.push_back(std::move(*request));
  }
  write(client, answer);
}

std::optional<FaultRequest> FaultServer::readRequest(int client) const {
  std::string received;
  std::size_t headEnd = std::string::npos;
  std::size_t bodyLength = 0;
  char buffer[16 * 1024];
  while (headEnd == std::string::npos || received.size() < headEnd + bodyLength) {
    if (!awaitReadable(client)) return std::nullopt;
    const ssize_t count = ::recv(client, buffer, sizeof buffer, 0);
    if (count <= 0) return std::nullopt;
    received.append(buffer, static_cast<std::size_t>(count));
    if (headEnd != std::string::npos || (headEnd = received.find("\r\n\r\n")) == std::string::npos) continue;
    headEnd += 4;
    const auto lengthAt = received.substr(0, headEnd).find("\r\nContent-Length:");  // as libcurl spells it
    if (lengthAt != std::string::npos) bodyLength = std::strtoull(received.c_str() + lengthAt + 17, nullptr, 10);
  }

  FaultRequest request;
  std::string_view head(received.data(), headEnd - 2);
  const auto lineEnd = head.find("\r\n");
  const std::string_view requestLine = head.substr(0, lineEnd);
  request.method = requestLine.substr(0, requestLine.find(' '));
  request.target = requestLine.substr(request.method.size() + 1, requestLine.rfind(' ') - request.method.size() - 1);
  for (head.remove_prefix(lineEnd + 2); !head.empty();) {
    const std::string_view line = head.substr(0, head.find("\r\n"));
    head.remove_prefix(std::min(head.size(), line.size() + 2));
    const auto colon = line.find(':');
    if (colon != std::string_view::npos) {
      request.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
    }
  }
  request.body = received.substr(headEnd, bodyLength);
  return request;
}

void FaultServer::write(int client, const FaultAnswer& answer) const {
  if (answer.stall) {
    // Until the client hangs up (readable at end of file) or the server stops.
    while (awaitReadable(client)) {
      char ignored[512];
      if (::recv(client, ignored, sizeof ignored, 0) <= 0) return;
    }
    return;
  }
  const std::string_view bytes = std::string_view(answer.bytes).substr(0, answer.closeAfter.value_or(std::string::npos));
  const std::size_t step = answer.drip.count() > 0 ? 1 : bytes.size();
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    // A client that hangs up, or the server stopping, ends the pause and the answer.
    if (answer.drip.count() > 0 && (awaitReadable(client, answer.drip) || stopping())) return;
    if (::send(client, bytes.data() + at, std::min(step, bytes.size() - at), MSG_NOSIGNAL) < 0) return;
  }
  ::shutdown(client, SHUT_WR);
}

}  // namespace vkq::testing
