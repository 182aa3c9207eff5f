// Pacer: spreads a file's bytes over time so that an answer does not exceed a rate,
// and a StopSignal that cuts every wait short when the server stops.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace vkq::tool {

// Set once, seen by every waiter at once. Thread-safe.
class StopSignal {
 public:
  void trigger();
  bool triggered() const;
  // Waits until the signal fires.
  void wait() const;
  // Waits until `deadline`; false when the signal fired first (or had fired).
  bool sleepUntil(std::chrono::steady_clock::time_point deadline) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool triggered_ = false;  // guarded by mutex_
};

// One per answer; not thread-safe.
class Pacer {
 public:
  // Absent: no limit.
  explicit Pacer(std::optional<std::uint64_t> bytesPerSecond);

  // How many bytes to send next: up to 64 KiB, and about a twentieth of a second's
  // worth under a limit, so that the pace stays even.
  std::size_t chunkSize() const;
  // Records `bytes` as sent and waits until the total is due under the limit. False
  // when `stop` fired meanwhile.
  bool sent(std::size_t bytes, const StopSignal& stop);

 private:
  std::optional<std::uint64_t> bytesPerSecond_;
  std::chrono::steady_clock::time_point start_;
  std::uint64_t total_ = 0;
};

}  // namespace vkq::tool
