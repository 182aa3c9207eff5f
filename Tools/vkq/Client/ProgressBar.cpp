#include "Tools/vkq/Client/ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <array>

namespace vkq::tool {

std::string formatBytes(double bytes) {
  static constexpr std::array<const char*, 4> kUnits{"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(static_cast<std::int64_t>(bytes)) + " B";
  std::size_t unit = 0;
  bytes /= 1024;
  while (bytes >= 1024 && unit + 1 < kUnits.size()) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string renderProgressLine(std::int64_t completed, std::int64_t total, double bytesPerSecond, int barWidth) {
  std::string line;
  if (total > 0) {
    const double fraction = std::clamp(static_cast<double>(completed) / static_cast<double>(total), 0.0, 1.0);
    const int filled = static_cast<int>(fraction * barWidth);
    line += '[';
    line.append(static_cast<std::size_t>(filled), '#');
    line.append(static_cast<std::size_t>(barWidth - filled), '.');
    line += "] ";
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100));
    line += percent;
    line += "  ";
    line += formatBytes(static_cast<double>(completed));
    line += " / ";
    line += formatBytes(static_cast<double>(total));
  } else {
    line += formatBytes(static_cast<double>(completed));
  }
  line += "  ";
  line += formatBytes(bytesPerSecond);
  line += "/s";
  return line;
}

ProgressBar::ProgressBar(std::FILE* stream) : stream_(stream), enabled_(isatty(fileno(stream)) != 0) {}

void ProgressBar::update(const vkq::platform::Progress& progress) {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  if (!latest_) {
    firstTime_ = now;
    firstBytes_ = progress.completedUnitCount;
  }
  latest_ = progress;
  const bool complete = progress.totalUnitCount > 0 && progress.completedUnitCount >= progress.totalUnitCount;
  if (complete || !drawn_ || now - lastDraw_ >= std::chrono::milliseconds(100)) draw(now);
}

void ProgressBar::finish() {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  if (!latest_) return;
  draw(Clock::now());
  std::fputc('\n', stream_);
  std::fflush(stream_);
  latest_.reset();
}

void ProgressBar::draw(Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - firstTime_).count();
  const double rate = seconds > 0 ? static_cast<double>(latest_->completedUnitCount - firstBytes_) / seconds : 0;
  const std::string line =
      renderProgressLine(latest_->completedUnitCount, latest_->totalUnitCount, std::max(rate, 0.0), 30);
  // "\r" returns to the line's start, "\x1b[K" clears what a longer line left.
  std::fprintf(stream_, "\r%s\x1b[K", line.c_str());
  std::fflush(stream_);
  lastDraw_ = now;
  drawn_ = true;
}

}  // namespace vkq::tool
