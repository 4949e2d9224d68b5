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
  bool grant = true, failEverything = false;
  std::vector<AuthorizationOptions> permissionRequests;
  std::vector<std::vector<NotificationCategory>> categorySets;
  std::vector<NotificationRequest> added;
  std::vector<NotificationRequest> pending;  // delivered-at-once requests are not kept
  std::vector<std::string> calls;

  AuthorizationStatus authorizationStatus() override { return call("status"), status; }
  bool requestAuthorization(AuthorizationOptions options) override {
    call("request");
    permissionRequests.push_back(options);
    status = grant ? AuthorizationStatus::authorized : AuthorizationStatus::denied;
    return grant;
  }
  void setCategories(const std::vector<NotificationCategory>& categories) override {
    call("categories");
    categorySets.push_back(categories);
  }
  void add(const NotificationRequest& request) override {
    call("add " + request.identifier);
    added.push_back(request);
    drop(request.identifier);
    if (request.trigger) {
      pending.push_back(request);
    }
  }
  void removePendingRequests(const std::vector<std::string>& identifiers) override {
    for (const std::string& id : identifiers) {
      call("remove " + id);
      drop(id);
    }
  }
  std::vector<NotificationRequest> pendingRequests() override { return call("pending"), pending; }

 private:
  void call(std::string what) {
    if (failEverything) {
      throw std::runtime_error("Mitteilungszentrale nicht erreichbar");
    }
    calls.push_back(std::move(what));
  }
  void drop(const std::string& id) {
    std::erase_if(pending, [&](const auto& r) { return r.identifier == id; });
  }
};

// Every test here runs in Zurich time and without KESTROVA_NO_NOTIFICATIONS.
class RemindersTest : public ::testing::Test {
 protected:
  void SetUp() override { zone("Europe/Zurich"); }
  static void zone(const char* name) { setenv("TZ", name, 1), tzset(); }

  static Date at(const char* iso) { return *Fmt::parseISO(iso); }
  Reminders app() {
    return Reminders(AppBundle{"/Applications/Kestrova.app", "ch.kestrova.app"}, env);
  }
  Hint hint(const SavedTab& t) { return Hint{Uuid::random(), t.id, "passt", clock, false}; }
  // Every call a user of Reminders can make.
  void callEverything(Reminders& reminders, const SavedTab& t) {
    reminders.ensurePermission();
    reminders.registerCategories();
    reminders.schedule(t);
    reminders.cancel(t.id);
    reminders.rescheduleAll({t});
    reminders.postHint(hint(t), t);
  }

  SavedTab tab(std::string title, std::optional<Date> reminderAt, std::string note = "") {
    SavedTab t = makeSavedTab({.id = Uuid::random(),
                               .url = "https://example.org/" + title,
                               .title = title,
                               .savedAt = at("2026-10-09T14:05:00+02:00"),
                               .note = std::move(note)});
    t.reminderAt = reminderAt;
    return t;
  }

  RecordingCenter center;
  Date clock = at("2026-10-01T12:00:00Z");
  testing::FakeEnv env{{.center = &center,
                        .clock = clock,
                        .variables = {{"KESTROVA_NO_NOTIFICATIONS", std::nullopt}}}};
};

TEST_F(RemindersTest, UsableOnlyInsideAnAppBundleWithIdentifierAndWithoutTheSwitch) {
  EXPECT_TRUE(app().isUsable());
  EXPECT_FALSE(Reminders().isUsable());  // this test program is a command-line tool
  testing::FakeEnv noCenter({.center = nullptr});
  for (const auto& [bundle, where] :
       std::vector<std::pair<AppBundle, Env*>>{{{"/usr/local/bin", "ch.kestrova.cli"}, &env},
                                               {{"/Applications/Kestrova.app", std::nullopt}, &env},
                                               {{"/Applications/Kestrova.apps", "x"}, &env},
                                               {{"/Applications/Kestrova.app", "x"}, &noCenter}}) {
    EXPECT_FALSE(Reminders(bundle, *where).isUsable()) << bundle.location;
  }

  // Unusable means no call at all; the switch works by mere presence.
  center.status = AuthorizationStatus::notDetermined;
  Reminders tool(AppBundle{"/usr/local/bin", std::nullopt}, env);
  callEverything(tool, tab("Zukunft", at("2026-10-09T14:30:00Z")));
  Reminders reminders = app();
  for (const char* value : {"", "0"}) {
    env.variables["KESTROVA_NO_NOTIFICATIONS"] = value;
    EXPECT_FALSE(reminders.isUsable());
    callEverything(reminders, tab("Zukunft", at("2026-10-09T14:30:00Z")));
  }
  EXPECT_TRUE(center.calls.empty());
  env.variables["KESTROVA_NO_NOTIFICATIONS"] = std::nullopt;
  EXPECT_TRUE(reminders.isUsable());

  center.failEverything = true;  // errors of the center are ignored
  EXPECT_NO_THROW(callEverything(reminders, tab("Fehler", at("2026-10-09T14:30:00Z"))));
  EXPECT_TRUE(center.added.empty());
}

TEST_F(RemindersTest, RegistersTheHintCategoryAndSchedulesAReminderToTheMinuteInLocalTime) {
  Reminders reminders = app();
  reminders.registerCategories();
  NotificationCategory expected{"KESTROVA_HINT",
                                {{"OPEN", "Öffnen", true, false},
                                 {"LATER", "Später", false, false},
                                 {"DISMISS", "Nicht relevant", false, true}},
                                {}};
  EXPECT_EQ(center.categorySets, (std::vector<std::vector<NotificationCategory>>{{expected}}));

  SavedTab t = tab("Rezept", at("2026-10-09T14:30:45+02:00"), "mit Zimt");
  center.calls.clear();
  reminders.schedule(t);
  const std::string id = "reminder-" + t.id.string();
  EXPECT_EQ(center.calls, (std::vector<std::string>{"remove " + id, "status", "add " + id}));
  const std::map<std::string, std::string> info{{"tabId", t.id.string()}};
  const CalendarTrigger minute{2026, 10, 9, 14, 30, false};
  EXPECT_EQ(center.added,
            (std::vector<NotificationRequest>{{id, "Schau dir diesen Tab an", "Rezept\nmit Zimt",
                                               "KESTROVA_HINT", info, true, minute}}));
  EXPECT_EQ(Reminders::reminderRequest(tab("Nur Titel", clock)).body, "Nur Titel");

  // A past or absent reminder only removes the pending one.
  for (std::optional<Date> when : {std::optional(clock), std::optional<Date>()}) {
    t.reminderAt = when;  // now (not later than now), then none
    reminders.schedule(t);
    EXPECT_TRUE(center.pending.empty());
    t.reminderAt = at("2026-10-09T14:30:00Z");
    reminders.schedule(t);
  }
  EXPECT_EQ(center.added.size(), 3u);

  zone("Pacific/Kiritimati");  // UTC+14: already the next year
  t = tab("Rezept", at("2026-12-31T23:59:00Z"));
  EXPECT_EQ(*Reminders::reminderRequest(t).trigger, (CalendarTrigger{2027, 1, 1, 13, 59, false}));
}

TEST_F(RemindersTest, PermissionStates) {
  Reminders reminders = app();
  SavedTab t = tab("Erlaubt", at("2026-10-09T14:30:00Z"));
  using enum AuthorizationStatus;
  for (AuthorizationStatus status : {authorized, provisional, ephemeral, denied}) {
    center.status = status;
    center.added.clear();
    reminders.schedule(t);
    reminders.postHint(hint(t), t);
    reminders.ensurePermission();
    EXPECT_EQ(center.added.size(), status == denied ? 0u : 2u);
  }
  EXPECT_TRUE(center.permissionRequests.empty());
  center.added.clear();

  for (bool grant : {false, true}) {
    center.status = AuthorizationStatus::notDetermined;
    center.grant = grant;
    reminders.schedule(t);
    EXPECT_EQ(center.added.size(), grant ? 1u : 0u);
  }
  EXPECT_EQ(center.permissionRequests,
            (std::vector<AuthorizationOptions>(2, AuthorizationOptions{true, true, true})));
  reminders.ensurePermission();  // now decided: no further question
  EXPECT_EQ(center.permissionRequests.size(), 2u);
}

TEST_F(RemindersTest, RescheduleAllLeavesHintsAlone) {
  const std::vector<SavedTab> tabs = {
      tab("A", at("2026-10-05T10:00:00Z")), tab("Vergangen", at("2026-09-01T10:00:00Z")),
      tab("Ohne", std::nullopt), tab("D", at("2026-10-03T10:00:00Z"))};
  for (std::string id :
       {"reminder-" + tabs[1].id.string(), std::string("reminder-ALT"), std::string("hint-H")}) {
    center.pending.push_back({id, "", "", "KESTROVA_HINT", {}, true, CalendarTrigger{}});
  }
  app().rescheduleAll(tabs);
  std::vector<std::string> ids;
  for (const auto& r : center.pending) {
    ids.push_back(r.identifier);
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"hint-H", "reminder-" + tabs[0].id.string(),
                                           "reminder-" + tabs[3].id.string()}));
}

TEST_F(RemindersTest, PostsAHintAtOnceWithoutSound) {
  SavedTab t = tab("Kompass bauen", std::nullopt);
  const Hint h = hint(t);
  app().postHint(h, t);
  const std::map<std::string, std::string> info{{"tabId", t.id.string()},
                                                {"hintId", h.id.string()}};
  EXPECT_EQ(center.added,
            (std::vector<NotificationRequest>{
                {"hint-" + h.id.string(), "Schau dir diesen Tab an: «Kompass bauen»",
                 "Gespeichert am 09.10.. passt", "KESTROVA_HINT", info, false, std::nullopt}}));
}

}  // namespace
}  // namespace kestrova
