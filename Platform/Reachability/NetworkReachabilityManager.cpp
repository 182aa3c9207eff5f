#include "Platform/Reachability/NetworkReachabilityManager.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <string_view>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Base/Error.h"
#include "Platform/Base/Log.h"
#include "Platform/Base/MainQueue.h"

namespace vkq::platform {
namespace {

using Status = NetworkReachabilityStatus;

// How long a reading of the interfaces is trusted when the kernel's notices are not heard.
constexpr std::chrono::seconds kOnDemandLifetime{1};

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
  try {
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      NetworkInterface& interface = byName[entry->ifa_name];
      interface.name = entry->ifa_name;
      interface.up = interface.up || ((entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0);
      interface.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
    }
  } catch (...) {
    freeifaddrs(list);
    throw;
  }
  freeifaddrs(list);
  for (auto& [name, interface] : byName) interfaces.push_back(std::move(interface));
  return interfaces;
}

// The whole file, or nothing when it cannot be read (procfs files report no size).
std::string readText(const char* path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

Status kernelStatus() {
  return reachabilityStatusForInterfaces(currentInterfaces(),
                                         hasDefaultRoute(readText("/proc/net/route"), readText("/proc/net/ipv6_route")));
}

// The blank-separated fields of one line.
std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  for (std::size_t start = 0;;) {
    start = line.find_first_not_of(" \t", start);
    if (start == std::string_view::npos) return fields;
    const std::size_t end = std::min(line.find_first_of(" \t", start), line.size());
    fields.push_back(line.substr(start, end - start));
    start = end;
  }
}

// Route flags written in hexadecimal; absent when the field is not.
std::optional<unsigned> hexFlags(std::string_view field) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value, 16);
  if (error != std::errc() || end != field.data() + field.size()) return std::nullopt;
  return value;
}

bool usableDefaultRoute(std::string_view device, std::string_view flagsField) {
  const auto flags = hexFlags(flagsField);
  return flags && (*flags & RTF_UP) != 0 && (*flags & RTF_REJECT) == 0 && device != "lo";
}

// Calls `line` for each line of `text` until it returns true.
template <typename Predicate>
bool anyLine(std::string_view text, Predicate line) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (line(fieldsOf(text.substr(0, end)))) return true;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return false;
}

// A file descriptor closed when its owner goes.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace

// ---- State ----

// The status of one manager and its change block. Reports queued on the main queue hold
// it weakly, so they do nothing once the manager is gone.
//
// Lock order: mutex_, then the override's mutex. No user code runs under mutex_: a report
// is computed under it and posted after it is released, and reports posted out of order
// are recognised by their sequence number.
class NetworkReachabilityManager::State : public std::enable_shared_from_this<State> {
 public:
  // Monitoring begins with a first reading. `onDemand`: the kernel's notices are not heard,
  // so readings expire.
  void begin(bool onDemand);
  // Monitoring ends: Unknown again, queued reports dropped.
  void end();
  bool monitoring() const;

  // The listener heard of a change.
  void refreshFromKernel();
  // The listener stopped hearing the kernel: readings expire from now on.
  void fallBackToOnDemand();
  // The override every manager shows (absent: none), and the change of it.
  static std::optional<Status> currentOverride();
  static void setOverride(std::optional<Status> status);

  Status current();
  void setChangeBlock(StatusChangeBlock block);

 private:
  struct Report {
    Status status;
    std::uint64_t sequence;
  };

  // Records `kernel` (when given) and returns the report to post if the status monitoring
  // shows has changed. Requires mutex_.
  std::optional<Report> updateLocked(std::optional<Status> kernel);
  // The override, else the last reading while monitoring, else Unknown. Requires mutex_.
  Status shownLocked() const;
  void overrideChanged();
  void post(std::optional<Report> report);
  void deliver(Report report);

  mutable std::mutex mutex_;
  bool monitoring_ = false;                       // guarded by mutex_
  bool onDemand_ = false;                         // guarded by mutex_
  std::optional<Status> kernel_;                  // guarded by mutex_; the last reading
  std::chrono::steady_clock::time_point readAt_;  // guarded by mutex_
  std::optional<Status> reported_;                // guarded by mutex_; the last status posted
  std::uint64_t postedSequence_ = 0;              // guarded by mutex_
  std::uint64_t deliveredSequence_ = 0;           // guarded by mutex_
  StatusChangeBlock block_;                       // guarded by mutex_

  // The process-wide override and the monitoring managers it concerns.
  struct Override {
    std::mutex mutex;
    std::optional<Status> status;               // guarded by mutex
    std::vector<std::weak_ptr<State>> watchers;  // guarded by mutex
  };
  static Override& override_();
};

NetworkReachabilityManager::State::Override& NetworkReachabilityManager::State::override_() {
  static Override* const instance = new Override;  // lives as long as any manager may
  return *instance;
}

std::optional<Status> NetworkReachabilityManager::State::currentOverride() {
  std::lock_guard lock(override_().mutex);
  return override_().status;
}

void NetworkReachabilityManager::State::setOverride(std::optional<Status> status) {
  std::vector<std::shared_ptr<State>> watchers;
  {
    std::lock_guard lock(override_().mutex);
    override_().status = status;
    for (const auto& watcher : override_().watchers) {
      if (auto state = watcher.lock()) watchers.push_back(std::move(state));
    }
  }
  for (const auto& state : watchers) state->overrideChanged();
}

void NetworkReachabilityManager::State::begin(bool onDemand) {
  const Status reading = kernelStatus();
  {
    std::lock_guard lock(override_().mutex);
    override_().watchers.push_back(weak_from_this());
  }
  std::optional<Report> report;
  {
    std::lock_guard lock(mutex_);
    monitoring_ = true;
    onDemand_ = onDemand;
    report = updateLocked(reading);
  }
  post(report);
}

void NetworkReachabilityManager::State::end() {
  {
    std::lock_guard lock(override_().mutex);
    const std::weak_ptr<State> self = weak_from_this();
    std::erase_if(override_().watchers, [&self](const std::weak_ptr<State>& watcher) {
      const bool same = !watcher.owner_before(self) && !self.owner_before(watcher);
      return same || watcher.expired();
    });
  }
  std::lock_guard lock(mutex_);
  monitoring_ = false;
  kernel_.reset();
  reported_.reset();
  deliveredSequence_ = postedSequence_;  // what is still queued is stale
}

bool NetworkReachabilityManager::State::monitoring() const {
  std::lock_guard lock(mutex_);
  return monitoring_;
}

void NetworkReachabilityManager::State::refreshFromKernel() {
  const Status reading = kernelStatus();  // outside the lock: readers need not wait for it
  std::optional<Report> report;
  {
    std::lock_guard lock(mutex_);
    report = updateLocked(reading);
  }
  post(report);
}

void NetworkReachabilityManager::State::fallBackToOnDemand() {
  std::lock_guard lock(mutex_);
  onDemand_ = true;
  readAt_ = {};  // the next question reads the interfaces again
}

void NetworkReachabilityManager::State::overrideChanged() {
  std::optional<Report> report;
  {
    std::lock_guard lock(mutex_);
    report = updateLocked(std::nullopt);
  }
  post(report);
}

NetworkReachabilityStatus NetworkReachabilityManager::State::current() {
  std::optional<Report> report;
  Status status;
  {
    std::lock_guard lock(mutex_);
    if (monitoring_ && onDemand_ && std::chrono::steady_clock::now() - readAt_ >= kOnDemandLifetime) {
      report = updateLocked(kernelStatus());
    }
    status = shownLocked();
  }
  post(report);
  return status;
}

void NetworkReachabilityManager::State::setChangeBlock(StatusChangeBlock block) {
  std::lock_guard lock(mutex_);
  block_ = std::move(block);
}

std::optional<NetworkReachabilityManager::State::Report> NetworkReachabilityManager::State::updateLocked(
    std::optional<Status> kernel) {
  if (kernel) {
    kernel_ = kernel;
    readAt_ = std::chrono::steady_clock::now();
  }
  if (!monitoring_) return std::nullopt;
  const Status shown = shownLocked();
  if (reported_ == shown) return std::nullopt;
  reported_ = shown;
  return Report{shown, ++postedSequence_};
}

NetworkReachabilityStatus NetworkReachabilityManager::State::shownLocked() const {
  if (const auto forced = currentOverride()) return *forced;
  return monitoring_ ? kernel_.value_or(Status::Unknown) : Status::Unknown;
}

void NetworkReachabilityManager::State::post(std::optional<Report> report) {
  if (!report) return;
  MainQueue::async([weak = weak_from_this(), report = *report] {
    if (const auto state = weak.lock()) state->deliver(report);
  });
}

void NetworkReachabilityManager::State::deliver(Report report) {
  StatusChangeBlock block;
  {
    std::lock_guard lock(mutex_);
    // An older report overtaken by a newer one (posted from another thread) is stale.
    if (!monitoring_ || report.sequence <= deliveredSequence_) return;
    deliveredSequence_ = report.sequence;
    block = block_;
  }
  if (block) block(report.status);
}

// ---- Listener ----

// Listens on a NETLINK_ROUTE socket for the kernel's notices about links, addresses and
// routes, on a thread of its own; an eventfd polled together with the socket wakes it to
// stop. Notices are not parsed: any batch of them means "read the interfaces again".
class NetworkReachabilityManager::Listener {
 public:
  using ChangeHandler = std::function<void()>;
  using LossHandler = std::function<void(const ErrorPtr& error)>;

  // The listener with its socket bound, or null with the error when the kernel refuses.
  static std::unique_ptr<Listener> open(ErrorPtr* error);

  // Wakes the thread and joins it.
  ~Listener();

  // Starts the thread: `onChange` after each batch of notices, `onLost` once if the
  // listener has to give up. Neither is called once the listener is destroyed.
  void start(ChangeHandler onChange, LossHandler onLost);

 private:
  enum class Drained { kNothing, kChanged, kFailed };

  Listener(Descriptor socket, Descriptor wake) : socket_(std::move(socket)), wake_(std::move(wake)) {}
  void run() noexcept;
  // Returns when woken (null) or when the socket fails (its error).
  ErrorPtr listen();
  Drained drain();

  const Descriptor socket_;
  const Descriptor wake_;
  ChangeHandler onChange_;
  LossHandler onLost_;
  std::thread thread_;
};

std::unique_ptr<NetworkReachabilityManager::Listener> NetworkReachabilityManager::Listener::open(
    ErrorPtr* error) {
  Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (!socket.valid()) {
    setError(error, makePOSIXError("socket", errno));
    return nullptr;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    setError(error, makePOSIXError("bind", errno));
    return nullptr;
  }
  Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake.valid()) {
    setError(error, makePOSIXError("eventfd", errno));
    return nullptr;
  }
  return std::unique_ptr<Listener>(new Listener(std::move(socket), std::move(wake)));
}

NetworkReachabilityManager::Listener::~Listener() {
  if (!thread_.joinable()) return;
  const std::uint64_t one = 1;
  // An eventfd write only fails when the counter would overflow, which cannot happen here.
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
  thread_.join();
}

void NetworkReachabilityManager::Listener::start(ChangeHandler onChange, LossHandler onLost) {
  onChange_ = std::move(onChange);
  onLost_ = std::move(onLost);
  thread_ = std::thread([this] { run(); });
}

void NetworkReachabilityManager::Listener::run() noexcept {
  pthread_setname_np(pthread_self(), "vkq.reach");
  ErrorPtr error;
  try {
    error = listen();
  } catch (...) {
    // Only allocation can throw here: the thread gives up as after a socket failure.
    error = makePOSIXError("listen", ENOMEM);
  }
  if (!error) return;
  try {
    onLost_(error);
  } catch (...) {
    // Nothing is left to tell: the thread ends either way.
  }
}

ErrorPtr NetworkReachabilityManager::Listener::listen() {
  for (;;) {
    std::array<pollfd, 2> fds{{{socket_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}}};
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return makePOSIXError("poll", errno);
    }
    if (fds[1].revents != 0) return nullptr;
    if (fds[0].revents == 0) continue;
    switch (drain()) {
      case Drained::kNothing:
        break;
      case Drained::kChanged:
        onChange_();
        break;
      case Drained::kFailed:
        return makePOSIXError("recv", errno);
    }
  }
}

NetworkReachabilityManager::Listener::Drained NetworkReachabilityManager::Listener::drain() {
  std::array<char, 8192> buffer;
  bool changed = false;
  for (;;) {
    sockaddr_nl sender{};
    socklen_t senderLength = sizeof sender;
    const ssize_t got = ::recvfrom(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&sender), &senderLength);
    if (got >= 0) {
      changed = changed || sender.nl_pid == 0;  // only the kernel speaks for the interfaces
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return changed ? Drained::kChanged : Drained::kNothing;
    if (errno == ENOBUFS) {
      changed = true;  // notices were lost to an overrun: read the interfaces anyway
      continue;
    }
    return Drained::kFailed;
  }
}

// ---- Manager ----

bool hasDefaultRoute(std::string_view ipv4Routes, std::string_view ipv6Routes) {
  // Iface Destination Gateway Flags RefCnt Use Metric Mask ...: destination and mask 0.
  const bool ipv4 = anyLine(ipv4Routes, [](const std::vector<std::string_view>& field) {
    return field.size() >= 8 && field[1] == "00000000" && field[7] == "00000000" &&
           usableDefaultRoute(field[0], field[3]);
  });
  // Destination, prefix length, source, source prefix length, next hop, metric, reference
  // count, use, flags, device: ::/0.
  return ipv4 || anyLine(ipv6Routes, [](const std::vector<std::string_view>& field) {
           return field.size() >= 10 && field[0] == std::string_view("00000000000000000000000000000000") &&
                  field[1] == "00" && usableDefaultRoute(field[9], field[8]);
         });
}

bool isLoopbackHost(std::string_view host) {
  if (host.ends_with('.')) host.remove_suffix(1);  // a fully qualified name
  std::string name(host);
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
  if (name == "localhost" || name.ends_with(".localhost")) return true;
  in_addr ipv4{};
  if (::inet_pton(AF_INET, name.c_str(), &ipv4) == 1) return (ntohl(ipv4.s_addr) >> 24) == 127;
  in6_addr ipv6{};
  if (::inet_pton(AF_INET6, name.c_str(), &ipv6) != 1) return false;
  return IN6_IS_ADDR_LOOPBACK(&ipv6) || (IN6_IS_ADDR_V4MAPPED(&ipv6) && ipv6.s6_addr[12] == 127);
}

NetworkReachabilityStatus reachabilityStatusForInterfaces(const std::vector<NetworkInterface>& interfaces,
                                                          bool defaultRoute) {
  bool cellularUp = false;
  for (const NetworkInterface& interface : interfaces) {
    if (!interface.up || interface.loopback) continue;
    if (!isCellular(interface.name)) return Status::ReachableViaWiFi;
    cellularUp = true;
  }
  if (cellularUp) return Status::ReachableViaWWAN;
  // Nothing but loopback: other hosts are out of reach unless a route leads to them.
  return defaultRoute ? Status::ReachableViaWiFi : Status::NotReachable;
}

NetworkReachabilityManager::NetworkReachabilityManager() : state_(std::make_shared<State>()) {}

NetworkReachabilityManager::~NetworkReachabilityManager() { stopMonitoring(); }

void NetworkReachabilityManager::startMonitoring() {
  std::lock_guard control(controlMutex_);
  if (state_->monitoring()) return;
  ErrorPtr failure;
  listener_ = Listener::open(&failure);
  if (!listener_) {
    DDDebug("network reachability: kernel notices unavailable, status re-read on demand:",
            failure->localizedDescription());
  }
  // The socket is bound before the first reading, so no change after it goes unheard.
  state_->begin(listener_ == nullptr);
  if (listener_) {
    State* const state = state_.get();  // outlives the listener, which stopMonitoring() joins first
    listener_->start([state] { state->refreshFromKernel(); },
                     [state](const ErrorPtr& error) {
                       state->fallBackToOnDemand();
                       DDDebug("network reachability: kernel notices lost, status re-read on demand:",
                               error->localizedDescription());
                     });
  }
}

void NetworkReachabilityManager::stopMonitoring() {
  std::lock_guard control(controlMutex_);
  listener_.reset();
  state_->end();
}

NetworkReachabilityStatus NetworkReachabilityManager::networkReachabilityStatus() const { return state_->current(); }

bool NetworkReachabilityManager::isReachable() const {
  const auto status = networkReachabilityStatus();
  return status == Status::ReachableViaWWAN || status == Status::ReachableViaWiFi;
}

void NetworkReachabilityManager::setReachabilityStatusChangeBlock(StatusChangeBlock block) {
  state_->setChangeBlock(std::move(block));
}

void NetworkReachabilityManager::setStatusOverrideForTesting(std::optional<NetworkReachabilityStatus> status) {
  State::setOverride(status);
}

}  // namespace vkq::platform
