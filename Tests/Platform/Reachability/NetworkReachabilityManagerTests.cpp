// Reachability: the rule over interfaces, and the monitor's reports through the override seam.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Base/MainQueue.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"

namespace vkq::platform {
namespace {

using namespace std::chrono_literals;
using S = NetworkReachabilityStatus;

TEST(Reachability, StatusFollowsTheInterfacesThatAreUp) {
  const NetworkInterface loopback{"lo", true, true}, ethernet{"eth0", true, false}, down{"eth1", false, false},
      cellular{"wwan0", true, false};
  const std::pair<std::vector<NetworkInterface>, S> cases[] = {
      {{}, S::NotReachable},
      {{{"lo", false, true}, down}, S::NotReachable},
      {{loopback, down}, S::ReachableViaWiFi},  // loopback alone must not block local traffic
      {{loopback, ethernet}, S::ReachableViaWiFi},
      {{loopback, cellular}, S::ReachableViaWWAN},
      {{cellular, {"wlan0", true, false}}, S::ReachableViaWiFi},  // WiFi wins over a modem
      {{{"rmnet_data0", true, false}}, S::ReachableViaWWAN},
  };
  for (const auto& [interfaces, status] : cases) EXPECT_EQ(reachabilityStatusForInterfaces(interfaces), status);
}

std::size_t threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

TEST(ReachabilityMonitor, ReportsEachChangeOnTheMainQueueOnlyWhileMonitoring) {
  MainQueue::useManualDraining();
  NetworkReachabilityManager().startMonitoring();  // what the runtime makes once per process, made now
  MainQueue::drain();
  const std::size_t threads = threadCount();
  std::vector<std::pair<S, bool>> reports;  // status, delivered on the main queue
  {
    NetworkReachabilityManager manager;
    manager.setReachabilityStatusChangeBlock(
        [&reports](S status) { reports.emplace_back(status, MainQueue::isCurrent()); });
    EXPECT_EQ(manager.networkReachabilityStatus(), S::Unknown);
    manager.startMonitoring();
    manager.startMonitoring();  // a second start neither adds a thread nor reports again
    ASSERT_TRUE(MainQueue::runUntil([&] { return !reports.empty(); }, 5s));
    const S kernel = manager.networkReachabilityStatus();
    EXPECT_NE(kernel, S::NotReachable);  // this machine has loopback at least

    NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);
    NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);  // no change, no report
    EXPECT_FALSE(NetworkReachabilityManager().isReachable());  // the override wins even when not monitoring
    NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
    EXPECT_EQ(reports.size(), 1u);  // never inside the caller
    MainQueue::drain();
    EXPECT_EQ(reports, (std::vector<std::pair<S, bool>>{{kernel, true}, {S::NotReachable, true}, {kernel, true}}));

    manager.stopMonitoring();
    EXPECT_EQ(manager.networkReachabilityStatus(), S::Unknown);
    manager.startMonitoring();  // its first report is still queued at the stop, which drops it
    manager.stopMonitoring();
    NetworkReachabilityManager::setStatusOverrideForTesting(S::ReachableViaWWAN);  // not monitoring: no report
    manager.startMonitoring();  // a new start reports afresh
    MainQueue::drain();
    ASSERT_EQ(reports.size(), 4u);
    EXPECT_EQ(reports.back(), std::pair(S::ReachableViaWWAN, true));
    NetworkReachabilityManager::setStatusOverrideForTesting(S::NotReachable);
  }  // the destructor stops monitoring: the queued report is dropped, the thread joined
  NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
  EXPECT_GE(MainQueue::drain(), 1u);
  EXPECT_EQ(reports.size(), 4u);
  EXPECT_EQ(threadCount(), threads);
}

}  // namespace
}  // namespace vkq::platform
