// Summaries for benchmark programs that run two clients interleaved and keep one value
// per repetition of each.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace benchmark_summary {

inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The ratios ours[n] / theirs[n] of repetitions that ran side by side, as
// "median (lowest-highest)": their spread shows how noisy the machine was.
inline std::string pairedRatios(const std::vector<double>& ours, const std::vector<double>& theirs) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(ours.size(), theirs.size()); ++i) {
    if (theirs[i] > 0) ratios.push_back(ours[i] / theirs[i]);
  }
  if (ratios.empty()) return "-";
  const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
  char text[64];
  std::snprintf(text, sizeof text, "%.3f (%.3f-%.3f)", median(ratios), *lowest, *highest);
  return text;
}

}  // namespace benchmark_summary
