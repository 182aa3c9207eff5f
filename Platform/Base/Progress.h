// Progress of a transfer, as handed to progress callbacks.
#pragma once

#include <cstdint>
#include <functional>

namespace vkq::platform {

struct Progress {
  // Bytes transferred so far.
  std::int64_t completedUnitCount = 0;
  // -1 while the total is unknown.
  std::int64_t totalUnitCount = -1;

  // completedUnitCount / totalUnitCount, 0 while the total is unknown or 0.
  double fractionCompleted() const {
    return totalUnitCount > 0 ? static_cast<double>(completedUnitCount) / static_cast<double>(totalUnitCount) : 0.0;
  }
  bool operator==(const Progress&) const = default;
};

// Called with a transfer's progress, on the transport's threads.
using ProgressBlock = std::function<void(const Progress& progress)>;

}  // namespace vkq::platform
