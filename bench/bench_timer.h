// Small helpers for the timed benchmark programs: wall-clock medians and a fixed table format.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

namespace kestrova::bench {

// Runs `work` `runs` times and returns the median wall time in milliseconds.
inline double medianMs(int runs, const std::function<void()>& work) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const auto end = std::chrono::steady_clock::now();
    times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

}  // namespace kestrova::bench
