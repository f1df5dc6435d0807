#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcdate.h"
#include "foundation/tests/utc.h"
#include "platform/testing/virtual_clock.h"

namespace ZepFoundation {
namespace {

using platform::ScopedZone;
using platform::VirtualClock;

CDate Date(int year, int month, int day) {
  CDate date;
  EXPECT_TRUE(date.SetDate(year, month, day));
  return date;
}

std::string Text(const CDate& date) {
  char text[40];
  date.Print(text);
  return text;
}

TEST(Date, TakesYearsBelow100AsOfThe20thCentury) {
  EXPECT_EQ(Text(Date(99, 1, 1)), "1/1/1999");
  EXPECT_EQ(Text(Date(0, 1, 1)), "1/1/1900");
  EXPECT_EQ(Text(Date(100, 1, 1)), "1/1/100");
}

TEST(Date, GoesToTheYear1901WhenTheYearIsDrivenBelow1) {
  for (int years : {-1980, -1981, -5000, std::numeric_limits<int>::min()}) {
    CDate date = Date(1980, 5, 6);
    date.IncrementYear(years);
    EXPECT_EQ(Text(date), "5/6/1901") << years;
  }
}

TEST(Date, HasA29thOfFebruaryIn2000) { EXPECT_EQ(Text(Date(2000, 2, 29)), "2/29/2000"); }

TEST(Date, IsInvalidAfterThe29thOfFebruary1900) {
  CDate date;
  EXPECT_FALSE(date.SetDate(1900, 2, 29));
  EXPECT_FALSE(date.IsValid());
}

TEST(Date, GoesToTheLastDayOfFebruaryAMonthAfterThe31stOfJanuary) {
  CDate date = Date(2023, 1, 31);
  date.IncrementMonth(1);
  EXPECT_EQ(Text(date), "2/28/2023");
  date = Date(2024, 1, 31);
  date.IncrementMonth(1);
  EXPECT_EQ(Text(date), "2/29/2024");
}

struct WeeksCase {
  int year, month, weeks;
  EDAYOFWEEK start;
};
const WeeksCase kWeeks[] = {
    {2015, 2, 4, EDOW_SUNDAY},    // 28 days
    {2004, 2, 5, EDOW_SUNDAY},    // a leap year
    {2022, 4, 6, EDOW_FRIDAY},    // 30 days from a Friday
    {2023, 4, 5, EDOW_SATURDAY},  // 30 days from a Saturday
    {2024, 3, 6, EDOW_FRIDAY},    {2022, 1, 6, EDOW_SATURDAY}, {2024, 1, 5, EDOW_MONDAY},
    {2024, 6, 5, EDOW_SATURDAY},  {2023, 2, 5, EDOW_WEDNESDAY},
};
TEST(Date, CountsTheWeeksOfAMonth) {
  for (const WeeksCase& c : kWeeks) {
    const CDate date = Date(c.year, c.month, 15);
    EXPECT_EQ(date.GetMonthStartDay(), c.start) << c.year << "/" << c.month;
    EXPECT_EQ(date.GetWeeksInMonth(), c.weeks) << c.year << "/" << c.month;
  }
}

// SetDate() doesn't lead there: it takes these years as of the 20th century.
TEST(Date, KnowsTheStartOfAMonthInTheFirst100Years) {
  for (std::uint64_t days = 0; days < 36524; ++days) {
    CDate date;
    date.SetFromMilliSeconds(days * 86400000);
    CDate first;
    first.SetFromMilliSeconds((days - static_cast<std::uint64_t>(date.GetDay() - 1)) * 86400000);
    ASSERT_EQ(first.GetDay(), 1);
    ASSERT_EQ(date.GetMonthStartDay(), first.GetDayOfWeek()) << Text(date);
  }
}

TEST(Date, GivesANegativeZeroSpanBetweenEqualDates) {
  const WTimeSpan span = Date(2024, 2, 29) - Date(2024, 2, 29);
  EXPECT_EQ(span.GetMagnitude(), 0u);
  EXPECT_TRUE(span.IsNegative());
}

TEST(Date, GivesTheSpanBetweenTwoDates) {
  EXPECT_EQ((Date(2024, 3, 1) - Date(2024, 2, 1)).GetMagnitude(), 29u * 86400000);
  EXPECT_FALSE((Date(2024, 3, 1) - Date(2024, 2, 1)).IsNegative());
  EXPECT_EQ((Date(2024, 2, 1) - Date(2024, 3, 1)).GetMagnitude(), 29u * 86400000);
  EXPECT_TRUE((Date(2024, 2, 1) - Date(2024, 3, 1)).IsNegative());
}

TEST(Date, CountsAnInvalidDateAboveEveryOtherInASpan) {
  CDate invalid;
  invalid.Invalidate();
  const CDate date = Date(2024, 3, 1);
  const std::uint64_t apart = (0xFFFFFFFFu - date.AsMilliSeconds() / 86400000) * 86400000;
  EXPECT_EQ((invalid - date).GetMagnitude(), apart);
  EXPECT_FALSE((invalid - date).IsNegative());
  EXPECT_EQ((date - invalid).GetMagnitude(), apart);
  EXPECT_TRUE((date - invalid).IsNegative());
}

TEST(Date, MovesByTheWholeDaysOfASpan) {
  const WTimeSpan twoAndAHalf(5 * 43200000, false);
  EXPECT_EQ(Text(Date(2024, 2, 28) + twoAndAHalf), "3/1/2024");
  EXPECT_EQ(Text(Date(2024, 3, 1) - twoAndAHalf), "2/28/2024");
  EXPECT_EQ(Text(Date(2024, 3, 1) + WTimeSpan(86400000, true)), "2/29/2024");
  EXPECT_EQ(Text(Date(2024, 3, 1) - WTimeSpan(86400000, true)), "3/2/2024");
  CDate early;
  early.SetFromMilliSeconds(Date(100, 1, 1).AsMilliSeconds() - 86400000);
  EXPECT_EQ(Text(early), "12/31/99");
  EXPECT_EQ(Text(early + WTimeSpan(86400000, false)), "1/1/2000");  // copied by SetDate()
}

struct RefusedDate {
  int year, month, day;
};
const RefusedDate kRefusedDates[] = {{-1, 1, 1},    {2024, 0, 1},  {2024, 13, 1},
                                     {2024, 1, 0},  {2024, 1, 32}, {2023, 2, 29},
                                     {2024, 4, 31}, {2024, 1, -1}, {std::numeric_limits<int>::min(), 1, 1}};
TEST(Date, IsInvalidAfterADateThatDoesNotExist) {
  for (const RefusedDate& c : kRefusedDates) {
    CDate date;
    EXPECT_FALSE(date.SetDate(c.year, c.month, c.day)) << c.year << "/" << c.month << "/" << c.day;
    EXPECT_FALSE(date.IsValid());
  }
}

TEST(Date, NumbersEveryDayInTurn) {
  CDate date = Date(100, 1, 1);
  std::int64_t days = platform::DaysFromCivil(100, 1, 1);
  const std::int64_t epoch = platform::DaysFromCivil(1, 1, 1);
  for (; days < platform::DaysFromCivil(2802, 1, 1); ++days, date.IncrementDay(1)) {
    int year = 0, month = 0, day = 0;
    ASSERT_TRUE(date.GetDate(&year, &month, &day));
    const platform::CivilDate civil = platform::CivilFromDays(days);
    ASSERT_EQ(year, civil.year);
    ASSERT_EQ(month, civil.month);
    ASSERT_EQ(day, civil.day);
    ASSERT_EQ(static_cast<std::int64_t>(date.AsMilliSeconds()), (days - epoch) * 86400000);
    ASSERT_EQ(date.GetDayOfWeek(), ((days % 7) + 11) % 7);
    CDate set;
    ASSERT_TRUE(set.SetDate(year, month, day));
    ASSERT_EQ(set.AsMilliSeconds(), date.AsMilliSeconds());
  }
}

struct MonthCase {
  int year, month, day, add;
  const char* text;
};
const MonthCase kMonths[] = {
    {2024, 1, 15, 11, "12/15/2024"},  {2024, 1, 15, 12, "1/15/2025"},   {2024, 1, 15, -1, "12/15/2023"},
    {2024, 1, 15, -12, "1/15/2023"},  {2024, 1, 15, -13, "12/15/2022"}, {2024, 3, 31, -1, "2/29/2024"},
    {2024, 12, 31, 2, "2/28/2025"},   {2024, 5, 31, -24, "5/31/2022"},  {2024, 6, 30, 30, "12/30/2026"},
    {100, 1, 15, -1200, "1/15/1900"},  // the year 0, as SetDate() takes it
};
TEST(Date, MovesByMonths) {
  for (const MonthCase& c : kMonths) {
    CDate date = Date(c.year, c.month, c.day);
    date.IncrementMonth(c.add);
    EXPECT_EQ(Text(date), c.text) << c.add;
  }
  CDate date = Date(100, 1, 15);
  date.IncrementMonth(-1201);
  EXPECT_FALSE(date.IsValid());
}

TEST(Date, TakesAnyIncrementWithoutOverflow) {
  for (int n : {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    CDate date = Date(2024, 5, 31);
    date.IncrementMonth(n);
    date = Date(2024, 5, 31);
    date.IncrementYear(n);
    date = Date(2024, 5, 31);
    const std::uint64_t before = date.AsMilliSeconds();
    date.IncrementDay(n);
    date.IncrementDay(n == std::numeric_limits<int>::max() ? -n : n);
    EXPECT_EQ(date.AsMilliSeconds(), before);
  }
}

TEST(Date, ClampsWhatItsFieldSettersAreGiven) {
  CDate date = Date(2024, 1, 31);
  EXPECT_TRUE(date.SetMonth(2));
  EXPECT_EQ(Text(date), "2/29/2024");
  EXPECT_TRUE(date.SetYear(2023));
  EXPECT_EQ(Text(date), "2/28/2023");
  EXPECT_TRUE(date.SetDay(99));
  EXPECT_EQ(Text(date), "2/28/2023");
  EXPECT_TRUE(date.SetDay(-5));
  EXPECT_EQ(Text(date), "2/1/2023");
  EXPECT_TRUE(date.SetMonth(44));
  EXPECT_EQ(Text(date), "12/1/2023");
  EXPECT_TRUE(date.SetMonth(0));
  EXPECT_EQ(Text(date), "1/1/2023");
  EXPECT_EQ(date.GetDaysInMonth(), 31);
  EXPECT_FALSE(date.IsLeapYear());
}

TEST(Date, ComparesByYearMonthAndDay) {
  EXPECT_TRUE(Date(2024, 3, 1) > Date(2024, 2, 29));
  EXPECT_FALSE(Date(2024, 3, 1) > Date(2024, 3, 1));
  EXPECT_TRUE(Date(2024, 3, 1) <= Date(2024, 3, 1));
  EXPECT_TRUE(Date(2024, 3, 1) >= Date(2023, 12, 31));
  EXPECT_TRUE(Date(2023, 12, 31) < Date(2024, 1, 1));
  EXPECT_TRUE(Date(2024, 1, 1) == Date(2024, 1, 1));
  EXPECT_TRUE(Date(2024, 1, 1) != Date(2024, 1, 2));
}

TEST(Date, StartsFromThePresentOrFrom1980) {
  const ScopedZone zone("Asia/Tokyo");
  VirtualClock clock(Utc(2024, 2, 28, 20));
  EXPECT_EQ(Text(CDate(QTM_CURRENT)), "2/29/2024");
  EXPECT_EQ(Text(CDate(QTM_FIXED)), "1/1/1980");
  CDate date;
  date.SetToUtcCurrent();
  EXPECT_EQ(Text(date), "2/28/2024");
  date.SetToSystemCurrent();
  EXPECT_EQ(Text(date), "2/29/2024");
}

struct MidnightCase {
  const char* zone;
  int year, month, day;
  std::int64_t seconds;
};
const MidnightCase kMidnights[] = {
    {"UTC", 2024, 2, 29, Utc(2024, 2, 29)},
    {"America/New_York", 2024, 1, 1, Utc(2024, 1, 1, 5)},
    {"America/New_York", 2024, 7, 1, Utc(2024, 7, 1, 4)},
    {"America/New_York", 1950, 1, 1, Utc(1950, 1, 1, 5)},
    {"Europe/Berlin", 2024, 7, 1, Utc(2024, 6, 30, 22)},
    {"Asia/Kolkata", 2024, 7, 1, Utc(2024, 6, 30, 18) + 1800},
    {"Asia/Tokyo", 2024, 7, 1, Utc(2024, 6, 30, 15)},
    {"America/Sao_Paulo", 2017, 10, 15, Utc(2017, 10, 15, 3)},  // no midnight: the clock goes from 0:00 to 1:00
    {"America/Havana", 2024, 11, 3, Utc(2024, 11, 3, 5)},       // two of them: from 1:00 back to 0:00
};
TEST(Date, LeavesAsLocalMidnight) {
  for (const MidnightCase& c : kMidnights) {
    const ScopedZone zone(c.zone);
    const CDate date = Date(c.year, c.month, c.day);
    EXPECT_EQ(date.AsANSITime(), c.seconds) << c.zone;
    std::tm fields{};
    EXPECT_EQ(date.AsANSICalendarTime(&fields), &fields);
    EXPECT_EQ(fields.tm_mday, c.day) << c.zone;
    EXPECT_EQ(date.AsANSICalendarTime(nullptr), nullptr);
  }
}

TEST(Date, IsInvalidFromAZeroFileTime) { EXPECT_FALSE(CDate(FILETIME{}).IsValid()); }

TEST(Date, IsTheLocalDateOfAFileTime) {
  const ScopedZone zone("America/New_York");
  VirtualClock clock(Utc(2024, 1, 1));
  FILETIME time;
  ASSERT_TRUE(platform::SystemTimeToFileTime({2024, 3, 0, 1, 4, 0, 0, 0}, time));
  EXPECT_EQ(Text(CDate(time)), "2/29/2024");
  EXPECT_FALSE(CDate(FILETIME{0, 0xFFFFFFFF}).IsValid());
  EXPECT_FALSE(CDate(FILETIME{1, 0}).IsValid());  // before 1601 as local time
}

TEST(Date, ComesFromCalendarFieldsAndOleDates) {
  EXPECT_EQ(Text(CDate(SYSTEMTIME{2024, 2, 0, 29, 99, 0, 0, 0})), "2/29/2024");
  EXPECT_FALSE(CDate(SYSTEMTIME{}).IsValid());
  EXPECT_EQ(Text(CDate(45351.5)), "2/29/2024");
  EXPECT_FALSE(CDate(1e9).IsValid());
  EXPECT_EQ(Date(2024, 2, 29).AsOLEDATE(), 45351.0);
  EXPECT_EQ(Date(20000, 1, 1).AsOLEDATE(), 0.0);
}

TEST(Date, CarriesItsDayNumberInMilliseconds) {
  CDate date;
  date.SetFromMilliSeconds(Date(2024, 2, 29).AsMilliSeconds() + 86399999);
  EXPECT_EQ(Text(date), "2/29/2024");
  date.Invalidate();
  EXPECT_EQ(static_cast<std::int64_t>(date.AsMilliSeconds()), -86400000);
  int year = 0, month = 0, day = 0;
  EXPECT_TRUE(date.GetDate(&year, &month, &day));
}

TEST(Date, PrintsInDecimalWithoutPadding) {
  std::ostringstream out;
  out << std::hex;
  Date(2024, 2, 29).Print(out);
  EXPECT_EQ(out.str(), "2/29/2024");
}

TEST(Date, ReadsMonthDayAndYearBehindAnyCharacters) {
  CDate date;
  std::istringstream in("2-29x2024");
  date.Read(in);
  EXPECT_EQ(Text(date), "2/29/2024");
  std::istringstream impossible("13/1/2024");
  date.Read(impossible);
  EXPECT_FALSE(date.IsValid());
  date = Date(2024, 2, 29);
  std::istringstream broken("2/x");
  date.Read(broken);
  EXPECT_EQ(Text(date), "2/29/2024");
}

TEST(Date, IsOne32BitIntegerInABinaryStream) {
  bostrstream out(CByteOrder::kBigEndian);
  Date(2024, 2, 29).BinaryOut(out);
  EXPECT_EQ(out.view(), std::string("\x00\x0B\x46\x80", 4));
  ASSERT_EQ(out.view().size(), 4u);
  bistrstream in(out.view().data(), 4, CByteOrder::kBigEndian);
  CDate date;
  date.BinaryIn(in);
  EXPECT_EQ(Text(date), "2/29/2024");
  date.BinaryIn(in);
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(Text(date), "2/29/2024");
}

}  // namespace
}  // namespace ZepFoundation
