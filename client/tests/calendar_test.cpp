#include "client/calendar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "client/cli_offline.h"
#include "client/rule_object.h"
#include "client/time_text.h"
#include "common/schedule_adapter.h"
#include "foundation/include/zfclog.h"
#include "platform/testing/virtual_clock.h"

namespace {

using qx::Calendar;
using qx::CalendarBuilder;
using qx::CalendarDay;
using qx::CalendarSpan;
using testing::ElementsAre;

constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr std::int64_t kCalendarNow = 1796040000;  // Monday 2026-11-30 13:00:00 +0100

// Local wall clock of the zone in force.
std::int64_t At(const std::string& text) {
  return *qx::ParseInstant(text, platform::CurrentZone(), kCalendarNow);
}

SCHEDULE_OBJECT Record(const std::string& toml) {
  const qx::CheckedFile checked = qx::CheckText("[job]\nwrapper = \"/bin/true\"\n" + toml, false);
  for (const qx::Finding& finding : checked.findings) {
    if (finding.severity == qx::Severity::kError && checked.status != kStatusBackdated) ADD_FAILURE() << finding.text;
  }
  return checked.record;
}

Calendar Of(CalendarSpan span, const std::vector<SCHEDULE_OBJECT>& records, std::size_t kept = 40) {
  CalendarBuilder builder(span, kCalendarNow, kept);
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(builder.Add("s" + std::to_string(i), records[i]), kStatusOk);
  }
  return builder.Finish();
}

std::vector<int> DaysWithWindows(const Calendar& calendar) {
  std::vector<int> days;
  for (std::size_t i = 0; i < calendar.days.size(); ++i) {
    if (calendar.days[i].windows > 0) days.push_back(static_cast<int>(i) + 1);
  }
  return days;
}

class CalendarTest : public testing::Test {
 protected:
  ~CalendarTest() override { ZepFoundation::SetServiceLogWriter(m_writerBefore); }

  platform::ScopedZone m_zone{kBerlin};
  platform::VirtualClock m_clock{kCalendarNow};

 private:
  ZepFoundation::ServiceLogWriter* m_writerBefore =
      ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
};

TEST_F(CalendarTest, AMonthAndAYearAreReadOnlyAsTheyAreWritten) {
  const struct {
    int line;
    const char* text;
    std::optional<int> month;
  } cases[] = {{__LINE__, "2026-11", 11},
               {__LINE__, "1970-01", 1},
               {__LINE__, "2037-12", 12},
               {__LINE__, "2026-00", std::nullopt},
               {__LINE__, "2026-13", std::nullopt},
               {__LINE__, "1969-12", std::nullopt},
               {__LINE__, "2038-01", std::nullopt},
               {__LINE__, "2026-1", std::nullopt},
               {__LINE__, "2026-11-01", std::nullopt},
               {__LINE__, "2026/11", std::nullopt},
               {__LINE__, "november", std::nullopt},
               {__LINE__, "", std::nullopt},
               {__LINE__, "2026- 1", std::nullopt},
               {__LINE__, "+026-01", std::nullopt}};
  for (const auto& c : cases) {
    const auto span = qx::ParseCalendarMonth(c.text);
    EXPECT_EQ(span.has_value(), c.month.has_value()) << c.line;
    if (span && c.month) {
      EXPECT_EQ(span->month, *c.month) << c.line;
    }
  }
  EXPECT_TRUE(qx::ParseCalendarYear("2026"));
  for (const char* bad : {"", "26", "02026", "2038", "1969", "2026-", "abcd", "-026"}) {
    EXPECT_FALSE(qx::ParseCalendarYear(bad)) << bad;
  }
}

TEST_F(CalendarTest, SpansEndWithTheirMonthOrYear) {
  const auto text = [](CalendarSpan span) {
    return qx::FormatDate(span.FirstDay()) + " " + qx::FormatDate(span.LastDay());
  };
  EXPECT_EQ(text({2026, 11}), "2026-11-01 2026-11-30");
  EXPECT_EQ(text({2026, 12}), "2026-12-01 2026-12-31");
  EXPECT_EQ(text({2028, 2}), "2028-02-01 2028-02-29");
  EXPECT_EQ(text({2037, 0}), "2037-01-01 2037-12-31");
}

TEST_F(CalendarTest, EveryWindowStandsOnItsDayWithItsReason) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"22:00\"\nduration = \"4h\"\n"
                                                   "[days]\nlast = [\"fri\"]\nof_month = [1, \"last\"]\n"
                                                   "include = [2026-12-28]\n")});
  EXPECT_THAT(DaysWithWindows(calendar), ElementsAre(1, 25, 28, 31));
  EXPECT_EQ(calendar.windows, 4u);
  const auto reason = [&](int day) { return calendar.days[static_cast<std::size_t>(day) - 1].entries.at(0).reason; };
  EXPECT_EQ(reason(1), "day 1");
  EXPECT_EQ(reason(25), "last fri");
  EXPECT_EQ(reason(28), "include");
  EXPECT_EQ(reason(31), "last day");
  const qx::CalendarEntry& entry = calendar.days[24].entries[0];
  EXPECT_EQ(entry.start, At("2026-12-25 22:00"));
  EXPECT_EQ(entry.end, At("2026-12-26 02:00"));
  EXPECT_TRUE(entry.opens);
}

TEST_F(CalendarTest, TheRepeatRuleNamesItsInterval) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"10:00\"\nduration = \"1h\"\n"
                                                   "[days]\nrepeat = { every = 14, anchor = 2026-12-03 }\n")});
  EXPECT_THAT(DaysWithWindows(calendar), ElementsAre(3, 17, 31));
  EXPECT_EQ(calendar.days[2].entries.at(0).reason, "every 14 days");
}

TEST_F(CalendarTest, ADayOfTheRepeatRuleAheadOfOtherRulesDaysNamesTheRepeatRule) {
  struct Case {
    int line;
    const char* other;
    int ownDay;  // of the other rule, in December 2026
    const char* ownReason;
  };
  const Case cases[] = {
      {__LINE__, "every = [\"mon\"]\n", 14, "every mon"},
      {__LINE__, "last = [\"fri\"]\n", 25, "last fri"},
      {__LINE__, "of_month = [20]\n", 20, "day 20"},
      {__LINE__, "of_month = [\"last\"]\n", 31, "last day"},
      {__LINE__, "include = [2026-12-24]\n", 24, "include"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("line " + std::to_string(c.line));
    const Calendar calendar =
        Of({2026, 12}, {Record(std::string("[window]\nstart = \"22:00\"\nduration = \"3h\"\nrestart = \"1h\"\n"
                                           "[days]\nrepeat = { every = 5, anchor = 2026-12-02 }\n") +
                               c.other)});
    const auto reason = [&](int day) { return calendar.days[static_cast<std::size_t>(day) - 1].entries.at(0).reason; };
    for (const int day : {2, 3, 12, 13, 17, 18, 27}) EXPECT_EQ(reason(day), "every 5 days") << day;
    EXPECT_EQ(reason(c.ownDay), c.ownReason);
  }
}

TEST_F(CalendarTest, AnExcludedDateThatWouldRunIsToldWithTheRuleThatItBeats) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"22:00\"\nduration = \"1h\"\n"
                                                   "[days]\nevery = [\"fri\"]\nexclude = [2026-12-25, 2026-12-26]\n")});
  EXPECT_THAT(DaysWithWindows(calendar), ElementsAre(4, 11, 18));
  EXPECT_EQ(calendar.days[24].excluded, 1u);
  EXPECT_EQ(calendar.days[24].exclusions.at(0).reason, "every fri");
  EXPECT_EQ(calendar.days[25].excluded, 0u) << "a Saturday wouldn't run anyway";
  EXPECT_EQ(calendar.excluded, 1u);
}

TEST_F(CalendarTest, AnExclusionAheadOfTheEffectiveDateTakesNothingAway) {
  const Calendar calendar = Of(
      {2026, 12}, {Record("[window]\nstart = \"22:00\"\nduration = \"1h\"\n"
                          "[days]\nevery = [\"fri\"]\neffective = 2026-12-15\nexclude = [2026-12-11, 2026-12-25]\n")});
  EXPECT_THAT(DaysWithWindows(calendar), ElementsAre(18));
  EXPECT_EQ(calendar.days[10].excluded, 0u);
  EXPECT_EQ(calendar.days[24].excluded, 1u);
}

TEST_F(CalendarTest, RestartsBelongToTheirWindowUpToMidnightAndToTheNextDayBehindIt) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"22:00\"\nduration = \"4h\"\nrestart = \"1h\"\n"
                                                   "[days]\nof_month = [10]\n")});
  const CalendarDay& day = calendar.days[9];
  const CalendarDay& next = calendar.days[10];
  ASSERT_EQ(day.entries.size(), 1u);
  EXPECT_EQ(day.windows, 1u);
  EXPECT_EQ(day.restarts, 1u);
  EXPECT_EQ(day.entries[0].restarts, 1u);
  EXPECT_EQ(next.windows, 0u);
  EXPECT_EQ(next.restarts, 3u) << "00:00, 01:00 and, at the very end, 02:00";
  ASSERT_EQ(next.entries.size(), 1u);
  EXPECT_FALSE(next.entries[0].opens);
  EXPECT_TRUE(next.entries[0].behindMidnight);
  EXPECT_EQ(next.entries[0].restarts, 3u);
  EXPECT_EQ(next.entries[0].reason, "day 10");
}

TEST_F(CalendarTest, TheLastWindowIsMarked) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"10:00\"\nduration = \"1h\"\n"
                                                   "[days]\ninclude = [2026-12-03, 2026-12-08]\n")});
  EXPECT_FALSE(calendar.days[2].entries.at(0).last);
  EXPECT_TRUE(calendar.days[7].entries.at(0).last);
}

TEST_F(CalendarTest, AWindowIsOpenInEachHourThatItTouches) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"22:30\"\nduration = \"2h30m\"\n"
                                                   "[days]\nof_month = [1]\n"),
                                            Record("[window]\nstart = \"21:00\"\nduration = \"2h\"\n"
                                                   "[days]\nof_month = [1]\n")});
  const auto& open = calendar.days[0].open;
  EXPECT_EQ(open[20], 0u);
  EXPECT_EQ(open[21], 1u);
  EXPECT_EQ(open[22], 2u);
  EXPECT_EQ(open[23], 1u) << "the one that ends at 23:00 doesn't reach into the hour";
  EXPECT_EQ(calendar.days[1].open[0], 1u);
  EXPECT_EQ(calendar.days[1].open[1], 0u) << "it ends at 01:00";
  EXPECT_EQ(qx::BusiestHour(calendar.days[0]), 22);
  EXPECT_EQ(qx::BusiestHour(calendar.days[2]), std::nullopt);
}

TEST_F(CalendarTest, AWindowOfTheDayAheadOfTheSpanIsOpenOnItsFirstDayButOpensOnNone) {
  const Calendar calendar = Of({2026, 12}, {Record("[window]\nstart = \"23:00\"\nduration = \"3h\"\n"
                                                   "[days]\ninclude = [2026-11-30]\n")});
  EXPECT_EQ(calendar.windows, 0u);
  EXPECT_EQ(calendar.days[0].open[0], 1u);
  EXPECT_EQ(calendar.days[0].open[1], 1u);
  EXPECT_EQ(calendar.days[0].open[2], 0u);
}

TEST_F(CalendarTest, ADayOnWhichTheClockIsSetTellsHow) {
  const struct {
    int line;
    const char* zone;
    const char* date;
    const char* text;
  } cases[] = {
      {__LINE__, kBerlin, "2026-03-29", "clock goes forward 1h at 02:00"},
      {__LINE__, kBerlin, "2026-10-25", "clock goes back 1h at 03:00"},
      {__LINE__, kBerlin, "2026-10-26", ""},
      {__LINE__, "Australia/Lord_Howe", "2026-04-05", "clock goes back 30m at 02:00"},
      {__LINE__, "Africa/Cairo", "2026-04-24", "clock goes forward 1h at 00:00"},
      {__LINE__, "Africa/Cairo", "2026-10-29", "clock goes back 1h at 24:00"},
      {__LINE__, "Pacific/Apia", "2011-12-30", "clock goes forward 24h at 00:00"},
      {__LINE__, "UTC", "2026-03-29", ""},
  };
  for (const auto& c : cases) {
    const platform::ScopedZone zone(c.zone);
    const std::int64_t day = *qx::ParseDate(c.date);
    const platform::CivilDate date = platform::CivilFromDays(day);
    const Calendar calendar = Of({static_cast<int>(date.year), date.month}, {});
    const CalendarDay& shown = calendar.days[static_cast<std::size_t>(date.day) - 1];
    EXPECT_EQ(qx::ChangeText(shown), c.text) << c.line;
    EXPECT_EQ(shown.change, qx::IsChangeDay(day, platform::CurrentZone())) << c.line;
  }
}

TEST_F(CalendarTest, OnlyTheEarliestEntriesAreKeptAndAllAreCounted) {
  std::vector<SCHEDULE_OBJECT> records;
  for (int hour = 9; hour >= 1; --hour) {
    records.push_back(Record("[window]\nstart = \"0" + std::to_string(hour) +
                             ":00\"\nduration = \"1h\"\n"
                             "[days]\nof_month = [5]\n"));
  }
  const Calendar calendar = Of({2026, 12}, records, 3);
  const CalendarDay& day = calendar.days[4];
  EXPECT_EQ(day.windows, 9u);
  EXPECT_EQ(day.allEntries, 9u);
  ASSERT_EQ(day.entries.size(), 3u);
  EXPECT_EQ(day.entries[0].schedule, 8u);
  EXPECT_EQ(day.entries[1].schedule, 7u);
  EXPECT_EQ(day.entries[2].schedule, 6u);
}

TEST_F(CalendarTest, RefusedRulesLeaveNothingBehind) {
  CalendarBuilder builder({2026, 12}, kCalendarNow, 10);
  EXPECT_EQ(builder.Add("none", SCHEDULE_OBJECT{}), kStatusNoRunDay);
  const Calendar calendar = builder.Finish();
  EXPECT_TRUE(calendar.schedules.empty());
  EXPECT_EQ(calendar.windows, 0u);
}

TEST_F(CalendarTest, TheFirstAndTheLastYearHaveCalendarsInEveryZone) {
  for (const char* name : {"UTC", "Pacific/Kiritimati", "Pacific/Pago_Pago", kBerlin}) {
    const platform::ScopedZone zone(name);
    const SCHEDULE_OBJECT daily = Record(
        "[window]\nstart = \"12:00\"\nduration = \"1h\"\n"
        "[days]\nevery = [\"sun\",\"mon\",\"tue\",\"wed\",\"thu\",\"fri\",\"sat\"]\n");
    EXPECT_GE(Of({1970, 0}, {daily}).windows, 364u) << name;
    EXPECT_GE(Of({2037, 0}, {daily}).windows, 364u) << name;
  }
}

TEST_F(CalendarTest, DensityGrowsWithTheWindowsAndEndsAtTheFullestDay) {
  Calendar calendar;
  const auto density = [&](std::uint64_t windows, std::uint64_t most, std::uint64_t restarts = 0) {
    CalendarDay day;
    day.windows = windows;
    day.restarts = restarts;
    calendar.mostOnADay = most;
    return qx::DensityOf(day, calendar);
  };
  EXPECT_EQ(density(0, 10), 0);
  EXPECT_EQ(density(0, 10, 3), 1);
  EXPECT_EQ(density(1, 1), 1);
  EXPECT_EQ(density(4, 4), 4);
  EXPECT_EQ(density(2, 2), 2);
  EXPECT_EQ(density(3, 5), 3);
  EXPECT_EQ(density(1, 10000), 1);
  EXPECT_EQ(density(2500, 10000), 1);
  EXPECT_EQ(density(2501, 10000), 2);
  EXPECT_EQ(density(7500, 10000), 3);
  EXPECT_EQ(density(7501, 10000), 4);
  EXPECT_EQ(density(10000, 10000), 4);
  for (std::uint64_t windows = 1; windows < 1000; ++windows) {
    EXPECT_LE(density(windows, 1000), density(windows + 1, 1000));
  }
}

// --- against the rules library, asked for one window after the other ---

struct Plain {
  std::uint64_t windows = 0;
  std::uint64_t restarts = 0;
};

std::map<std::int64_t, Plain> PlainDays(const SCHEDULE_OBJECT& record, std::int64_t firstDay, std::int64_t lastDay) {
  const platform::Zone& zone = platform::CurrentZone();
  const qx::RuleObject schedule = qx::NewRuleObject();
  CZEPScheduleObj adapter;
  adapter.m_pSchedule = schedule.get();
  EXPECT_EQ(adapter.Validate_ScheduleRules(&record), kStatusOk);
  const std::int32_t opens = qx::LocalTimeOfDay(record.stScheduleRules.lStartTime, zone);
  std::map<std::int64_t, Plain> days;
  ZepTime ref = zone.ToSeconds((firstDay - 1) * 86400) - 1;
  for (;;) {
    ZepTime start = 0, end = 0;
    zepByte last = 0;
    if (schedule->GetNextTimeWindow(0, 0, ref, &start, &end, &last) != ZEP_S_OK) break;
    const std::int64_t day = qx::LocalDay(start, zone);
    if (day > lastDay) break;
    if (day >= firstDay) {
      // Opens there: the wall clock shows the time of day, or a time moved out of a gap.
      const bool opening = start == zone.ToSeconds(day * 86400 + opens);
      ++(opening ? days[day].windows : days[day].restarts);
    }
    ref = start;
  }
  return days;
}

TEST_F(CalendarTest, CountsWhatTheLibraryAnswersForAnyRules) {
  const auto seed = static_cast<std::uint32_t>(testing::UnitTest::GetInstance()->random_seed());
  std::mt19937 random(seed);
  const auto upTo = [&](int most) { return static_cast<int>(random() % static_cast<unsigned>(most + 1)); };
  const char* const zones[] = {kBerlin, "UTC", "America/New_York", "Australia/Lord_Howe", "Africa/Cairo"};
  for (int round = 0; round < 120; ++round) {
    const platform::ScopedZone zone(zones[round % 5]);
    SCHEDULE_OBJECT record;
    SCHEDULE_RULE& rules = record.stScheduleRules;
    const std::int64_t carrier = qx::CarrierDay(kCalendarNow, platform::CurrentZone());
    rules.lStartTime = static_cast<std::int32_t>(platform::CurrentZone().ToSeconds(carrier * 86400 + upTo(1439) * 60));
    const int minutes[] = {1, 30, 240, 600, 1440};
    rules.dwTimeDuration = static_cast<std::uint32_t>(minutes[upTo(4)]) * 60000;
    if (upTo(3) > 0) {
      const std::uint32_t intervals[] = {60000, 90000, 417000, 1500, 3600000, 5400000, 7000};
      rules.bRestartInterval = 1;
      rules.dwRestartInterval = intervals[upTo(6)];
      if (rules.dwRestartInterval == 1500) rules.dwTimeDuration = std::min(rules.dwTimeDuration, 1800000u);
      if (rules.dwRestartInterval >= rules.dwTimeDuration) rules.dwTimeDuration = 14400000;
    }
    for (auto* const week : {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
                             &rules.dwDaysOfWeek4}) {
      for (std::uint32_t& day : *week) day = upTo(2) == 0;
    }
    rules.adwDaysOfMonth[static_cast<std::size_t>(upTo(31))] = 1;
    // March and October 2026 and November, with the changes of most zones.
    const int months[] = {3, 4, 10, 11};
    const CalendarSpan span{2026, months[upTo(3)]};
    std::set<std::int64_t> excluded;
    for (int i = upTo(6); i > 0; --i) excluded.insert(span.FirstDay() + upTo(27));
    std::size_t at = 0;
    for (const std::int64_t day : excluded) {
      rules.alExcludeDates[at++] = static_cast<std::int32_t>(qx::NoonOf(day, platform::CurrentZone()));
    }
    const Calendar calendar = Of(span, {record});
    const auto plain = PlainDays(record, span.FirstDay(), span.LastDay());
    std::uint64_t windows = 0, restarts = 0;
    for (const CalendarDay& day : calendar.days) {
      const auto found = plain.find(day.day);
      const Plain expected = found == plain.end() ? Plain{} : found->second;
      ASSERT_EQ(day.windows, expected.windows)
          << "seed " << seed << " round " << round << " " << qx::FormatDate(day.day);
      ASSERT_EQ(day.restarts, expected.restarts)
          << "seed " << seed << " round " << round << " " << qx::FormatDate(day.day);
      windows += expected.windows;
      restarts += expected.restarts;
      if (excluded.count(day.day) > 0) {
        EXPECT_EQ(day.windows, 0u);
      } else {
        EXPECT_EQ(day.excluded, 0u);
      }
    }
    EXPECT_EQ(calendar.windows, windows);
    EXPECT_EQ(calendar.restarts, restarts);
  }
}

}  // namespace
