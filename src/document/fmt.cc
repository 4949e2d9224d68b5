#include <chrono>
#include <memory>

#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <kestrova/fmt.h>

namespace kestrova::Fmt {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::sys_days;

std::int64_t floorSeconds(Date date) {
  return std::chrono::floor<seconds>(date.time_since_epoch()).count();
}

// Dates outside the years 1 to 9999 are invalid, whichever form they were written in (an offset
// can push "0001-01-01T00:00:00+01:00" into the year 0).
constexpr std::int64_t kFirstSecond =
    std::chrono::floor<seconds>(kFirstDate.time_since_epoch()).count();
constexpr std::int64_t kLastSecond =
    std::chrono::floor<seconds>(kLastDate.time_since_epoch()).count();

std::optional<Date> dateFromSeconds(std::int64_t total) {
  if (total < kFirstSecond || total > kLastSecond) {
    return std::nullopt;
  }
  return Date(seconds(total));
}

std::optional<Date> dateFromMilliseconds(double ms) {
  if (!(ms >= static_cast<double>(kFirstSecond) * 1000.0 &&
        ms <= static_cast<double>(kLastSecond) * 1000.0)) {
    return std::nullopt;
  }
  return Date(milliseconds(static_cast<std::int64_t>(ms)));
}

// A calendar in the current time zone that is Gregorian all the way back: ICU's default switches
// to the Julian calendar before October 1582, which would shift every earlier date by days.
icu::Calendar* prolepticCalendar(const char* locale, UErrorCode& status) {
  auto calendar = std::make_unique<icu::GregorianCalendar>(icu::TimeZone::detectHostTimeZone(),
                                                           icu::Locale(locale), status);
  calendar->setGregorianChange(U_DATE_MIN, status);
  return U_SUCCESS(status) ? calendar.release() : nullptr;
}

// Formats with a fresh ICU formatter in the process's current time zone (TZ is read on each
// call, so a change of zone is honoured at once).
std::string formatLocal(Date date, const char* pattern, const char* locale) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat formatter(icu::UnicodeString::fromUTF8(pattern), icu::Locale(locale),
                                  status);
  icu::Calendar* calendar = prolepticCalendar(locale, status);
  if (U_FAILURE(status) || calendar == nullptr) {
    return {};
  }
  formatter.adoptCalendar(calendar);
  const auto ms =
      static_cast<UDate>(std::chrono::floor<milliseconds>(date.time_since_epoch()).count());
  icu::UnicodeString out;
  formatter.format(ms, out);
  std::string text;
  out.toUTF8String(text);
  return text;
}

bool digits(std::string_view text, std::size_t at, std::size_t count, int& value) {
  if (at + count > text.size()) {
    return false;
  }
  value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    char c = text[i];
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + (c - '0');
  }
  return true;
}

// Reads "yyyy-MM-dd" at the start of `text` into a day count; false if malformed or invalid.
bool readDate(std::string_view text, sys_days& day) {
  int y = 0;
  int m = 0;
  int d = 0;
  if (text.size() < 10 || !digits(text, 0, 4, y) || text[4] != '-' || !digits(text, 5, 2, m) ||
      text[7] != '-' || !digits(text, 8, 2, d)) {
    return false;
  }
  const std::chrono::year_month_day ymd{std::chrono::year{y},
                                        std::chrono::month{static_cast<unsigned>(m)},
                                        std::chrono::day{static_cast<unsigned>(d)}};
  if (!ymd.ok()) {
    return false;
  }
  day = sys_days{ymd};
  return true;
}

std::optional<Date> parseLocal(std::string_view text, const char* pattern) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat formatter(icu::UnicodeString::fromUTF8(pattern), icu::Locale("en_US_POSIX"),
                                  status);
  icu::Calendar* calendar = prolepticCalendar("en_US_POSIX", status);
  if (U_FAILURE(status) || calendar == nullptr) {
    return std::nullopt;
  }
  formatter.adoptCalendar(calendar);
  formatter.setLenient(false);
  const icu::UnicodeString input = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  icu::ParsePosition position(0);
  const UDate ms = formatter.parse(input, position);
  if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) {
    return std::nullopt;
  }
  return dateFromMilliseconds(ms);
}

}  // namespace

std::string formatted(Date date, const char* pattern) {
  return formatLocal(date, pattern, "de_CH");
}

std::string full(Date date) {
  return formatLocal(date, "EEEE, dd.MM.yyyy, HH:mm", "de_CH");
}
std::string weekdayDayMonth(Date date) {
  return formatLocal(date, "EE dd.MM.", "de_CH");
}
std::string dayMonth(Date date) {
  return formatLocal(date, "dd.MM.", "de_CH");
}
std::string dayMonthTime(Date date) {
  return formatLocal(date, "dd.MM. HH:mm", "de_CH");
}
std::string dayKey(Date date) {
  return formatLocal(date, "yyyy-MM-dd", "de_CH");
}

std::string iso(Date date) {
  const std::int64_t total = floorSeconds(date);
  const auto day = std::chrono::floor<std::chrono::days>(seconds(total));
  const std::chrono::year_month_day ymd{sys_days{day}};
  const std::int64_t secondOfDay = total - day.count() * 86400;
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", int(ymd.year()),
                unsigned(ymd.month()), unsigned(ymd.day()), int(secondOfDay / 3600),
                int(secondOfDay / 60 % 60), int(secondOfDay % 60));
  return buffer;
}

std::optional<Date> parseInternetDateTime(std::string_view text) {
  sys_days day;
  int hh = 0;
  int mm = 0;
  int ss = 0;
  if (text.size() < 20 || !readDate(text, day) || text[10] != 'T' || !digits(text, 11, 2, hh) ||
      text[13] != ':' || !digits(text, 14, 2, mm) || text[16] != ':' || !digits(text, 17, 2, ss)) {
    return std::nullopt;
  }
  if (hh > 23 || mm > 59 || ss > 59) {
    return std::nullopt;
  }
  std::int64_t offset = 0;
  const std::string_view zone = text.substr(19);
  if (zone == "Z") {
    offset = 0;
  } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
    int oh = 0;
    int om = 0;
    if (!digits(zone, 1, 2, oh) || !digits(zone, 4, 2, om) || oh > 23 || om > 59) {
      return std::nullopt;
    }
    offset = (oh * 3600 + om * 60) * (zone[0] == '-' ? -1 : 1);
  } else {
    return std::nullopt;
  }
  const std::int64_t total =
      std::int64_t{day.time_since_epoch().count()} * 86400 + hh * 3600 + mm * 60 + ss - offset;
  return dateFromSeconds(total);
}

std::optional<Date> parseISO(std::string_view text) {
  if (auto date = parseInternetDateTime(text)) {
    return date;
  }
  sys_days day;
  if (text.size() == 10 && readDate(text, day)) {
    return dateFromSeconds(std::int64_t{day.time_since_epoch().count()} * 86400);
  }
  // Local-time forms: only texts that start like a date, so ICU's own leniency about leading
  // blanks cannot accept what the rules reject.
  if (text.empty() || text.front() < '0' || text.front() > '9') {
    return std::nullopt;
  }
  for (const char* pattern : {"yyyy-MM-dd'T'HH:mm", "yyyy-MM-dd HH:mm", "yyyy-MM-dd'T'HH:mm:ss"}) {
    if (auto date = parseLocal(text, pattern)) {
      return date;
    }
  }
  return std::nullopt;
}

std::string number(std::int64_t value) {
  // Work on the magnitude as unsigned so the smallest Int64 has a well-defined absolute value.
  std::uint64_t magnitude = value < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(value)
                                      : static_cast<std::uint64_t>(value);
  std::string digitsText = std::to_string(magnitude);
  std::string out;
  if (value < 0) {
    out.push_back('-');
  }
  const std::size_t n = digitsText.size();
  for (std::size_t i = 0; i < n; ++i) {
    out.push_back(digitsText[i]);
    const std::size_t left = n - 1 - i;
    if (left > 0 && left % 3 == 0) {
      out.push_back('\'');
    }
  }
  return out;
}

}  // namespace kestrova::Fmt
