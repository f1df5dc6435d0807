// The next time window: which day, which time, whether another follows.
#include <algorithm>
#include <vector>

#include "common/tests/schedule_fixture.h"

namespace qx::testing {
namespace {

class NextTimeWindow : public InZone {};
class IsInTimeWindow : public InZone {};

TEST_F(NextTimeWindow, FindsTheLastFridayOfTheMonth) {
  Rules rules;
  rules.On(kFriday, kLastWeek);
  const Answer answer = rules.Next("2024-05-02 12:00:00");
  EXPECT_EQ(answer.result, ZEP_S_OK);
  EXPECT_EQ(Shown(answer.start), "2024-05-31 10:00:00");
  EXPECT_EQ(Shown(answer.end), "2024-05-31 11:00:00");
  EXPECT_EQ(answer.match, ZEP_RULE_DAY_OF_WEEK);
  EXPECT_EQ(answer.last, 0);
}

TEST_F(NextTimeWindow, NeverOpensAtTheReferenceSecond) {
  Rules rules;
  rules.On(kFriday, kLastWeek);
  EXPECT_EQ(rules.NextStart("2024-05-31 10:00:00"), "2024-06-28 10:00:00");
  EXPECT_EQ(rules.NextStart("2024-05-31 09:59:59"), "2024-05-31 10:00:00");
}

TEST_F(NextTimeWindow, SkipsAMonthWithoutA31st) {
  Rules rules;
  rules.DayOfMonth(31);
  EXPECT_EQ(rules.NextStart("2024-04-01 09:00:00"), "2024-05-31 10:00:00");
}

TEST_F(NextTimeWindow, TakesTheLastDayBesideA31st) {
  Rules rules;
  rules.DayOfMonth(31).LastDay();
  EXPECT_EQ(rules.NextStart("2024-04-01 09:00:00"), "2024-04-30 10:00:00");
}

TEST_F(NextTimeWindow, FindsTheLastDayOfTheMonthAlsoInALeapFebruary) {
  Rules rules;
  rules.LastDay();
  EXPECT_EQ(rules.NextStart("2024-02-29 09:00:00"), "2024-02-29 10:00:00");
  EXPECT_EQ(rules.NextStart("2024-02-29 10:00:00"), "2024-03-31 10:00:00");
}

TEST_F(NextTimeWindow, CrossesMidnight) {
  Rules rules;
  rules.Daily().Window("22:00", "02:00");
  const Answer answer = rules.Next("2024-05-06 23:00");  // a Monday
  EXPECT_EQ(Shown(answer.start), "2024-05-07 22:00:00");
  EXPECT_EQ(Shown(answer.end), "2024-05-08 02:00:00");
}

TEST_F(NextTimeWindow, RestartsInsideAWindowThatBeganYesterday) {
  Rules rules;
  rules.Daily().Window("22:00", "02:00").Restart(60);
  const Answer answer = rules.Next("2024-05-07 00:30");
  EXPECT_EQ(Shown(answer.start), "2024-05-07 01:00:00");
  EXPECT_EQ(Shown(answer.end), "2024-05-07 02:00:00");
}

TEST_F(NextTimeWindow, RestartsInsideAWindowWithoutMovingItsEnd) {
  Rules rules;
  rules.Daily().Restart(15);
  const Answer answer = rules.Next("2024-05-07 10:20");
  EXPECT_EQ(Shown(answer.start), "2024-05-07 10:30:00");
  EXPECT_EQ(Shown(answer.end), "2024-05-07 11:00:00");
}

// A memory block may hold -1, the invalid time, whose fields all read as 0.
TEST_F(NextTimeWindow, OpensAtMidnightForAnInvalidStart) {
  const platform::ScopedZone utc("UTC");
  Rules rules;
  rules.Daily().Restart(90);
  std::uint32_t size = 0;
  ASSERT_EQ(rules->MemorySizeMax(&size), ZEP_S_OK);
  std::vector<unsigned char> block(size);
  ASSERT_EQ(rules->Save(block.data(), 0, size), ZEP_S_OK);
  constexpr unsigned char stored[] = {0x02, 0x25, 0x51, 0x00};  // 10:00 in milliseconds
  const auto at = std::search(block.begin(), block.end(), std::begin(stored), std::end(stored));
  ASSERT_NE(at, block.end());
  std::fill_n(at, sizeof stored, 0xFF);
  ASSERT_EQ(rules->Load(block.data(), size), ZEP_S_OK);

  const Answer answer = rules.Next("2024-05-07 12:00");
  EXPECT_EQ(answer.result, ZEP_S_OK);
  EXPECT_EQ(Shown(answer.start), "2024-05-08 00:00:00");
  EXPECT_EQ(Shown(answer.end), "2024-05-08 01:00:00");
  EXPECT_EQ(rules.NextStart("2024-05-07 23:59:59"), "2024-05-08 00:00:00");
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 00:30")), 1);
}

// No date can bear a time of day below 0: there is no start, above all none in the past.
TEST_F(NextTimeWindow, HasNoStartAtATimeOfDayBelowZero) {
  const platform::ScopedZone utc("UTC");
  for (const unsigned char sign : {0x80, 0xFA}) {  // 24 and about one day below 0
    Rules rules;
    rules.Daily();
    std::uint32_t size = 0;
    ASSERT_EQ(rules->MemorySizeMax(&size), ZEP_S_OK);
    std::vector<unsigned char> block(size);
    ASSERT_EQ(rules->Save(block.data(), 0, size), ZEP_S_OK);
    constexpr std::size_t kStart = 16 + 4 + 16 + 2 * 4;  // behind class, version, identifier and two empty texts
    block[kStart] = sign;
    ASSERT_EQ(rules->Load(block.data(), size), ZEP_S_OK);

    const Answer answer = rules.Next("2024-05-07 12:00");
    EXPECT_EQ(answer.result, ZEP_S_OK);
    EXPECT_EQ(Shown(answer.start), "none") << int{sign};
    EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 12:00")), 0) << int{sign};
  }
}

TEST_F(NextTimeWindow, AllowsARestartAtTheEnd) {
  Rules rules;
  rules.Daily().Restart(15);
  const Answer answer = rules.Next("2024-05-07 10:50");
  EXPECT_EQ(Shown(answer.start), "2024-05-07 11:00:00");
  EXPECT_EQ(answer.start, answer.end);
}

TEST_F(NextTimeWindow, BeginsWithTheEffectiveDateWhenThatIsARunDay) {
  Rules rules;
  rules.Daily().Effective("2024-06-01");
  EXPECT_EQ(rules.NextStart("2024-01-01 12:00"), "2024-06-01 10:00:00");
}

TEST_F(NextTimeWindow, BeginsWithTheFirstRunDayBehindTheEffectiveDate) {
  Rules rules;
  rules.Every(kMonday).Effective("2024-06-01");  // a Saturday
  EXPECT_EQ(rules.NextStart("2024-01-01 12:00"), "2024-06-03 10:00:00");
}

TEST_F(NextTimeWindow, BeginsAtMidnightOfTheEffectiveDate) {
  Rules rules;
  rules.Daily().Window("00:00", "01:00").Effective("2024-06-01");
  EXPECT_EQ(rules.NextStart("2024-01-01 12:00"), "2024-06-01 00:00:00");
}

TEST_F(NextTimeWindow, ForgetsAnEffectiveDateThatHasPassed) {
  Rules rules;
  rules.Daily().Effective("2024-06-01");
  EXPECT_EQ(rules.NextStart("2024-07-04 12:00"), "2024-07-05 10:00:00");
}

TEST_F(NextTimeWindow, MovesAnExcludedWeekdayToTheNextMatchingWeek) {
  Rules rules;
  rules.Every(kMonday).Exclude("2024-05-06");
  const Answer answer = rules.Next("2024-05-03 12:00");
  EXPECT_EQ(Shown(answer.start), "2024-05-13 10:00:00");
  EXPECT_EQ(answer.match, ZEP_RULE_DAY_OF_WEEK);
}

TEST_F(NextTimeWindow, HasNoneWhenTheOnlyIncludeDateIsTodayAfterItsStart) {
  Rules rules;
  rules.Include("2024-05-06");
  const Answer answer = rules.Next("2024-05-06 10:30");
  EXPECT_EQ(answer.result, ZEP_S_FALSE);
  EXPECT_EQ(answer.start, -1);
  EXPECT_EQ(answer.end, -1);
  EXPECT_EQ(answer.last, 0);
}

TEST_F(NextTimeWindow, TellsTheLastWindowOfAnIncludeList) {
  Rules rules;
  rules.Include("2024-05-06").Include("2024-05-08");
  EXPECT_EQ(rules.Next("2024-05-05 12:00").last, 0);
  EXPECT_EQ(rules.Next("2024-05-06 12:00").last, 1);
}

TEST_F(NextTimeWindow, KeepsTheLastFlagClearBesideAWeekdayRule) {
  Rules rules;
  rules.Include("2024-05-06").Every(kMonday);
  const Answer answer = rules.Next("2024-05-05 12:00");
  EXPECT_EQ(answer.last, 0);
  EXPECT_EQ(answer.match, ZEP_RULE_DAY_OF_WEEK | ZEP_RULE_INCLUDE_DATE);
}

TEST_F(NextTimeWindow, RepeatsFromTheAnchor) {
  Rules rules;
  rules.Repeat(3, "2024-01-01");
  const Answer answer = rules.Next("2024-01-05 09:00");
  EXPECT_EQ(Shown(answer.start), "2024-01-07 10:00:00");
  EXPECT_EQ(answer.match, 0u);
}

TEST_F(NextTimeWindow, StepsOverExcludedRepeatDaysWithoutShiftingThePhase) {
  Rules rules;
  rules.Repeat(3, "2024-01-01").Exclude("2024-01-07").Exclude("2024-01-10");
  EXPECT_EQ(rules.NextStart("2024-01-05 09:00"), "2024-01-13 10:00:00");
}

TEST_F(NextTimeWindow, GivesAFutureAnchorItsOwnDateAsTheFirstRun) {
  Rules rules;
  rules.Repeat(10, "2024-03-05");
  EXPECT_EQ(rules.NextStart("2024-01-05 09:00"), "2024-03-05 10:00:00");
}

TEST_F(NextTimeWindow, MovesAStartInTheMissingHourForward) {
  Rules rules;
  rules.Daily().Window("02:30", "04:00");
  const Answer answer = rules.Next("2024-03-09 12:00");
  EXPECT_EQ(Shown(answer.start), "2024-03-10 03:30:00");
  EXPECT_EQ(Shown(answer.end), "2024-03-10 04:00:00");
  EXPECT_EQ(rules.NextStart("2024-03-10 03:30"), "2024-03-11 02:30:00");
}

TEST_F(NextTimeWindow, RunsOnceOnTheDayOfTheRepeatedHour) {
  Rules rules;
  rules.Daily().Window("01:30", "04:00");
  const Answer answer = rules.Next("2024-11-02 12:00");
  EXPECT_EQ(answer.start, 1730615400);  // 06:30 UTC: the later of both 01:30
  EXPECT_EQ(rules.Next(answer.start).start, 1730615400 + 86400);
}

TEST_F(NextTimeWindow, AcceptsTheLastSecondAndRefusesTheNextOne) {
  Rules rules;
  rules.Daily();
  EXPECT_NE(rules.Next(ZepTime{2145916799}).result, ZEP_E_INVALIDARG);
  const Answer refused = rules.Next(ZepTime{2145916800});
  EXPECT_EQ(refused.result, ZEP_E_INVALIDARG);
  EXPECT_EQ(refused.start, -2);
  EXPECT_EQ(refused.end, -2);
  EXPECT_EQ(refused.last, 9);
}

TEST_F(NextTimeWindow, RefusesAnAnchorOrEffectiveDateBehindTheLimit) {
  Rules rules;
  rules.Daily();
  EXPECT_EQ(rules.Next(1700000000, ZEP_MAX_TIME + 1).result, ZEP_E_INVALIDARG);
  EXPECT_EQ(rules.Next(1700000000, 0, ZEP_MAX_TIME + 1).result, ZEP_E_INVALIDARG);
  EXPECT_EQ(rules.Next(1700000000, ZEP_MAX_TIME, ZEP_MAX_TIME).result, ZEP_S_OK);
}

TEST_F(NextTimeWindow, RefusesAReferenceBeforeTheCalendarBegins) {
  Rules rules;
  rules.Daily();
  for (const ZepTime reference : {ZepTime{-11644473601 - 86400}, ZepTime{INT64_MIN}, ZepTime{-20000000000}}) {
    const Answer answer = rules.Next(reference);
    EXPECT_EQ(answer.result, ZEP_E_INVALIDARG) << reference;
    EXPECT_EQ(answer.start, -2) << reference;
  }
  EXPECT_EQ(rules.Next(ZepTime{-11644473600 + 2 * 86400}).result, ZEP_S_OK);
}

TEST_F(NextTimeWindow, RefusesANullOutPointer) {
  Rules rules;
  rules.Daily();
  ZepTime start = 0, end = 0;
  zepByte last = 0;
  EXPECT_EQ(rules->GetNextTimeWindow(0, 0, 1700000000, nullptr, &end, &last), ZEP_E_POINTER);
  EXPECT_EQ(rules->GetNextTimeWindow(0, 0, 1700000000, &start, nullptr, &last), ZEP_E_POINTER);
  EXPECT_EQ(rules->GetNextTimeWindow(0, 0, 1700000000, &start, &end, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(rules->GetNextTimeWindowEx(0, 0, 1700000000, &start, &end, &last, nullptr), ZEP_E_POINTER);
}

TEST_F(NextTimeWindow, FailsWithoutARunDayWhenARestartIsInUse) {
  Rules rules;
  rules.Include("2024-05-06").Restart(15);
  const Answer answer = rules.Next("2024-05-07 09:00");
  EXPECT_EQ(answer.result, ZEP_E_FAIL);
  EXPECT_EQ(answer.start, -1);
  EXPECT_EQ(answer.end, -1);
}

TEST_F(NextTimeWindow, CountsARestartFlagWithoutAnIntervalAsSwitchedOff) {
  Rules rules;
  rules.Include("2024-05-06");
  rules->put_UseRestartInterval(1);
  EXPECT_EQ(rules.Next("2024-05-07 09:00").result, ZEP_S_FALSE);
  EXPECT_EQ(rules.NextStart("2024-05-06 09:00"), "2024-05-06 10:00:00");
}

TEST_F(NextTimeWindow, KnowsThatRestartsFollowTheLastIncludeDate) {
  Rules rules;
  rules.Include("2024-05-06").Restart(15);
  EXPECT_EQ(rules.Next("2024-05-05 12:00").last, 0);
  EXPECT_EQ(rules.Next("2024-05-06 10:50").last, 1);
}

TEST_F(NextTimeWindow, LetsAnExclusionWinOverAnInclusion) {
  Rules rules;
  rules.Include("2024-05-06").Include("2024-05-08").Exclude("2024-05-06");
  EXPECT_EQ(rules.NextStart("2024-05-01 12:00"), "2024-05-08 10:00:00");
}

TEST_F(NextTimeWindow, OverridesAnchorAndEffectiveDateForOneCall) {
  Rules rules;
  rules.Repeat(7, "2024-01-01").Effective("2024-01-01");
  EXPECT_EQ(Shown(rules.Next(Local("2024-02-01 09:00"), Local("2024-02-02 12:00")).start), "2024-02-02 10:00:00");
  EXPECT_EQ(Shown(rules.Next(Local("2024-02-01 09:00"), 0, Local("2024-03-01 12:00")).start), "2024-03-04 10:00:00");
  EXPECT_EQ(Shown(rules.Next(Local("2024-02-01 09:00")).start), "2024-02-05 10:00:00");
}

TEST_F(NextTimeWindow, SkipsADayThatTheZoneLeftOut) {
  const platform::ScopedZone zone("Pacific/Apia");
  Rules rules;
  rules.Daily().Window("10:00", "11:00");
  EXPECT_EQ(rules.NextStart("2011-12-29 12:00"), "2011-12-31 10:00:00");
}

TEST_F(IsInTimeWindow, HoldsBetweenStartAndEndAndAtNeither) {
  Rules rules;
  rules.Daily();
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 09:59:59")), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 10:00:00")), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 10:00:01")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 10:59:59")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 11:00:00")), 0);
}

TEST_F(IsInTimeWindow, HoldsInAWindowThatBeganYesterday) {
  Rules rules;
  rules.Daily().Window("22:00", "02:00");
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 01:00")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 03:00")), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-06-01 01:00")), 1);  // yesterday lies in another month
}

TEST_F(IsInTimeWindow, HoldsBetweenRestarts) {
  Rules rules;
  rules.Daily().Restart(15);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 10:20")), 1);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 09:20")), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 11:20")), 0);
}

TEST_F(IsInTimeWindow, NeverFails) {
  Rules rules;
  EXPECT_EQ(rules->IsScheduleInTimeWindow(ZEP_MAX_TIME + 1), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(INT64_MIN), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(INT64_MAX), 0);
  EXPECT_EQ(rules->IsScheduleInTimeWindow(1700000000), 0);  // no rule at all
}

}  // namespace
}  // namespace qx::testing
