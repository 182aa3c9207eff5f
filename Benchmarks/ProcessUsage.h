// What the benchmark process itself uses, read from the kernel.
#pragma once

#include <fstream>
#include <string>

namespace vkq::bench {

// Resident set size in KiB (0 when /proc cannot tell).
inline long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

}  // namespace vkq::bench
