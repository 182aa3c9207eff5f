// The session manager beside plain libcurl, against the test server running in a child
// process (so the process's CPU time is the client's alone).
//
//  SmallGets/<client>/<n>: 10,000 GETs of a 64-byte answer, 32 in flight over
//    keep-alive. Counters: requests per second, client CPU microseconds per request
//    (getrusage of the whole process: worker, completion queue and benchmark threads).
//  Download/<client>/<n>: a 256 MiB file to disk, beside the curl tool. Counter: MiB/s.
// The two clients run interleaved, several times each; the summary at the end gives the
// ratios of the medians.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
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
#include <string>
#include <vector>

#include "Platform/HTTPSessionManager.h"
#include "Tests/Support/TestServer.h"

namespace {

namespace fs = std::filesystem;
using vkq::platform::HTTPSessionManager;

constexpr int kRequests = 10'000;
constexpr int kInFlight = 32;
constexpr std::size_t kLargeSize = std::size_t{256} << 20;
constexpr int kRepetitions = 5;
constexpr int kDownloadRepetitions = 3;

std::string baseURL;
fs::path workFolder;
std::map<std::string, std::vector<double>> results;  // name -> one value per repetition

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Runs `body`, then reports requests/s and client CPU per request.
template <typename Body>
void measureSmallGets(benchmark::State& state, const std::string& name, Body body) {
  for (auto _ : state) {
    const double cpuBefore = cpuSeconds();
    const auto started = std::chrono::steady_clock::now();
    body();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double cpu = cpuSeconds() - cpuBefore;
    state.SetIterationTime(seconds);
    state.counters["requests_per_s"] = kRequests / seconds;
    state.counters["cpu_us_per_request"] = cpu * 1e6 / kRequests;
    results[name + "/rps"].push_back(kRequests / seconds);
    results[name + "/cpu"].push_back(cpu * 1e6 / kRequests);
  }
}

void sessionManagerSmallGets(benchmark::State& state) {
  auto manager = HTTPSessionManager::manager();
  vkq::platform::URLRequest request;
  request.url = vkq::platform::URL::URLWithString(baseURL + "/small");
  std::mutex mutex;
  std::condition_variable finished;
  std::atomic<int> started{0};
  std::atomic<int> done{0};
  std::atomic<int> failures{0};
  // Each completion starts the next request, keeping kInFlight running.
  std::function<void()> startOne = [&] {
    if (started.fetch_add(1) >= kRequests) return;
    manager->dataTaskWithRequest(request, nullptr, nullptr, [&](auto, auto, vkq::platform::ErrorPtr error) {
      if (error) ++failures;
      startOne();
      if (done.fetch_add(1) + 1 == kRequests) {
        std::lock_guard lock(mutex);
        finished.notify_all();
      }
    })->resume();
  };
  measureSmallGets(state, "SmallGets/session", [&] {
    started = 0;
    done = 0;
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

// The same exchanges written directly against libcurl's multi interface.
void plainCurlSmallGets(benchmark::State& state) {
  CURLM* multi = curl_multi_init();
  const std::string url = baseURL + "/small";
  int failures = 0;
  measureSmallGets(state, "SmallGets/curl", [&] {
    int started = 0;
    int done = 0;
    std::map<CURL*, std::string> bodies;
    auto startOne = [&] {
      if (started >= kRequests) return;
      ++started;
      CURL* easy = curl_easy_init();
      curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
      curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collectBody);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bodies[easy]);
      curl_multi_add_handle(multi, easy);
    };
    for (int i = 0; i < kInFlight; ++i) startOne();
    while (done < kRequests) {
      int running = 0;
      curl_multi_perform(multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        if (message->data.result != CURLE_OK) ++failures;
        curl_multi_remove_handle(multi, easy);
        curl_easy_cleanup(easy);
        bodies.erase(easy);
        ++done;
        startOne();
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
  });
  curl_multi_cleanup(multi);
  if (failures > 0) state.SkipWithError("requests failed");
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

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
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
}

// Serves /small and /large from a child process until the parent closes the pipe.
pid_t startServerProcess() {
  int portPipe[2];
  int lifePipe[2];
  if (pipe(portPipe) != 0 || pipe(lifePipe) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(portPipe[0]);
    close(lifePipe[1]);
    vkq::testing::TestServer::Options options;
    options.threads = 2 * kInFlight;
    vkq::testing::TestServer server(options);
    server.answer("/small", vkq::testing::ScriptedAnswer(200, std::string(64, 'x')).type("application/octet-stream"));
    server.serveFile("/large", workFolder / "large.bin", vkq::testing::FileOptions().withETag("\"large\""));
    const int port = server.port();
    if (write(portPipe[1], &port, sizeof port) != sizeof port) _exit(1);
    char ignored;
    while (read(lifePipe[0], &ignored, 1) > 0) {
    }
    server.stop();
    _exit(0);
  }
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
  {
    std::ofstream out(workFolder / "large.bin", std::ios::binary);
    std::string block(1 << 20, '\0');
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
    for (std::size_t written = 0; written < kLargeSize; written += block.size()) out.write(block.data(), block.size());
  }
  // Forked before any thread exists in this process.
  const pid_t server = startServerProcess();
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
