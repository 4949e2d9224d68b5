// Report: collects the self-test's checks and prints each on its own line as it finishes.
#pragma once

#include <cstdio>
#include <string>

namespace kestrova::cli {

class Report {
 public:
  // Prints "  ✓ name" or "  ✗ name" with, on failure, what was expected and what came.
  void check(const std::string& name, bool passed, const std::string& expected = "",
             const std::string& actual = "") {
    if (passed) {
      ++passed_;
      std::printf("  \u2713 %s\n", name.c_str());
    } else {
      ++failed_;
      std::printf("  \u2717 %s\n", name.c_str());
      if (!expected.empty() || !actual.empty()) {
        std::printf("      erwartet: %s\n      erhalten: %s\n", expected.c_str(), actual.c_str());
      }
    }
    std::fflush(stdout);
  }

  // A section heading.
  void section(const std::string& title) {
    std::printf("%s\n", title.c_str());
    std::fflush(stdout);
  }

  int passed() const { return passed_; }
  int failed() const { return failed_; }

 private:
  int passed_ = 0;
  int failed_ = 0;
};

}  // namespace kestrova::cli
