// The session manager beside plain libcurl, against the test server running in a child
// process (so the process's CPU time is the client's alone).
//
//  SmallGets/<client>/<n>: 10,000 GETs of a 64-byte answer, 32 in flight over
//    keep-alive. "curl" is the usual libcurl multi loop: 32 easy handles made once,
//    each added again as soon as its exchange ends. Counters: requests per second,
//    client CPU microseconds per request (getrusage of the whole process: worker,
//    completion queue and benchmark threads) and the system part of it, sleeps per
//    request (voluntary context switches), the requests in flight (most, and the
//    mean by Little's law), the connections the server saw them come over, and the
//    server's CPU per request (its process's /proc figures, in 10 ms steps).
//  Download/<client>/<n>: a 256 MiB file to disk, beside the curl tool. Counter: MiB/s.
// The two clients run interleaved, several times each; the summary at the end gives the
// ratios of the medians.
//
// The server runs on a core of its own and the client (every thread of this process,
// and the curl tool it starts) on another, when the process may use two: otherwise the
// server's threads take turns with the client's on the same cores, and the client's
// rate follows the scheduler rather than its own cost. --shared-cores leaves both
// processes on every core.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Benchmarks/PairedRatios.h"
#include "Platform/Session/HTTPSessionManager.h"
#include "Tests/Support/TestServer.h"

namespace {

using benchmark_summary::median;
using benchmark_summary::pairedRatios;

namespace fs = std::filesystem;
using vkq::platform::HTTPSessionManager;

constexpr int kRequests = 10'000;
constexpr int kInFlight = 32;
constexpr std::size_t kSmallSize = 64;
constexpr std::size_t kLargeSize = std::size_t{256} << 20;
constexpr int kRepetitions = 15;
constexpr int kDownloadRepetitions = 7;

std::string baseURL;
fs::path workFolder;
pid_t serverProcess = -1;
std::map<std::string, std::vector<double>> results;  // name -> one value per repetition

// The first two cores this process may run on; absent when it may use fewer.
std::optional<std::pair<int, int>> twoCores() {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return std::nullopt;
  std::vector<int> cores;
  for (int cpu = 0; cpu < CPU_SETSIZE && cores.size() < 2; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) cores.push_back(cpu);
  }
  if (cores.size() < 2) return std::nullopt;
  return std::pair(cores[0], cores[1]);
}

// Keeps the calling process (its threads to come, and its children) on `cpu`.
void runOn(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

// The process's CPU time (every thread, user and system) and how often its threads
// went to sleep (voluntary context switches: each is a wait that needed a wake-up).
struct Usage {
  double cpuSeconds;
  double systemSeconds;
  double sleeps;

  static Usage now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), seconds(usage.ru_stime), static_cast<double>(usage.ru_nvcsw)};
  }
};

using Clock = std::chrono::steady_clock;

// The server process's CPU time so far (user and system), from /proc; 10 ms steps.
double serverCpuSeconds() {
  std::ifstream stat("/proc/" + std::to_string(serverProcess) + "/stat");
  std::string line;
  std::getline(stat, line);
  // The fields after the command name (which is in parentheses): utime and stime are
  // the 12th and 13th of them.
  std::istringstream fields(line.substr(line.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 1; i <= 13 && fields >> field; ++i) {
    if (i >= 12) ticks += std::stod(field);
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Requests in flight, counted at the client: the most at once, and the mean over the
// run (Little's law: the summed request latencies over the run's wall time). Either
// client may start and finish requests on different threads.
class InFlightCounter {
 public:
  void started() {
    const int now = inFlight_.fetch_add(1) + 1;
    int most = most_.load();
    while (now > most && !most_.compare_exchange_weak(most, now)) {
    }
  }
  void finished(Clock::time_point begun) {
    inFlight_.fetch_sub(1);
    latencyNanoseconds_.fetch_add(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begun).count());
  }
  int most() const { return most_.load(); }
  double mean(double seconds) const { return static_cast<double>(latencyNanoseconds_.load()) / 1e9 / seconds; }

 private:
  std::atomic<int> inFlight_{0};
  std::atomic<int> most_{0};
  std::atomic<std::int64_t> latencyNanoseconds_{0};
};

// The server's count of the connections the small GETs came over since the last call.
double connectionsUsed() {
  CURL* easy = curl_easy_init();
  std::string answer;
  const std::string url = baseURL + "/connections";
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, +[](char* data, std::size_t size, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  });
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
  const CURLcode code = curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  return code == CURLE_OK ? std::stod(answer) : -1;
}

// Runs `body` (which drives kRequests small GETs through `counter`), then reports
// requests/s, client CPU per request and how many were in flight over how many
// connections.
template <typename Body>
void measureSmallGets(benchmark::State& state, const std::string& name, Body body) {
  for (auto _ : state) {
    InFlightCounter counter;
    connectionsUsed();  // starts the server's count afresh
    const Usage before = Usage::now();
    const double serverBefore = serverCpuSeconds();
    const auto started = Clock::now();
    body(counter);
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    const Usage after = Usage::now();
    const double serverCpu = serverCpuSeconds() - serverBefore;
    const double cpu = after.cpuSeconds - before.cpuSeconds;
    state.SetIterationTime(seconds);
    state.counters["requests_per_s"] = kRequests / seconds;
    state.counters["cpu_us_per_request"] = cpu * 1e6 / kRequests;
    state.counters["system_us_per_request"] = (after.systemSeconds - before.systemSeconds) * 1e6 / kRequests;
    state.counters["server_cpu_us_per_request"] = serverCpu * 1e6 / kRequests;
    state.counters["sleeps_per_request"] = (after.sleeps - before.sleeps) / kRequests;
    state.counters["in_flight_max"] = counter.most();
    state.counters["in_flight_mean"] = counter.mean(seconds);
    state.counters["connections"] = connectionsUsed();
    results[name + "/rps"].push_back(kRequests / seconds);
    results[name + "/cpu"].push_back(cpu * 1e6 / kRequests);
    results[name + "/server"].push_back(serverCpu * 1e6 / kRequests);
  }
}

void sessionManagerSmallGets(benchmark::State& state) {
  auto manager = HTTPSessionManager::manager();
  vkq::platform::URLRequest request;
  request.url = vkq::platform::URL::URLWithString(baseURL + "/small");
  std::atomic<int> failures{0};
  measureSmallGets(state, "SmallGets/session", [&](InFlightCounter& counter) {
    std::mutex mutex;
    std::condition_variable finished;
    std::atomic<int> started{0};
    std::atomic<int> done{0};
    // Each completion starts the next request, keeping kInFlight running.
    std::function<void()> startOne = [&] {
      if (started.fetch_add(1) >= kRequests) return;
      counter.started();
      manager
          ->dataTaskWithRequest(request, nullptr, nullptr,
                                [&, begun = Clock::now()](auto, vkq::platform::Object body, vkq::platform::ErrorPtr error) {
                                  counter.finished(begun);
                                  if (error || !body.isData() || body.data()->size() != kSmallSize) ++failures;
                                  startOne();
                                  if (done.fetch_add(1) + 1 == kRequests) {
                                    std::lock_guard lock(mutex);
                                    finished.notify_all();
                                  }
                                })
          ->resume();
    };
    for (int i = 0; i < kInFlight; ++i) startOne();
    std::unique_lock lock(mutex);
    finished.wait(lock, [&] { return done.load() == kRequests; });
  });
  if (failures > 0) state.SkipWithError("requests failed");
}

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

// The same exchanges written directly against libcurl's multi interface, the usual
// way: kInFlight easy handles made once and reused (so each keeps its connection),
// curl_multi_poll() to wait, and each finished handle added again for the next request.
void plainCurlSmallGets(benchmark::State& state) {
  struct Exchange {
    CURL* easy = nullptr;
    std::string body;
    Clock::time_point begun;
  };
  const std::string url = baseURL + "/small";
  CURLM* multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kInFlight));
  std::vector<Exchange> exchanges(kInFlight);
  for (Exchange& exchange : exchanges) {
    exchange.easy = curl_easy_init();
    curl_easy_setopt(exchange.easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(exchange.easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(exchange.easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(exchange.easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(exchange.easy, CURLOPT_WRITEFUNCTION, &collectBody);
    curl_easy_setopt(exchange.easy, CURLOPT_WRITEDATA, &exchange.body);
    curl_easy_setopt(exchange.easy, CURLOPT_PRIVATE, &exchange);
  }
  int failures = 0;
  measureSmallGets(state, "SmallGets/curl", [&](InFlightCounter& counter) {
    int started = 0;
    int done = 0;
    auto startOne = [&](Exchange& exchange) {
      ++started;
      counter.started();
      exchange.body.clear();
      exchange.begun = Clock::now();
      curl_multi_add_handle(multi, exchange.easy);
    };
    for (Exchange& exchange : exchanges) startOne(exchange);
    while (done < kRequests) {
      int running = 0;
      curl_multi_perform(multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode result = message->data.result;  // `message` dies with the removal
        Exchange* exchange = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &exchange);
        curl_multi_remove_handle(multi, exchange->easy);
        counter.finished(exchange->begun);
        if (result != CURLE_OK || exchange->body.size() != kSmallSize) ++failures;
        ++done;
        if (started < kRequests) startOne(*exchange);
      }
      if (done < kRequests) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
  });
  for (Exchange& exchange : exchanges) curl_easy_cleanup(exchange.easy);
  curl_multi_cleanup(multi);
  if (failures > 0) state.SkipWithError("requests failed");
}

// Writes the file the downloads fetch, the first time one runs (the server reads it
// per request), so that runs of the small GETs alone stay quick and undisturbed.
void makeLargeFile() {
  const fs::path path = workFolder / "large.bin";
  if (fs::exists(path)) return;
  std::ofstream out(path, std::ios::binary);
  std::string block(1 << 20, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
  for (std::size_t written = 0; written < kLargeSize; written += block.size()) out.write(block.data(), block.size());
}

void reportDownload(benchmark::State& state, const std::string& name, double seconds) {
  state.SetIterationTime(seconds);
  const double mibPerSecond = static_cast<double>(kLargeSize) / (1 << 20) / seconds;
  state.counters["MiB_per_s"] = mibPerSecond;
  results[name].push_back(mibPerSecond);
}

void sessionManagerDownload(benchmark::State& state) {
  auto manager = HTTPSessionManager::manager();
  vkq::platform::URLRequest request;
  request.url = vkq::platform::URL::URLWithString(baseURL + "/large");
  const fs::path target = workFolder / "session.out";
  makeLargeFile();
  for (auto _ : state) {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    vkq::platform::ErrorPtr failure;
    const auto started = std::chrono::steady_clock::now();
    manager
        ->downloadTaskWithRequest(
            request, nullptr, [&](auto, auto) { return vkq::platform::URL::fileURLWithPath(target.string()); },
            [&](auto, auto, vkq::platform::ErrorPtr error) {
              std::lock_guard lock(mutex);
              failure = error;
              done = true;
              finished.notify_all();
            })
        ->resume();
    std::unique_lock lock(mutex);
    finished.wait(lock, [&] { return done; });
    reportDownload(state, "Download/session", std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    if (failure || fs::file_size(target) != kLargeSize) state.SkipWithError("download failed");
    fs::remove(target);
  }
}

void curlToolDownload(benchmark::State& state) {
  const fs::path target = workFolder / "curl.out";
  const std::string url = baseURL + "/large";
  makeLargeFile();
  for (auto _ : state) {
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::string> arguments = {"curl", "-s", "-o", target.string(), url};
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    if (posix_spawnp(&child, "curl", nullptr, nullptr, argv.data(), environ) == 0) waitpid(child, &status, 0);
    reportDownload(state, "Download/curl-tool", std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    std::error_code error;
    if (status != 0 || fs::file_size(target, error) != kLargeSize) state.SkipWithError("curl tool failed");
    fs::remove(target, error);
  }
}

void printSummary() {
  const double sessionRps = median(results["SmallGets/session/rps"]);
  const double curlRps = median(results["SmallGets/curl/rps"]);
  const double sessionCpu = median(results["SmallGets/session/cpu"]);
  const double curlCpu = median(results["SmallGets/curl/cpu"]);
  const double sessionMiB = median(results["Download/session"]);
  const double toolMiB = median(results["Download/curl-tool"]);
  std::printf("\nSummary (medians):\n");
  std::printf("  small GETs: session %.0f req/s, plain libcurl %.0f req/s -> ratio %.3f (target >= 0.95)\n", sessionRps,
              curlRps, curlRps > 0 ? sessionRps / curlRps : 0);
  std::printf("  client CPU per request: session %.1f us, plain libcurl %.1f us -> ratio %.3f (target <= 1.1)\n",
              sessionCpu, curlCpu, curlCpu > 0 ? sessionCpu / curlCpu : 0);
  std::printf("  256 MiB download: session %.0f MiB/s, curl tool %.0f MiB/s -> ratio %.3f (target >= 0.95)\n",
              sessionMiB, toolMiB, toolMiB > 0 ? sessionMiB / toolMiB : 0);
  // Client and server share the machine's cores: once they are busy, requests per
  // second follow the CPU both spend per request.
  const double sessionServer = median(results["SmallGets/session/server"]);
  const double curlServer = median(results["SmallGets/curl/server"]);
  std::printf("  server CPU per request: with session %.1f us, with plain libcurl %.1f us; on busy cores req/s "
              "could reach at most %.3f of plain libcurl's\n",
              sessionServer, curlServer,
              sessionCpu + sessionServer > 0 ? (curlCpu + curlServer) / (sessionCpu + sessionServer) : 0);
  std::printf("Ratios of the interleaved pairs, median (lowest-highest):\n");
  std::printf("  small GETs req/s %s, CPU per request %s\n",
              pairedRatios(results["SmallGets/session/rps"], results["SmallGets/curl/rps"]).c_str(),
              pairedRatios(results["SmallGets/session/cpu"], results["SmallGets/curl/cpu"]).c_str());
  std::printf("  256 MiB download MiB/s %s\n",
              pairedRatios(results["Download/session"], results["Download/curl-tool"]).c_str());
}

// Serves /small and /large from a child process until the parent closes the pipe; on
// `cores->second` when given, with this process moved to `cores->first`.
pid_t startServerProcess(const std::optional<std::pair<int, int>>& cores) {
  int portPipe[2];
  int lifePipe[2];
  if (pipe(portPipe) != 0 || pipe(lifePipe) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    if (cores) runOn(cores->second);
    close(portPipe[0]);
    close(lifePipe[1]);
    vkq::testing::TestServer::Options options;
    options.threads = 2 * kInFlight;
    vkq::testing::TestServer server(options);
    // /small counts the connections its requests come over; /connections tells the
    // count and starts it afresh.
    std::mutex mutex;
    std::set<int> clientPorts;
    server.handle("/small", [&](const httplib::Request& request, httplib::Response& response) {
      {
        std::lock_guard lock(mutex);
        clientPorts.insert(request.remote_port);
      }
      response.set_content(std::string(kSmallSize, 'x'), "application/octet-stream");
    });
    server.handle("/connections", [&](const httplib::Request&, httplib::Response& response) {
      std::lock_guard lock(mutex);
      response.set_content(std::to_string(clientPorts.size()), "text/plain");
      clientPorts.clear();
    });
    server.serveFile("/large", workFolder / "large.bin", vkq::testing::FileOptions().withETag("\"large\""));
    const int port = server.port();
    if (write(portPipe[1], &port, sizeof port) != sizeof port) _exit(1);
    char ignored;
    while (read(lifePipe[0], &ignored, 1) > 0) {
    }
    server.stop();
    _exit(0);
  }
  if (cores) runOn(cores->first);
  close(portPipe[1]);
  close(lifePipe[0]);  // the write end stays open in this process until it exits
  int port = 0;
  if (read(portPipe[0], &port, sizeof port) != sizeof port) return -1;
  baseURL = "http://127.0.0.1:" + std::to_string(port);
  return child;
}

}  // namespace

int main(int argc, char** argv) {
  workFolder = fs::temp_directory_path() / ("vkq-transport-benchmark-" + std::to_string(getpid()));
  fs::create_directories(workFolder);
  bool sharedCores = false;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--shared-cores") {
      sharedCores = true;
      std::copy(argv + i + 1, argv + argc, argv + i);
      --argc;
      break;
    }
  }
  const auto cores = sharedCores ? std::nullopt : twoCores();
  std::printf("client on %s, server on %s\n", cores ? std::to_string(cores->first).c_str() : "every core",
              cores ? std::to_string(cores->second).c_str() : "every core");
  // Forked before any thread exists in this process.
  const pid_t server = startServerProcess(cores);
  serverProcess = server;
  if (server < 0) {
    std::cerr << "cannot start the server process\n";
    return 1;
  }

  for (int i = 0; i < kRepetitions; ++i) {
    benchmark::RegisterBenchmark(("SmallGets/curl/" + std::to_string(i)).c_str(), plainCurlSmallGets)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("SmallGets/session/" + std::to_string(i)).c_str(), sessionManagerSmallGets)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  for (int i = 0; i < kDownloadRepetitions; ++i) {
    benchmark::RegisterBenchmark(("Download/curl-tool/" + std::to_string(i)).c_str(), curlToolDownload)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Download/session/" + std::to_string(i)).c_str(), sessionManagerDownload)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();

  std::error_code ignored;
  fs::remove_all(workFolder, ignored);
  return 0;
}
