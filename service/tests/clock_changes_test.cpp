#include <random>
#include <set>

#include "service/tests/simulated_machine.h"

namespace {

using platform::CivilDate;
using platform::CivilFromDays;
using platform::DaysFromCivil;
using qx::testing::DayOf;
using qx::testing::kMillisecondsOfDay;
using qx::testing::kSecondsOfDay;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kMinute = 60;

bool EveryDay(std::int64_t) {
  return true;
}

class Machine : public qx::testing::SimulatedMachine {
 protected:
  using SimulatedMachine::SimulatedMachine;

  void KeepEveryDay(std::int64_t timeOfDay) { (void)Keep(EveryDayAt(timeOfDay), {timeOfDay, EveryDay}); }
  // One schedule of each rule.
  void KeepOneOfEach(bool once) {
    KeepEveryDay(10 * kHour);
    KeepEveryDay(10 * kHour);  // a second job on the same seconds
    SCHEDULE_OBJECT fridays = At(23 * kHour + 59 * kMinute);
    for (auto* week : Weeks(fridays)) (*week)[5] = 1;
    (void)Keep(fridays, {23 * kHour + 59 * kMinute, [](std::int64_t day) { return (day + 4) % 7 == 5; }});
    SCHEDULE_OBJECT monthEnds = At(kMinute);
    monthEnds.stScheduleRules.adwDaysOfMonth[30] = 1;
    (void)Keep(monthEnds, {kMinute, [](std::int64_t day) { return CivilFromDays(day).day == 31; }});
    SCHEDULE_OBJECT thirdDays = At(15 * kHour);
    const std::int64_t anchor = DaysFromCivil(2024, 2, 29);
    thirdDays.stScheduleRules.bRepeatInterval = 1;
    thirdDays.stScheduleRules.dwRepeatInterval = 3;
    thirdDays.stScheduleRules.lAnchorDate = static_cast<std::int32_t>(anchor * kSecondsOfDay + 12 * kHour);
    (void)Keep(thirdDays, {15 * kHour, [=](std::int64_t day) { return day >= anchor && (day - anchor) % 3 == 0; }});
    if (!once) return;
    SCHEDULE_OBJECT oneDay = At(9 * kHour);
    const std::int64_t theDay = DaysFromCivil(2025, 1, 4);
    oneDay.stScheduleRules.alIncludeDates[0] = static_cast<std::int32_t>(theDay * kSecondsOfDay + 12 * kHour);
    (void)Keep(oneDay, {9 * kHour, [=](std::int64_t day) { return day == theDay; }});
  }
};

struct Step {
  const char* name;
  std::int64_t seconds;
  friend std::ostream& operator<<(std::ostream& out, const Step& step) { return out << step.name; }
};
const Step kSteps[] = {
    {"OfAHundredSeconds", 100},       {"OfAnHour", kHour},
    {"OfADay", kSecondsOfDay},        {"Of30Days", 30 * kSecondsOfDay},
    {"OfAYear", 365 * kSecondsOfDay}, {"OfThreeYears", 3 * 365 * kSecondsOfDay},
};

class ClockStep : public Machine, public testing::WithParamInterface<std::tuple<Step, const char*>> {
 protected:
  ClockStep() : Machine(std::get<1>(GetParam())) {}
};

TEST_P(ClockStep, LaunchesEachWindowOnceAndMakesNoneUp) {
  KeepOneOfEach(true);
  m_sink->heard.clear();
  const std::int64_t seconds = std::get<0>(GetParam()).seconds;
  ThenStepClock(5 * kMillisecondsOfDay / 2, seconds);      // forward over everything on the way
  ThenStepClock(4 * kMillisecondsOfDay, -seconds);         // and back: what ran once runs again
  ThenStepClock(kMillisecondsOfDay / 3 + 1000, -seconds);  // behind the beginning
  ThenStepClock(3 * kMillisecondsOfDay, seconds);
  Run(4 * kMillisecondsOfDay);
  EXPECT_GT(Launches(), 20u);
}
INSTANTIATE_TEST_SUITE_P(InBothDirections, ClockStep,
                         testing::Combine(testing::ValuesIn(kSteps), testing::Values("UTC", "America/New_York")),
                         [](const auto& which) {
                           const std::string zone = std::get<1>(which.param);
                           return std::string(std::get<0>(which.param).name) + (zone == "UTC" ? "InUtc" : "InNewYork");
                         });

class ClockChanges : public Machine {};

TEST_F(ClockChanges, AScheduleThatRanOutComesBackWithTheClockAndRunsAgain) {
  SCHEDULE_OBJECT oneDay = At(9 * kHour);
  const std::int64_t theDay = DaysFromCivil(2025, 1, 2);
  oneDay.stScheduleRules.alIncludeDates[0] = static_cast<std::int32_t>(theDay * kSecondsOfDay);
  const ScheduleGuid id = Keep(oneDay, {9 * kHour, [=](std::int64_t day) { return day == theDay; }});
  m_sink->heard.clear();
  for (int i = 0; i < 3; ++i) {
    ThenStepClock(3 * kMillisecondsOfDay, -3 * kSecondsOfDay);
  }
  Run(3 * kMillisecondsOfDay);
  EXPECT_EQ(Launches(), 4u);
  EXPECT_THAT(ListedIds(), IsEmpty());
  EXPECT_TRUE(HasKey(id));
}

TEST_F(ClockChanges, AStepThatReachesAWindowsSecondSkipsThatWindow) {
  KeepEveryDay(10 * kHour);
  m_sink->heard.clear();
  // From 08:00:01 to 10:00:00.500: the window begins in the present second and counts as passed.
  ThenStepClock(1000, 2 * kHour - 1);
  Run(3 * kMillisecondsOfDay);
  EXPECT_EQ(Launches(), 3u);
}

TEST_F(ClockChanges, ManyStepsWithinOneSleepAreEachTold) {
  KeepOneOfEach(false);
  m_sink->heard.clear();
  for (const std::int64_t seconds : {7200, -7100, 86400, -86300, 100, -200}) ThenStepClock(1000, seconds);
  Run(2 * kMillisecondsOfDay);
}

TEST_F(ClockChanges, AWindowMonthsAheadIsWaitedForInPiecesAndLaunchedOnce) {
  SCHEDULE_OBJECT oneDay = At(9 * kHour);
  const std::int64_t theDay = DaysFromCivil(2025, 8, 1);
  oneDay.stScheduleRules.alIncludeDates[0] = static_cast<std::int32_t>(theDay * kSecondsOfDay);
  (void)Keep(oneDay, {9 * kHour, [=](std::int64_t day) { return day == theDay; }});
  m_sink->heard.clear();
  Run(250 * kMillisecondsOfDay);
  EXPECT_EQ(Launches(), 1u);
}

TEST_F(ClockChanges, AnEchoOfASmallAdjustmentDisturbsNoSleep) {
  KeepEveryDay(10 * kHour);
  m_sink->heard.clear();
  ThenStepClock(1000, 5);  // the first notice is always accepted
  Run(1000);
  for (const std::int64_t adjustment : {1, -1, 1, -1, -1, 1}) {
    m_script.Then(10 * kMillisecondsOfDay / 100, [this, adjustment] {
      m_clock.SetWall(platform::NowSeconds() + adjustment, 500);
      m_timeChange.OnNotice({platform::ClockNotice::kTimeChange, false});
      EXPECT_EQ(TakeEvent(), -1);
      return false;
    });
  }
  Run(3 * kMillisecondsOfDay);
  EXPECT_EQ(Launches(), 4u);
}

TEST_F(ClockChanges, AZoneThatChangesComputesEveryWindowAnew) {
  KeepOneOfEach(false);
  m_sink->heard.clear();
  for (const char* zone : {"America/New_York", "Pacific/Kiritimati", "Asia/Kathmandu", "Pacific/Pago_Pago",
                           "Europe/Berlin", "Australia/Lord_Howe", "UTC"}) {
    ThenChangeZone(2 * kMillisecondsOfDay + 3'600'000, zone);
  }
  Run(2 * kMillisecondsOfDay);
  EXPECT_GT(Launches(), 30u);
}

// Deliberate: a time of day is kept against UTC and never reduced below 24 hours when it is read.
TEST_F(ClockChanges, ALateScheduleMovedEastLeavesTheListUntilTheNextChange) {
  const ScheduleGuid late = Keep(EveryDayAt(23 * kHour + 30 * kMinute), {23 * kHour + 30 * kMinute, EveryDay});
  const ScheduleGuid early = Keep(EveryDayAt(10 * kHour), {10 * kHour, EveryDay});
  m_sink->heard.clear();
  ThenChangeZone(1000, "Europe/Berlin");
  Run(2 * kMillisecondsOfDay);
  EXPECT_THAT(ListedIds(), ElementsAre(Text(early)));
  EXPECT_TRUE(HasKey(late));
  ThenStepClock(1000, 100);
  Run(1000);
  EXPECT_THAT(ListedIds(), testing::UnorderedElementsAre(Text(early), Text(late)));
  const std::int64_t today = DayOf(platform::CurrentZone().ToWall(platform::NowSeconds()));
  EXPECT_EQ(ListedWindow(late), (today + 1) * kSecondsOfDay - 30 * kMinute);  // half past midnight in Berlin
}

// A random life: steps of all sizes and zones in any order. The seed is in the failure's trace.
class RandomLife : public Machine, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(RandomLife, LaunchesEachWindowOnceAndMakesNoneUp) {
  std::mt19937 random(GetParam());
  const auto below = [&](std::uint32_t bound) { return static_cast<std::int64_t>(random() % bound); };
  const bool zones = GetParam() % 2 == 0;
  KeepOneOfEach(!zones);
  m_sink->heard.clear();
  static constexpr const char* kZones[] = {"America/St_Johns", "Asia/Tehran", "Africa/Casablanca",
                                           "Europe/Dublin",    "UTC",         "Pacific/Apia"};
  std::int64_t away = 0;  // from the true time
  std::string zone = "UTC";
  for (int i = 0; i < 12; ++i) {
    const std::uint64_t later = static_cast<std::uint64_t>(below(3 * 86400)) * 1000 + 1000;
    if (zones && below(3) == 0) {
      std::string other = zone;
      while (other == zone) other = kZones[below(std::size(kZones))];
      ThenChangeZone(later, zone = other);
      continue;
    }
    std::int64_t step = kSteps[below(std::size(kSteps))].seconds + below(7200) + 2;
    if (away > 0 || (away == 0 && below(2) == 0)) step = -step;
    away += step;
    ThenStepClock(later, step);
  }
  Run(2 * kMillisecondsOfDay);
}
INSTANTIATE_TEST_SUITE_P(Seed, RandomLife, testing::Range(1u, 9u));

// --- change days ---

struct ChangeDays {
  const char* name;
  const char* zone;
  int year;
  friend std::ostream& operator<<(std::ostream& out, const ChangeDays& days) { return out << days.name; }
};
// Both change days of the year; Apia left a whole day out, Kiritimati too, and half an hour is Lord Howe's change.
const ChangeDays kChangeDays[] = {
    {"Apia2011", "Pacific/Apia", 2011},          {"LordHowe2025", "Australia/Lord_Howe", 2025},
    {"StJohns2006", "America/St_Johns", 2006},   {"Kiritimati1994", "Pacific/Kiritimati", 1994},
    {"NewYork2025", "America/New_York", 2025},   {"Berlin2025", "Europe/Berlin", 2025},
    {"Dublin2025", "Europe/Dublin", 2025},       {"Casablanca2025", "Africa/Casablanca", 2025},
    {"SaoPaulo2018", "America/Sao_Paulo", 2018}, {"Tehran2021", "Asia/Tehran", 2021},
    {"Troll2025", "Antarctica/Troll", 2025},     {"Chatham2025", "Pacific/Chatham", 2025},
    {"Caracas2007", "America/Caracas", 2007},    {"Cairo2014", "Africa/Cairo", 2014},
};

class ChangeDay : public Machine, public testing::WithParamInterface<ChangeDays> {
 protected:
  ChangeDay() : Machine(GetParam().zone) {}
};

TEST_P(ChangeDay, LaunchesEveryTimeOfDayOnceADay) {
  const platform::Zone& zone = platform::CurrentZone();
  const std::int64_t begin = DaysFromCivil(GetParam().year, 1, 1) * kSecondsOfDay;
  const std::int64_t end = DaysFromCivil(GetParam().year + 1, 1, 2) * kSecondsOfDay;
  int changes = 0;
  for (const platform::Zone::Change& change : zone.Changes()) {
    if (change.at < begin || change.at >= end || change.offsetBefore == change.offsetAfter) continue;
    ++changes;
    DoCleanUp();
    m_rules.clear();
    Begin(change.at - 2 * kSecondsOfDay);
    std::uint32_t number = 0;
    for (std::int64_t timeOfDay = 0; timeOfDay < kSecondsOfDay; timeOfDay += 15 * kMinute) {
      (void)List(EveryDayAt(timeOfDay), ++number, {timeOfDay, EveryDay});
    }
    (void)List(EveryDayAt(kSecondsOfDay - 1), ++number, {kSecondsOfDay - 1, EveryDay});
    const std::uint64_t before = Launches();
    Run(4 * kMillisecondsOfDay);
    // Four days may be some hours short; standard time that moves makes some schedules leave the list.
    const bool standardMoves = zone.StandardBias(change.at - 1) != zone.StandardBias(change.at + 5 * kSecondsOfDay);
    EXPECT_GE(Launches() - before, number * (standardMoves ? 1u : 3u));
  }
  EXPECT_GT(changes, 0);
}

// What the clock has shown already in the first of two equal hours is past when the windows are computed anew there; what
// a gap moved isn't, as long as the clock doesn't show where to.
TEST_P(ChangeDay, GoesOnWhenTheClockIsSetToTheMiddleOfAChange) {
  const platform::Zone& zone = platform::CurrentZone();
  const std::int64_t begin = DaysFromCivil(GetParam().year, 1, 1) * kSecondsOfDay;
  const std::int64_t end = DaysFromCivil(GetParam().year + 1, 1, 2) * kSecondsOfDay;
  std::vector<std::int64_t> middles;
  std::set<std::int64_t> timesOfDay;
  for (const platform::Zone::Change& change : zone.Changes()) {
    if (change.at < begin || change.at >= end || change.offsetBefore == change.offsetAfter) continue;
    const std::int64_t moved = change.offsetAfter - change.offsetBefore;
    middles.push_back(change.at + moved / 2);
    const std::int64_t far = std::min<std::int64_t>(std::abs(moved), 2 * kHour);
    for (std::int64_t distance = -far; distance <= far; distance += 10 * kMinute) {
      timesOfDay.insert(qx::testing::DayRule::Wrapped(zone.ToWall(middles.back()) + distance));
    }
  }
  ASSERT_FALSE(middles.empty());
  Begin(begin - 20 * kSecondsOfDay);
  for (const std::int64_t timeOfDay : timesOfDay) KeepEveryDay(timeOfDay);
  m_sink->heard.clear();
  std::int64_t from = platform::NowSeconds();
  for (const std::int64_t middle : middles) {
    ThenStepClock(kMillisecondsOfDay, middle - from - kSecondsOfDay);
    from = middle;
  }
  Run(3 * kMillisecondsOfDay);
  EXPECT_GE(Launches(), timesOfDay.size());
}
INSTANTIATE_TEST_SUITE_P(Zones, ChangeDay, testing::ValuesIn(kChangeDays),
                         [](const auto& which) { return which.param.name; });

}  // namespace
