// Reminders: local notifications for saved tabs. A reminder fires at the minute a user set on a
// tab (SavedTab::reminderAt); a hint is posted at once when the hint engine suggests a tab. Both
// belong to the category "KESTROVA_HINT" with the actions OPEN, LATER and DISMISS; what the
// application does with a chosen action lies outside the core, and the user-info keys "tabId" and
// "hintId" are the interface for it.
//
// Notifications are only possible from inside an application bundle with an identifier, and not
// at all while the environment variable KESTROVA_NO_NOTIFICATIONS is present. Otherwise (a
// command-line tool, Linux, no permission) every operation silently does nothing. No operation
// reports an error; errors of the notification center are ignored.
//
// A Reminders object reaches the notification center, the clock and the environment variables
// through its Env (env.h), which it does not own. It keeps no state of its own and may be used from
// any thread, provided its Env's notification center may.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/env.h>
#include <kestrova/models.h>
#include <kestrova/notification_center.h>

namespace kestrova {

// Where the running program lives and what it is called, as the platform's bundle service sees
// it. A command-line tool's "bundle" is the folder of its executable and has no identifier.
struct AppBundle {
  std::filesystem::path location;
  std::optional<std::string> identifier;

  // The running process: the folder of env.executablePath() (empty when it has none) and no
  // identifier, since this build has no bundle service (and Linux no application bundles).
  static AppBundle main(Env& env = Env::real());
};

class Reminders {
 public:
  static constexpr std::string_view categoryHint = "KESTROVA_HINT";
  static constexpr std::string_view actionOpen = "OPEN";
  static constexpr std::string_view actionLater = "LATER";
  static constexpr std::string_view actionDismiss = "DISMISS";

  // The running process: AppBundle::main(env).
  explicit Reminders(Env& env = Env::real());
  // Tests and embedders choose the bundle. env.notificationCenter() is asked once, here (null makes
  // the object unusable); env.now() decides whether a reminder lies in the future.
  explicit Reminders(AppBundle bundle, Env& env = Env::real());

  // True only inside a bundle whose location ends in ".app", that has an identifier, while
  // KESTROVA_NO_NOTIFICATIONS is absent from the Env (checked on every call), and with a
  // notification center. Every operation below first checks this and does nothing when false.
  bool isUsable() const;

  // Asks the user for permission (alert, sound, badge) when nothing is decided yet.
  void ensurePermission() const;

  // Registers exactly one category, "KESTROVA_HINT", with the actions "Öffnen" (brings the
  // application forward), "Später" and "Nicht relevant" (destructive), in this order.
  void registerCategories() const;

  // Replaces the tab's pending reminder ("reminder-<tab id>") by one for its reminderAt, to the
  // minute in the local time zone. A reminder that is absent or not in the future only removes
  // the pending one. Needs permission (asked for when undecided).
  void schedule(const SavedTab& tab) const;

  // Removes the tab's pending reminder.
  void cancel(const Uuid& tabId) const;

  // Removes every pending reminder and schedules one for each tab whose reminderAt lies in the
  // future, in list order. Pending hint notifications are left alone.
  void rescheduleAll(const std::vector<SavedTab>& tabs) const;

  // Delivers a hint about `tab` at once ("hint-<hint id>"), silently. Needs permission.
  void postHint(const Hint& hint, const SavedTab& tab) const;

  // The requests the operations above add.
  // A reminder request for a tab without reminderAt has no trigger.
  static NotificationRequest reminderRequest(const SavedTab& tab);
  static NotificationRequest hintRequest(const Hint& hint, const SavedTab& tab);

 private:
  bool permitted() const;

  AppBundle bundle_;
  Env* env_;
  NotificationCenter* center_;
};

}  // namespace kestrova
