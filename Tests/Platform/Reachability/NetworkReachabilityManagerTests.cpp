// Reachability: the rule over interfaces and routes, the routing tables and loopback
// hosts, and the monitor's reports through the override seam.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/Base/MainQueue.h"
#include "Platform/Reachability/NetworkReachabilityManager.h"

namespace vkq::platform {
namespace {

using namespace std::chrono_literals;
using S = NetworkReachabilityStatus;

TEST(Reachability, StatusFollowsTheInterfacesThatAreUpAndTheDefaultRoute) {
  const NetworkInterface loopback{"lo", true, true}, down{"eth1", false, false}, cellular{"wwan0", true, false};
  const std::tuple<std::vector<NetworkInterface>, bool, S> cases[] = {  // interfaces, default route, status
      {{}, false, S::NotReachable},
      {{loopback, down}, false, S::NotReachable},  // loopback alone reaches no other host
      {{loopback, down}, true, S::ReachableViaWiFi},  // ... unless a route leads elsewhere
      {{loopback, cellular}, true, S::ReachableViaWWAN},
      {{cellular, {"wlan0", true, false}}, false, S::ReachableViaWiFi},  // WiFi wins over a modem
  };
  for (const auto& [interfaces, route, status] : cases) {
    EXPECT_EQ(reachabilityStatusForInterfaces(interfaces, route), status);
  }
}

// Rows laid out as the kernel writes them (a container with IPv4 and IPv6 default routes).
TEST(Reachability, ReadsDefaultRoutesFromTheKernelsRoutingTables) {
  const std::string heading = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n";
  const auto v4 = [&](const char* device, const char* destination, const char* flags, const char* mask) {
    return heading + device + "\t" + destination + "\t010200C0\t" + flags + "\t0\t0\t0\t" + mask + "\t0\t0\t0\n";
  };
  const std::string any(32, '0');
  const auto v6 = [&](const std::string& destination, const char* prefix, const char* flags, const char* device) {
    return destination + " " + prefix + " " + any + " 00 " + any + " 00000400 00000003 00000000 " + flags + "   " +
           device + "\n";
  };
  const std::string subnet6 = v6("fd00" + std::string(28, '0'), "40", "00000001", "eth0");
  const std::string reject6 = v6(any, "00", "00200200", "lo");  // the kernel's own catch-all
  const std::tuple<std::string, std::string, bool> cases[] = {
      {v4("eth0", "000200C0", "0001", "00FFFFFF") + v4("eth0", "00000000", "0003", "00000000"), reject6, true},
      {v4("eth0", "000200C0", "0001", "00FFFFFF"), subnet6 + v6(any, "00", "00000003", "eth0") + reject6, true},
      {v4("eth0", "000200C0", "0001", "00FFFFFF"), subnet6 + reject6, false},
      {v4("eth0", "00000000", "0002", "00000000"), v6(any, "00", "00000002", "eth0"), false},  // not up
      {v4("eth0", "00000000", "zz", "00000000") + "eth0\t00000000\n", "x\n\n" + any + " 00", false},  // broken
  };
  for (const auto& [ipv4, ipv6, expected] : cases) EXPECT_EQ(hasDefaultRoute(ipv4, ipv6), expected) << ipv4 << ipv6;
}

TEST(Reachability, LoopbackHostsAreThoseThisMachineAnswersItself) {
  for (const char* host : {"LocalHost.", "api.localhost", "127.255.0.9", "::1", "::ffff:127.0.0.1"}) {
    EXPECT_TRUE(isLoopbackHost(host)) << host;
  }
  for (const char* host : {"localhost.example", "mylocalhost", "128.0.0.1", "127.0.0.1.nip.io", "::ffff:10.0.0.1"}) {
    EXPECT_FALSE(isLoopbackHost(host)) << host;
  }
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
    manager.startMonitoring();
    manager.startMonitoring();  // a second start neither adds a thread nor reports again
    ASSERT_TRUE(MainQueue::runUntil([&] { return !reports.empty(); }, 5s));
    const S kernel = manager.networkReachabilityStatus();
    const S other = kernel == S::NotReachable ? S::ReachableViaWiFi : S::NotReachable;

    NetworkReachabilityManager::setStatusOverrideForTesting(other);
    NetworkReachabilityManager::setStatusOverrideForTesting(other);  // no change, no report
    NetworkReachabilityManager::setStatusOverrideForTesting(std::nullopt);
    EXPECT_EQ(reports.size(), 1u);  // never inside the caller
    MainQueue::drain();
    EXPECT_EQ(reports, (std::vector<std::pair<S, bool>>{{kernel, true}, {other, true}, {kernel, true}}));

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
