// DemoData: the fixed demo library — 52 entries in five themes plus a few without a theme — with a
// matching browser snapshot, used by the self-test and the demo mode of a sleep run. Immutable and
// safe to read from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/models.h>
#include <kestrova/safari_bridge.h>

namespace kestrova {

// One demo page.
struct DemoEntry {
  int window = 1;     // demo window number, 1 to 3
  std::string theme;  // theme key ("velo", "kochen", ...); "" for none
  std::string url;
  std::string title;  // "Site · Page title"
  std::string summary;
  std::vector<std::string> tags;
  std::string note;
  std::optional<int> reminderInDays;
  std::vector<std::string> projects;
  bool read = false;
};

namespace DemoData {

// The 52 entries, in a fixed order.
const std::vector<DemoEntry>& entries();

// The theme keys in their fixed order (five of them).
const std::vector<std::string>& themes();

// The page text of a demo address: the entry's title followed by ".", its summary and its theme's
// text, empty parts dropped, joined by one blank. "" for an address not in the table.
std::string text(std::string_view url);

// The browser snapshot of the demo: one window per demo window number, ascending, with the
// entries' addresses and titles in table order.
std::vector<SafariWindow> snapshot();

// Age in days of demo window 1, 2 and 3: 2, 9 and 16.
int windowAgeInDays(int window);

// A ready demo library as of `now`: the entries as saved tabs with their texts, summaries, tags,
// notes, reminders, project names and read dates, in three windows of the ages above.
LibraryData library(Date now);

}  // namespace DemoData
}  // namespace kestrova
