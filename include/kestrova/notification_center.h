// NotificationCenter: the platform's local-notification service, reduced to what Kestrova uses
// (authorisation, one category with actions, calendar-triggered requests, removal and listing of
// pending requests). Reminders (reminders.h) is its only user.
//
// The platform service exists only for application bundles; a command-line tool has none, and on
// Linux there is no such service at all, so Env::notificationCenter() (env.h) gives no center
// there. Tests pass an Env with a recording fake. Implementations serialise their own work and may
// be called from any thread; an implementation may throw, and its callers ignore such errors.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

// Whether the user allowed this application to post notifications.
enum class AuthorizationStatus { notDetermined, denied, authorized, provisional, ephemeral };

// What a request for permission asks for.
struct AuthorizationOptions {
  bool alert = false;
  bool sound = false;
  bool badge = false;

  friend bool operator==(const AuthorizationOptions&, const AuthorizationOptions&) = default;
};

// A button of a notification.
struct NotificationAction {
  std::string identifier;
  std::string title;
  bool foreground = false;   // brings the application to the foreground
  bool destructive = false;  // shown as a destructive choice

  friend bool operator==(const NotificationAction&, const NotificationAction&) = default;
};

// A kind of notification and its buttons, in display order.
struct NotificationCategory {
  std::string identifier;
  std::vector<NotificationAction> actions;
  std::vector<std::string> intentIdentifiers;

  friend bool operator==(const NotificationCategory&, const NotificationCategory&) = default;
};

// Fires when the local calendar reaches this minute.
struct CalendarTrigger {
  int year = 0;
  int month = 0;  // 1 to 12
  int day = 0;    // 1 to 31
  int hour = 0;   // 0 to 23
  int minute = 0;
  bool repeats = false;

  friend bool operator==(const CalendarTrigger&, const CalendarTrigger&) = default;
};

// One notification to deliver. Without a trigger it is delivered at once.
struct NotificationRequest {
  std::string identifier;  // adding a request with a pending identifier replaces that request
  std::string title;
  std::string body;
  std::string categoryIdentifier;
  std::map<std::string, std::string> userInfo;
  bool defaultSound = false;  // false: silent
  std::optional<CalendarTrigger> trigger;

  friend bool operator==(const NotificationRequest&, const NotificationRequest&) = default;
};

class NotificationCenter {
 public:
  virtual ~NotificationCenter() = default;

  virtual AuthorizationStatus authorizationStatus() = 0;
  // Asks the user and waits for the answer; true when permission was granted.
  virtual bool requestAuthorization(AuthorizationOptions options) = 0;
  // Replaces the registered categories with exactly these.
  virtual void setCategories(const std::vector<NotificationCategory>& categories) = 0;
  virtual void add(const NotificationRequest& request) = 0;
  // Identifiers without a pending request are ignored.
  virtual void removePendingRequests(const std::vector<std::string>& identifiers) = 0;
  // The requests that have a trigger and have not fired yet.
  virtual std::vector<NotificationRequest> pendingRequests() = 0;
};

}  // namespace kestrova
