// Fmt: the date and number texts the user sees (Swiss German, locale de_CH, the system's current
// time zone), the ISO 8601 texts of the document and the MCP results, and the reading of dates a
// user or an assistant typed. Stateless; safe to call from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <kestrova/models.h>

namespace kestrova::Fmt {

std::string full(Date date);             // "Freitag, 09.10.2026, 14:05"
std::string weekdayDayMonth(Date date);  // "Fr. 09.10." (weekday as the locale abbreviates it)
std::string dayMonth(Date date);         // "09.10."
std::string dayMonthTime(Date date);     // "09.10. 14:05"
std::string dayKey(Date date);           // "2026-10-09", the local calendar day

// `date` with an ICU date pattern, in the locale de_CH and the current time zone.
std::string formatted(Date date, const char* pattern);

// ISO 8601 in UTC with "Z" and whole seconds (fractions are dropped): "2026-10-09T12:05:00Z".
std::string iso(Date date);

// Reads, first match wins: an internet date-time with seconds and a zone ("Z" or an offset); a
// date alone (midnight UTC); local "yyyy-MM-dd'T'HH:mm", "yyyy-MM-dd HH:mm" and
// "yyyy-MM-dd'T'HH:mm:ss". The text is not trimmed and fractional seconds are not accepted.
std::optional<Date> parseISO(std::string_view text);

// Reads only the internet date-time form (the first rule of parseISO); the document's dates.
std::optional<Date> parseInternetDateTime(std::string_view text);

// Decimal digits grouped in threes with "'": 123456 gives "123'456", -4500 gives "-4'500".
std::string number(std::int64_t value);

}  // namespace kestrova::Fmt
