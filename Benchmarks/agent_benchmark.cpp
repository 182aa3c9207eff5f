// The network agent beside the transport alone, against a KXP server running in a child
// process (so the process's CPU time is the client's alone).
//
//  KXP/<client>/<n>: 10,000 small KXP exchanges (a 64-byte payload each way, the
//    default settings: compressed, behind the 11-byte header), 32 in flight over
//    keep-alive. "agent" starts VKQVesk requests and gets decoded results on the main
//    queue; "transport" sends the same framed bytes with HTTPSessionManager data tasks
//    and takes the raw answers. Counters: exchanges per second, client CPU
//    microseconds per exchange. The two run interleaved; the summary gives the ratios
//    of the medians. "agent-uncompressed" is the agent with compression switched off
//    (same exchange otherwise), which separates the cost of compressing a tiny payload
//    from the agent's own.
//  Then the resident memory of 1,000 requests in flight: the server holds every answer
//    until all 1,000 have arrived, and the client's RSS is read before the requests
//    start and while they are all waiting.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks/ProcessUsage.h"
#include "Benchmarks/PairedRatios.h"
#include "Classes/Serialization/Request/VKQHTTPRequestSerializer.h"
#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQNetworkAgent.h"
#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Tests/Support/TestServer.h"

namespace {

using benchmark_summary::median;
using benchmark_summary::pairedRatios;
using vkq::platform::Bytes;
using vkq::platform::ErrorPtr;

constexpr int kExchanges = 10'000;
constexpr int kInFlight = 32;
constexpr int kRepetitions = 5;
constexpr int kHeld = 1'000;

std::string baseURL;
std::map<std::string, std::vector<double>> results;  // name -> one value per repetition

const Bytes& payload() {
  static const Bytes bytes = [] {
    Bytes b(64);
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<std::uint8_t>(i * 37 + 11);
    return b;
  }();
  return bytes;
}

std::shared_ptr<VKQVesk> makeRequest(const std::string& path, bool compress = true) {
  auto request = VKQVesk::initWithKXPUrl(baseURL + path, std::make_shared<Bytes>(payload()));
  if (!compress) request->compressPromise()(false);
  return request;
}

// The settings both ends use: the request defaults, with or without compression.
VKQKXPFrameSettings settings(bool compress = true) { return VKQKXPFrameSettingsOf(*makeRequest("/", compress)); }

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Counts completions and wakes the benchmark thread after the last one.
struct Completions {
  std::mutex mutex;
  std::condition_variable finished;
  std::atomic<int> started{0};
  std::atomic<int> done{0};
  std::atomic<int> failures{0};

  void reset() {
    started = 0;
    done = 0;
  }
  void finishOne(bool failed, int total) {
    if (failed) ++failures;
    if (done.fetch_add(1) + 1 == total) {
      std::lock_guard lock(mutex);
      finished.notify_all();
    }
  }
  void wait(int total) {
    std::unique_lock lock(mutex);
    finished.wait(lock, [&] { return done.load() == total; });
  }
};

template <typename Body>
void measure(benchmark::State& state, const std::string& name, Body body) {
  for (auto _ : state) {
    const double cpuBefore = cpuSeconds();
    const auto started = std::chrono::steady_clock::now();
    body();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double cpu = cpuSeconds() - cpuBefore;
    state.SetIterationTime(seconds);
    state.counters["exchanges_per_s"] = kExchanges / seconds;
    state.counters["cpu_us_per_exchange"] = cpu * 1e6 / kExchanges;
    results[name + "/rps"].push_back(kExchanges / seconds);
    results[name + "/cpu"].push_back(cpu * 1e6 / kExchanges);
  }
}

void agentExchanges(benchmark::State& state, bool compress) {
  const std::string path = compress ? "/kxp" : "/kxp-uncompressed";
  Completions completions;
  // Each result starts the next request (on the main queue), keeping kInFlight running.
  std::function<void()> startOne = [&] {
    if (completions.started.fetch_add(1) >= kExchanges) return;
    makeRequest(path, compress)->requestCompletion([&](std::shared_ptr<VKQVeskResult> result) {
      const bool failed = !result || result->responseCode()->code() != 0 || !result->data().isData() ||
                          *result->data().data() != payload();
      startOne();
      completions.finishOne(failed, kExchanges);
    });
  };
  measure(state, compress ? "KXP/agent" : "KXP/agent-uncompressed", [&] {
    completions.reset();
    for (int i = 0; i < kInFlight; ++i) startOne();
    completions.wait(kExchanges);
  });
  if (completions.failures > 0) state.SkipWithError("exchanges failed");
}

void transportExchanges(benchmark::State& state) {
  auto manager = vkq::platform::HTTPSessionManager::manager();
  // The bytes the agent sends for one request, made once: the transport only moves them.
  ErrorPtr ignored;
  vkq::platform::URLRequest request;
  {
    auto vesk = makeRequest("/kxp");
    auto serializer = VKQNetworkAgent::sharedAgent().requestSerializerForRequest(vesk);
    request = *serializer->requestWithMethod("POST", baseURL + "/kxp", vesk->requestArgument(), &ignored);
  }
  Completions completions;
  std::function<void()> startOne = [&] {
    if (completions.started.fetch_add(1) >= kExchanges) return;
    manager->dataTaskWithRequest(request, nullptr, nullptr, [&](auto, vkq::platform::Object body, ErrorPtr error) {
      startOne();
      completions.finishOne(error != nullptr || !body.isData(), kExchanges);
    })->resume();
  };
  measure(state, "KXP/transport", [&] {
    completions.reset();
    for (int i = 0; i < kInFlight; ++i) startOne();
    completions.wait(kExchanges);
  });
  if (completions.failures > 0) state.SkipWithError("exchanges failed");
}

// 1,000 agent requests held by the server; returns the RSS growth per request in bytes.
double heldRequestsMemory(int releaseFd, int arrivedFd) {
  const long before = vkq::bench::residentKiB();
  Completions completions;
  for (int i = 0; i < kHeld; ++i) {
    makeRequest("/hold")->requestCompletion([&](std::shared_ptr<VKQVeskResult> result) {
      completions.finishOne(!result || result->responseCode()->code() != 0, kHeld);
    });
  }
  char byte = 0;
  if (read(arrivedFd, &byte, 1) != 1) return -1;
  const long during = vkq::bench::residentKiB();
  if (write(releaseFd, &byte, 1) != 1) return -1;
  completions.wait(kHeld);
  std::printf("  1,000 requests in flight: RSS %ld KiB before, %ld KiB while held, %d failed\n", before, during,
              completions.failures.load());
  return static_cast<double>(during - before) * 1024.0 / kHeld;
}

// Serves /kxp (a fixed answer frame: the server's own work stays out of the picture)
// and /hold (the same, once all kHeld requests have arrived and the parent has read
// its RSS) from a child process until the parent closes the pipe.
struct ServerProcess {
  pid_t pid = -1;
  int releaseFd = -1;  // parent writes: let the held answers go
  int arrivedFd = -1;  // parent reads: all held requests have arrived
};

ServerProcess startServerProcess() {
  int portPipe[2], lifePipe[2], releasePipe[2], arrivedPipe[2];
  if (pipe(portPipe) != 0 || pipe(lifePipe) != 0 || pipe(releasePipe) != 0 || pipe(arrivedPipe) != 0) return {};
  const pid_t child = fork();
  if (child == 0) {
    // Only the parent's ends of the pipes stay open there, so that its exit ends this.
    close(portPipe[0]);
    close(lifePipe[1]);
    close(releasePipe[1]);
    close(arrivedPipe[0]);
    const auto answer = VKQKXPServerCodec::makeResponseFrame(payload(), settings());
    const std::string frame(answer->begin(), answer->end());
    const auto plainAnswer = VKQKXPServerCodec::makeResponseFrame(payload(), settings(false));
    const std::string plainFrame(plainAnswer->begin(), plainAnswer->end());
    vkq::testing::TestServer::Options options;
    options.threads = kHeld + 2 * kInFlight;
    vkq::testing::TestServer server(options);
    server.answer("/kxp", vkq::testing::ScriptedAnswer(200, frame).type("application/octet-stream"));
    server.answer("/kxp-uncompressed",
                  vkq::testing::ScriptedAnswer(200, plainFrame).type("application/octet-stream"));

    std::mutex mutex;
    std::condition_variable changed;
    int arrived = 0;
    bool released = false;
    std::thread releaser([&] {
      char byte;
      if (read(releasePipe[0], &byte, 1) == 1) {
        std::lock_guard lock(mutex);
        released = true;
        changed.notify_all();
      }
    });
    server.handle("/hold", [&](const httplib::Request&, httplib::Response& response) {
      std::unique_lock lock(mutex);
      if (++arrived == kHeld) {
        const char byte = 1;
        if (write(arrivedPipe[1], &byte, 1) != 1) _exit(1);
      }
      changed.wait(lock, [&] { return released; });
      response.set_content(frame, "application/octet-stream");
    });
    const int port = server.port();
    if (write(portPipe[1], &port, sizeof port) != sizeof port) _exit(1);
    char ignored;
    while (read(lifePipe[0], &ignored, 1) > 0) {
    }
    _exit(0);  // the server's threads go with the process
  }
  close(portPipe[1]);
  close(lifePipe[0]);  // the write end stays open in this process until it exits
  close(releasePipe[0]);
  close(arrivedPipe[1]);
  int port = 0;
  if (read(portPipe[0], &port, sizeof port) != sizeof port) return {};
  baseURL = "http://127.0.0.1:" + std::to_string(port);
  return {child, releasePipe[1], arrivedPipe[0]};
}

}  // namespace

int main(int argc, char** argv) {
  // Forked before any thread exists in this process.
  const ServerProcess server = startServerProcess();
  if (server.pid < 0) {
    std::cerr << "cannot start the server process\n";
    return 1;
  }

  for (int i = 0; i < kRepetitions; ++i) {
    benchmark::RegisterBenchmark(("KXP/transport/" + std::to_string(i)).c_str(), transportExchanges)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("KXP/agent/" + std::to_string(i)).c_str(), agentExchanges, true)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("KXP/agent-uncompressed/" + std::to_string(i)).c_str(), agentExchanges, false)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  const double agentRps = median(results["KXP/agent/rps"]);
  const double transportRps = median(results["KXP/transport/rps"]);
  const double plainRps = median(results["KXP/agent-uncompressed/rps"]);
  const double agentCpu = median(results["KXP/agent/cpu"]);
  const double plainCpu = median(results["KXP/agent-uncompressed/cpu"]);
  const double transportCpu = median(results["KXP/transport/cpu"]);
  std::printf("\nSummary (medians):\n");
  std::printf("  small KXP exchanges: agent %.0f/s, transport alone %.0f/s -> ratio %.3f (target >= 0.9)\n", agentRps,
              transportRps, transportRps > 0 ? agentRps / transportRps : 0);
  std::printf("  without compression: agent %.0f/s -> ratio %.3f\n", plainRps,
              transportRps > 0 ? plainRps / transportRps : 0);
  std::printf("  client CPU per exchange: agent %.1f us, uncompressed %.1f us, transport alone %.1f us\n", agentCpu,
              plainCpu, transportCpu);
  std::printf("Ratios of the interleaved repetitions (agent/transport), median (lowest-highest):\n");
  std::printf("  exchanges/s %s, client CPU per exchange %s\n",
              pairedRatios(results["KXP/agent/rps"], results["KXP/transport/rps"]).c_str(),
              pairedRatios(results["KXP/agent/cpu"], results["KXP/transport/cpu"]).c_str());
  const double perRequest = heldRequestsMemory(server.releaseFd, server.arrivedFd);
  std::printf("  -> %.0f bytes of RSS per request in flight\n", perRequest);
  return 0;
}
