#include <exception>

#include <time.h>

#include <kestrova/fmt.h>
#include <kestrova/reminders.h>

namespace kestrova {
namespace {

const std::string kReminderPrefix = "reminder-";
const std::string kHintPrefix = "hint-";

std::string reminderId(const Uuid& tabId) {
  return kReminderPrefix + tabId.string();
}

// The minute of `date` in the local calendar; seconds are not part of a trigger.
CalendarTrigger localMinute(Date date) {
  const std::time_t seconds = static_cast<std::time_t>(
      std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count());
  struct tm local {};
  ::localtime_r(&seconds, &local);
  CalendarTrigger trigger;
  trigger.year = local.tm_year + 1900;
  trigger.month = local.tm_mon + 1;
  trigger.day = local.tm_mday;
  trigger.hour = local.tm_hour;
  trigger.minute = local.tm_min;
  trigger.repeats = false;
  return trigger;
}

// Runs one call into the notification center; its errors never reach our callers.
template <typename Body>
void ignoringErrors(Body&& body) {
  try {
    body();
  } catch (const std::exception&) {
    // The center failed; notifications are a courtesy, so the caller goes on without one.
  }
}

}  // namespace

AppBundle AppBundle::main(Env& env) {
  AppBundle bundle;
  if (std::optional<std::filesystem::path> executable = env.executablePath()) {
    bundle.location = executable->parent_path();
  }
  return bundle;
}

Reminders::Reminders(Env& env) : Reminders(AppBundle::main(env), env) {}

Reminders::Reminders(AppBundle bundle, Env& env)
    : bundle_(std::move(bundle)), env_(&env), center_(env.notificationCenter()) {}

bool Reminders::isUsable() const {
  return center_ != nullptr && bundle_.location.extension() == ".app" &&
         bundle_.identifier.has_value() && !env_->variable("KESTROVA_NO_NOTIFICATIONS");
}

bool Reminders::permitted() const {
  switch (center_->authorizationStatus()) {
    case AuthorizationStatus::authorized:
    case AuthorizationStatus::provisional:
    case AuthorizationStatus::ephemeral:
      return true;
    case AuthorizationStatus::denied:
      return false;
    case AuthorizationStatus::notDetermined:
      return center_->requestAuthorization({.alert = true, .sound = true, .badge = true});
  }
  return false;
}

void Reminders::ensurePermission() const {
  if (!isUsable()) {
    return;
  }
  ignoringErrors([&] { permitted(); });
}

void Reminders::registerCategories() const {
  if (!isUsable()) {
    return;
  }
  NotificationCategory category;
  category.identifier = std::string(categoryHint);
  category.actions = {
      {std::string(actionOpen), "Öffnen", /*foreground=*/true, /*destructive=*/false},
      {std::string(actionLater), "Später", false, false},
      {std::string(actionDismiss), "Nicht relevant", false, /*destructive=*/true},
  };
  ignoringErrors([&] { center_->setCategories({category}); });
}

void Reminders::schedule(const SavedTab& tab) const {
  if (!isUsable()) {
    return;
  }
  ignoringErrors([&] {
    center_->removePendingRequests({reminderId(tab.id)});
    if (!tab.reminderAt || *tab.reminderAt <= env_->now()) {
      return;
    }
    if (!permitted()) {
      return;
    }
    center_->add(reminderRequest(tab));
  });
}

void Reminders::cancel(const Uuid& tabId) const {
  if (!isUsable()) {
    return;
  }
  ignoringErrors([&] { center_->removePendingRequests({reminderId(tabId)}); });
}

void Reminders::rescheduleAll(const std::vector<SavedTab>& tabs) const {
  if (!isUsable()) {
    return;
  }
  ignoringErrors([&] {
    std::vector<std::string> stale;
    for (const NotificationRequest& request : center_->pendingRequests()) {
      if (request.identifier.starts_with(kReminderPrefix)) {
        stale.push_back(request.identifier);
      }
    }
    if (!stale.empty()) {
      center_->removePendingRequests(stale);
    }
  });
  const Date current = env_->now();
  for (const SavedTab& tab : tabs) {
    if (tab.reminderAt && *tab.reminderAt > current) {
      schedule(tab);
    }
  }
}

void Reminders::postHint(const Hint& hint, const SavedTab& tab) const {
  if (!isUsable()) {
    return;
  }
  ignoringErrors([&] {
    if (!permitted()) {
      return;
    }
    center_->add(hintRequest(hint, tab));
  });
}

NotificationRequest Reminders::reminderRequest(const SavedTab& tab) {
  NotificationRequest request;
  request.identifier = reminderId(tab.id);
  request.title = "Schau dir diesen Tab an";
  request.body = tab.note.empty() ? tab.title : tab.title + "\n" + tab.note;
  request.categoryIdentifier = std::string(categoryHint);
  request.userInfo = {{"tabId", tab.id.string()}};
  request.defaultSound = true;
  if (tab.reminderAt) {
    request.trigger = localMinute(*tab.reminderAt);
  }
  return request;
}

NotificationRequest Reminders::hintRequest(const Hint& hint, const SavedTab& tab) {
  NotificationRequest request;
  request.identifier = kHintPrefix + hint.id.string();
  request.title = "Schau dir diesen Tab an: «" + tab.title + "»";
  request.body = "Gespeichert am " + Fmt::dayMonth(tab.savedAt) + ". " + hint.reason;
  request.categoryIdentifier = std::string(categoryHint);
  request.userInfo = {{"tabId", tab.id.string()}, {"hintId", hint.id.string()}};
  request.defaultSound = false;
  return request;
}

}  // namespace kestrova
