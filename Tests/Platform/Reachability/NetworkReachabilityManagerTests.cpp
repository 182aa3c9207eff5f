// Reachability: the rule over interfaces, the override seam, and the monitor's life and
// reports. Real interface changes happen only in a private network namespace.
#include <gtest/gtest.h>

#include <dirent.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Base/MainQueue.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"

namespace vkq::platform {
namespace {

using namespace std::chrono_literals;
using S = NetworkReachabilityStatus;

TEST(Reachability, StatusFollowsTheInterfacesThatAreUp) {
  const NetworkInterface loopback{"lo", true, true}, loopbackDown{"lo", false, true}, ethernet{"eth0", true, false},
      down{"eth1", false, false}, wireless{"wlan0", true, false}, cellular{"wwan0", true, false};
  const std::pair<std::vector<NetworkInterface>, S> cases[] = {
      {{}, S::NotReachable},
      {{loopbackDown, down}, S::NotReachable},
      {{loopback, down}, S::ReachableViaWiFi},  // loopback alone must not block local traffic
      {{loopback, ethernet}, S::ReachableViaWiFi},
      {{wireless}, S::ReachableViaWiFi},
      {{loopback, cellular}, S::ReachableViaWWAN},
      {{cellular, wireless}, S::ReachableViaWiFi},  // WiFi wins over a modem
      {{{"rmnet_data0", true, false}}, S::ReachableViaWWAN},
  };
  for (const auto& [interfaces, status] : cases) {
    EXPECT_EQ(reachabilityStatusForInterfaces(interfaces), status) << interfaces.size() << " interfaces";
  }
}

// Entries in a /proc/self folder: open descriptors or running threads.
std::size_t countEntries(const char* folder) {
  std::size_t count = 0;
  DIR* dir = opendir(folder);
  if (dir == nullptr) return 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

class ReachabilityMonitor : public ::testing::Test {
 protected:
  struct Report {
    S status;
    bool onMainQueue;
    bool operator==(const Report&) const = default;
  };

  void SetUp() override {
    MainQueue::useManualDraining();
    MainQueue::drain();
  }
  void TearDown() override {
    NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
    MainQueue::drain();
  }

  // Records every report `manager` delivers.
  void record(NetworkReachabilityManager& manager) {
    manager.setReachabilityStatusChangeBlock(
        [this](S status) { reports_.push_back({status, MainQueue::isCurrent()}); });
  }
  bool waitForReports(std::size_t count) {
    return MainQueue::runUntil([&] { return reports_.size() >= count; }, 5s);
  }

  std::vector<Report> reports_;
};

TEST_F(ReachabilityMonitor, UnknownUntilMonitoringAndOverriddenThroughTheSeam) {
  NetworkReachabilityManager manager;
  EXPECT_EQ(manager.networkReachabilityStatus(), S::Unknown);
  manager.startMonitoring();
  EXPECT_TRUE(manager.isReachable());  // this machine runs the tests over loopback at least

  NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);
  EXPECT_EQ(manager.networkReachabilityStatus(), S::NotReachable);
  EXPECT_FALSE(NetworkReachabilityManager().isReachable());  // the override wins even when not monitoring
  NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);

  manager.stopMonitoring();
  EXPECT_EQ(manager.networkReachabilityStatus(), S::Unknown);
}

TEST_F(ReachabilityMonitor, ReportsTheFirstEvaluationAndEachOverrideChangeOnTheMainQueue) {
  NetworkReachabilityManager manager;
  record(manager);
  manager.startMonitoring();
  ASSERT_TRUE(waitForReports(1));
  const S kernel = manager.networkReachabilityStatus();
  EXPECT_EQ(reports_[0], (Report{kernel, true}));

  NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);
  NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);  // no change, no report
  NetworkReachabilityManager::setStatusOverrideForTesting(kernel);           // back to what the kernel says
  NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);    // still the same
  EXPECT_EQ(reports_.size(), 1u);  // never inside the caller
  MainQueue::drain();
  EXPECT_EQ(reports_, (std::vector<Report>{{kernel, true}, {S::NotReachable, true}, {kernel, true}}));

  // Stopped: override changes are not reported; a new start reports afresh.
  manager.stopMonitoring();
  NetworkReachabilityManager::setStatusOverrideForTesting(S::ReachableViaWWAN);
  MainQueue::drain();
  EXPECT_EQ(reports_.size(), 3u);
  manager.startMonitoring();
  ASSERT_TRUE(waitForReports(4));
  EXPECT_EQ(reports_.back(), (Report{S::ReachableViaWWAN, true}));
}

TEST_F(ReachabilityMonitor, StartAndStopRepeatedlyArePromptAndLeaveNoThreadOrDescriptorBehind) {
  // A first start and stop lets the runtime make what it makes once per process (a
  // sanitizer's own thread), so that the counts below are the monitor's alone.
  NetworkReachabilityManager().startMonitoring();
  const std::size_t descriptors = countEntries("/proc/self/fd");
  const std::size_t threads = countEntries("/proc/self/task");
  const auto began = std::chrono::steady_clock::now();
  {
    NetworkReachabilityManager manager;
    record(manager);
    for (int i = 0; i < 50; ++i) {
      manager.startMonitoring();
      manager.startMonitoring();  // a second start neither adds a thread nor reports again
      manager.stopMonitoring();
      manager.stopMonitoring();
    }
    for (int i = 0; i < 50; ++i) {
      NetworkReachabilityManager discarded;  // the destructor stops it
      discarded.startMonitoring();
    }
    manager.startMonitoring();
    EXPECT_LE(countEntries("/proc/self/task"), threads + 1);  // none where kernel notices are unavailable
  }
  EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);  // no stop waits for a time-out
  EXPECT_EQ(countEntries("/proc/self/fd"), descriptors);
  EXPECT_EQ(countEntries("/proc/self/task"), threads);
  MainQueue::drain();
  EXPECT_TRUE(reports_.empty());  // reports still queued at a stop are dropped
}

TEST_F(ReachabilityMonitor, QueuedReportsOfADestroyedManagerDoNothing) {
  auto counter = std::make_shared<int>(0);
  auto manager = std::make_unique<NetworkReachabilityManager>();
  manager->setReachabilityStatusChangeBlock([counter](S) { ++*counter; });
  manager->startMonitoring();
  NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);
  manager.reset();
  EXPECT_EQ(counter.use_count(), 1);  // the block went with the manager
  EXPECT_GE(MainQueue::drain(), 1u);
  EXPECT_EQ(*counter, 0);
}

TEST_F(ReachabilityMonitor, ChangesFromManyThreadsEndInTheFinalStatus) {
  NetworkReachabilityManager manager;
  record(manager);
  manager.startMonitoring();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&manager, t] {
      for (int i = 0; i < 200; ++i) {
        NetworkReachabilityManager::setStatusOverrideForTesting((i + t) % 2 == 0 ? S::NotReachable
                                                                                 : S::ReachableViaWWAN);
        if (i % 50 == 0) NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
        (void)manager.networkReachabilityStatus();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  MainQueue::drain();
  ASSERT_FALSE(reports_.empty());
  EXPECT_EQ(reports_.back().status, manager.networkReachabilityStatus());
}

// Sets the loopback interface of the calling process's network namespace up or down.
bool setLoopbackUp(bool up) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool done = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  if (done) {
    request.ifr_flags = static_cast<short>(up ? (request.ifr_flags | IFF_UP) : (request.ifr_flags & ~IFF_UP));
    done = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  }
  close(fd);
  return done;
}

enum ChildOutcome { kFollowed = 0, kNoNamespace = 2, kCannotChangeLoopback = 3, kNotFollowed = 4 };

// In a fresh network namespace only loopback exists, and it is down: bringing it up and
// down again must be reported without anyone asking for the status.
ChildOutcome followLoopbackInPrivateNamespace() {
  // A user namespace grants the right to change its interfaces; a process that already has
  // that right (or runs beside a sanitizer's thread, which rules user namespaces out) may
  // make the network namespace alone.
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0 && unshare(CLONE_NEWNET) != 0) return kNoNamespace;
  std::vector<S> reports;
  NetworkReachabilityManager manager;
  manager.setReachabilityStatusChangeBlock([&reports](S status) { reports.push_back(status); });
  manager.startMonitoring();
  const auto reported = [&reports](S status) {
    return MainQueue::runUntil([&] { return !reports.empty() && reports.back() == status; }, 5s);
  };
  if (!reported(S::NotReachable)) return kNotFollowed;
  if (!setLoopbackUp(true)) return kCannotChangeLoopback;
  if (!reported(S::ReachableViaWiFi)) return kNotFollowed;
  if (!setLoopbackUp(false)) return kCannotChangeLoopback;
  if (!reported(S::NotReachable)) return kNotFollowed;
  return kFollowed;
}

TEST_F(ReachabilityMonitor, FollowsTheKernelWhenAnInterfaceGoesUpAndDown) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(followLoopbackInPrivateNamespace());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNoNamespace) GTEST_SKIP() << "no private network namespace here";
  if (WEXITSTATUS(status) == kCannotChangeLoopback) GTEST_SKIP() << "loopback cannot be changed here";
  EXPECT_EQ(WEXITSTATUS(status), kFollowed) << "the status did not follow the loopback interface";
}

}  // namespace
}  // namespace vkq::platform
