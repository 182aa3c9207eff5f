// Whether the network can be reached, from the kernel's view of the interfaces.
//
// The status is Unknown until monitoring has started; then it is worked out from the
// interfaces that are up (re-read at most once per second). The manager is
// conservative: it reports NotReachable only when no interface at all is up, so
// traffic to this machine (loopback) is never refused. Wired and wireless interfaces
// both count as WiFi; cellular modem interfaces ("wwan*", "rmnet*", "ccmni*") as WWAN.
// Thread-safe.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vkq::platform {

enum class NetworkReachabilityStatus : int {
  Unknown = -1,
  NotReachable = 0,
  ReachableViaWWAN = 1,
  ReachableViaWiFi = 2,
};

// One network interface as the kernel reports it.
struct NetworkInterface {
  std::string name;
  bool up = false;  // administratively up and running
  bool loopback = false;
};

// The status a set of interfaces gives (the rule described above).
NetworkReachabilityStatus reachabilityStatusForInterfaces(const std::vector<NetworkInterface>& interfaces);

class NetworkReachabilityManager {
 public:
  NetworkReachabilityManager() = default;
  NetworkReachabilityManager(const NetworkReachabilityManager&) = delete;
  NetworkReachabilityManager& operator=(const NetworkReachabilityManager&) = delete;

  void startMonitoring();
  // Back to Unknown until the next startMonitoring().
  void stopMonitoring();

  // The override when one is set; otherwise Unknown unless monitoring, else the
  // current status.
  NetworkReachabilityStatus networkReachabilityStatus() const;
  bool isReachable() const;

  // Makes every manager report `status` (absent: back to the kernel's view). Tests use
  // this seam to simulate a network that is down.
  static void setStatusOverrideForTesting(std::optional<NetworkReachabilityStatus> status);

 private:
  mutable std::mutex mutex_;
  bool monitoring_ = false;                                        // guarded by mutex_
  mutable std::optional<NetworkReachabilityStatus> cachedStatus_;  // guarded by mutex_
  mutable std::chrono::steady_clock::time_point cachedAt_;         // guarded by mutex_
};

}  // namespace vkq::platform
