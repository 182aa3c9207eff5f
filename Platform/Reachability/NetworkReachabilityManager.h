// Whether the network can be reached, from the kernel's view of the interfaces.
//
// The status is Unknown until startMonitoring(); monitoring works it out at once from the
// interfaces that are up, then follows the kernel: a background thread (one per manager)
// listens for the kernel's notices about links, addresses and routes and re-reads the
// interfaces on each change. Where such notices cannot be received (some sandboxes) the
// status is re-read on demand instead, at most once per second, and the debug log says so.
//
// The rule (reachabilityStatusForInterfaces): NotReachable when no interface but
// loopback is up and there is no default route (read from /proc/net/route and
// /proc/net/ipv6_route). Wired and wireless interfaces both count as WiFi; cellular modem
// interfaces ("wwan*", "rmnet*", "ccmni*") as WWAN. Traffic to this machine flows without
// a network: callers send requests to a loopback host (isLoopbackHost) whatever the status.
//
// Thread-safe: every member may be called from any thread, except that a manager must not
// be destroyed while another thread still calls it.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vkq::platform {

// What the interfaces say about the network.
enum class NetworkReachabilityStatus : int {
  Unknown = -1,           // not monitoring yet
  NotReachable = 0,       // no interface is up
  ReachableViaWWAN = 1,   // only cellular modem interfaces are up
  ReachableViaWiFi = 2,   // a wired, wireless or loopback interface is up
};

// One network interface as the kernel reports it.
struct NetworkInterface {
  std::string name;       // "eth0", "wlan0", "lo", ...
  bool up = false;        // administratively up and running
  bool loopback = false;  // the loopback interface
};

// The status a set of interfaces and the presence of a default route give (the rule
// described above).
NetworkReachabilityStatus reachabilityStatusForInterfaces(const std::vector<NetworkInterface>& interfaces,
                                                          bool defaultRoute);

// True when the routing tables, in the text form of /proc/net/route (IPv4, with its
// heading line) and /proc/net/ipv6_route, hold a default route that is up, is not a
// reject route and does not lead to loopback. Lines that do not parse are skipped.
bool hasDefaultRoute(std::string_view ipv4Routes, std::string_view ipv6Routes);

// True for a host this machine answers itself: "localhost" and names under it, an IPv4
// address in 127.0.0.0/8, and ::1 (also written as an IPv4-mapped address).
bool isLoopbackHost(std::string_view host);

class NetworkReachabilityManager {
 public:
  // Told the new status on the main queue.
  using StatusChangeBlock = std::function<void(NetworkReachabilityStatus status)>;

  // A manager that does not monitor yet: Unknown.
  NetworkReachabilityManager();
  // Stops monitoring (joins the background thread). Reports still queued for the change
  // block are dropped.
  ~NetworkReachabilityManager();
  NetworkReachabilityManager(const NetworkReachabilityManager&) = delete;
  NetworkReachabilityManager& operator=(const NetworkReachabilityManager&) = delete;

  // Evaluates the status and starts following the kernel. Does nothing while monitoring.
  void startMonitoring();
  // Stops following the kernel and returns once the background thread has ended. The
  // status is Unknown again until the next startMonitoring(); reports not yet delivered
  // are dropped, and stopping reports nothing itself.
  void stopMonitoring();

  // The override when one is set; otherwise Unknown unless monitoring, else the current
  // status.
  NetworkReachabilityStatus networkReachabilityStatus() const;
  // Whether the status is one of the reachable ones.
  bool isReachable() const;

  // `block` (copied; empty: no reports) is called on the main queue with the new status
  // each time the status changes while monitoring, starting with the first evaluation
  // after startMonitoring(). Reports arrive in the order of the changes; a block set while
  // reports are queued receives them.
  void setReachabilityStatusChangeBlock(StatusChangeBlock block);

  // Makes every manager report `status` (absent: back to the kernel's view); monitoring
  // managers whose status changes by it report the change to their block. Tests use this
  // seam to simulate a network that goes down and comes back.
  static void setStatusOverrideForTesting(std::optional<NetworkReachabilityStatus> status);

 private:
  class State;     // the status and the change block; queued reports hold it weakly
  class Listener;  // the background thread and the kernel socket it listens on

  const std::shared_ptr<State> state_;
  std::mutex controlMutex_;             // serializes starting and stopping
  std::unique_ptr<Listener> listener_;  // guarded by controlMutex_; absent unless following the kernel
};

}  // namespace vkq::platform
