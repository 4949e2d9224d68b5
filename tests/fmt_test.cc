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

TEST_F(FmtTest, ParseIsoWithZoneOrOffset) {
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00:00+02:00"), utc("2026-10-09T07:00:00Z"));
  EXPECT_EQ(Fmt::parseISO("2026-10-09T09:00:00-05:30"), utc("2026-10-09T14:30:00Z"));
  EXPECT_EQ(Fmt::parseISO("2026-10-09"), utc("2026-10-09T00:00:00Z"));
}

TEST_F(FmtTest, ParseIsoLocalForms) {
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
}

TEST_F(FmtTest, InternetDateTimeNeedsAZone) {
  EXPECT_FALSE(Fmt::parseInternetDateTime("2026-10-09T09:00:00"));
  EXPECT_FALSE(Fmt::parseInternetDateTime("2026-10-09"));
  EXPECT_TRUE(Fmt::parseInternetDateTime("2026-10-09T09:00:00Z"));
}

TEST_F(FmtTest, ParseIsoRefusesTimesADateCannotHold) {
  // A date counts nanoseconds in 64 bits; years far outside 1678 to 2261 must not wrap around.
  for (const char* far :
       {"0000-01-01T00:00:00Z", "1000-06-15T12:00:00+02:00", "9999-12-31", "0001-01-01",
        "1600-01-01T09:00", "2500-01-01 09:00", "9999-12-31T23:59:59"}) {
    EXPECT_FALSE(Fmt::parseISO(far)) << far;
    EXPECT_FALSE(Fmt::parseInternetDateTime(far)) << far;
  }
  // The edges of the span still read, and write back to the same second.
  for (const char* edge : {"1678-01-01T00:00:00Z", "2261-12-31T23:59:59Z", "1970-01-01"}) {
    const auto date = Fmt::parseISO(edge);
    ASSERT_TRUE(date) << edge;
    EXPECT_EQ(Fmt::parseISO(Fmt::iso(*date)), date) << edge;
  }
}

TEST(FmtNumber, GroupsWithApostrophe) {
  EXPECT_EQ(Fmt::number(0), "0");
  EXPECT_EQ(Fmt::number(999), "999");
  EXPECT_EQ(Fmt::number(1000), "1'000");
  EXPECT_EQ(Fmt::number(123456), "123'456");
  EXPECT_EQ(Fmt::number(100000), "100'000");
  EXPECT_EQ(Fmt::number(-1), "-1");
  EXPECT_EQ(Fmt::number(-4500), "-4'500");
  EXPECT_EQ(Fmt::number(INT64_MIN), "-9'223'372'036'854'775'808");
}

}  // namespace
}  // namespace kestrova
