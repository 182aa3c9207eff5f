#include "Tests/Support/FaultServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace vkq::testing {

std::optional<std::string> FaultRequest::field(const std::string& head, std::string_view name) {
  for (std::size_t at = 0; (at = head.find(':', at)) != std::string::npos; ++at) {
    const std::size_t start = head.rfind('\n', at) + 1;  // 0 for the first line
    if (at - start != name.size() || strncasecmp(head.c_str() + start, name.data(), name.size()) != 0) continue;
    const std::size_t value = head.find_first_not_of(' ', at + 1);
    return head.substr(value, head.find('\r', value) - value);
  }
  return std::nullopt;
}

FaultAnswer FaultAnswer::reply(int status, std::string body, std::string fields) {
  const bool framed = strcasestr(fields.c_str(), "Content-Length:") || strcasestr(fields.c_str(), "Transfer-Encoding:");
  if (!framed) fields += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return FaultAnswer("HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + fields + "Connection: close\r\n\r\n" + body);
}

FaultAnswer& FaultAnswer::cutAfter(std::string_view marker, std::size_t extra) {
  const auto at = bytes.find(marker);
  if (at == std::string::npos) throw std::logic_error("cutAfter: the marker is not in the answer");
  closeAfter = at + marker.size() + extra;
  return *this;
}

FaultServer::FaultServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), stopEvent_(::eventfd(0, 0)) {
  sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, generic, length) != 0 || ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, generic, &length) != 0 || stopEvent_ < 0) {
    throw std::runtime_error("FaultServer: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] {
    while (awaitReadable(listener_, std::chrono::milliseconds(-1))) {
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client >= 0) serve(client);
      if (client >= 0) ::close(client);
    }
  });
}

FaultServer::~FaultServer() {
  ::eventfd_write(stopEvent_, 1);
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
  return ::poll(watched, 2, static_cast<int>(limit.count())) > 0 && watched[1].revents == 0 && watched[0].revents != 0;
}

void FaultServer::serve(int client) {
  std::string received;
  std::size_t headEnd = std::string::npos, bodyLength = 0;
  char buffer[16 * 1024];
  while (headEnd == std::string::npos || received.size() < headEnd + bodyLength) {
    const ssize_t count = awaitReadable(client) ? ::recv(client, buffer, sizeof buffer, 0) : -1;
    if (count <= 0) return;
    received.append(buffer, static_cast<std::size_t>(count));
    if (headEnd == std::string::npos && (headEnd = received.find("\r\n\r\n")) != std::string::npos) {
      headEnd += 4;
      const auto length = FaultRequest::field(received.substr(0, headEnd), "Content-Length");
      bodyLength = std::strtoull(length.value_or("0").c_str(), nullptr, 10);
    }
  }
  const std::size_t methodEnd = received.find(' '), targetEnd = received.find(' ', methodEnd + 1);
  const std::size_t headStart = received.find("\r\n") + 2;
  FaultRequest request{received.substr(0, methodEnd), received.substr(methodEnd + 1, targetEnd - methodEnd - 1),
                       received.substr(headStart, headEnd - 2 - headStart), received.substr(headEnd, bodyLength)};
  FaultAnswer answer = FaultAnswer::reply(404);
  {
    std::lock_guard lock(mutex_);
    const auto found = answers_.find(request.target.substr(0, request.target.find('?')));
    if (found != answers_.end() && !found->second.empty()) {
      answer = found->second.front();
      if (found->second.size() > 1) found->second.pop_front();
    }
    requests_.push_back(request);
  }
  if (answer.stall) {
    while (awaitReadable(client) && ::recv(client, buffer, sizeof buffer, 0) > 0) {
    }
    return;
  }
  // A HEAD answer is its head only, unless it is cut anyway.
  if (request.method == "HEAD" && !answer.closeAfter && answer.bytes.find("\r\n\r\n") != std::string::npos) {
    answer.cutAfter("\r\n\r\n");
  }
  const std::string_view bytes = std::string_view(answer.bytes).substr(0, answer.closeAfter.value_or(std::string::npos));
  const std::size_t step = answer.drip.count() > 0 ? 1 : bytes.size();
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    // A client that hangs up, or the server stopping, ends the pause and the answer.
    pollfd stop = {stopEvent_, POLLIN, 0};
    if (answer.drip.count() > 0 && (awaitReadable(client, answer.drip) || ::poll(&stop, 1, 0) > 0)) return;
    if (::send(client, bytes.data() + at, std::min(step, bytes.size() - at), MSG_NOSIGNAL) < 0) return;
  }
  ::shutdown(client, SHUT_WR);
}

}  // namespace vkq::testing
