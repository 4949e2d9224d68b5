#include <iostream>
#include <ostream>

#include <unistd.h>

#include <kestrova/sleep_pipeline.h>

#include "app_options.h"
#include "progress_view.h"

namespace kestrova::app {
namespace {

// A browser whose tabs the user wants left open: everything passes through but closing.
class LeaveOpen final : public Browser {
 public:
  explicit LeaveOpen(Browser& inner) : inner_(inner) {}
  std::string name() const override { return inner_.name(); }
  std::vector<SafariWindow> snapshotWindows() override { return inner_.snapshotWindows(); }
  bool canCloseTabs() const override { return false; }
  std::int64_t closeAllTabs(const std::vector<SafariWindow>&, bool,
                            const std::vector<std::string>&) override {
    return 0;
  }
  void reopen(const std::vector<std::string>& urls, bool newWindow) override {
    inner_.reopen(urls, newWindow);
  }

 private:
  Browser& inner_;
};

}  // namespace

int runSleepCommand(const SleepCommand& command, std::ostream& out, std::ostream& err, Env& env) {
  std::unique_ptr<Browser> browser;
  try {
    browser = makeBrowser(command.choice, env);
  } catch (const BrowserError& error) {
    err << error.what() << "\n";
    return 1;
  }
  std::unique_ptr<LeaveOpen> leaveOpen;
  Browser* used = browser.get();
  if (browser && command.noClose) {
    leaveOpen = std::make_unique<LeaveOpen>(*browser);
    used = leaveOpen.get();
  }

  Library library(storeAt(command.library, env));
  const SleepPipeline pipeline(std::make_shared<Embedder>(true, env), env);
  SleepOptions options;
  options.groupByWindow = !command.oneWindow;
  options.sortByTopic = !command.noTopics;
  options.saveContent = !command.noContent;
  options.keepPinned = command.keepPinned;
  options.pinnedDomains = command.pinned;

  ProgressView view(out, &out == &std::cout && ::isatty(STDOUT_FILENO) == 1,
                    browser ? browser->name() : "den Demo-Daten");
  const SleepStage end = runSleep(pipeline, used, library, options,
                                  [&](const SleepStage& stage) { view.show(stage); });
  view.finish();
  if (end.kind() != SleepStage::Kind::done) {
    err << end.label() << "\n";
    return 1;
  }
  out << end.label() << ".";
  if (browser && !browser->canCloseTabs()) {
    out << " " << browser->name()
        << " lässt sich nicht von aussen steuern: Die Tabs bleiben offen.";
  } else if (browser && command.noClose) {
    out << " Die Tabs bleiben offen.";
  }
  out << "\n"
      << "Bibliothek: " << library.store().fileURL().string() << "\n";
  return 0;
}

}  // namespace kestrova::app
