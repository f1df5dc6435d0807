#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <tuple>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfctime.h"
#include "foundation/tests/utc.h"
#include "platform/testing/virtual_clock.h"

namespace ZepFoundation {
namespace {

using platform::ScopedZone;
using platform::VirtualClock;

WTime Local(int h, int mi = 0, int s = 0, int ms = 0) {
  WTime time;
  time.SetTime(h, mi, s, ms);
  return time;
}

WTime Plain(int h, int mi = 0, int s = 0, int ms = 0) {
  WTime time;
  time.SetUTC();
  time.SetTime(h, mi, s, ms);
  return time;
}

std::string Shown(const WTime& time) {
  int h = 0, mi = 0, s = 0, ms = 0;
  if (!time.GetTime(&h, &mi, &s, &ms)) return "invalid";
  return std::to_string(h) + ":" + std::to_string(mi) + ":" + std::to_string(s) + "." + std::to_string(ms);
}

// What is stored, through the binary form.
std::int32_t Stored(const WTime& time) {
  bostrstream out(CByteOrder::kBigEndian);
  time.BinaryOut(out);
  bistrstream in(out.view().data(), 4, CByteOrder::kBigEndian);
  std::int32_t value = 0;
  in >> value;
  return value;
}

TEST(TimeOfDay, KeepsAWrappedMagnitudeForANegativeDifference) {
  const ScopedZone zone("UTC");
  const WTimeSpan span = Plain(1) - Plain(2);
  EXPECT_TRUE(span.IsNegative());
  EXPECT_EQ(span.GetMagnitude(), std::uint64_t{0} - 3600000);
  const WTimeSpan forward = Plain(2) - Plain(1);
  EXPECT_FALSE(forward.IsNegative());
  EXPECT_EQ(forward.GetMagnitude(), 3600000u);
  EXPECT_FALSE((Plain(2) - Plain(2)).IsNegative());
}

TEST(TimeOfDay, LosesTheDayAboveHour23InADifference) {
  const ScopedZone zone("Asia/Tokyo");
  WTime above = Plain(20, 30);
  above.SetLocal();  // 29:30
  EXPECT_EQ((above - Plain(1)).GetMagnitude(), 4u * 3600000 + 1800000);
  EXPECT_FALSE((above - Plain(1)).IsNegative());
  EXPECT_TRUE((above - Plain(6)).IsNegative());
}

TEST(TimeOfDay, IsInvalidInTheLastMillisecondBeforeMidnightUtc) {
  const ScopedZone zone("Europe/Berlin");  // bias -60
  WTime time;
  EXPECT_TRUE(time.SetTime(0, 59, 59, 999));
  EXPECT_EQ(Stored(time), -1);
  EXPECT_FALSE(time.IsValid());
}

TEST(TimeOfDay, ReadsBackEveryOtherTimeStoredBelowZero) {
  const ScopedZone zone("Europe/Berlin");
  for (int ms = 0; ms < 3600000 - 1; ms += 997) {
    const WTime time = Local(0, ms / 60000, ms / 1000 % 60, ms % 1000);
    ASSERT_LT(Stored(time), -1);
    ASSERT_EQ(time.AsMilliSeconds(), static_cast<std::uint64_t>(ms));
  }
  EXPECT_EQ(Shown(Local(0, 59, 59, 998)), "0:59:59.998");
}

TEST(TimeOfDay, ReadsBackALateEveningWestOfGreenwich) {
  const ScopedZone zone("America/New_York");  // bias 300
  const WTime time = Local(22);
  EXPECT_EQ(Stored(time), 3 * 3600000);
  EXPECT_EQ(Shown(time), "22:0:0.0");
}

TEST(TimeOfDay, GivesItsPresentedFieldsAsOneNumber) {
  const VirtualClock clock(Utc(2024, 1, 10, 12));
  for (const char* const tz : {"UTC", "EST5", "JST-9", "ZZZ-14", "YYY12", "NPT-5:45"}) {
    const ScopedZone zone(tz);
    for (const int hour : {0, 3, 9, 15, 23}) {
      for (const WTime& time : {Local(hour, 59, 58, 997), Plain(hour, 1, 2, 3)}) {
        int h = 0, mi = 0, s = 0, ms = 0;
        ASSERT_TRUE(time.GetTime(&h, &mi, &s, &ms)) << tz;
        EXPECT_EQ(time.PresentedMilliseconds(), ((h * 60 + mi) * 60 + s) * std::int64_t{1000} + ms) << tz << ' ' << hour;
      }
    }
  }
  WTime invalid = Local(5);
  invalid.Invalidate();
  EXPECT_EQ(invalid.PresentedMilliseconds(), 0);
}

TEST(TimeOfDay, ShowsAnHourAbove23EastOfGreenwich) {
  const ScopedZone zone("Asia/Tokyo");
  WTime time = Plain(20, 30);
  time.SetLocal();
  EXPECT_EQ(Shown(time), "29:30:0.0");
}

TEST(TimeOfDay, HasNoDaylightSaving) {
  const ScopedZone zone("America/New_York");
  for (int month : {1, 7}) {
    VirtualClock clock(Utc(2024, month, 1));
    EXPECT_EQ(Stored(Local(12)), 17 * 3600000);
  }
}

struct ZoneCase {
  const char* zone;
  std::int32_t noon;
};
const ZoneCase kNoons[] = {{"UTC", 43200000},
                           {"America/New_York", 61200000},
                           {"Europe/Berlin", 39600000},
                           {"Asia/Kolkata", 23400000},
                           {"Asia/Tokyo", 10800000}};
TEST(TimeOfDay, IsStoredAsUtc) {
  for (const ZoneCase& c : kNoons) {
    const ScopedZone zone(c.zone);
    EXPECT_EQ(Stored(Local(12)), c.noon) << c.zone;
    for (int hour = 0; hour < 24; ++hour) {
      EXPECT_EQ(Shown(Local(hour, 17, 3, 9)), std::to_string(hour) + ":17:3.9") << c.zone;
    }
  }
}

TEST(TimeOfDay, CarriesFieldsAboveTheirRangeAndDropsWholeDays) {
  const ScopedZone zone("UTC");
  EXPECT_EQ(Shown(Plain(23, 59, 59, 1000)), "0:0:0.0");
  EXPECT_EQ(Shown(Plain(49, 61, 61, 1001)), "2:2:2.1");
  constexpr int kMax = std::numeric_limits<int>::max();
  EXPECT_TRUE(Plain(kMax, kMax, kMax, kMax).IsValid());
}

TEST(TimeOfDay, IsInvalidAfterANegativeField) {
  const ScopedZone zone("UTC");
  const int kCases[][4] = {{-1, 0, 0, 0}, {0, -1, 0, 0}, {0, 0, -1, 0}, {0, 0, 0, -1}, {1, -60, 0, 0}};
  for (const auto& c : kCases) {
    WTime time;
    EXPECT_FALSE(time.SetTime(c[0], c[1], c[2], c[3]));
    EXPECT_FALSE(time.IsValid());
  }
}

TEST(TimeOfDay, WritesNothingWhenItIsInvalid) {
  WTime time;
  time.Invalidate();
  int hour = 42;
  EXPECT_FALSE(time.GetTime(&hour, nullptr, nullptr, nullptr));
  EXPECT_EQ(hour, 42);
  EXPECT_EQ(time.GetHour(), 0);
  EXPECT_EQ(time.GetMinute(), 0);
  EXPECT_EQ(time.GetSecond(), 0);
  EXPECT_EQ(time.GetMilliSecond(), 0);
}

TEST(TimeOfDay, SetsOneFieldAtATime) {
  const ScopedZone zone("America/New_York");
  WTime time = Local(1, 2, 3, 4);
  EXPECT_TRUE(time.SetHour(21));
  EXPECT_TRUE(time.SetMinute(22));
  EXPECT_TRUE(time.SetSecond(23));
  EXPECT_TRUE(time.SetMilliSecond(24));
  EXPECT_EQ(Shown(time), "21:22:23.24");
  EXPECT_FALSE(time.SetMinute(-1));
  EXPECT_FALSE(time.IsValid());
}

TEST(TimeOfDay, IncrementsUpwardWithCarries) {
  const ScopedZone zone("Europe/Berlin");
  WTime time = Local(23, 59, 59, 999);
  time.IncrementMilliSecond(1);
  EXPECT_EQ(Shown(time), "0:0:0.0");
  time.IncrementSecond(61);
  EXPECT_EQ(Shown(time), "0:1:1.0");
  time.IncrementMinute(60);
  EXPECT_EQ(Shown(time), "1:1:1.0");
  time.IncrementHour(24);
  EXPECT_EQ(Shown(time), "1:1:1.0");
  time.IncrementHour(-1);
  EXPECT_EQ(Shown(time), "0:1:1.0");
}

TEST(TimeOfDay, IsInvalidWhenAnIncrementGoesBelowZero) {
  const ScopedZone zone("UTC");
  WTime time = Plain(1, 0, 0, 0);
  time.IncrementMinute(-1);
  EXPECT_FALSE(time.IsValid());
}

TEST(TimeOfDay, MovesBySpansAroundTheClock) {
  const ScopedZone zone("America/New_York");
  EXPECT_EQ(Shown(Local(22) + WTimeSpan(3 * 3600000, false)), "1:0:0.0");
  EXPECT_EQ(Shown(Local(1) - WTimeSpan(3 * 3600000, false)), "22:0:0.0");
  EXPECT_EQ(Shown(Local(1) + WTimeSpan(3 * 3600000, true)), "22:0:0.0");
  EXPECT_EQ(Shown(Local(1) + WTimeSpan(86400000 + 1, false)), "1:0:0.1");
  WTime time = Local(1);
  time -= WTimeSpan(1, true);
  EXPECT_EQ(Shown(time), "1:0:0.1");
}

TEST(TimeOfDay, TakesFlagAndPresentedFieldsOnAssignment) {
  const ScopedZone zone("Asia/Tokyo");
  WTime time;
  time = Plain(20);
  EXPECT_FALSE(time.IsLocal());
  EXPECT_EQ(Shown(time), "20:0:0.0");
  WTime above = Plain(20);
  above.SetLocal();
  time = above;  // 29:00 arrives as 5:00
  EXPECT_TRUE(time.IsLocal());
  EXPECT_EQ(Shown(time), "5:0:0.0");
}

TEST(TimeOfDay, ArrivesAsMidnightWhenAnInvalidTimeIsAssigned) {
  WTime invalid;
  invalid.Invalidate();
  WTime time = Plain(5);
  time = invalid;
  EXPECT_EQ(Shown(time), "0:0:0.0");
}

TEST(TimeOfDay, IsAssignedToItselfAsToAnother) {
  const ScopedZone zone("Asia/Tokyo");
  WTime time;
  WTime& same = time;
  time.Invalidate();
  time = same;
  EXPECT_EQ(Shown(time), "0:0:0.0");
  time = Plain(20);
  time.SetLocal();  // 29:00
  time = same;
  EXPECT_EQ(Shown(time), "5:0:0.0");
  time = same;
  EXPECT_EQ(Shown(time), "5:0:0.0");
}

TEST(TimeOfDay, ComparesThePresentedFields) {
  const ScopedZone zone("America/New_York");
  EXPECT_TRUE(Local(12) == Plain(12));
  EXPECT_TRUE(Local(11, 59, 59, 999) < Plain(12));
  EXPECT_FALSE(Local(12) < Local(12));
}

TEST(TimeOfDay, IsInvalidFromAZeroFileTime) {
  EXPECT_FALSE(WTime(FILETIME{}, true).IsValid());
  EXPECT_FALSE(WTime(FILETIME{}, false).IsValid());
}

TEST(TimeOfDay, ComesFromFieldsFileTimesAndOleDates) {
  const ScopedZone zone("America/New_York");
  const SYSTEMTIME fields{2024, 2, 0, 29, 12, 34, 56, 789};
  EXPECT_EQ(Shown(WTime(fields, true)), "12:34:56.789");
  EXPECT_EQ(Shown(WTime(fields, false)), "7:34:56.789");
  EXPECT_TRUE(WTime(fields, false).IsLocal());
  FILETIME time;
  ASSERT_TRUE(platform::SystemTimeToFileTime(fields, time));
  EXPECT_EQ(Shown(WTime(time, true)), "12:34:56.789");
  EXPECT_EQ(Shown(WTime(time, false)), "7:34:56.789");
  EXPECT_EQ(Shown(WTime(0.75, true)), "18:0:0.0");
  EXPECT_FALSE(WTime(1e9, true).IsValid());
}

TEST(TimeOfDay, StartsFromThePresent) {
  const ScopedZone zone("Asia/Tokyo");
  VirtualClock clock(Utc(2024, 2, 29, 2, 3), 4);
  WTime time(QTM_CURRENT);
  EXPECT_TRUE(time.IsLocal());
  EXPECT_EQ(Shown(time), "11:3:0.4");
  time.SetToUtcCurrent();
  EXPECT_FALSE(time.IsLocal());
  EXPECT_EQ(Shown(time), "2:3:0.4");
}

TEST(TimeOfDay, LeavesAsAnInstantOfThePresentDate) {
  const ScopedZone zone("America/New_York");
  for (int month : {1, 7}) {
    VirtualClock clock(Utc(2024, month, 15, 20));
    EXPECT_EQ(Local(9, 30).AsANSITime(), Utc(2024, month, 15, month == 1 ? 14 : 13, 30));
    std::tm fields{};
    EXPECT_EQ(Local(9, 30).AsANSICalendarTime(&fields), &fields);
    EXPECT_EQ(fields.tm_mday, 15);
    EXPECT_EQ(fields.tm_hour, 9);
    EXPECT_EQ(fields.tm_min, 30);
  }
  EXPECT_EQ(Local(9).AsANSICalendarTime(nullptr), nullptr);
}

// The present's own daylight flag has no part in it: a time of day that comes twice is the later one.
TEST(TimeOfDay, LeavesAsTheLaterOfTwoInstantsOnBothSidesOfTheChange) {
  const ScopedZone zone("America/New_York");
  for (const int hour : {4, 5, 6, 7, 20}) {  // the clock goes back at 6:00 UTC
    const VirtualClock clock(Utc(2024, 11, 3, hour, 45));
    EXPECT_EQ(Local(1, 30).AsANSITime(), Utc(2024, 11, 3, 6, 30)) << hour;
  }
}

TEST(TimeOfDay, CarriesTodaysDateInItsOleDate) {
  const ScopedZone zone("UTC");
  VirtualClock clock(Utc(2024, 2, 29, 23));
  EXPECT_EQ(Plain(12).AsOLEDATE(), 45351.5);
}

TEST(TimeOfDay, TakesTheTimeOfDayOfAnInstant) {
  const ScopedZone zone("Asia/Kolkata");
  WTime time;
  EXPECT_TRUE(time.SetTime(Utc(2024, 2, 29, 1)));
  EXPECT_EQ(Shown(time), "6:30:0.0");
  time.SetUTC();
  EXPECT_TRUE(time.SetTime(Utc(2024, 2, 29, 1)));
  EXPECT_EQ(Shown(time), "1:0:0.0");
  EXPECT_FALSE(time.SetTime(std::numeric_limits<std::int64_t>::max()));
  EXPECT_FALSE(time.IsValid());
}

TEST(TimeOfDay, WrapsWhatItIsGivenInMilliseconds) {
  const ScopedZone zone("UTC");
  WTime time;
  time.SetFromMilliSeconds(std::uint64_t{86400000} * 3 + 3723004);
  EXPECT_EQ(Shown(time), "1:2:3.4");
  EXPECT_EQ(time.AsMilliSeconds(), 3723004u);
}

TEST(TimeOfDay, PrintsTheTextOfTheUserDefault) {
  const ScopedZone zone("Asia/Tokyo");
  char text[16];
  Local(13, 4, 5).Print(text);
  EXPECT_STREQ(text, "1:04:05 PM");
  std::ostringstream out;
  Local(0, 4, 5).Print(out);
  EXPECT_EQ(out.str(), "12:04:05 AM");
  WTime time;
  time.Invalidate();
  time.Print(text);
  EXPECT_STREQ(text, "-0:00:00 XX");
  time = Plain(20);
  time.SetLocal();
  time.Print(text);
  EXPECT_STREQ(text, "-0:00:00 ZZ");
}

struct TimeRead {
  const char* text;
  const char* shown;
};
const TimeRead kTimeReads[] = {
    {"10:20:30:40", "10:20:30.40"},  {"12:20:30:40 AM", "0:20:30.40"},  {"12:20:30:40 PM", "12:20:30.40"},
    {"1:20:30:40PM", "13:20:30.40"}, {"11:20:30:40 AM", "11:20:30.40"}, {"1-2x3.4 P", "1:2:3.4"},
    {"1:2:3:4 xy", "1:2:3.4"},       {"-1:2:3:4", "invalid"},         {"0:20:30:40 PM", "12:20:30.40"},
    {"13:20:30:40 PM", "1:20:30.40"},  // 25:20, a day later
    {"13:20:30:40 AM", "13:20:30.40"},
};
TEST(TimeOfDay, ReadsFourNumbersAndAHalfOfTheDay) {
  const ScopedZone zone("America/New_York");
  for (const TimeRead& c : kTimeReads) {
    WTime time;
    std::istringstream in(c.text);
    time.Read(in);
    EXPECT_EQ(Shown(time), c.shown) << c.text;
    EXPECT_FALSE(in.fail()) << c.text;
  }
  WTime time;
  std::istringstream in("1:2:3:4 PMx");  // two characters are taken, no more
  time.Read(in);
  EXPECT_EQ(in.get(), 'x');
}

TEST(TimeOfDay, StaysAsItWasWhenAStreamFails) {
  const ScopedZone zone("UTC");
  WTime time = Plain(5);
  std::istringstream in("1:2:x");
  time.Read(in);
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(Shown(time), "5:0:0.0");
  bistrstream cut("\0\0\0", 3, CByteOrder::kBigEndian);
  time.BinaryIn(cut);
  EXPECT_EQ(Shown(time), "5:0:0.0");
  const char bytes[4] = {0, 0, 0, 7};
  bistrstream whole(bytes, 4, CByteOrder::kBigEndian);
  time.BinaryIn(whole);
  EXPECT_EQ(Shown(time), "0:0:0.7");
}

TEST(TimeFields, AreNormalizedUpwardAlone) {
  std::int64_t h = 23, m = 59, s = 59, ms = 1000;
  EXPECT_EQ(NormalizeTimeFields(h, m, s, ms), 1);
  EXPECT_EQ(std::tie(h, m, s, ms), std::make_tuple(0, 0, 0, 0));
  h = -5, m = -1, s = -1, ms = -1;
  EXPECT_EQ(NormalizeTimeFields(h, m, s, ms), 0);
  EXPECT_EQ(std::tie(h, m, s, ms), std::make_tuple(-5, -1, -1, -1));
}

}  // namespace
}  // namespace ZepFoundation
