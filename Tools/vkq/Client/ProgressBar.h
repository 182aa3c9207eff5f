// ProgressBar: a one-line download progress display (bar, percentage, bytes, rate) on
// a terminal stream, redrawn in place.
//
//   [##########............]  45%  3.6 MiB / 8.0 MiB  1.2 MiB/s
//
// Draws only when the stream is a terminal, so redirected output stays clean.
// update() may be called from any thread (the transport's); redraws are throttled.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Base/Progress.h"

namespace vkq::tool {

// "512 B", "3.6 KiB", "1.2 MiB", "2.0 GiB".
std::string formatBytes(double bytes);

// The line for `completed` of `total` bytes (total < 0: unknown) at `bytesPerSecond`,
// with a bar of `barWidth` cells when the total is known.
std::string renderProgressLine(std::int64_t completed, std::int64_t total, double bytesPerSecond, int barWidth);

class ProgressBar {
 public:
  explicit ProgressBar(std::FILE* stream);

  bool enabled() const { return enabled_; }
  // Records the progress; redraws at most every 100 ms and when the total is reached.
  void update(const vkq::platform::Progress& progress);
  // Draws the last state and ends the line. Safe to call when nothing was drawn.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void draw(Clock::time_point now);  // REQUIRES: mutex_ held

  std::FILE* stream_;
  bool enabled_;
  std::mutex mutex_;
  // All guarded by mutex_.
  std::optional<vkq::platform::Progress> latest_;
  Clock::time_point firstTime_;
  std::int64_t firstBytes_ = 0;  // bytes at the first update: a resumed download starts high
  Clock::time_point lastDraw_;
  bool drawn_ = false;
};

}  // namespace vkq::tool
