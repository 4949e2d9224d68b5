#include <map>
#include <set>

#include <gtest/gtest.h>

#include <kestrova/demo_data.h>

namespace kestrova {
namespace {

TEST(DemoDataTable, FiftyTwoEntriesInFiveThemesAndSomeWithout) {
  const auto& entries = DemoData::entries();
  ASSERT_EQ(entries.size(), 52u);
  std::map<std::string, int> perTheme;
  std::set<std::string> urls;
  for (const DemoEntry& entry : entries) {
    ++perTheme[entry.theme];
    EXPECT_TRUE(urls.insert(entry.url).second) << "duplicate " << entry.url;
    EXPECT_GE(entry.window, 1);
    EXPECT_LE(entry.window, 3);
    EXPECT_NE(entry.title.find(" \u00B7 "), std::string::npos) << entry.title;
    EXPECT_FALSE(SavedTab::domainOf(entry.url).empty()) << entry.url;
    EXPECT_FALSE(entry.summary.empty());
    EXPECT_LE(entry.tags.size(), 3u);
    for (const std::string* text : {&entry.title, &entry.summary, &entry.note}) {
      EXPECT_EQ(text->find("\u00DF"), std::string::npos) << *text;  // Swiss spelling
    }
  }
  EXPECT_EQ(perTheme.size(), 6u);
  EXPECT_GT(perTheme[""], 0);
  for (const std::string& theme : DemoData::themes()) {
    EXPECT_GE(perTheme[theme], 8) << theme;
  }
}

TEST(DemoDataText, TitleSummaryAndThemeTextJoinedByBlanks) {
  const DemoEntry& first = DemoData::entries().front();
  const std::string text = DemoData::text(first.url);
  EXPECT_EQ(text.rfind(first.title + ". " + first.summary + " ", 0), 0u) << text;
  EXPECT_GT(text.size(), first.title.size() + first.summary.size() + 100);
  EXPECT_EQ(DemoData::text("https://unbekannt.example/"), "");

  // An entry without a theme has no theme text.
  for (const DemoEntry& entry : DemoData::entries()) {
    if (entry.theme.empty()) {
      EXPECT_EQ(DemoData::text(entry.url), entry.title + ". " + entry.summary);
      break;
    }
  }
}

TEST(DemoDataSnapshot, WindowsInAscendingOrderWithEveryEntry) {
  const auto windows = DemoData::snapshot();
  ASSERT_EQ(windows.size(), 3u);
  std::size_t tabs = 0;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    EXPECT_EQ(windows[i].index, static_cast<std::int64_t>(i + 1));
    for (std::size_t t = 0; t < windows[i].tabs.size(); ++t) {
      EXPECT_EQ(windows[i].tabs[t].index, static_cast<std::int64_t>(t + 1));
    }
    tabs += windows[i].tabs.size();
  }
  EXPECT_EQ(tabs, 52u);
}

TEST(DemoDataLibrary, WindowsAreTwoNineAndSixteenDaysOld) {
  const Date now = kestrova::now();
  const LibraryData data = DemoData::library(now);
  ASSERT_EQ(data.windows.size(), 3u);
  ASSERT_EQ(data.tabs.size(), 52u);
  const int ages[] = {2, 9, 16};
  for (std::size_t i = 0; i < 3; ++i) {
    const auto age = std::chrono::floor<std::chrono::seconds>(now) - data.windows[i].savedAt;
    EXPECT_EQ(age, std::chrono::hours(24 * ages[i]));
    EXPECT_EQ(data.tabsIn(data.windows[i]).size(), data.windows[i].tabIds.size());
  }
  int reminders = 0;
  int read = 0;
  for (const SavedTab& tab : data.tabs) {
    EXPECT_TRUE(tab.isDemo);
    EXPECT_EQ(tab.text, DemoData::text(tab.url));
    reminders += tab.reminderAt ? 1 : 0;
    read += tab.readAt ? 1 : 0;
    ASSERT_NE(data.window(tab), nullptr);
  }
  EXPECT_GT(reminders, 0);
  EXPECT_GT(read, 0);
}

}  // namespace
}  // namespace kestrova
