#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>

namespace kestrova {
namespace {

void useZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

Date utc(const char* text) {
  return *Fmt::parseInternetDateTime(text);
}

TEST(FmtDisplay, SwissGermanPatternsInTheLocalZoneAndIsoInUtcWithWholeSeconds) {
  useZone("Europe/Zurich");
  const Date date = utc("2026-10-09T12:05:00Z");  // Friday, 14:05 in Zurich
  EXPECT_EQ(Fmt::full(date), "Freitag, 09.10.2026, 14:05");
  EXPECT_EQ(Fmt::dayMonth(date), "09.10.");
  EXPECT_EQ(Fmt::dayMonthTime(date), "09.10. 14:05");
  EXPECT_EQ(Fmt::weekdayDayMonth(date), "Fr. 09.10.");
  EXPECT_EQ(Fmt::dayKey(utc("2026-10-09T22:30:00Z")), "2026-10-10");  // already 10 October
  useZone("America/New_York");
  EXPECT_EQ(Fmt::dayKey(utc("2026-10-10T03:30:00Z")), "2026-10-09");
  // Before October 1582 the calendar stays Gregorian.
  useZone("UTC");
  EXPECT_EQ(Fmt::full(utc("1600-02-29T12:00:00Z")), "Dienstag, 29.02.1600, 12:00");
  EXPECT_EQ(Fmt::dayKey(utc("0001-01-01T00:00:00Z")), "0001-01-01");
  EXPECT_EQ(Fmt::iso(utc("2026-10-09T12:05:00Z") + std::chrono::milliseconds(999)),
            "2026-10-09T12:05:00Z");
  EXPECT_EQ(Fmt::iso(Date{} - std::chrono::milliseconds(1)), "1969-12-31T23:59:59Z");
}

// Every form parseISO reads, each limit of the years 1 to 9999 and of the clock, and one past it.
// An empty `iso` means refused: outside the span is no date, never a wrapped one.
TEST(FmtParseIso, ReadsEachFormUpToItsLimitsAndRefusesTheRest) {
  const struct {
    const char *zone, *text, *iso;
  } cases[] = {
      {"UTC", "2026-10-09T09:00:00-05:30", "2026-10-09T14:30:00Z"},
      {"UTC", "2026-10-09T23:59:59+23:59", "2026-10-09T00:00:59Z"},
      {"UTC", "0001-01-01T00:00:00Z", "0001-01-01T00:00:00Z"},
      {"UTC", "9999-12-31T23:59:59Z", "9999-12-31T23:59:59Z"},
      {"UTC", "0001-01-01", "0001-01-01T00:00:00Z"},
      {"UTC", "0001-01-01 00:00", "0001-01-01T00:00:00Z"},
      {"UTC", "9999-12-31T23:59:59", "9999-12-31T23:59:59Z"},
      {"Europe/Zurich", "2026-10-09", "2026-10-09T00:00:00Z"},  // a day alone is UTC
      {"Europe/Zurich", "2026-10-09T09:00", "2026-10-09T07:00:00Z"},
      {"Pacific/Kiritimati", "9999-12-31T23:59", "9999-12-31T09:59:00Z"},  // UTC+14: inside
      {"America/New_York", "9999-12-31T23:59", ""},
      {"UTC", "0000-12-31T23:59:59Z", ""},
      {"UTC", "0001-01-01T00:00:00+00:01", ""},
      {"UTC", "9999-12-31T23:59:59-00:01", ""},
      {"UTC", "2026-10-09T24:00:00Z", ""},
      {"UTC", "2026-10-09T23:60:00Z", ""},
      {"UTC", "2026-10-09T23:59:60Z", ""},
      {"UTC", "2026-10-09T09:00:00+24:00", ""},
      {"UTC", "2026-10-09T09:00:00+23:60", ""},
      {"UTC", "2026-10-09T09:00:00.5Z", ""},
      {"UTC", "2026-02-30T10:00:00Z", ""},
      {"UTC", "2026-10-09T09:00 ", ""},
      {"UTC", " 2026-10-09T09:00", ""},  // blanks before a local time, which ICU would skip
      {"UTC", "", ""},
  };
  for (const auto& c : cases) {
    useZone(c.zone);
    const auto date = Fmt::parseISO(c.text);
    EXPECT_EQ(date ? Fmt::iso(*date) : "", c.iso) << '"' << c.text << "\" in " << c.zone;
  }
  EXPECT_FALSE(Fmt::parseInternetDateTime("2026-10-09T09:00:00"));  // needs a zone
}

TEST(FmtNumber, GroupsWithApostrophe) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, "0"}, {999, "999"}, {1000, "1'000"}, {-4500, "-4'500"}};
  for (const auto& [value, text] : cases)
    EXPECT_EQ(Fmt::number(value), text);
  EXPECT_EQ(Fmt::number(INT64_MIN), "-9'223'372'036'854'775'808");
}

}  // namespace
}  // namespace kestrova
