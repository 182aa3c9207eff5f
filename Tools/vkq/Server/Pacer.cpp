#include "Tools/vkq/Server/Pacer.h"

#include <algorithm>

namespace vkq::tool {

void StopSignal::trigger() {
  {
    std::lock_guard lock(mutex_);
    triggered_ = true;
  }
  changed_.notify_all();
}

bool StopSignal::triggered() const {
  std::lock_guard lock(mutex_);
  return triggered_;
}

void StopSignal::wait() const {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return triggered_; });
}

bool StopSignal::sleepUntil(std::chrono::steady_clock::time_point deadline) const {
  std::unique_lock lock(mutex_);
  return !changed_.wait_until(lock, deadline, [this] { return triggered_; });
}

Pacer::Pacer(std::optional<std::uint64_t> bytesPerSecond)
    : bytesPerSecond_(bytesPerSecond), start_(std::chrono::steady_clock::now()) {}

std::size_t Pacer::chunkSize() const {
  constexpr std::uint64_t kMaxChunk = 64 * 1024;
  if (!bytesPerSecond_) return kMaxChunk;
  return static_cast<std::size_t>(std::clamp<std::uint64_t>(*bytesPerSecond_ / 20, 1, kMaxChunk));
}

bool Pacer::sent(std::size_t bytes, const StopSignal& stop) {
  total_ += bytes;
  if (!bytesPerSecond_) return !stop.triggered();
  const auto due = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                std::chrono::duration<double>(static_cast<double>(total_) /
                                                              static_cast<double>(*bytesPerSecond_)));
  return stop.sleepUntil(due);
}

}  // namespace vkq::tool
