#include <string>

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
        " E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5G",
        "E621E1F8-C36C-495A-93FC+0C247A3E6E5F"}) {
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
  }
  const Uuid random = Uuid::random();
  EXPECT_NE(random, Uuid::random());
  EXPECT_EQ(random.string()[14], '4');
}

TEST(SavedTabDomain, HostLowerCasedWithoutWwwOrEmpty) {
  const std::pair<const char*, const char*> cases[] = {
      {"https://WWW.Example.CH/Pfad?x=1", "example.ch"},
      {"http://user:pw@news.srf.ch:8080/a", "news.srf.ch"},
      {"https://wwwx.example.com", "wwwx.example.com"},
      {"https://[::1]:8080/", "::1"},
      {"https://ZÜRICH.example/", "zürich.example"},
      // The host's escapes are decoded from both hex digits, also at the very end; a "%" without
      // two hex digits stays as it is.
      {"https://www.M%C3%BCnchen.DE/x", "münchen.de"},
      {"https://ab%4A", "abj"},
      {"https://a%4g%2", "a%4g%2"},
      {"kein Link", ""},
      {"file:///Users/anna/notiz.txt", ""},
      {"example.com/pfad", ""},
      {"mailto:anna@example.com", ""},
      {"", ""}};
  for (const auto& [url, domain] : cases)
    EXPECT_EQ(SavedTab::domainOf(url), domain) << url;
}

TEST(SavedTabSearchableText, JoinsNonEmptyPartsAndCutsTextAt1500Characters) {
  SavedTab tab;
  tab.title = "Titel";
  tab.text = std::string(1501, 'x');
  EXPECT_EQ(tab.searchableText(), "Titel. " + std::string(1500, 'x'));
  tab = makeSavedTab({.url = "u",
                      .title = "Titel",
                      .domain = "example.ch",
                      .text = "Text",
                      .summary = "Kurz.",
                      .note = "Notiz",
                      .tags = {"a", "b"}});
  EXPECT_EQ(tab.searchableText(), "Titel. example.ch. Kurz.. a b. Notiz. Text");
  // Characters, not bytes: e + combining acute is one character of three bytes.
  tab = SavedTab();
  for (int i = 0; i < 1501; ++i)
    tab.text += "e\u0301";
  EXPECT_EQ(tab.searchableText().size(), 1500u * 3);
}

TEST(MakeSavedTab, ComputesMissingDomainAndLeavesTopicAndReminderAbsent) {
  const SavedTab tab = makeSavedTab({.url = "https://www.srf.ch/news"});
  EXPECT_EQ(tab.domain, "srf.ch");
  EXPECT_FALSE(tab.topicId);
  EXPECT_FALSE(tab.reminderAt);
  EXPECT_EQ(makeSavedTab({.url = "https://www.srf.ch/news", .domain = "eigen"}).domain, "eigen");
  setenv("TZ", "Europe/Zurich", 1);
  tzset();
  EXPECT_EQ(SavedWindow::makeTitle(2, *Fmt::parseISO("2026-10-09T12:05:00Z")),
            "Fenster 2 \u00B7 09.10. 14:05");
}

TEST(LibraryLookups, ContainersHintsAndRemindersFindTheirTabsInLibraryOrder) {
  LibraryData data;
  for (int i = 0; i < 4; ++i)
    data.tabs.push_back(makeSavedTab({.id = Uuid::random(), .url = "https://example.ch/"}));
  // Out of library order, with an id that has no tab.
  const Topic topic{
      Uuid::random(), "t", "gelb", {data.tabs[2].id, Uuid::random(), data.tabs[0].id}};
  const SavedWindow window{Uuid::random(), Date{}, "w", {data.tabs[3].id, data.tabs[1].id}};
  data.topics.push_back(topic);
  data.windows.push_back(window);
  const auto ids = [](const std::vector<SavedTab>& tabs) {
    std::vector<Uuid> out;
    for (const SavedTab& tab : tabs)
      out.push_back(tab.id);
    return out;
  };
  EXPECT_EQ(ids(data.tabsIn(topic)), (std::vector{data.tabs[0].id, data.tabs[2].id}));
  EXPECT_EQ(ids(data.tabsIn(window)), (std::vector{data.tabs[1].id, data.tabs[3].id}));

  SavedTab tab = data.tabs[0];
  EXPECT_EQ(data.topic(tab), nullptr);
  EXPECT_EQ(data.window(tab), nullptr);
  tab.topicId = topic.id;
  tab.windowId = window.id;
  EXPECT_EQ(data.topic(tab), &data.topics[0]);
  EXPECT_EQ(data.window(tab), &data.windows[0]);
  tab.topicId = Uuid::random();
  EXPECT_EQ(data.topic(tab), nullptr);
  EXPECT_EQ(data.tab(data.tabs[2].id), &data.tabs[2]);
  EXPECT_EQ(data.tab(Uuid::random()), nullptr);

  data.hints = {Hint{Uuid::random(), data.tabs[0].id, "a", Date{}, false},
                Hint{Uuid::random(), data.tabs[1].id, "b", Date{}, true},
                Hint{Uuid::random(), data.tabs[2].id, "c", Date{}, false}};
  const auto open = data.openHints();
  ASSERT_EQ(open.size(), 2u);
  EXPECT_EQ(open[0].reason + open[1].reason, "ac");
  // Due is at or before the moment.
  const Date at = now();
  data.tabs[1].reminderAt = at;
  data.tabs[2].reminderAt = at + std::chrono::microseconds(1);
  data.tabs[3].reminderAt = at - std::chrono::hours(1);
  EXPECT_EQ(ids(data.dueReminders(at)), (std::vector{data.tabs[1].id, data.tabs[3].id}));
}

}  // namespace
}  // namespace kestrova
