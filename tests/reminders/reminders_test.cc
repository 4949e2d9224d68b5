#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <kestrova/fmt.h>
#include <kestrova/reminders.h>

#include "support/fake_env.h"

namespace kestrova {
namespace {

using Lines = std::vector<std::string>;
using Requests = std::vector<NotificationRequest>;

// A notification center that keeps the requests added and records every call as one line.
struct Center : NotificationCenter {
  AuthorizationStatus status = AuthorizationStatus::authorized;
  bool grant = true, broken = false;
  Lines calls;
  Requests pending;

  AuthorizationStatus authorizationStatus() override { return call("status"), status; }
  bool requestAuthorization(AuthorizationOptions asked) override {
    call(asked == AuthorizationOptions{true, true, true} ? "request" : "request (other options)");
    return (status = grant ? AuthorizationStatus::authorized : AuthorizationStatus::denied), grant;
  }
  void setCategories(const std::vector<NotificationCategory>&) override { call("categories"); }
  void add(const NotificationRequest& r) override {
    call("add " + r.identifier), pending.push_back(r);
  }
  void removePendingRequests(const Lines& ids) override {
    for (const std::string& id : ids)
      call("remove " + id), std::erase_if(pending, [&](auto& r) { return r.identifier == id; });
  }
  Requests pendingRequests() override { return call("pending"), pending; }
  void call(std::string what) {
    broken ? throw std::runtime_error("nicht erreichbar") : calls.push_back(std::move(what));
  }
};

// Every test here runs in Zurich time and without KESTROVA_NO_NOTIFICATIONS.
class RemindersTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TZ", "Europe/Zurich", 1), tzset(); }
  static Date at(const char* iso) { return *Fmt::parseISO(iso); }
  Reminders app() { return Reminders({"/Applications/Kestrova.app", "ch.kestrova.app"}, env); }
  Hint hint(const SavedTab& t) { return Hint{Uuid::random(), t.id, "passt", clock, false}; }
  SavedTab tab(std::optional<Date> due, const char* title = "Rezept", const char* note = "") {
    SavedTab t = makeSavedTab({.id = Uuid::random(), .title = title, .note = note});
    return t.savedAt = at("2026-10-09T14:05:00+02:00"), t.reminderAt = due, t;
  }

  Center center;
  Date clock = at("2026-10-01T12:00:00Z");
  testing::FakeEnv env{{.center = &center,
                        .clock = clock,
                        .variables = {{"KESTROVA_NO_NOTIFICATIONS", std::nullopt}}}};
};

TEST_F(RemindersTest, UsableOnlyInsideAnAppBundleWithIdentifierAndWithoutTheSwitch) {
  EXPECT_FALSE(Reminders().isUsable());  // this test program is a command-line tool
  testing::FakeEnv none({.center = nullptr});
  const SavedTab t = tab(at("2026-10-09T14:30:00Z"));
  const auto callEverything = [&](const Reminders& reminders, bool usable = false) {
    EXPECT_EQ(reminders.isUsable(), usable);
    reminders.ensurePermission(), reminders.registerCategories(), reminders.schedule(t);
    reminders.cancel(t.id), reminders.rescheduleAll({t}), reminders.postHint(hint(t), t);
  };
  // Unusable means no call at all, even while permission is undecided.
  center.status = AuthorizationStatus::notDetermined;
  // clang-format off
  const std::pair<AppBundle, Env*> unusable[] = {
      {{"/usr/local/bin", "ch.kestrova.cli"}, &env}, {{"/Applications/Kestrova.app", {}}, &env},
      {{"/Applications/Kestrova.apps", "x"}, &env}, {{"/Applications/Kestrova.app", "x"}, &none}};
  // clang-format on
  for (const auto& [bundle, where] : unusable)
    callEverything(Reminders(bundle, *where));
  for (const char* value : {"", "0"})  // the switch works by mere presence
    env.variables["KESTROVA_NO_NOTIFICATIONS"] = value, callEverything(app());
  env.variables["KESTROVA_NO_NOTIFICATIONS"] = std::nullopt;
  center.broken = true;  // errors of the center are ignored
  EXPECT_NO_THROW(callEverything(app(), true));
  EXPECT_TRUE(center.calls.empty());
}

TEST_F(RemindersTest, RequestsAndWhenTheyAreAddedForAFutureReminderToTheMinuteOrAHintAtOnce) {
  const Reminders reminders = app();
  const SavedTab t = tab(at("2026-10-09T14:30:00Z")), due = tab(clock), none = tab(std::nullopt);
  const SavedTab noted = tab(at("2026-10-09T14:30:45+02:00"), "Rezept", "mit Zimt");
  const Hint h = hint(t);
  const std::string id = "reminder-" + t.id.string(), hintId = "hint-" + h.id.string();
  // clang-format off
  EXPECT_EQ(Reminders::reminderRequest(noted), (NotificationRequest{"reminder-" + noted.id.string(),
      "Schau dir diesen Tab an", "Rezept\nmit Zimt", "KESTROVA_HINT",
      {{"tabId", noted.id.string()}}, true, CalendarTrigger{2026, 10, 9, 14, 30, false}}));
  EXPECT_EQ(Reminders::hintRequest(h, t), (NotificationRequest{hintId,
      "Schau dir diesen Tab an: «Rezept»", "Gespeichert am 09.10.. passt", "KESTROVA_HINT",
      {{"tabId", t.id.string()}, {"hintId", h.id.string()}}, false, std::nullopt}));
  EXPECT_EQ(Reminders::reminderRequest(t).body, "Rezept");
  reminders.schedule(due), reminders.schedule(none);  // due now or none: only removed
  EXPECT_EQ(center.calls,
            (Lines{"remove reminder-" + due.id.string(), "remove reminder-" + none.id.string()}));
  // Status and the user's answer: the calls for a reminder, a hint and a check of permission.
  using enum AuthorizationStatus;
  const Lines ok{"remove " + id, "status", "add " + id, "status", "add " + hintId, "status"};
  const std::tuple<AuthorizationStatus, bool, Lines> rows[] = {
      {authorized, false, ok}, {provisional, false, ok}, {ephemeral, false, ok},
      {denied, true, {"remove " + id, "status", "status", "status"}},
      {notDetermined, false, {"remove " + id, "status", "request", "status", "status"}},
      {notDetermined, true, {"remove " + id, "status", "request", "add " + id, "status",
                             "add " + hintId, "status"}}};
  // clang-format on
  for (const auto& [status, grant, calls] : rows) {
    center.status = status, center.grant = grant, center.calls.clear();
    reminders.schedule(t), reminders.postHint(h, t), reminders.ensurePermission();
    EXPECT_EQ(center.calls, calls) << static_cast<int>(status) << grant;
  }
  center.status = notDetermined, center.calls.clear(), center.pending.clear();
  reminders.ensurePermission(), reminders.registerCategories(), reminders.cancel(t.id);
  EXPECT_EQ(center.calls, (Lines{"status", "request", "categories", "remove " + id}));
  // Rescheduling all replaces every pending reminder (of a past tab, of no tab), not a hint.
  const std::vector<SavedTab> tabs = {tab(at("2026-10-05T10:00:00Z")),
                                      tab(at("2026-09-01T10:00:00Z")), tab(std::nullopt),
                                      tab(at("2026-10-03T10:00:00Z"))};
  for (const std::string& old : Lines{"reminder-" + tabs[1].id.string(), "reminder-A", "hint-H"})
    center.pending.emplace_back().identifier = old;
  app().rescheduleAll(tabs);
  Lines ids;
  std::ranges::transform(center.pending, std::back_inserter(ids), &NotificationRequest::identifier);
  EXPECT_EQ(
      ids, (Lines{"hint-H", "reminder-" + tabs[0].id.string(), "reminder-" + tabs[3].id.string()}));
}

}  // namespace
}  // namespace kestrova
