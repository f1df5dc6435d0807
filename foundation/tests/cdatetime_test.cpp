#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcdatetime.h"
#include "foundation/tests/utc.h"
#include "platform/testing/virtual_clock.h"

namespace ZepFoundation {
namespace {

using platform::ScopedZone;
using platform::VirtualClock;

CDateTime At(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  CDateTime value;
  EXPECT_TRUE(value.SetDateTime(y, mo, d, h, mi, s, ms));
  return value;
}

std::string Shown(const CDateTime& value) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, ms = 0;
  if (!value.GetDateTime(&y, &mo, &d, &h, &mi, &s, &ms)) return "invalid";
  std::ostringstream out;
  out << y << '-' << mo << '-' << d << ' ' << h << ':' << mi << ':' << s << '.' << ms;
  return out.str();
}

// The zone is New York, the clock stands in winter.
class DateTime : public ::testing::Test {
 protected:
  ScopedZone m_zone{"America/New_York"};
  VirtualClock m_clock{Utc(2024, 1, 15, 12), 250};
};

TEST_F(DateTime, IsEqualWithinOneSecond) {
  const CDateTime a = At(2024, 2, 29, 12, 0, 0, 100);
  const CDateTime b = At(2024, 2, 29, 12, 0, 0, 400);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_FALSE(a < b);
  EXPECT_TRUE(a <= b);
  EXPECT_TRUE(a >= b);
  EXPECT_FALSE(a > b);
}

TEST_F(DateTime, OrdersBySeconds) {
  const CDateTime a = At(2024, 2, 29, 12, 0, 0, 999);
  const CDateTime b = At(2024, 2, 29, 12, 0, 1, 0);
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(a <= b);
  EXPECT_TRUE(b > a);
  EXPECT_TRUE(b >= a);
  EXPECT_TRUE(a != b);
}

TEST_F(DateTime, ComparesAllValuesWithoutSecondsAsOne) {
  const CDateTime invalid;
  CDateTime lastSecond;
  ASSERT_TRUE(lastSecond.SetFromANSITime(-1));
  EXPECT_EQ(invalid.AsANSITime(), -1);
  EXPECT_TRUE(invalid == CDateTime());
  EXPECT_TRUE(invalid == lastSecond);
}

TEST_F(DateTime, IsInvalidWhenADayIsBorrowedFromTheMonthBefore) {
  CDateTime value = At(2024, 3, 1, 12);
  value.IncrementDay(-1);
  EXPECT_FALSE(value.IsValid());
  value = At(2024, 3, 2, 12);
  value.IncrementDay(-1);
  EXPECT_EQ(Shown(value), "2024-3-1 12:0:0.0");
  value = At(2024, 3, 16, 12);
  value.IncrementDay(-65536);
  EXPECT_FALSE(value.IsValid());
}

struct IncrementCase {
  int y, mo, d, days;
  const char* shown;
};
const IncrementCase kIncrements[] = {
    {2024, 2, 28, 1, "2024-2-29 10:0:0.5"},      {2024, 2, 29, 1, "2024-3-1 10:0:0.5"},
    {2024, 1, 31, 30, "2024-3-1 10:0:0.5"},      {2024, 12, 31, 366, "2026-1-1 10:0:0.5"},
    {2024, 1, 1, 0, "2024-1-1 10:0:0.5"},        {2024, 1, 1, 10'000'000, "29403-1-27 10:0:0.5"},
    {2024, 1, 1, 2'000'000'000, "invalid"},      {2024, 1, 1, std::numeric_limits<int>::max(), "invalid"},
    {2024, 1, 1, std::numeric_limits<int>::min(), "invalid"},
};
TEST_F(DateTime, MovesByDays) {
  for (const IncrementCase& c : kIncrements) {
    CDateTime value = At(c.y, c.mo, c.d, 10, 0, 0, 5);
    value.IncrementDay(c.days);
    EXPECT_EQ(Shown(value), c.shown) << c.days;
  }
  CDateTime invalid;
  invalid.IncrementDay(1);
  EXPECT_FALSE(invalid.IsValid());
}

TEST_F(DateTime, IsInvalidFromAZeroFileTimeThatIsNotLocal) {
  EXPECT_FALSE(CDateTime(FILETIME{}, false).IsValid());
  EXPECT_TRUE(CDateTime(FILETIME{}, true).IsValid());  // five hours after 1601 in UTC
}

TEST_F(DateTime, AppliesTheOffsetInForceNowToAnyInstant) {
  const CDateTime july = At(2024, 7, 1, 12);
  EXPECT_EQ(july.AsFileTime(false), CDateTime(SYSTEMTIME{2024, 7, 0, 1, 17, 0, 0, 0}, false).AsFileTime(false));
  m_clock.SetWall(Utc(2024, 7, 15));
  EXPECT_EQ(Shown(july), "2024-7-1 13:0:0.0");
}

struct AnsiCase {
  const char* zone;
  int y, mo, d, h, mi;
  std::int64_t seconds;
  int isDst = 0;
};
const AnsiCase kAnsi[] = {
    {"UTC", 2024, 2, 29, 12, 0, Utc(2024, 2, 29, 12)},
    {"UTC", 1960, 2, 29, 12, 0, Utc(1960, 2, 29, 12)},
    {"UTC", 1700, 2, 28, 12, 0, Utc(1700, 2, 28, 12)},
    {"America/New_York", 2024, 1, 1, 0, 0, Utc(2024, 1, 1, 5)},
    {"America/New_York", 2024, 7, 1, 0, 0, Utc(2024, 7, 1, 4), 1},
    {"America/New_York", 2024, 3, 10, 2, 30, Utc(2024, 3, 10, 7, 30), 1},
    {"America/New_York", 2024, 11, 3, 1, 30, Utc(2024, 11, 3, 6, 30)},
    {"Europe/Berlin", 2024, 3, 31, 2, 30, Utc(2024, 3, 31, 1, 30), 1},
    {"Europe/Berlin", 2024, 10, 27, 2, 30, Utc(2024, 10, 27, 1, 30)},
    {"Asia/Kolkata", 2024, 7, 1, 0, 0, Utc(2024, 6, 30, 18, 30)},
    {"Asia/Tokyo", 2024, 7, 1, 0, 0, Utc(2024, 6, 30, 15)},
};
TEST(DateTimeInZones, LeavesAsTheSecondsOfItsLocalFields) {
  for (const AnsiCase& c : kAnsi) {
    const ScopedZone zone(c.zone);
    for (int month : {1, 7}) {  // the season of the present cancels out
      VirtualClock clock(Utc(2024, month, 15));
      const CDateTime value = At(c.y, c.mo, c.d, c.h, c.mi, 0, 999);
      EXPECT_EQ(value.AsANSITime(), c.seconds) << c.zone << " " << c.mo << "/" << c.d << " now " << month;
      std::tm fields{};
      ASSERT_EQ(value.AsANSICalendarTime(&fields), &fields);
      EXPECT_EQ(fields.tm_hour, c.h);
      EXPECT_EQ(fields.tm_mday, c.d);
      EXPECT_EQ(fields.tm_isdst, c.isDst) << c.zone << " " << c.mo;
    }
  }
}

TEST(DateTimeInZones, GivesTheSameSecondsByTheShortWayAsByItsFields) {
  for (const char* name : {"UTC", "America/New_York", "Europe/Dublin", "Australia/Lord_Howe", "Asia/Tokyo"}) {
    const ScopedZone zone(name);
    VirtualClock clock(Utc(2024, 7, 15));
    for (std::int64_t at = Utc(1890, 1, 1); at < Utc(2050, 1, 1); at += 5'000'011) {
      CDateTime value;
      ASSERT_TRUE(value.SetFromANSITime(at));
      std::tm fields{};
      ASSERT_NE(value.AsANSICalendarTime(&fields), nullptr);
      std::int64_t seconds = 0;
      ASSERT_TRUE(platform::SecondsFromLocal(fields, seconds));
      ASSERT_EQ(value.AsANSITime(), seconds) << name << " " << at;
    }
  }
}

TEST_F(DateTime, HasNoCalendarTimeWhenItIsInvalid) {
  std::tm fields{};
  EXPECT_EQ(CDateTime().AsANSICalendarTime(&fields), nullptr);
  EXPECT_EQ(At(2024, 1, 1).AsANSICalendarTime(nullptr), nullptr);
  // Nor has the one second whose number stands for "none".
  CDateTime lastSecond;
  ASSERT_TRUE(lastSecond.SetFromANSITime(-1));
  EXPECT_EQ(lastSecond.AsANSICalendarTime(&fields), nullptr);
  std::ostringstream out;
  lastSecond.PrintDateTime(out);
  EXPECT_EQ(out.str(), "12/31/1969 -0:00:00 XX");
}

TEST_F(DateTime, TakesTheFieldsOfAnInstant) {
  CDateTime value;
  EXPECT_TRUE(value.SetDateTime(Utc(2024, 7, 1, 12)));
  EXPECT_EQ(Shown(value), "2024-7-1 8:0:0.0");
  EXPECT_EQ(value.AsANSITime(), Utc(2024, 7, 1, 12));
  value.SetUTC();
  EXPECT_TRUE(value.SetDateTime(Utc(2024, 7, 1, 12)));
  EXPECT_EQ(Shown(value), "2024-7-1 12:0:0.0");
}

TEST_F(DateTime, IsInvalidForInstantsBefore1601AndBehindItsLastYear) {
  for (std::int64_t at : {Utc(1600, 12, 30), Utc(-63512, 1, 1), Utc(30828, 1, 2), Utc(67560, 1, 1),
                          std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
    CDateTime value = At(2024, 1, 1);
    EXPECT_FALSE(value.SetDateTime(at)) << at;
    EXPECT_FALSE(value.IsValid()) << at;
    value = At(2024, 1, 1);
    EXPECT_FALSE(value.SetFromANSITime(at)) << at;
    EXPECT_FALSE(value.IsValid()) << at;
  }
}

TEST_F(DateTime, IsExactInUtcWhateverItsFlag) {
  CDateTime value;
  EXPECT_TRUE(value.SetFromANSITime(Utc(2024, 7, 1, 12)));
  EXPECT_TRUE(value.IsLocal());
  EXPECT_EQ(value.AsSystemTime(false), (SYSTEMTIME{2024, 7, 1, 1, 12, 0, 0, 0}));
}

struct RefusedTime {
  int y, mo, d, h, mi, s, ms;
};
const RefusedTime kRefusedTimes[] = {
    {1600, 12, 31, 0, 0, 0, 0}, {30828, 1, 1, 0, 0, 0, 0}, {2023, 2, 29, 0, 0, 0, 0}, {2024, 0, 1, 0, 0, 0, 0},
    {2024, 1, 1, 24, 0, 0, 0},  {2024, 1, 1, 0, 60, 0, 0}, {2024, 1, 1, 0, 0, 60, 0}, {2024, 1, 1, 0, 0, 0, 1000},
    {2024, 1, -1, 0, 0, 0, 0},  {99, 1, 1, 0, 0, 0, 0},
};
TEST_F(DateTime, IsInvalidAfterFieldsOutOfRange) {
  for (const RefusedTime& c : kRefusedTimes) {
    CDateTime value = At(2024, 1, 1);
    EXPECT_FALSE(value.SetDateTime(c.y, c.mo, c.d, c.h, c.mi, c.s, c.ms));
    EXPECT_FALSE(value.IsValid());
  }
}

TEST_F(DateTime, CutsItsFieldsTo16Bits) {
  CDateTime value;
  EXPECT_TRUE(value.SetDateTime(2024 + 65536, 2, 29, 65536, 0, 0, 0));
  EXPECT_EQ(Shown(value), "2024-2-29 0:0:0.0");
}

TEST_F(DateTime, KeepsTheOtherHalfWhenDateOrTimeIsSet) {
  CDateTime value = At(2024, 2, 29, 1, 2, 3, 4);
  EXPECT_TRUE(value.SetDate(2025, 3, 30));
  EXPECT_EQ(Shown(value), "2025-3-30 1:2:3.4");
  EXPECT_TRUE(value.SetTime(5, 6, 7, 8));
  EXPECT_EQ(Shown(value), "2025-3-30 5:6:7.8");
  EXPECT_TRUE(value.SetYear(2026));
  EXPECT_TRUE(value.SetMonth(2));
  EXPECT_TRUE(value.SetHour(23));
  EXPECT_EQ(Shown(value), "2026-2-28 23:6:7.8");
  CDateTime invalid;
  EXPECT_FALSE(invalid.SetTime(1, 2, 3, 4));
  EXPECT_FALSE(invalid.IsValid());
}

TEST_F(DateTime, CarriesWholeDaysOfAnIncrement) {
  CDateTime value = At(2024, 2, 29, 23, 59, 59, 999);
  value.IncrementMilliSecond(1);
  EXPECT_EQ(Shown(value), "2024-3-1 0:0:0.0");
  value.IncrementHour(49);
  EXPECT_EQ(Shown(value), "2024-3-3 1:0:0.0");
  value.IncrementMinute(24 * 60);
  EXPECT_EQ(Shown(value), "2024-3-4 1:0:0.0");
  value.IncrementHour(-2);
  EXPECT_FALSE(value.IsValid());
}

TEST_F(DateTime, IsThePresentWithEitherFlag) {
  CDateTime value;
  value.SetToUtcCurrent();
  EXPECT_FALSE(value.IsLocal());
  EXPECT_EQ(Shown(value), "2024-1-15 12:0:0.250");
  value.SetToSystemCurrent();
  EXPECT_TRUE(value.IsLocal());
  EXPECT_EQ(Shown(value), "2024-1-15 7:0:0.250");
  value.RewriteMilliSecond();
  EXPECT_EQ(Shown(value), "2024-1-15 7:0:0.250");
}

TEST_F(DateTime, PutsItsFlagBackAfterEachConstructor) {
  const SYSTEMTIME fields{2024, 2, 0, 29, 12, 0, 0, 0};
  EXPECT_EQ(Shown(CDateTime(fields, true)), "2024-2-29 12:0:0.0");
  EXPECT_EQ(Shown(CDateTime(fields, false)), "2024-2-29 7:0:0.0");
  EXPECT_EQ(Shown(CDateTime(45351.5, true)), "2024-2-29 12:0:0.0");
  EXPECT_EQ(Shown(CDateTime(45351.5, false)), "2024-2-29 7:0:0.0");
  EXPECT_FALSE(CDateTime(1e9, true).IsValid());
  EXPECT_FALSE(CDateTime(SYSTEMTIME{}, true).IsValid());
  const FILETIME noon = CDateTime(fields, false).AsFileTime(false);
  EXPECT_EQ(Shown(CDateTime(noon, true)), "2024-2-29 12:0:0.0");
  EXPECT_EQ(Shown(CDateTime(noon, false)), "2024-2-29 7:0:0.0");
}

TEST_F(DateTime, JoinsADateAndATime) {
  CDate date;
  date.SetDate(2024, 2, 29);
  WTime time;
  time.SetTime(22, 30, 0, 0);
  EXPECT_EQ(Shown(CDateTime(date, time)), "2024-2-29 22:30:0.0");
}

TEST_F(DateTime, CopiesItsInstantAndFlag) {
  CDateTime value;
  CDateTime source = At(2024, 2, 29, 12);
  source.SetUTC();
  value = source;
  EXPECT_FALSE(value.IsLocal());
  EXPECT_EQ(Shown(value), "2024-2-29 17:0:0.0");
}

TEST_F(DateTime, GivesTheSpanBetweenTwoInstants) {
  const CDateTime a = At(2024, 2, 29, 12);
  const CDateTime b = At(2024, 3, 1, 12, 0, 0, 1);
  EXPECT_EQ((b - a).GetMagnitude(), 86400001u);
  EXPECT_FALSE((b - a).IsNegative());
  EXPECT_EQ((a - b).GetMagnitude(), 86400001u);
  EXPECT_TRUE((a - b).IsNegative());
  EXPECT_FALSE((a - a).IsNegative());
}

TEST_F(DateTime, MovesBySpansAndIsThenLocal) {
  CDateTime value = At(2024, 2, 29, 12);
  value.SetUTC();
  const WTimeSpan hour(3600000, false);
  EXPECT_EQ(Shown(value + hour), "2024-2-29 13:0:0.0");
  EXPECT_EQ(Shown(value - hour), "2024-2-29 11:0:0.0");
  EXPECT_EQ(Shown(value + WTimeSpan(3600000, true)), "2024-2-29 11:0:0.0");
  EXPECT_FALSE(value.IsLocal());
  value += hour;
  EXPECT_TRUE(value.IsLocal());
  EXPECT_EQ(Shown(value), "2024-2-29 13:0:0.0");
  value.SetUTC();
  value -= hour;
  EXPECT_TRUE(value.IsLocal());
  EXPECT_EQ(Shown(value), "2024-2-29 12:0:0.0");
}

TEST_F(DateTime, CountsItsMillisecondsFromYear1AndBack) {
  const CDateTime value = At(2024, 2, 29, 1, 2, 3, 4);
  EXPECT_EQ(value.AsTotalMilliSeconds(), 738944u * std::uint64_t{86400000} + 3723004);
  CDateTime back;
  EXPECT_TRUE(back.SetFromTotalMilliSeconds(value.AsTotalMilliSeconds()));
  EXPECT_EQ(Shown(back), "2024-2-29 1:2:3.4");
  EXPECT_FALSE(back.SetFromTotalMilliSeconds(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_FALSE(back.IsValid());
}

TEST_F(DateTime, KnowsItsDayOfTheWeekAndOleDate) {
  EXPECT_EQ(At(2024, 2, 29, 23).GetDayOfWeek(), EDOW_THURSDAY);
  EXPECT_EQ(At(2024, 2, 29, 12).AsOLEDATE(), 45351.5);
  EXPECT_EQ(CDateTime().AsOLEDATE(), 0.0);
}

TEST_F(DateTime, WritesNothingWhenItIsInvalid) {
  int value = 42;
  const CDateTime invalid;
  EXPECT_FALSE(invalid.GetDateTime(&value, &value, &value, &value, &value, &value, &value));
  EXPECT_FALSE(invalid.GetDate(&value, &value, &value));
  EXPECT_FALSE(invalid.GetTime(&value, &value, &value, &value));
  EXPECT_EQ(value, 42);
  EXPECT_EQ(invalid.AsFileTime(false), FILETIME{});
}

TEST_F(DateTime, HasAllFieldsZeroWhereItHasNoLocalForm) {
  const CDateTime early(FILETIME{1, 0}, false);
  EXPECT_TRUE(early.IsValid());
  EXPECT_EQ(early.AsSystemTime(true), SYSTEMTIME{});
  EXPECT_EQ(early.AsFileTime(true), FILETIME{});
  EXPECT_EQ(Shown(early), "0-0-0 0:0:0.0");
  std::tm fields{};
  ASSERT_NE(early.AsANSICalendarTime(&fields), nullptr);
  std::int64_t seconds = 0;
  ASSERT_TRUE(platform::SecondsFromLocal(fields, seconds));
  EXPECT_EQ(early.AsANSITime(), seconds);
}

TEST_F(DateTime, IsNotMovedByDaysToADateFromWhereItHasNone) {
  for (const int days : {0, 1, 600'000, 740'000}) {
    CDateTime early(FILETIME{1, 0}, false);
    early.IncrementDay(days);
    EXPECT_EQ(Shown(early), "invalid") << days;
  }
}

TEST_F(DateTime, PrintsDateAndTime) {
  char text[64];
  At(2024, 2, 29, 13, 4, 5).PrintDateTime(text);
  EXPECT_STREQ(text, "2/29/2024 1:04:05 PM");
  std::ostringstream out;
  At(2024, 2, 29, 0, 4, 5).PrintDateTime(out);
  EXPECT_EQ(out.str(), "2/29/2024 12:04:05 AM");
  CDateTime().PrintDateTime(text);
  EXPECT_STREQ(text, "0/0/0 -0:00:00 XX");
}

TEST_F(DateTime, ReadsADateAndThenATime) {
  CDateTime value = At(2020, 1, 1);
  std::istringstream in("2/29/2024 1:04:05:6 PM");
  value.ReadDateTime(in);
  EXPECT_EQ(Shown(value), "2024-2-29 13:4:5.6");
}

TEST_F(DateTime, IsItsTwoHalvesInABinaryStream) {
  const CDateTime value(FILETIME{0x01020304, 0x05060708}, false);
  bostrstream out(CByteOrder::kBigEndian);
  value.BinaryOutDateTime(out);
  EXPECT_EQ(out.view(), std::string("\1\2\3\4\5\6\7\x08"));
  bistrstream in(out.view().data(), 8, CByteOrder::kBigEndian);
  CDateTime back;
  back.BinaryInDateTime(in);
  EXPECT_EQ(back.AsFileTime(false), value.AsFileTime(false));
  bistrstream cut(out.view().data(), 7, CByteOrder::kBigEndian);
  CDateTime kept = At(2024, 2, 29);
  kept.BinaryInDateTime(cut);
  EXPECT_EQ(Shown(kept), "2024-2-29 0:0:0.0");
}

TEST_F(DateTime, IsReachedThroughBothItsBases) {
  CDateTime value = At(2024, 2, 29, 12);
  CDate& date = value;
  WTime& time = value;
  EXPECT_EQ(date.GetYear(), 2024);
  EXPECT_EQ(time.GetHour(), 12);
  EXPECT_EQ(date.AsANSITime(), time.AsANSITime());
  time.Invalidate();
  EXPECT_FALSE(date.IsValid());
}

}  // namespace
}  // namespace ZepFoundation
