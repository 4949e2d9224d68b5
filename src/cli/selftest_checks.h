// The self-test's groups of checks. Each works only inside `folder` (a fresh temporary folder) and
// reports every check to `report` as it finishes.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include <kestrova/embedder.h>
#include <kestrova/models.h>

#include "selftest_report.h"

namespace kestrova::cli {

struct SelftestContext {
  std::filesystem::path folder;
  std::shared_ptr<Embedder> embedder;
  LibraryData demo;  // the demo library, made once per run
};

// The demo theme key of a tab ("" for pages without a theme or unknown addresses).
std::string demoTheme(const SavedTab& tab);

void checkLibrary(Report& report, SelftestContext& context);
void checkText(Report& report, SelftestContext& context);
void checkTopics(Report& report, SelftestContext& context);
void checkSearchAndChat(Report& report, SelftestContext& context);
void checkContext(Report& report, SelftestContext& context);
void checkMcp(Report& report, SelftestContext& context);
void checkSleep(Report& report, SelftestContext& context);

}  // namespace kestrova::cli
