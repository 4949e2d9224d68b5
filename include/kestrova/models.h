// The records of the tab library. The whole state of Kestrova is one LibraryData document made
// of these plain values; every part of the system reads or changes them. All are regular value
// types with equality over every stored field; none does any locking.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/uuid.h>

namespace kestrova {

// A point in time, counted in microseconds since 1970 (UTC). Sixty-four bits of microseconds span
// far more than the years 1 to 9999 a library may hold, and keep the sub-second file times that
// tell a process's own write from another's. The library document keeps whole seconds.
using Date = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

// The first and the last second a library document can hold: 0001-01-01T00:00:00Z and
// 9999-12-31T23:59:59Z. A date outside them is an invalid date.
inline constexpr Date kFirstDate{std::chrono::sys_days{std::chrono::year{1} / 1 / 1}};
inline constexpr Date kLastDate{std::chrono::sys_days{std::chrono::year{9999} / 12 / 31} +
                                std::chrono::seconds(86399)};

// The current time.
inline Date now() {
  return std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
}

// One saved web page.
struct SavedTab {
  Uuid id;
  std::string url;  // the page address as the browser had it
  std::string title;
  std::string domain;  // host of url, see domainOf()
  Date savedAt{};
  Uuid windowId;                 // the SavedWindow it belongs to
  std::int64_t windowIndex = 0;  // position of its browser window in the capture
  std::int64_t tabIndex = 0;     // position of the tab in its window
  std::string text;              // page text as fetched
  std::string summary;           // one-sentence summary
  std::optional<Uuid> topicId;
  std::string note;  // the user's note
  std::optional<Date> reminderAt;
  std::vector<std::string> projectTags;  // user projects it was matched to
  std::vector<std::string> tags;         // up to three keywords
  std::optional<Date> readAt;            // when the user opened it again
  bool isDemo = false;

  // Host of `url`, lower-cased, without a leading "www."; "" when the text has no host.
  static std::string domainOf(std::string_view url);

  // Title, domain, summary, tags (joined by blanks), note and the first 1500 characters of the
  // text, leaving out empty parts, joined by ". ". Used by keyword search and the embedder.
  std::string searchableText() const;

  friend bool operator==(const SavedTab&, const SavedTab&) = default;
};

// The fields of a new SavedTab, named at the call with designated initialisers in this order, for
// example makeSavedTab({.id = Uuid::random(), .url = url, .savedAt = now()}). A field left out
// keeps its default. (Every member has an initialiser so that leaving one out draws no warning.)
struct NewTab {
  Uuid id{};
  std::string url{};
  std::string title{};
  std::optional<std::string> domain{};  // absent: SavedTab::domainOf(url)
  Date savedAt{};
  Uuid windowId{};
  std::int64_t windowIndex = 0;
  std::int64_t tabIndex = 0;
  std::string text{};
  std::string summary{};
  std::string note{};
  std::vector<std::string> projectTags{};
  std::vector<std::string> tags{};
  std::optional<Date> readAt{};
  bool isDemo = false;
};

// The SavedTab of `fields`; an absent domain is computed from the url. topicId and reminderAt
// start absent.
SavedTab makeSavedTab(NewTab fields);

// One browser window as it was saved.
struct SavedWindow {
  Uuid id;
  Date savedAt{};
  std::string title;
  std::vector<Uuid> tabIds;  // the window's tabs in their browser order

  // "Fenster <index> · dd.MM. HH:mm" in local time.
  static std::string makeTitle(std::int64_t index, Date date);

  friend bool operator==(const SavedWindow&, const SavedWindow&) = default;
};

// A group of tabs.
struct Topic {
  Uuid id;
  std::string name;
  std::string color;  // a colour name of TopicPalette
  std::vector<Uuid> tabIds;
  bool isUnsorted = false;  // the catch-all topic of tabs that fit nowhere

  friend bool operator==(const Topic&, const Topic&) = default;
};

// Colour names of topics. The spelling without umlauts is intentional.
namespace TopicPalette {
inline const std::vector<std::string> colors = {"gelb",  "blau",    "rot",    "gruen",
                                                "lila",  "orange",  "petrol", "rosa",
                                                "braun", "tuerkis", "oliv",   "indigo"};
inline const std::string unsorted = "grau";
}  // namespace TopicPalette

// The user's project context: folders to read, free text and hint settings.
struct UserContext {
  std::vector<std::string> folderPaths;
  std::string freeText;
  std::int64_t hintsPerDay = 2;
  std::int64_t hintHour = 9;

  friend bool operator==(const UserContext&, const UserContext&) = default;
};

// A suggestion to look at a tab again.
struct Hint {
  Uuid id;
  Uuid tabId;
  std::string reason;
  Date createdAt{};
  bool dismissed = false;

  friend bool operator==(const Hint&, const Hint&) = default;
};

// The whole library document. Default-constructed, it is the new, empty library.
struct LibraryData {
  std::int64_t version = 1;
  std::vector<SavedTab> tabs;
  std::vector<SavedWindow> windows;
  std::vector<Topic> topics;
  UserContext context;
  std::vector<Hint> hints;
  std::map<std::string, std::vector<float>> embeddings;  // cached vectors by tab id text
  std::string embedderKind;                              // which embedder made the cached vectors
  bool topicsByAI = false;
  std::optional<std::string> lastHintDay;  // "yyyy-MM-dd" of the last hint run

  // The first tab with that id, if any.
  const SavedTab* tab(const Uuid& id) const;
  SavedTab* tab(const Uuid& id);

  // The library's tabs whose id is among the container's tabIds, in library order.
  std::vector<SavedTab> tabsIn(const Topic& topic) const;
  std::vector<SavedTab> tabsIn(const SavedWindow& window) const;

  const Topic* topic(const SavedTab& tab) const;
  const SavedWindow* window(const SavedTab& tab) const;

  // Hints not dismissed, in stored order.
  std::vector<Hint> openHints() const;
  // Tabs whose reminder is due (not later than now), in stored order.
  std::vector<SavedTab> dueReminders(Date at = now()) const;

  friend bool operator==(const LibraryData&, const LibraryData&) = default;
};

}  // namespace kestrova
