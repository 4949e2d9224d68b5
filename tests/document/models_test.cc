#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>
#include <kestrova/models.h>

namespace kestrova {
namespace {

TEST(UuidText, ParsesEitherCasePrintsUpperCaseAndRejectsMalformedText) {
  const auto lower = Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(lower);
  EXPECT_EQ(lower->string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"), lower);
  for (const char* bad :
       {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8-C36C-495A-93FC+0C247A3E6E5F"})
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
  const Uuid random = Uuid::random();
  EXPECT_NE(random, Uuid::random());
  EXPECT_EQ(random.string()[14], '4');
}

TEST(SavedTabDomain, HostLowerCasedWithoutWwwOrEmpty) {
  const std::pair<const char*, const char*> cases[] = {
      {"https://WWW.Example.CH/Pfad?x=1", "example.ch"},
      {"http://user:pw@news.srf.ch:8080/a", "news.srf.ch"},
      {"https://[::1]:8080/", "::1"},
      {"https://ZÜRICH.example/", "zürich.example"},
      // Escapes decoded from both hex digits, also at the very end; a lone "%" stays.
      {"https://www.M%C3%BCnchen.DE/x", "münchen.de"},
      {"https://ab%4A", "abj"},
      {"https://a%4g%2", "a%4g%2"},
      {"kein Link", ""},
      {"file:///Users/anna/notiz.txt", ""},
      {"example.com/pfad", ""},
      {"mailto:anna@example.com", ""}};
  for (const auto& [url, domain] : cases)
    EXPECT_EQ(SavedTab::domainOf(url), domain) << url;
}

TEST(SavedTabSearchableText, JoinsNonEmptyPartsAndCutsTextAt1500Characters) {
  SavedTab tab =
      makeSavedTab({.title = "T", .domain = "d", .summary = "S", .note = "N", .tags = {"a", "b"}});
  EXPECT_EQ(tab.searchableText(), "T. d. S. a b. N");
  tab = makeSavedTab({.title = "T", .text = std::string(1501, 'x')});
  EXPECT_EQ(tab.searchableText(), "T. " + std::string(1500, 'x'));
  // Characters, not bytes: e + combining acute is one character of three bytes.
  tab = SavedTab();
  for (int i = 0; i < 1501; ++i)
    tab.text += "e\u0301";
  EXPECT_EQ(tab.searchableText().size(), 1500u * 3);
}

TEST(MakeSavedTab, ComputesAMissingDomainAndWindowsGetDatedTitles) {
  EXPECT_EQ(makeSavedTab({.url = "https://www.srf.ch/news"}).domain, "srf.ch");
  EXPECT_EQ(makeSavedTab({.url = "https://www.srf.ch/news", .domain = "eigen"}).domain, "eigen");
  setenv("TZ", "Europe/Zurich", 1);
  tzset();
  EXPECT_EQ(SavedWindow::makeTitle(2, *Fmt::parseISO("2026-10-09T12:05:00Z")),
            "Fenster 2 \u00B7 09.10. 14:05");
}

// Containers list their tabs in library order, whatever their own order, and skip unknown ids.
TEST(LibraryLookups, ContainersHintsAndRemindersFindTheirTabsInLibraryOrder) {
  LibraryData data;
  for (int i = 0; i < 4; ++i)
    data.tabs.push_back(makeSavedTab({.id = Uuid::random(), .url = "u"}));
  const auto& t = data.tabs;
  data.topics = {Topic{Uuid::random(), "t", "gelb", {t[2].id, Uuid::random(), t[0].id}}};
  data.windows = {SavedWindow{Uuid::random(), Date{}, "w", {t[3].id, t[1].id}}};
  EXPECT_EQ(data.tabsIn(data.topics[0]), (std::vector{t[0], t[2]}));
  EXPECT_EQ(data.tabsIn(data.windows[0]), (std::vector{t[1], t[3]}));
  data.tabs[0].topicId = data.topics[0].id;
  data.tabs[0].windowId = data.windows[0].id;
  EXPECT_EQ(data.topic(t[0]), &data.topics[0]);
  EXPECT_EQ(data.window(t[0]), &data.windows[0]);
  EXPECT_EQ(data.topic(t[1]), nullptr);
  EXPECT_EQ(std::as_const(data).tab(t[2].id), &t[2]);
  EXPECT_EQ(data.tab(t[1].id), &t[1]);
  EXPECT_EQ(data.tab(Uuid::random()), nullptr);
  data.hints = {Hint{Uuid::random(), t[0].id, "a", Date{}, false},
                Hint{Uuid::random(), t[1].id, "b", Date{}, true},
                Hint{Uuid::random(), t[2].id, "c", Date{}, false}};
  EXPECT_EQ(data.openHints(), (std::vector{data.hints[0], data.hints[2]}));
  // Due is at or before the moment.
  const Date at = now();
  data.tabs[1].reminderAt = at;
  data.tabs[2].reminderAt = at + std::chrono::microseconds(1);
  data.tabs[3].reminderAt = at - std::chrono::hours(1);
  EXPECT_EQ(data.dueReminders(at), (std::vector{t[1], t[3]}));
}

}  // namespace
}  // namespace kestrova
