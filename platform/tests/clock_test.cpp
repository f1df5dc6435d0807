#include "platform/clock.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>

#include "platform/testing/virtual_clock.h"

namespace platform {
namespace {

std::int64_t Wall(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  return DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
}

const char* const kZones[] = {"America/New_York", "Europe/Berlin",       "Europe/Dublin",     "Australia/Lord_Howe",
                              "Pacific/Apia",     "Africa/Casablanca",   "Asia/Kolkata",      "America/St_Johns"};

TEST(Zone, MovesAWallTimeInAGapForwardByItsLength) {
  const Zone zone = Zone::FromTz("America/New_York");
  for (int isDst : {-1, 0, 1}) {
    EXPECT_EQ(zone.ToSeconds(Wall(2024, 3, 10, 2, 30), isDst), Wall(2024, 3, 10, 7, 30)) << isDst;
  }
  EXPECT_EQ(zone.ToWall(zone.ToSeconds(Wall(2024, 3, 10, 2, 30))), Wall(2024, 3, 10, 3, 30));
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 3, 10, 1, 59, 59)), Wall(2024, 3, 10, 6, 59, 59));
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 3, 10, 3)), Wall(2024, 3, 10, 7));
}

TEST(Zone, TakesTheLaterInstantOfAnOverlapUnlessTheDaylightFlagIsSet) {
  const Zone zone = Zone::FromTz("America/New_York");
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 11, 3, 1, 30), -1), Wall(2024, 11, 3, 6, 30));
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 11, 3, 1, 30), 0), Wall(2024, 11, 3, 6, 30));
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 11, 3, 1, 30), 1), Wall(2024, 11, 3, 5, 30));
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 11, 3, 1, 30)), Wall(2024, 11, 3, 6, 30));
}

TEST(Zone, IgnoresTheDaylightFlagWhereTheWallTimeExistsOnce) {
  const Zone zone = Zone::FromTz("America/New_York");
  for (int isDst : {-1, 0, 1}) {
    EXPECT_EQ(zone.ToSeconds(Wall(2024, 1, 15, 12), isDst), Wall(2024, 1, 15, 17));
    EXPECT_EQ(zone.ToSeconds(Wall(2024, 7, 15, 12), isDst), Wall(2024, 7, 15, 16));
    EXPECT_EQ(zone.ToSeconds(Wall(2024, 11, 3, 2), isDst), Wall(2024, 11, 3, 7));
  }
}

TEST(Zone, MovesALeftOutDayToTheNextDayAtTheSameTime) {
  const Zone zone = Zone::FromTz("Pacific/Apia");
  EXPECT_EQ(zone.ToWall(zone.ToSeconds(Wall(2011, 12, 30, 10, 15))), Wall(2011, 12, 31, 10, 15));
  EXPECT_EQ(zone.ToWall(zone.ToSeconds(Wall(2011, 12, 30))), Wall(2011, 12, 31));
  EXPECT_EQ(zone.ToSeconds(Wall(2011, 12, 29, 23, 59, 59)) + 1, zone.ToSeconds(Wall(2011, 12, 31)));
}

TEST(Zone, KnowsDaylightTimeOfHalfAnHour) {
  const Zone zone = Zone::FromTz("Australia/Lord_Howe");
  EXPECT_EQ(zone.OffsetAt(Wall(2024, 7, 1)), 37800);
  EXPECT_EQ(zone.OffsetAt(Wall(2024, 12, 1)), 39600);
  EXPECT_EQ(zone.ToWall(zone.ToSeconds(Wall(2024, 10, 6, 2, 10))), Wall(2024, 10, 6, 2, 40));
  EXPECT_EQ(zone.ToSeconds(Wall(2024, 4, 7, 1, 45), 0) - zone.ToSeconds(Wall(2024, 4, 7, 1, 45), 1), 1800);
}

TEST(Zone, TakesTheLaterInstantAlsoWhereWinterTimeBearsTheFlag) {
  const Zone zone = Zone::FromTz("IST-1GMT0,M10.5.0,M3.5.0/1");  // winter time is the daylight time
  ASSERT_TRUE(zone.IsDaylight(Wall(2024, 1, 1)));
  ASSERT_FALSE(zone.IsDaylight(Wall(2024, 7, 1)));
  const std::int64_t overlap = Wall(2024, 10, 27, 1, 30);
  EXPECT_EQ(zone.ToSeconds(overlap, -1), Wall(2024, 10, 27, 1, 30));
  EXPECT_EQ(zone.ToSeconds(overlap, 0), Wall(2024, 10, 27, 1, 30));
  EXPECT_EQ(zone.ToSeconds(overlap, 1), Wall(2024, 10, 27, 1, 30));
}

TEST(Zone, ReadsDublinAsTheHostDoes) {
  const Zone zone = Zone::FromTz("Europe/Dublin");
  EXPECT_EQ(zone.OffsetAt(Wall(2024, 1, 1)), 0);
  EXPECT_EQ(zone.OffsetAt(Wall(2024, 7, 1)), 3600);
  EXPECT_EQ(zone.StandardBias(Wall(2024, 1, 1)), zone.StandardBias(Wall(2024, 7, 1)));
}

TEST(Zone, GivesWhatTheHostsBreakdownGivesAtRandomInstants) {
  std::mt19937_64 random(20240301);
  std::uniform_int_distribution<std::int64_t> inTable(Wall(1901, 1, 1), Wall(2040, 1, 1) - 1);
  std::uniform_int_distribution<std::int64_t> anywhere(Wall(1601, 1, 1), Wall(2400, 1, 1));
  for (const char* name : kZones) {
    const ScopedZone scope(name);
    const Zone& zone = CurrentZone();
    for (int i = 0; i < 20'500; ++i) {
      const std::int64_t at = i < 20'000 ? inTable(random) : anywhere(random);
      std::tm host{};
      const time_t value = at;
      ASSERT_NE(localtime_r(&value, &host), nullptr);
      ASSERT_EQ(zone.OffsetAt(at), host.tm_gmtoff) << name << " " << at;
      ASSERT_EQ(zone.IsDaylight(at), host.tm_isdst > 0) << name << " " << at;
      std::tm ours{};
      ASSERT_TRUE(LocalBreakdown(at, ours));
      ASSERT_EQ(std::tie(ours.tm_year, ours.tm_mon, ours.tm_mday, ours.tm_hour, ours.tm_min, ours.tm_sec, ours.tm_wday,
                         ours.tm_yday, ours.tm_isdst),
                std::tie(host.tm_year, host.tm_mon, host.tm_mday, host.tm_hour, host.tm_min, host.tm_sec, host.tm_wday,
                         host.tm_yday, host.tm_isdst))
          << name << " " << at;
      const std::int64_t wall = zone.ToWall(at);
      ASSERT_EQ(zone.ToWall(zone.ToSeconds(wall, host.tm_isdst)), wall) << name << " " << at;
      ASSERT_EQ(zone.ToWall(zone.ToSeconds(wall)), wall) << name << " " << at;
    }
  }
}

TEST(Zone, ConvertsTwiceAsTwoConversionsDoAroundEveryChange) {
  for (const char* name : kZones) {
    const ScopedZone scope(name);
    const Zone& zone = CurrentZone();
    for (const Zone::Change& change : zone.Changes()) {
      for (int edge : {-86400, -3601, -3600, -1801, -1800, -1, 0, 1, 1799, 1800, 3599, 3600, 86399, 86400}) {
        for (std::int32_t offset : {change.offsetBefore, change.offsetAfter}) {
          const std::int64_t wall = change.at + offset + edge;
          const std::int64_t once = zone.ToSeconds(wall, -1);
          ASSERT_EQ(zone.ToSeconds(wall), zone.ToSeconds(wall, zone.IsDaylight(once)))
              << name << " " << change.at << " " << edge;
        }
      }
    }
  }
}

TEST(Zone, NeverGoesBackWhereItLeavesAGapOrEntersIt) {
  for (const char* name : kZones) {
    const Zone zone = Zone::FromTz(name);
    for (const Zone::Change& change : zone.Changes()) {
      if (change.offsetAfter <= change.offsetBefore) continue;
      const std::int64_t first = change.at + change.offsetBefore;
      const std::int64_t behind = change.at + change.offsetAfter;
      ASSERT_EQ(zone.ToSeconds(first - 1), change.at - 1) << name;
      ASSERT_EQ(zone.ToSeconds(first), change.at) << name;
      ASSERT_EQ(zone.ToSeconds(behind), change.at) << name;
      ASSERT_EQ(zone.ToSeconds(behind - 1), change.at + change.offsetAfter - change.offsetBefore - 1) << name;
    }
  }
}

TEST(Zone, HasStretchesThatFollowEachOtherWithoutAHole) {
  const Zone zone = Zone::FromTz("Pacific/Apia");
  std::int64_t wall = Wall(1900, 12, 1);
  int stretches = 0;
  while (wall < Wall(2040, 2, 1)) {
    const Zone::WallStretch stretch = zone.StretchAt(wall);
    ASSERT_LE(stretch.begin, wall);
    ASSERT_GT(stretch.end, wall);
    EXPECT_EQ(zone.ToSeconds(wall), wall - stretch.offset);
    EXPECT_EQ(zone.ToSeconds(stretch.end - 1), stretch.end - 1 - stretch.offset);
    wall = stretch.end;
    ++stretches;
  }
  EXPECT_GT(stretches, 10);
}

TEST(Zone, AnswersForAnyInstantAndAnyWallTimeWithoutOverflow) {
  const Zone zone = Zone::FromTz("Asia/Tokyo");
  for (std::int64_t value : {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(),
                             std::int64_t{-67'768'036'000'000'001}, std::int64_t{67'768'036'000'000'001}}) {
    EXPECT_EQ(zone.OffsetAt(value), 0);
    EXPECT_EQ(zone.ToSeconds(value), value);
    EXPECT_EQ(zone.ToSeconds(value), value);
    EXPECT_FALSE(zone.IsDaylight(value));
    EXPECT_EQ(zone.StandardBias(value), 0);
  }
  EXPECT_EQ(zone.ToSeconds(Wall(2500, 6, 1, 9)), Wall(2500, 6, 1));
  EXPECT_EQ(zone.StretchAt(std::numeric_limits<std::int64_t>::min()).begin, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(zone.StretchAt(std::numeric_limits<std::int64_t>::max()).end, std::numeric_limits<std::int64_t>::max());
}

TEST(Zone, FollowsTheRulesOfItsZoneAlsoBehindTheTable) {
  const Zone zone = Zone::FromTz("America/New_York");
  const ScopedZone elsewhere("Asia/Tokyo");
  EXPECT_EQ(zone.OffsetAt(Wall(2050, 7, 1)), -4 * 3600);
  EXPECT_EQ(zone.ToSeconds(Wall(2050, 7, 1, 12)), Wall(2050, 7, 1, 16));
  EXPECT_EQ(zone.ToSeconds(Wall(2050, 11, 6, 1, 30), 1), Wall(2050, 11, 6, 5, 30));
  EXPECT_EQ(zone.ToSeconds(Wall(2050, 3, 13, 2, 30)), Wall(2050, 3, 13, 7, 30));
  EXPECT_EQ(zone.StandardBias(Wall(2050, 7, 1)), 18000);
  EXPECT_EQ(CurrentZone().OffsetAt(Wall(2050, 7, 1)), 9 * 3600);
}

TEST(Zone, ReadsAnUnknownTextAsUtc) {
  for (const char* text : {"", "No/Such_Zone", "UTC"}) {
    const Zone zone = Zone::FromTz(text);
    EXPECT_TRUE(zone.Changes().empty()) << text;
    EXPECT_EQ(zone.OffsetAt(Wall(2024, 7, 1)), 0) << text;
  }
}

TEST(Zone, LeavesTheZoneOfTheProcessAloneWhenAnotherIsMade) {
  const ScopedZone scope("Asia/Kolkata");
  const Zone other = Zone::FromTz("America/New_York");
  EXPECT_EQ(other.OffsetAt(Wall(2024, 1, 1)), -18000);
  EXPECT_EQ(CurrentZone().OffsetAt(Wall(2024, 1, 1)), 19800);
  EXPECT_STREQ(std::getenv("TZ"), "Asia/Kolkata");
  EXPECT_EQ(CurrentZone().Name(), "Asia/Kolkata");
  EXPECT_EQ(other.Name(), "America/New_York");
}

struct BiasCase {
  const char* zone;
  int year, month;
  std::int32_t bias;
};
const BiasCase kBiases[] = {
    {"UTC", 2024, 7, 0},
    {"America/New_York", 2024, 1, 18000},
    {"America/New_York", 2024, 7, 18000},
    {"Europe/Berlin", 2024, 1, -3600},
    {"Europe/Berlin", 2024, 7, -3600},
    {"Asia/Kolkata", 2024, 7, -19800},
    {"Australia/Lord_Howe", 2024, 1, -37800},
    {"Australia/Lord_Howe", 2024, 12, -37800},
    {"Pacific/Apia", 2011, 1, 39600},    // daylight time, the standard time of that half of the year
    {"Pacific/Apia", 2012, 1, -46800},   // the same rule on the other side of the date line
    {"America/New_York", 1943, 6, 14400},  // a whole year of war time
};
TEST(Zone, GivesTheBiasOfStandardTimeAllYear) {
  for (const BiasCase& c : kBiases) {
    EXPECT_EQ(Zone::FromTz(c.zone).StandardBias(Wall(c.year, c.month, 15)), c.bias) << c.zone << " " << c.month;
  }
}

TEST(Zone, ItsBiasHoldsToTheInstantThatItTells) {
  for (const char* name : {"UTC", "America/New_York", "Australia/Lord_Howe", "Pacific/Apia", "Africa/Casablanca"}) {
    const Zone zone = Zone::FromTz(name);
    std::int64_t at = Wall(1990, 1, 1);
    int stretches = 0;
    for (; at < Wall(2040, 1, 1) && stretches < 2000; ++stretches) {
      const std::int64_t end = zone.StandardBiasEnd(at);
      ASSERT_GT(end, at) << name;
      for (const std::int64_t within : {at + (end - at) / 3, at + (end - at) / 2, end - 1}) {
        ASSERT_EQ(zone.StandardBias(within), zone.StandardBias(at)) << name << " " << at << " " << within;
      }
      at = end;
    }
    EXPECT_GE(stretches, 50) << name;  // a year at most
  }
}

// The answer is kept between two calls: neither a moved clock nor another zone may get an old one.
TEST(TimeZoneInformation, FollowsTheClockAndTheZone) {
  VirtualClock clock(0);
  for (int round = 0; round < 2; ++round) {
    for (const BiasCase& c : kBiases) {
      const ScopedZone scope(c.zone);
      clock.SetWall(Wall(c.year, c.month, 15), 0);
      EXPECT_EQ(GetTimeZoneInformation().bias, c.bias / 60) << c.zone << " " << c.year << " " << c.month;
    }
  }
  const ScopedZone scope("Pacific/Apia");
  for (const BiasCase& c : kBiases) {
    if (std::string_view(c.zone) != "Pacific/Apia") continue;
    clock.SetWall(Wall(c.year, c.month, 15), 0);
    EXPECT_EQ(GetTimeZoneInformation().bias, c.bias / 60) << c.year;
  }
}

TEST(CurrentZone, IsTheZoneOfTheEnvironmentAfterAReload) {
  const ScopedZone scope("UTC");
  setenv("TZ", "Asia/Tokyo", 1);
  EXPECT_EQ(CurrentZone().OffsetAt(0), 0);
  EXPECT_TRUE(ReloadZone());
  EXPECT_EQ(CurrentZone().OffsetAt(0), 9 * 3600);
  EXPECT_FALSE(ReloadZone());
}

TEST(CurrentZone, KeepsATableThatWasGivenOut) {
  const ScopedZone scope("Asia/Tokyo");
  const Zone& tokyo = CurrentZone();
  {
    const ScopedZone other("America/New_York");
    EXPECT_EQ(tokyo.OffsetAt(Wall(2024, 1, 1)), 9 * 3600);
    EXPECT_NE(&CurrentZone(), &tokyo);
  }
  EXPECT_EQ(&CurrentZone(), &tokyo);
}

// A zone file with one fixed offset, by the published layout of such files.
std::string FixedZoneFile(std::int32_t offset) {
  std::string bytes = "TZif";
  bytes.append(16, '\0');
  const auto put = [&bytes](std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(value >> shift));
  };
  for (std::uint32_t count : {0u, 0u, 0u, 0u, 1u, 4u}) put(count);
  put(static_cast<std::uint32_t>(offset));
  bytes.push_back('\0');
  bytes.push_back('\0');
  bytes.append("QXT", 4);
  return bytes;
}

TEST(CurrentZone, SeesAReplacedZoneFileUnderAnUnchangedText) {
  const std::string path = ::testing::TempDir() + "qx_zone_" + std::to_string(::getpid());
  std::ofstream(path, std::ios::binary) << FixedZoneFile(3600);
  {
    const ScopedZone scope(":" + path);
    EXPECT_EQ(CurrentZone().OffsetAt(0), 3600);
    std::ofstream(path + ".new", std::ios::binary) << FixedZoneFile(7200);
    std::filesystem::rename(path + ".new", path);
    EXPECT_TRUE(ReloadZone());
    EXPECT_EQ(CurrentZone().OffsetAt(0), 7200);
    EXPECT_EQ(std::string(std::getenv("TZ")), ":" + path);
  }
  std::filesystem::remove(path);
}

TEST(CurrentZone, MayBeAskedWhileAnotherThreadReloadsIt) {
  const ScopedZone scope("Europe/Berlin");
  std::thread reloader([] {
    for (int i = 0; i < 4; ++i) (void)ReloadZone();
  });
  std::int64_t sum = 0;
  for (int i = 0; i < 100'000; ++i) sum += CurrentZone().OffsetAt(Wall(2024, 1, 1));
  reloader.join();
  EXPECT_EQ(sum, std::int64_t{3600} * 100'000);
}

TEST(PutEnvironment, RefusesATextWithoutAnEqualsSign) {
  const ScopedZone scope("Asia/Tokyo");
  EXPECT_EQ(PutEnvironment("TZ"), -1);
  EXPECT_EQ(PutEnvironment("=x"), -1);
  EXPECT_EQ(PutEnvironment(nullptr), -1);
  EXPECT_STREQ(std::getenv("TZ"), "Asia/Tokyo");
}

TEST(PutEnvironment, SetsAVariableThatTzSetThenReads) {
  const ScopedZone scope("UTC");
  EXPECT_EQ(PutEnvironment("TZ=Asia/Kolkata"), 0);
  TzSet();
  EXPECT_EQ(CurrentZone().OffsetAt(0), 19800);
  EXPECT_EQ(PutEnvironment("TZ="), 0);
  EXPECT_EQ(std::getenv("TZ"), nullptr);
}

TEST(VirtualClock, StandsUntilItIsMoved) {
  VirtualClock clock(Wall(2024, 2, 29, 12, 34, 56), 789, 5000);
  EXPECT_EQ(NowSeconds(), Wall(2024, 2, 29, 12, 34, 56));
  EXPECT_EQ(NowWithMilliseconds().milliseconds, 789u);
  EXPECT_EQ(TickCount(), 5000u);
  EXPECT_EQ(TicksFromFileTime(SystemTimeAsFileTime()), 133536836967890000u);
  EXPECT_EQ(SystemTimeNow(), (SYSTEMTIME{2024, 2, 4, 29, 12, 34, 56, 789}));
}

TEST(VirtualClock, StepsTheWallClockAloneWhenItIsSet) {
  VirtualClock clock(1000, 0, 10);
  clock.SetWall(500, 250);
  EXPECT_EQ(NowSeconds(), 500);
  EXPECT_EQ(NowWithMilliseconds().milliseconds, 250u);
  EXPECT_EQ(TickCount(), 10u);
  clock.SetWall(-1, 250);
  EXPECT_EQ(NowSeconds(), -1);
  EXPECT_EQ(NowWithMilliseconds().milliseconds, 250u);
}

TEST(VirtualClock, LetsBothClocksPassAndTakesWaits) {
  VirtualClock clock(1000);
  clock.Advance(1500);
  EXPECT_EQ(NowSeconds(), 1001);
  EXPECT_EQ(TickCount(), 1500u);
  EXPECT_TRUE(InstalledClockSource()->ConsumeWait(500));
  EXPECT_EQ(NowSeconds(), 1002);
  EXPECT_EQ(TickCount(), 2000u);
}

TEST(VirtualClock, WrapsTheTickCountAfter32Bits) {
  VirtualClock clock(0, 0, std::numeric_limits<std::uint32_t>::max());
  clock.Advance(2);
  EXPECT_EQ(TickCount(), 1u);
}

TEST(VirtualClock, GivesTheClockBackAtItsEnd) {
  {
    VirtualClock outer(1);
    {
      VirtualClock inner(2);
      EXPECT_EQ(NowSeconds(), 2);
    }
    EXPECT_EQ(NowSeconds(), 1);
  }
  EXPECT_EQ(InstalledClockSource(), nullptr);
  EXPECT_GT(NowSeconds(), Wall(2020, 1, 1));
}

TEST(LocalTime, IsTheClockMovedByTheOffsetInForce) {
  const ScopedZone scope("America/New_York");
  VirtualClock clock(Wall(2024, 7, 1, 2), 7);
  EXPECT_EQ(LocalTimeNow(), (SYSTEMTIME{2024, 6, 0, 30, 22, 0, 0, 7}));
  EXPECT_EQ(OffsetInForceNow(), -4 * 3600);
  EXPECT_EQ(GetTimeZoneInformation().bias, 300);
}

TEST(FileTime, IsMovedByTheOffsetInForceNowWhateverItsOwnSeason) {
  const ScopedZone scope("America/New_York");
  SYSTEMTIME january{2024, 1, 1, 1, 12, 0, 0, 0};
  FILETIME utc;
  ASSERT_TRUE(SystemTimeToFileTime(january, utc));
  VirtualClock clock(Wall(2024, 7, 1));
  FILETIME local;
  ASSERT_TRUE(FileTimeToLocalFileTime(utc, local));
  EXPECT_EQ(TicksFromFileTime(utc) - TicksFromFileTime(local), 4u * 3600 * kTicksPerSecond);
  FILETIME back;
  ASSERT_TRUE(LocalFileTimeToFileTime(local, back));
  EXPECT_EQ(back, utc);
}

TEST(FileTime, IsRefusedWhenItsLocalFormLeavesTheRange) {
  VirtualClock clock(Wall(2024, 7, 1));
  FILETIME out{1, 2};
  {
    const ScopedZone scope("America/New_York");
    EXPECT_FALSE(FileTimeToLocalFileTime(FileTimeFromTicks(0), out));
  }
  {
    const ScopedZone scope("Asia/Tokyo");
    EXPECT_FALSE(LocalFileTimeToFileTime(FileTimeFromTicks(0), out));
    EXPECT_FALSE(FileTimeToLocalFileTime(FileTimeFromTicks(std::numeric_limits<std::int64_t>::max()), out));
    EXPECT_FALSE(LocalFileTimeToFileTime(FileTimeFromTicks(std::numeric_limits<std::uint64_t>::max()), out));
  }
  EXPECT_EQ(out, (FILETIME{1, 2}));
}

TEST(SecondsFromLocal, CarriesFieldsOutOfRangeAndFillsTheRest) {
  const ScopedZone scope("Europe/Berlin");
  std::tm fields{};
  fields.tm_year = 124;
  fields.tm_mon = 13;
  fields.tm_mday = 0;
  fields.tm_hour = 25;
  fields.tm_min = -1;
  fields.tm_sec = 60;
  fields.tm_isdst = -1;
  std::int64_t seconds = 0;
  ASSERT_TRUE(SecondsFromLocal(fields, seconds));
  EXPECT_EQ(seconds, Wall(2025, 2, 1, 0));
  EXPECT_EQ(fields.tm_year, 125);
  EXPECT_EQ(fields.tm_mon, 1);
  EXPECT_EQ(fields.tm_mday, 1);
  EXPECT_EQ(fields.tm_hour, 1);
  EXPECT_EQ(fields.tm_min, 0);
  EXPECT_EQ(fields.tm_sec, 0);
  EXPECT_EQ(fields.tm_wday, 6);
  EXPECT_EQ(fields.tm_yday, 31);
  EXPECT_EQ(fields.tm_isdst, 0);
}

TEST(SecondsFromLocal, TakesExtremeFieldsWithoutOverflow) {
  const ScopedZone scope("Asia/Tokyo");
  for (int value : {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    std::tm fields{};
    fields.tm_year = fields.tm_mon = fields.tm_mday = fields.tm_hour = fields.tm_min = fields.tm_sec = value;
    std::int64_t seconds = 42;
    EXPECT_FALSE(SecondsFromLocal(fields, seconds));
    EXPECT_EQ(seconds, 42);
    EXPECT_EQ(fields.tm_mday, value);
  }
}

TEST(Breakdown, TakesNegativeInstantsAndRefusesYearsThatHaveNoInt) {
  std::tm fields{};
  ASSERT_TRUE(UtcBreakdown(-1, fields));
  EXPECT_EQ(fields.tm_year, 69);
  EXPECT_EQ(fields.tm_hour, 23);
  EXPECT_EQ(fields.tm_wday, 3);
  EXPECT_EQ(fields.tm_yday, 364);
  EXPECT_FALSE(UtcBreakdown(std::numeric_limits<std::int64_t>::max(), fields));
  EXPECT_FALSE(LocalBreakdown(std::numeric_limits<std::int64_t>::min(), fields));
}

TEST(CivilDate, AgreesWithTheCalendarOverEveryDayOfFourCenturies) {
  int year = 1600, month = 1, day = 1;
  for (std::int64_t days = DaysFromCivil(1600, 1, 1); year < 2001; ++days) {
    const CivilDate date = CivilFromDays(days);
    ASSERT_EQ(date.year, year);
    ASSERT_EQ(date.month, month);
    ASSERT_EQ(date.day, day);
    ASSERT_EQ(DaysFromCivil(year, month, day), days);
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    const int length = month == 2 ? 28 + leap : month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
    if (++day > length) {
      day = 1;
      if (++month > 12) {
        month = 1;
        ++year;
      }
    }
  }
}

TEST(Zone, BearsANameThatTzTakes) {
  for (const char* tz : {"Europe/Berlin", "America/New_York", "<+0330>-3:30", "UTC0"}) {
    const ScopedZone zone(tz);
    EXPECT_EQ(CurrentZoneName(), tz);
  }
  const ScopedZone restored("UTC0");  // puts the test's own zone back at the end
  unsetenv("TZ");
  ReloadZone();
  const std::string name = CurrentZoneName();
  const Zone named = Zone::FromTz(name);
  ASSERT_EQ(named.Changes().size(), CurrentZone().Changes().size()) << name;
  for (const std::int64_t at : {0, 1700000000, 1720000000, 2000000000}) {
    EXPECT_EQ(named.OffsetAt(at), CurrentZone().OffsetAt(at)) << name;
  }
}

}  // namespace
}  // namespace platform
