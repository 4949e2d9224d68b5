#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include <kestrova/fmt.h>

namespace kestrova {
namespace {

class FmtTest : public ::testing::Test {
 protected:
  void SetUp() override { useZone("Europe/Zurich"); }
  static void useZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  static Date utc(const char* text) { return *Fmt::parseInternetDateTime(text); }
};

TEST_F(FmtTest, DisplayPatternsInSwissGerman) {
  const Date date = utc("2026-10-09T12:05:00Z");  // Friday, 14:05 in Zurich
  EXPECT_EQ(Fmt::full(date), "Freitag, 09.10.2026, 14:05");
  EXPECT_EQ(Fmt::dayMonth(date), "09.10.");
  EXPECT_EQ(Fmt::dayMonthTime(date), "09.10. 14:05");
  EXPECT_EQ(Fmt::dayKey(date), "2026-10-09");
  EXPECT_EQ(Fmt::weekdayDayMonth(date), "Fr. 09.10.");
}

TEST_F(FmtTest, DayKeyFollowsTheLocalCalendarDay) {
  const Date lateUtc = utc("2026-10-09T22:30:00Z");  // already 10 October in Zurich
  EXPECT_EQ(Fmt::dayKey(lateUtc), "2026-10-10");
  useZone("America/New_York");
  EXPECT_EQ(Fmt::dayKey(lateUtc), "2026-10-09");
  EXPECT_EQ(Fmt::dayKey(utc("2026-10-10T03:30:00Z")), "2026-10-09");
}

TEST_F(FmtTest, IsoIsUtcWithWholeSeconds) {
  const Date date = utc("2026-10-09T12:05:00Z") + std::chrono::milliseconds(999);
  EXPECT_EQ(Fmt::iso(date), "2026-10-09T12:05:00Z");
  EXPECT_EQ(Fmt::iso(Date{}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(Fmt::iso(Date{} - std::chrono::milliseconds(1)), "1969-12-31T23:59:59Z");
}

TEST_F(FmtTest, ParseIsoWithZoneOffsetOrLocalTime) {
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00:00+02:00"), utc("2026-10-09T07:00:00Z"));
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00:00-05:30"), utc("2026-10-09T14:30:00Z"));
  EXPECT_EQ(Fmt::parseISO("2026-10-09"), utc("2026-10-09T00:00:00Z"));
  const Date nineLocal = utc("2026-10-09T07:00:00Z");  // 09:00 summer time in Zurich
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00"), nineLocal);
  EXPECT_EQ(Fmt::parseISO("2026-10-09 09:00"), nineLocal);
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00:00"), nineLocal);
  useZone("UTC");
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00"), utc("2026-10-09T09:00:00Z"));
}

TEST_F(FmtTest, ParseIsoRejects) {
  for (const char* bad :
       {"09.10.2026", "", " 2026-10-09T09:00", "2026-10-09T09:00:00.5Z",
        "2026-10-09T09:00:00.123+02:00", "morgen", "2026-13-01", "2026-02-30T10:00:00Z",
        "2026-10-09T25:00:00Z", "2026-10-09T09:00 ", "2026-10-09T09"}) {
    EXPECT_FALSE(Fmt::parseISO(bad)) << '"' << bad << '"';
  }
  // The internet form needs a zone.
  EXPECT_FALSE(Fmt::parseInternetDateTime("2026-10-09T09:00:00"));
  EXPECT_FALSE(Fmt::parseInternetDateTime("2026-10-09"));
  EXPECT_TRUE(Fmt::parseInternetDateTime("2026-10-09T09:00:00Z"));
}

TEST_F(FmtTest, EveryYearFromOneTo9999ReadsAndWritesExactly) {
  // Each form of every rule, far from 1970 on both sides; local forms read in UTC so that the
  // expected texts are plain. Before October 1582 the calendar must stay Gregorian.
  useZone("UTC");
  const std::pair<const char*, const char*> accepted[] = {
      {"0001-01-01T00:00:00Z", "0001-01-01T00:00:00Z"},
      {"9999-12-31T23:59:59Z", "9999-12-31T23:59:59Z"},
      {"0001-01-01T00:30:00+00:30", "0001-01-01T00:00:00Z"},
      {"9999-12-31T22:59:59-01:00", "9999-12-31T23:59:59Z"},
      {"2300-01-01T00:00:00Z", "2300-01-01T00:00:00Z"},
      {"1600-02-29T12:00:00Z", "1600-02-29T12:00:00Z"},
      {"0001-01-01", "0001-01-01T00:00:00Z"},
      {"9999-12-31", "9999-12-31T00:00:00Z"},
      {"1500-03-01T10:00", "1500-03-01T10:00:00Z"},
      {"0001-01-01 00:00", "0001-01-01T00:00:00Z"},
      {"9999-12-31T23:59:59", "9999-12-31T23:59:59Z"}};
  for (const auto& [text, iso] : accepted) {
    const auto date = Fmt::parseISO(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(Fmt::iso(*date), iso) << text;
  }
  EXPECT_EQ(Fmt::dayKey(*Fmt::parseISO("0001-01-01")), "0001-01-01");
  EXPECT_EQ(Fmt::full(*Fmt::parseISO("1600-02-29T12:00:00Z")), "Dienstag, 29.02.1600, 12:00");
  // Outside the span is an invalid date, never a wrapped one.
  for (const char* outside : {"0000-12-31T23:59:59Z", "0001-01-01T00:00:00+00:01",
                              "9999-12-31T23:59:59-00:01", "0000-01-01", "0000-12-31T23:59"}) {
    EXPECT_FALSE(Fmt::parseISO(outside)) << outside;
  }
  useZone("Pacific/Kiritimati");  // UTC+14: a local 9999-12-31T23:59 is still inside
  EXPECT_TRUE(Fmt::parseISO("9999-12-31T23:59"));
  useZone("America/New_York");
  EXPECT_FALSE(Fmt::parseISO("9999-12-31T23:59"));
}

TEST(FmtNumber, GroupsWithApostrophe) {
  const std::pair<std::int64_t, const char*> cases[] = {{0, "0"},
                                                        {999, "999"},
                                                        {1000, "1'000"},
                                                        {123456, "123'456"},
                                                        {100000, "100'000"},
                                                        {-1, "-1"},
                                                        {-4500, "-4'500"},
                                                        {INT64_MIN, "-9'223'372'036'854'775'808"}};
  for (const auto& [value, text] : cases)
    EXPECT_EQ(Fmt::number(value), text);
}

}  // namespace
}  // namespace kestrova
