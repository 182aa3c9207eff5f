#include "Platform/NetworkReachabilityManager.h"

#include <array>
#include <map>
#include <string_view>

#include <ifaddrs.h>
#include <net/if.h>

namespace vkq::platform {
namespace {

// How long a reading of the interfaces is trusted.
constexpr std::chrono::seconds kCacheLifetime{1};

std::mutex overrideMutex;
std::optional<NetworkReachabilityStatus> statusOverride;  // guarded by overrideMutex

bool isCellular(std::string_view name) {
  constexpr std::array<std::string_view, 3> prefixes{"wwan", "rmnet", "ccmni"};
  for (const auto prefix : prefixes) {
    if (name.starts_with(prefix)) return true;
  }
  return false;
}

// The kernel's interfaces, one entry per name (getifaddrs lists one per address).
std::vector<NetworkInterface> currentInterfaces() {
  std::vector<NetworkInterface> interfaces;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return interfaces;
  std::map<std::string, NetworkInterface> byName;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    NetworkInterface& interface = byName[entry->ifa_name];
    interface.name = entry->ifa_name;
    interface.up = interface.up || ((entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0);
    interface.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
  }
  freeifaddrs(list);
  for (auto& [name, interface] : byName) interfaces.push_back(std::move(interface));
  return interfaces;
}

}  // namespace

NetworkReachabilityStatus reachabilityStatusForInterfaces(const std::vector<NetworkInterface>& interfaces) {
  bool anyUp = false;
  bool cellularUp = false;
  for (const NetworkInterface& interface : interfaces) {
    if (!interface.up) continue;
    anyUp = true;
    if (interface.loopback) continue;
    if (!isCellular(interface.name)) return NetworkReachabilityStatus::ReachableViaWiFi;
    cellularUp = true;
  }
  if (cellularUp) return NetworkReachabilityStatus::ReachableViaWWAN;
  // Only loopback: local traffic still flows, so the network is not reported down.
  return anyUp ? NetworkReachabilityStatus::ReachableViaWiFi : NetworkReachabilityStatus::NotReachable;
}

void NetworkReachabilityManager::startMonitoring() {
  std::lock_guard lock(mutex_);
  monitoring_ = true;
}

void NetworkReachabilityManager::stopMonitoring() {
  std::lock_guard lock(mutex_);
  monitoring_ = false;
  cachedStatus_.reset();
}

NetworkReachabilityStatus NetworkReachabilityManager::networkReachabilityStatus() const {
  {
    std::lock_guard lock(overrideMutex);
    if (statusOverride) return *statusOverride;
  }
  std::lock_guard lock(mutex_);
  if (!monitoring_) return NetworkReachabilityStatus::Unknown;
  const auto now = std::chrono::steady_clock::now();
  if (!cachedStatus_ || now - cachedAt_ >= kCacheLifetime) {
    cachedStatus_ = reachabilityStatusForInterfaces(currentInterfaces());
    cachedAt_ = now;
  }
  return *cachedStatus_;
}

bool NetworkReachabilityManager::isReachable() const {
  const auto status = networkReachabilityStatus();
  return status == NetworkReachabilityStatus::ReachableViaWWAN || status == NetworkReachabilityStatus::ReachableViaWiFi;
}

void NetworkReachabilityManager::setStatusOverrideForTesting(std::optional<NetworkReachabilityStatus> status) {
  std::lock_guard lock(overrideMutex);
  statusOverride = status;
}

}  // namespace vkq::platform
