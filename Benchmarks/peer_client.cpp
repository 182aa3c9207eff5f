// The library as a client for a peer benchmark runner, used the way an application
// uses it: through its public API, with its default main queue.
//
//   peer_client transport URL N C   N GETs of URL, C in flight, as HTTPSessionManager
//                                   data tasks (each completion starts the next one)
//   peer_client agent URL N C       the same as VKQVesk GETs through the agent, the
//                                   answer taken raw (no decoder), callbacks on the
//                                   main queue
//   peer_client download URL FILE   one resumable download of URL to FILE
//
// Prints one line of key=value pairs: req_per_s= and cpu_s_per_10k= for GETs, MB_per_s=
// for a download (MB = 10^6 bytes). Time is wall clock around the requests, CPU is the
// whole process's user+system time (getrusage) over the same span, and so are its
// context switches per request (csw_per_req=). Exits 1 when a
// request failed, 64 on a usage error.
#include <sys/resource.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Session/HTTPSessionManager.h"

namespace {

using Clock = std::chrono::steady_clock;

// The whole process's CPU seconds and context switches (voluntary and not) so far.
struct Usage {
  double cpuSeconds = 0;
  long contextSwitches = 0;

  static Usage now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_nvcsw + usage.ru_nivcsw};
  }
};

// Counts outcomes from whichever thread delivers them; the starting thread waits for all.
class Outcomes {
 public:
  explicit Outcomes(long expected) : expected_(expected) {}
  void record(bool ok) {
    std::lock_guard lock(mutex_);
    (ok ? ok_ : failed_) += 1;
    if (ok_ + failed_ == expected_) done_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return ok_ + failed_ == expected_; });
  }
  long failed() const { return failed_; }  // after wait()

 private:
  const long expected_;
  std::mutex mutex_;
  std::condition_variable done_;
  long ok_ = 0, failed_ = 0;
};

// Runs `startOne` C times; each completion calls it again until N have started.
int runGets(const char* mode, long n, long c, const std::function<void(std::function<void(bool)>)>& startOne) {
  Outcomes outcomes(n);
  long started = 0;  // only touched by whoever starts: the caller first, then one completion at a time
  std::mutex startMutex;
  std::function<void(bool)> finished = [&](bool ok) {
    {
      std::lock_guard lock(startMutex);
      if (started < n) {
        ++started;
        startOne(finished);
      }
    }
    outcomes.record(ok);
  };
  const Usage before = Usage::now();
  const auto t0 = Clock::now();
  {
    std::lock_guard lock(startMutex);
    for (; started < std::min(n, c); ++started) startOne(finished);
  }
  outcomes.wait();
  const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  const Usage after = Usage::now();
  const double cpu = after.cpuSeconds - before.cpuSeconds;
  std::printf(
      "tool=vkq mode=%s n=%ld c=%ld errors=%ld secs=%.4f req_per_s=%.1f cpu_s=%.3f cpu_s_per_10k=%.4f "
      "csw_per_req=%.3f\n",
      mode, n, c, outcomes.failed(), seconds, static_cast<double>(n) / seconds, cpu,
      cpu * 10000.0 / static_cast<double>(n),
      static_cast<double>(after.contextSwitches - before.contextSwitches) / static_cast<double>(n));
  return outcomes.failed() == 0 ? 0 : 1;
}

int transportGets(const std::string& url, long n, long c) {
  const auto manager = vkq::platform::HTTPSessionManager::manager();
  vkq::platform::URLRequest request;
  request.url = vkq::platform::URL::URLWithString(url);
  if (!request.url) return 64;
  return runGets("transport", n, c, [&](std::function<void(bool)> finished) {
    manager
        ->dataTaskWithRequest(request, nullptr, nullptr,
                              [finished = std::move(finished)](auto, auto, vkq::platform::ErrorPtr error) {
                                finished(error == nullptr);
                              })
        ->resume();
  });
}

int agentGets(const std::string& url, long n, long c) {
  // Any type other than JSON and KXP takes the answer as it came.
  constexpr auto kRawAnswer = static_cast<VKQResponseSerializerType>(2);
  return runGets("agent", n, c, [&](std::function<void(bool)> finished) {
    auto request = VKQVesk::initWithJSONUrl(url, nullptr, VKQRequestMethodGET);
    request->responseSerializerTypePromise()(kRawAnswer);
    request->requestCompletion([request, finished = std::move(finished)](std::shared_ptr<VKQVeskResult>) {
      finished(!request->error() && request->responseData().isData());
    });
  });
}

int download(const std::string& url, const std::string& file) {
  Outcomes outcomes(1);
  const auto t0 = Clock::now();
  auto request = VKQVesk::initWithDownloadURL(url, file, nullptr);
  request->requestCompletion([&outcomes, request](std::shared_ptr<VKQVeskResult> result) {
    outcomes.record(result && result->responseCode()->code() == VKQResponseCodeSuccess);
  });
  outcomes.wait();
  const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  std::error_code error;
  const auto bytes = std::filesystem::file_size(file, error);
  if (outcomes.failed() != 0 || error) return 1;
  std::printf("tool=vkq mode=download bytes=%llu secs=%.4f MB_per_s=%.1f\n", static_cast<unsigned long long>(bytes),
              seconds, static_cast<double>(bytes) / seconds / 1e6);
  return 0;
}

int usage() {
  std::fprintf(stderr, "usage: peer_client transport|agent URL N C\n       peer_client download URL OUTFILE\n");
  return 64;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return usage();
  const std::string mode = argv[1], url = argv[2];
  if (mode == "download" && argc == 4) return download(url, argv[3]);
  if (argc != 5) return usage();
  const long n = std::atol(argv[3]), c = std::atol(argv[4]);
  if (n < 1 || c < 1) return usage();
  if (mode == "transport") return transportGets(url, n, c);
  if (mode == "agent") return agentGets(url, n, c);
  return usage();
}
