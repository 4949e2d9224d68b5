// Small helpers for the timed benchmark programs: wall-clock medians, percentiles and the one
// line format in which every program reports its figures to bench/run.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova::bench {

// The value at fraction `p` (0…1) of the sorted values, nearest rank; 0 for no values.
inline double percentile(std::vector<double> values, double p) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(rank, values.size() - 1)];
}

inline double median(std::vector<double> values) {
  return percentile(std::move(values), 0.5);
}

// The tab counts named on the command line, or `defaults` when none are named.
inline std::vector<std::size_t> sizesFromArguments(int argc, char** argv,
                                                   std::vector<std::size_t> defaults) {
  std::vector<std::size_t> sizes;
  for (int i = 1; i < argc; ++i) {
    sizes.push_back(static_cast<std::size_t>(std::strtoull(argv[i], nullptr, 10)));
  }
  return sizes.empty() ? defaults : sizes;
}

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

// printf into a std::string.
template <typename... Args>
std::string format(const char* pattern, Args... args) {
  const int size = std::snprintf(nullptr, 0, pattern, args...);
  std::string out(static_cast<std::size_t>(std::max(size, 0)), '\0');
  std::snprintf(out.data(), out.size() + 1, pattern, args...);
  return out;
}

// One figure of the collected table. `value` and `floor` are texts with their unit ("412.3 ms",
// "95.0 MB/s"); `floor` and `ratio` stay empty for figures without a floor, `target` and `met`
// for figures without a target.
struct Figure {
  Figure(std::string name_, std::string size_, std::string value_, std::string floor_ = "",
         std::string ratio_ = "", std::string target_ = "", std::string met_ = "")
      : name(std::move(name_)),
        size(std::move(size_)),
        value(std::move(value_)),
        floor(std::move(floor_)),
        ratio(std::move(ratio_)),
        target(std::move(target_)),
        met(std::move(met_)) {}

  std::string name;
  std::string size;
  std::string value;
  std::string floor;
  std::string ratio;
  std::string target;
  std::string met;
};

// Prints `figure` as one tab-separated line starting with "FIGURE", which bench/run collects
// from the programs' output; only when KESTROVA_BENCH_FIGURES is set, so that a program run by
// hand prints its own readable table alone.
inline void report(const Figure& figure) {
  if (std::getenv("KESTROVA_BENCH_FIGURES") == nullptr) {
    return;
  }
  std::printf("FIGURE\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n", figure.name.c_str(), figure.size.c_str(),
              figure.value.c_str(), figure.floor.c_str(), figure.ratio.c_str(),
              figure.target.c_str(), figure.met.c_str());
  std::fflush(stdout);
}

inline std::string ratioText(double value, double floor) {
  return floor > 0 ? format("%.2fx", value / floor) : std::string("-");
}

inline std::string metText(bool met) {
  return met ? "met" : "MISSED";
}

// A memory line ("VmHWM:", "VmRSS:") of process `pid` in bytes, from /proc; 0 when unknown.
inline double statusBytes(int pid, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(key, 0) == 0) {
      return std::strtod(line.c_str() + key.size(), nullptr) * 1024.0;
    }
  }
  return 0;
}

// Peak resident memory (VmHWM) of process `pid` in bytes; 0 when unknown.
inline double peakResidentBytes(int pid) {
  return statusBytes(pid, "VmHWM:");
}

// Resident memory now (VmRSS) of process `pid` in bytes; 0 when unknown.
inline double residentBytes(int pid) {
  return statusBytes(pid, "VmRSS:");
}

}  // namespace kestrova::bench
