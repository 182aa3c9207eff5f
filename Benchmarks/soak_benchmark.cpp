// Soak: 200,000 small exchanges through the agent, 32 in flight, against a test server in
// a child process. A fixed-seed mix: JSON GETs and KXP echoes that succeed, answers of
// status 500, connections refused by a closed port, requests refused before they are
// sent, and slow requests cancelled while they run. Prints the resident memory and the open file descriptors after a warm-up and
// at the end, each read once the client is idle and its connection cache has been
// trimmed to one live connection; fails (exit 1) when memory grew by more than 10 %,
// the descriptors differ, or an exchange had an unexpected outcome.
//
//   build/bin/soak_benchmark [exchanges]
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks/ProcessUsage.h"
#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/MainQueue.h"
#include "Tests/Support/TestServer.h"

namespace {

using vkq::platform::Bytes;
using vkq::platform::MainQueue;
using namespace std::chrono_literals;

constexpr int kInFlight = 32;
constexpr int kWarmUp = 10'000;

int openDescriptors() {
  int count = 0;
  if (DIR* folder = opendir("/proc/self/fd")) {
    while (readdir(folder) != nullptr) ++count;
    closedir(folder);
  }
  return count - 3;  // ".", ".." and the folder's own descriptor
}

// A loopback port on which nothing listens: bound, then closed.
int closedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

std::shared_ptr<VKQVesk> kxpRequest(const std::string& url) {
  return VKQVesk::initWithKXPUrl(url, std::make_shared<Bytes>(Bytes{'p', 'i', 'n', 'g'}));
}

// Serves /json, /kxp (echo), /500 and /slow (20 ms) from a child process until this
// process exits; returns the server's base URL.
std::string startServerProcess() {
  int portPipe[2], lifePipe[2];
  if (pipe(portPipe) != 0 || pipe(lifePipe) != 0) std::exit(2);
  if (fork() == 0) {
    close(portPipe[0]);
    close(lifePipe[1]);
    vkq::testing::TestServer::Options options;
    options.threads = 2 * kInFlight;
    vkq::testing::TestServer server(options);
    server.answer("/json", vkq::testing::ScriptedAnswer(200, R"({"ok":1})").type("application/json"));
    server.answer("/500", vkq::testing::ScriptedAnswer(500, "no"));
    server.answer("/slow", vkq::testing::ScriptedAnswer(200, R"({"ok":1})").type("application/json").slow(20ms, 4));
    const VKQKXPFrameSettings settings = VKQKXPFrameSettingsOf(*kxpRequest("http://h/"));
    server.handle("/kxp", [settings](const httplib::Request& request, httplib::Response& response) {
      const auto payload = VKQKXPServerCodec::parseRequestFrame(
          std::span(reinterpret_cast<const std::uint8_t*>(request.body.data()), request.body.size()), settings,
          nullptr);
      const auto frame = payload ? VKQKXPServerCodec::makeResponseFrame(*payload, settings) : std::nullopt;
      if (!frame) return void(response.status = 400);
      response.set_content(std::string(frame->begin(), frame->end()), "application/octet-stream");
    });
    const int port = server.port();
    if (write(portPipe[1], &port, sizeof port) != sizeof port) _exit(1);
    char ignored;
    while (read(lifePipe[0], &ignored, 1) > 0) {
    }
    _exit(0);
  }
  close(portPipe[1]);
  close(lifePipe[0]);  // its write end stays open until this process exits
  int port = 0;
  if (read(portPipe[0], &port, sizeof port) != sizeof port) std::exit(2);
  close(portPipe[0]);
  return "http://127.0.0.1:" + std::to_string(port);
}

class Soak {
 public:
  Soak(std::string base, int closedPort)
      : base_(std::move(base)), refused_("http://127.0.0.1:" + std::to_string(closedPort) + "/json") {}

  // Runs `count` exchanges, kInFlight at a time, and returns once every one has ended.
  void run(int count) {
    remaining_ = count;
    running_ = 0;
    while (remaining_ > 0 || running_ > 0) {
      while (remaining_ > 0 && running_ < kInFlight) startOne();
      const int ended = ended_;
      MainQueue::runUntil([&] { return ended_ != ended; }, 1s);
      cancelWaiting();  // the slow requests started before this round of answers
    }
  }

  // Lets the server close the idle connections, then runs a few exchanges one at a time,
  // so that the client's connection cache drops the closed ones and keeps one live.
  void settle() {
    MainQueue::runUntil([] { return false; }, 1500ms);
    for (int i = 0; i < 3; ++i) {
      bool done = false;
      VKQVesk::initWithJSONUrl(base_ + "/json", nullptr, VKQRequestMethodGET)->requestCompletion([&](auto) {
        done = true;
      });
      MainQueue::runUntil([&] { return done; }, 10s);
      std::this_thread::sleep_for(1100ms);  // the cache looks for dead connections once a second
    }
  }

  int unexpected() const { return unexpected_; }
  int cancelled() const { return cancelled_; }

 private:
  // One exchange's outcome is counted once: by its callback or by its cancel.
  struct Exchange {
    std::shared_ptr<VKQVesk> request;
    bool ended = false;
  };

  void startOne() {
    --remaining_;
    ++running_;
    const int kind = static_cast<int>(random_() % 100);
    auto exchange = std::make_shared<Exchange>();
    std::int64_t expected = 0;
    if (kind < 60) {
      exchange->request = VKQVesk::initWithJSONUrl(base_ + "/json", nullptr, VKQRequestMethodGET);
    } else if (kind < 75) {
      exchange->request = kxpRequest(base_ + "/kxp");
    } else if (kind < 85) {
      exchange->request = VKQVesk::initWithJSONUrl(base_ + "/500", nullptr, VKQRequestMethodGET);
      expected = -2;
    } else if (kind < 88) {
      exchange->request = VKQVesk::initWithJSONUrl(refused_, nullptr, VKQRequestMethodGET);
      expected = -2;
    } else if (kind < 90) {
      exchange->request = VKQVesk::initWithJSONUrl(base_ + "/not a URL", nullptr, VKQRequestMethodGET);
      expected = -2;  // refused before it is sent
    } else {
      exchange->request = VKQVesk::initWithJSONUrl(base_ + "/slow", nullptr, VKQRequestMethodGET);
      cancels_.push_back(exchange);
    }
    std::weak_ptr<Exchange> weak = exchange;
    // Like many applications' callbacks, those of requests that are not cancelled hold
    // their request (a cancelled request keeps its callbacks).
    auto self = kind < 90 ? exchange->request : nullptr;
    exchange->request->requestCompletion([this, weak, expected, self](std::shared_ptr<VKQVeskResult> result) {
      const auto ended = weak.lock();
      if (!ended || ended->ended) return;
      if (result->responseCode()->code() != expected) ++unexpected_;
      end(*ended);
    });
    if (kind < 90) exchanges_.push_back(std::move(exchange));
  }

  // Cancels the slow requests started since the last look, while they run.
  void cancelWaiting() {
    for (const auto& exchange : cancels_) {
      VKQNetworkAgent::sharedAgent().cancelRequest(exchange->request);
      if (!exchange->ended) {
        ++cancelled_;
        end(*exchange);
      }
    }
    cancels_.clear();
    std::erase_if(exchanges_, [](const auto& exchange) { return exchange->ended; });
  }

  void end(Exchange& exchange) {
    exchange.ended = true;
    --running_;
    ++ended_;
  }

  const std::string base_, refused_;
  std::mt19937 random_{2024};
  int remaining_ = 0, running_ = 0, ended_ = 0, unexpected_ = 0, cancelled_ = 0;
  std::vector<std::shared_ptr<Exchange>> exchanges_, cancels_;
};

}  // namespace

int main(int argc, char** argv) {
  const int exchanges = argc > 1 ? std::atoi(argv[1]) : 200'000;
  const std::string base = startServerProcess();  // before this process starts any thread
  MainQueue::useManualDraining();
  Soak soak(base, closedPort());

  soak.run(kWarmUp);
  soak.settle();
  const long rssBefore = vkq::bench::residentKiB();
  const int fdsBefore = openDescriptors();
  std::printf("after %d warm-up exchanges: RSS %ld KiB, %d open descriptors\n", kWarmUp, rssBefore, fdsBefore);

  const auto started = std::chrono::steady_clock::now();
  soak.run(exchanges);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  soak.settle();
  const long rssAfter = vkq::bench::residentKiB();
  const int fdsAfter = openDescriptors();
  const double growth = 100.0 * static_cast<double>(rssAfter - rssBefore) / static_cast<double>(rssBefore);
  std::printf("after %d more exchanges (%.1f s, %d cancelled, %d unexpected outcomes): RSS %ld KiB (%+.1f %%), %d open "
              "descriptors\n",
              exchanges, seconds, soak.cancelled(), soak.unexpected(), rssAfter, growth, fdsAfter);
  const bool flat = growth <= 10.0 && fdsAfter == fdsBefore && soak.unexpected() == 0;
  std::printf("%s\n", flat ? "flat" : "NOT flat");
  return flat ? 0 : 1;
}
