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
      {"https://www.M%C3%BCnchen.DE/x", "münchen.de"},  // the host's escapes are decoded
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
  tab.domain = "example.ch";
  tab.summary = "Kurz.";
  tab.tags = {"a", "b"};
  tab.note = "Notiz";
  tab.text = "Text";
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
  const SavedTab given = makeSavedTab({.url = "https://www.srf.ch/news", .domain = "eigen"});
  EXPECT_EQ(given.domain, "eigen");
}

TEST(SavedWindowTitle, UsesIndexMiddleDotAndLocalTime) {
  setenv("TZ", "Europe/Zurich", 1);
  tzset();
  const Date date = *Fmt::parseISO("2026-10-09T12:05:00Z");
  EXPECT_EQ(SavedWindow::makeTitle(2, date), "Fenster 2 \u00B7 09.10. 14:05");
}

class LibraryLookups : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 4; ++i)
      data.tabs.push_back(makeSavedTab({.id = Uuid::random(), .url = "https://example.ch/"}));
    topic.id = Uuid::random();
    // Out of library order, with an id that has no tab.
    topic.tabIds = {data.tabs[2].id, Uuid::random(), data.tabs[0].id};
    data.topics.push_back(topic);
    window.id = Uuid::random();
    window.tabIds = {data.tabs[3].id, data.tabs[1].id};
    data.windows.push_back(window);
  }
  LibraryData data;
  Topic topic;
  SavedWindow window;
};

TEST_F(LibraryLookups, ContainersListTabsInLibraryOrderAndSkipUnknownIds) {
  const auto inTopic = data.tabsIn(topic);
  ASSERT_EQ(inTopic.size(), 2u);
  EXPECT_EQ(inTopic[0].id, data.tabs[0].id);
  EXPECT_EQ(inTopic[1].id, data.tabs[2].id);
  const auto inWindow = data.tabsIn(window);
  ASSERT_EQ(inWindow.size(), 2u);
  EXPECT_EQ(inWindow[0].id, data.tabs[1].id);
}

TEST_F(LibraryLookups, TopicAndWindowOfTab) {
  SavedTab tab = data.tabs[0];
  EXPECT_EQ(data.topic(tab), nullptr);
  tab.topicId = topic.id;
  ASSERT_NE(data.topic(tab), nullptr);
  EXPECT_EQ(data.topic(tab)->id, topic.id);
  tab.topicId = Uuid::random();
  EXPECT_EQ(data.topic(tab), nullptr);
  tab.windowId = window.id;
  ASSERT_NE(data.window(tab), nullptr);
  EXPECT_EQ(data.window(tab)->id, window.id);
  EXPECT_EQ(data.tab(data.tabs[2].id), &data.tabs[2]);
  EXPECT_EQ(data.tab(Uuid::random()), nullptr);
}

TEST_F(LibraryLookups, OpenHintsAndDueReminders) {
  data.hints = {Hint{Uuid::random(), data.tabs[0].id, "a", Date{}, false},
                Hint{Uuid::random(), data.tabs[1].id, "b", Date{}, true},
                Hint{Uuid::random(), data.tabs[2].id, "c", Date{}, false}};
  const auto open = data.openHints();
  ASSERT_EQ(open.size(), 2u);
  EXPECT_EQ(open[0].reason, "a");
  EXPECT_EQ(open[1].reason, "c");

  const Date at = now();
  data.tabs[1].reminderAt = at;
  data.tabs[2].reminderAt = at + std::chrono::hours(1);
  data.tabs[3].reminderAt = at - std::chrono::hours(1);
  const auto due = data.dueReminders(at);
  ASSERT_EQ(due.size(), 2u);
  EXPECT_EQ(due[0].id, data.tabs[1].id);
  EXPECT_EQ(due[1].id, data.tabs[3].id);
}

TEST(LibraryDefaults, NewLibrary) {
  const LibraryData data;
  EXPECT_EQ(data.version, 1);
  EXPECT_EQ(data.context.hintsPerDay, 2);
  EXPECT_EQ(data.context.hintHour, 9);
}

}  // namespace
}  // namespace kestrova
