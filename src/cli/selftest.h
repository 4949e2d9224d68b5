// The self-test: runs every part of the core against the demo data in a fresh temporary folder
// (named "kestrova-selftest-…", removed afterwards) and reports each check on its own line.
#pragma once

namespace kestrova::cli {

struct SelftestOptions {
  bool noAI = false;  // switch the language model off for the run
};

// Prints the report to standard output and returns the process exit status: 0 when every check
// passed, 1 otherwise.
int runSelftest(const SelftestOptions& options);

}  // namespace kestrova::cli
