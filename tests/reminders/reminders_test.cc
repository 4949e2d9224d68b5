#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <kestrova/fmt.h>
#include <kestrova/reminders.h>

#include "support/fake_env.h"

namespace kestrova {
namespace {

// A notification center that keeps pending requests in memory and records every call.
class RecordingCenter : public NotificationCenter {
 public:
  AuthorizationStatus status = AuthorizationStatus::authorized;
  bool grant = true;
  bool failEverything = false;
  std::vector<AuthorizationOptions> permissionRequests;
  std::vector<std::vector<NotificationCategory>> categorySets;
  std::vector<NotificationRequest> added;
  std::vector<NotificationRequest> pending;  // delivered-at-once requests are not kept
  std::vector<std::string> calls;

  AuthorizationStatus authorizationStatus() override {
    failIfAsked();
    calls.push_back("status");
    return status;
  }
  bool requestAuthorization(AuthorizationOptions options) override {
    failIfAsked();
    calls.push_back("request");
    permissionRequests.push_back(options);
    status = grant ? AuthorizationStatus::authorized : AuthorizationStatus::denied;
    return grant;
  }
  void setCategories(const std::vector<NotificationCategory>& categories) override {
    failIfAsked();
    calls.push_back("categories");
    categorySets.push_back(categories);
  }
  void add(const NotificationRequest& request) override {
    failIfAsked();
    calls.push_back("add " + request.identifier);
    added.push_back(request);
    std::erase_if(pending, [&](const auto& r) { return r.identifier == request.identifier; });
    if (request.trigger) {
      pending.push_back(request);
    }
  }
  void removePendingRequests(const std::vector<std::string>& identifiers) override {
    failIfAsked();
    for (const std::string& id : identifiers) {
      calls.push_back("remove " + id);
      std::erase_if(pending, [&](const auto& r) { return r.identifier == id; });
    }
  }
  std::vector<NotificationRequest> pendingRequests() override {
    failIfAsked();
    calls.push_back("pending");
    return pending;
  }

  std::vector<std::string> pendingIds() const {
    std::vector<std::string> ids;
    for (const auto& r : pending) {
      ids.push_back(r.identifier);
    }
    return ids;
  }

 private:
  void failIfAsked() const {
    if (failEverything) {
      throw std::runtime_error("Mitteilungszentrale nicht erreichbar");
    }
  }
};

// Every test here runs in Zurich time and without KESTROVA_NO_NOTIFICATIONS.
class RemindersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "Europe/Zurich", 1);
    tzset();
  }

  static Date at(const char* iso) { return *Fmt::parseISO(iso); }

  Reminders app() {
    return Reminders(AppBundle{"/Applications/Kestrova.app", "ch.kestrova.app"}, env);
  }

  SavedTab tab(std::string title, std::optional<Date> reminderAt, std::string note = "") {
    SavedTab t;
    t.id = Uuid::random();
    t.url = "https://example.org/" + title;
    t.title = std::move(title);
    t.note = std::move(note);
    t.reminderAt = reminderAt;
    t.savedAt = at("2026-10-09T14:05:00+02:00");
    return t;
  }

  RecordingCenter center;
  Date clock = at("2026-10-01T12:00:00Z");
  testing::FakeEnv env{{.center = &center,
                        .clock = clock,
                        .variables = {{"KESTROVA_NO_NOTIFICATIONS", std::nullopt}}}};
};

TEST_F(RemindersTest, UsableOnlyInsideAnAppBundleWithIdentifier) {
  EXPECT_TRUE(app().isUsable());
  EXPECT_FALSE(Reminders().isUsable());  // this test program is a command-line tool
  EXPECT_FALSE(Reminders(AppBundle{"/usr/local/bin", "ch.kestrova.cli"}, env).isUsable());
  EXPECT_FALSE(Reminders(AppBundle{"/Applications/Kestrova.app", std::nullopt}, env).isUsable());
  EXPECT_FALSE(Reminders(AppBundle{"/Applications/Kestrova.apps", "x"}, env).isUsable());
  testing::FakeEnv noCenter({.center = nullptr});
  EXPECT_FALSE(Reminders(AppBundle{"/Applications/Kestrova.app", "x"}, noCenter).isUsable());
  EXPECT_TRUE(AppBundle::main().location.extension().empty());
  EXPECT_FALSE(AppBundle::main().identifier.has_value());
}

TEST_F(RemindersTest, EnvironmentSwitchWorksByMerePresence) {
  Reminders reminders = app();
  env.variables["KESTROVA_NO_NOTIFICATIONS"] = "";
  EXPECT_FALSE(reminders.isUsable());
  env.variables["KESTROVA_NO_NOTIFICATIONS"] = "0";
  EXPECT_FALSE(reminders.isUsable());
  reminders.schedule(tab("Zukunft", at("2026-10-09T14:30:00Z")));
  reminders.postHint(Hint{Uuid::random(), Uuid::random(), "passt", clock, false}, tab("t", {}));
  EXPECT_TRUE(center.calls.empty());
  env.variables["KESTROVA_NO_NOTIFICATIONS"] = std::nullopt;
  EXPECT_TRUE(reminders.isUsable());
}

TEST_F(RemindersTest, UnusableMeansNoCallAtAll) {
  Reminders tool(AppBundle{"/usr/local/bin", std::nullopt}, env);
  center.status = AuthorizationStatus::notDetermined;
  SavedTab t = tab("Zukunft", at("2026-10-09T14:30:00Z"));
  tool.ensurePermission();
  tool.registerCategories();
  tool.schedule(t);
  tool.cancel(t.id);
  tool.rescheduleAll({t});
  tool.postHint(Hint{Uuid::random(), t.id, "passt", clock, false}, t);
  EXPECT_TRUE(center.calls.empty());
}

TEST_F(RemindersTest, RegistersExactlyTheHintCategory) {
  app().registerCategories();
  ASSERT_EQ(center.categorySets.size(), 1u);
  NotificationCategory expected{"KESTROVA_HINT",
                                {{"OPEN", "Öffnen", true, false},
                                 {"LATER", "Später", false, false},
                                 {"DISMISS", "Nicht relevant", false, true}},
                                {}};
  EXPECT_EQ(center.categorySets[0], (std::vector<NotificationCategory>{expected}));
}

TEST_F(RemindersTest, SchedulesAReminderToTheMinute) {
  SavedTab t = tab("Rezept", at("2026-10-09T14:30:45+02:00"), "mit Zimt");
  app().schedule(t);

  const std::string id = "reminder-" + t.id.string();
  EXPECT_EQ(center.calls, (std::vector<std::string>{"remove " + id, "status", "add " + id}));
  ASSERT_EQ(center.added.size(), 1u);
  const NotificationRequest& r = center.added[0];
  EXPECT_EQ(r.identifier, id);
  EXPECT_EQ(r.title, "Schau dir diesen Tab an");
  EXPECT_EQ(r.body, "Rezept\nmit Zimt");
  EXPECT_EQ(r.categoryIdentifier, "KESTROVA_HINT");
  EXPECT_EQ(r.userInfo, (std::map<std::string, std::string>{{"tabId", t.id.string()}}));
  EXPECT_TRUE(r.defaultSound);
  ASSERT_TRUE(r.trigger.has_value());
  EXPECT_EQ(*r.trigger, (CalendarTrigger{2026, 10, 9, 14, 30, false}));
}

TEST_F(RemindersTest, TriggerFollowsTheLocalTimeZone) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  SavedTab t = tab("Rezept", at("2026-12-31T23:59:00Z"));
  EXPECT_EQ(*Reminders::reminderRequest(t).trigger, (CalendarTrigger{2026, 12, 31, 18, 59, false}));
  setenv("TZ", "Pacific/Kiritimati", 1);  // UTC+14: already the next year
  tzset();
  EXPECT_EQ(*Reminders::reminderRequest(t).trigger, (CalendarTrigger{2027, 1, 1, 13, 59, false}));
}

TEST_F(RemindersTest, EmptyNoteLeavesTheTitleAlone) {
  SavedTab t = tab("Nur Titel", at("2026-10-09T14:30:00Z"));
  app().schedule(t);
  ASSERT_EQ(center.added.size(), 1u);
  EXPECT_EQ(center.added[0].body, "Nur Titel");
}

TEST_F(RemindersTest, PastOrAbsentReminderOnlyRemovesThePendingOne) {
  Reminders reminders = app();
  SavedTab t = tab("Alt", at("2026-10-09T14:30:00Z"));
  reminders.schedule(t);
  ASSERT_EQ(center.pendingIds().size(), 1u);

  t.reminderAt = clock;  // not later than now
  reminders.schedule(t);
  EXPECT_TRUE(center.pending.empty());

  t.reminderAt = at("2026-10-09T14:30:00Z");
  reminders.schedule(t);
  t.reminderAt.reset();
  reminders.schedule(t);
  EXPECT_TRUE(center.pending.empty());
  EXPECT_EQ(center.added.size(), 2u);
}

TEST_F(RemindersTest, PermissionStates) {
  Reminders reminders = app();
  SavedTab t = tab("Erlaubt", at("2026-10-09T14:30:00Z"));

  for (AuthorizationStatus ok : {AuthorizationStatus::authorized, AuthorizationStatus::provisional,
                                 AuthorizationStatus::ephemeral}) {
    center.status = ok;
    center.added.clear();
    reminders.schedule(t);
    EXPECT_EQ(center.added.size(), 1u);
  }
  EXPECT_TRUE(center.permissionRequests.empty());

  center.status = AuthorizationStatus::denied;
  center.added.clear();
  reminders.schedule(t);
  reminders.postHint(Hint{Uuid::random(), t.id, "passt", clock, false}, t);
  reminders.ensurePermission();
  EXPECT_TRUE(center.added.empty());
  EXPECT_TRUE(center.permissionRequests.empty());

  center.status = AuthorizationStatus::notDetermined;
  center.grant = false;
  reminders.schedule(t);
  EXPECT_TRUE(center.added.empty());
  ASSERT_EQ(center.permissionRequests.size(), 1u);
  EXPECT_EQ(center.permissionRequests[0], (AuthorizationOptions{true, true, true}));

  center.status = AuthorizationStatus::notDetermined;
  center.grant = true;
  reminders.schedule(t);
  EXPECT_EQ(center.added.size(), 1u);
  EXPECT_EQ(center.permissionRequests.size(), 2u);
  reminders.ensurePermission();  // now decided: no further question
  EXPECT_EQ(center.permissionRequests.size(), 2u);
}

TEST_F(RemindersTest, RescheduleAllLeavesHintsAlone) {
  Reminders reminders = app();
  SavedTab a = tab("A", at("2026-10-05T10:00:00Z"));
  SavedTab past = tab("Vergangen", at("2026-09-01T10:00:00Z"));
  SavedTab none = tab("Ohne", std::nullopt);
  SavedTab d = tab("D", at("2026-10-03T10:00:00Z"));
  center.pending.push_back({"reminder-" + past.id.string(),
                            "",
                            "",
                            "KESTROVA_HINT",
                            {},
                            true,
                            CalendarTrigger{2026, 9, 1, 12, 0, false}});
  center.pending.push_back({"reminder-ALT",
                            "",
                            "",
                            "KESTROVA_HINT",
                            {},
                            true,
                            CalendarTrigger{2026, 11, 1, 12, 0, false}});
  center.pending.push_back(
      {"hint-H", "", "", "KESTROVA_HINT", {}, false, CalendarTrigger{2026, 11, 1, 12, 0, false}});

  reminders.rescheduleAll({a, past, none, d});
  EXPECT_EQ(center.pendingIds(), (std::vector<std::string>{"hint-H", "reminder-" + a.id.string(),
                                                           "reminder-" + d.id.string()}));
}

TEST_F(RemindersTest, PostsAHintAtOnceWithoutSound) {
  SavedTab t = tab("Kompass bauen", std::nullopt);
  Hint hint{Uuid::random(), t.id, "passt zu deinem Projekt kompass: Eine Anleitung.", clock, false};
  app().postHint(hint, t);

  ASSERT_EQ(center.added.size(), 1u);
  const NotificationRequest& r = center.added[0];
  EXPECT_EQ(r.identifier, "hint-" + hint.id.string());
  EXPECT_EQ(r.title, "Schau dir diesen Tab an: «Kompass bauen»");
  EXPECT_EQ(r.body, "Gespeichert am 09.10.. passt zu deinem Projekt kompass: Eine Anleitung.");
  EXPECT_EQ(r.categoryIdentifier, "KESTROVA_HINT");
  EXPECT_EQ(r.userInfo, (std::map<std::string, std::string>{{"tabId", t.id.string()},
                                                            {"hintId", hint.id.string()}}));
  EXPECT_FALSE(r.defaultSound);
  EXPECT_FALSE(r.trigger.has_value());
}

TEST_F(RemindersTest, ErrorsOfTheCenterAreIgnored) {
  Reminders reminders = app();
  center.failEverything = true;
  SavedTab t = tab("Fehler", at("2026-10-09T14:30:00Z"));
  EXPECT_NO_THROW({
    reminders.ensurePermission();
    reminders.registerCategories();
    reminders.schedule(t);
    reminders.cancel(t.id);
    reminders.rescheduleAll({t});
    reminders.postHint(Hint{Uuid::random(), t.id, "passt", clock, false}, t);
  });
  EXPECT_TRUE(center.added.empty());
}

}  // namespace
}  // namespace kestrova
