// The rule object by itself: values, ranges, validation, reset, copying.
#include "common/tests/schedule_fixture.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <vector>

#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfctext.h"
#include "foundation/testing/captured_trace.h"
#include "platform/registry.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace qx::testing {
namespace {

class ScheduleObject : public InZone {};

// A new object as the factory makes it.
class Fresh {
 public:
  Fresh() : m_object(new CSchedule) { m_object->AddRef(); }
  ~Fresh() { m_object->Release(); }
  Fresh(const Fresh&) = delete;
  Fresh& operator=(const Fresh&) = delete;
  CSchedule* operator->() const { return m_object; }
  CSchedule* get() const { return m_object; }

 private:
  CSchedule* m_object;
};

std::u16string Taken(char16_t* text) {
  std::u16string copy = text == nullptr ? u"(null)" : text;
  ZepStringFree(text);
  return copy;
}

bool IsDirty(CSchedule* schedule) {
  zepByte dirty = 9;
  EXPECT_EQ(schedule->get_Dirty(&dirty), ZEP_S_OK);
  return dirty != 0;
}

TEST_F(ScheduleObject, HasNoRunDayAfterAReset) {
  Fresh schedule;
  schedule->Reset();
  EXPECT_EQ(schedule->Validate(), ZEP_SCHED_E_NORUNDAY);
}

TEST_F(ScheduleObject, IsValidWhenFreshAndRunsEveryDay) {
  Fresh schedule;
  EXPECT_EQ(schedule->Validate(), ZEP_S_OK);
  ZepTime start = 0, end = 0;
  zepByte last = 0;
  ASSERT_EQ(schedule->GetNextTimeWindow(0, 0, Local("2024-05-07 12:00"), &start, &end, &last), ZEP_S_OK);
  EXPECT_EQ(Shown(start), "2024-05-08 00:00:00");
  EXPECT_EQ(Shown(end), "2024-05-08 23:59:59");
  std::uint32_t duration = 0;
  schedule->get_TimeDuration(&duration);
  EXPECT_EQ(duration, 86399059u);  // 23:59:59.059
}

TEST_F(ScheduleObject, IsValidWithOneRuleOfAnyKind) {
  Fresh schedule;
  schedule->Reset();
  schedule->put_UseRepeatInterval(1);
  EXPECT_EQ(schedule->Validate(), ZEP_S_OK);
  schedule->Reset();
  schedule->SetDayOfMonth(12);
  EXPECT_EQ(schedule->Validate(), ZEP_S_OK);
  schedule->Reset();
  schedule->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2001-01-01 12:00"));  // long past, valid all the same
  EXPECT_EQ(schedule->Validate(), ZEP_S_OK);
  schedule->Reset();
  schedule->SetDayOfWeek(kFriday, kLastWeek);
  EXPECT_EQ(schedule->Validate(), ZEP_S_OK);
}

TEST_F(ScheduleObject, DoesNotCountARepeatThatIsSwitchedOff) {
  Fresh schedule;
  schedule->Reset();
  EXPECT_EQ(schedule->put_RepeatInterval(5), ZEP_S_OK);
  EXPECT_EQ(schedule->Validate(), ZEP_SCHED_E_NORUNDAY);
}

TEST_F(ScheduleObject, DoesNotCountAnExcludedOrEffectiveDateAsARule) {
  Fresh schedule;
  schedule->Reset();
  schedule->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, Local("2024-05-01 12:00"));
  schedule->put_UseEffectiveDate(1);
  EXPECT_EQ(schedule->Validate(), ZEP_SCHED_E_NORUNDAY);
}

TEST_F(ScheduleObject, TakesSpansAndRepeatsInTheirRangesOnly) {
  struct Case {
    int line;
    std::int64_t value;
    bool accepted;
  };
  Fresh schedule;
  for (const Case& c : std::vector<Case>{{__LINE__, 0, false},        {__LINE__, 999, false},
                                         {__LINE__, 1000, true},      {__LINE__, 86400000, true},
                                         {__LINE__, 86400001, false}, {__LINE__, 4294967295, false}}) {
    const ZRESULT expected = c.accepted ? ZEP_S_OK : ZEP_E_INVALIDARG;
    std::uint32_t before = 0, after = 0;
    schedule->get_TimeDuration(&before);
    EXPECT_EQ(schedule->put_TimeDuration(static_cast<std::uint32_t>(c.value)), expected) << c.line;
    schedule->get_TimeDuration(&after);
    EXPECT_EQ(after, c.accepted ? c.value : before) << c.line;
    schedule->get_RestartInterval(&before);
    EXPECT_EQ(schedule->put_RestartInterval(static_cast<std::uint32_t>(c.value)), expected) << c.line;
    schedule->get_RestartInterval(&after);
    EXPECT_EQ(after, c.accepted ? c.value : before) << c.line;
  }
  for (const Case& c : std::vector<Case>{{__LINE__, -1, false}, {__LINE__, 0, false}, {__LINE__, 1, true},
                                         {__LINE__, 9999, true}, {__LINE__, 10000, false}}) {
    EXPECT_EQ(schedule->put_RepeatInterval(static_cast<std::int32_t>(c.value)), c.accepted ? ZEP_S_OK : ZEP_E_INVALIDARG)
        << c.line;
  }
  std::int32_t days = 0;
  schedule->get_RepeatInterval(&days);
  EXPECT_EQ(days, 9999);
}

TEST_F(ScheduleObject, RefusesTimesAndDatesBehindTheLimitAndStaysAsItWas) {
  Rules rules;
  rules.Effective("2025-01-01").Repeat(3, "2020-02-29");
  rules->put_Dirty(0);
  const auto seen = [&] {
    std::vector<ZepTime> values(4);
    rules->get_StartTime(&values[0]);
    rules->get_EndTime(&values[1]);
    rules->get_EffectiveDate(&values[2]);
    rules->get_AnchorDate(&values[3]);
    for (const std::uint32_t type : {ZEP_SPECIFIC_INCLUDE, ZEP_SPECIFIC_EXCLUDE}) {
      std::uint32_t count = 9;
      rules->GetSpecificDatesCount(type, &count);
      values.push_back(count);
    }
    std::uint32_t duration = 0;
    rules->get_TimeDuration(&duration);
    values.push_back(duration);
    return values;
  };
  const std::vector<ZepTime> before = seen();
  ZepFoundation::CapturedTrace trace;
  for (const ZepTime refused : {ZEP_MAX_TIME + 1, INT64_MAX, INT64_MIN}) {
    trace.Clear();
    EXPECT_EQ(rules->put_StartTime(refused), ZEP_E_INVALIDARG);
    EXPECT_EQ(rules->put_EndTime(refused), ZEP_E_INVALIDARG);
    EXPECT_EQ(rules->put_EffectiveDate(refused), ZEP_E_INVALIDARG);
    EXPECT_EQ(rules->put_AnchorDate(refused), ZEP_E_INVALIDARG);
    EXPECT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, refused), ZEP_E_INVALIDARG);
    EXPECT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, refused), ZEP_E_INVALIDARG);
    EXPECT_EQ(trace.records(), (std::vector<ZepFoundation::CapturedTraceRecord>(
                                   6, {ZepFoundation::kTraceError, "ZEP_E_INVALIDARG"})));
    EXPECT_EQ(seen(), before);
    EXPECT_FALSE(IsDirty(&*rules));
  }
  EXPECT_EQ(rules->put_StartTime(ZEP_MAX_TIME), ZEP_S_OK);
  EXPECT_EQ(rules->put_EndTime(ZEP_MAX_TIME), ZEP_S_OK);
  EXPECT_EQ(rules->put_EffectiveDate(ZEP_MAX_TIME), ZEP_S_OK);
  EXPECT_EQ(rules->put_AnchorDate(ZEP_MAX_TIME), ZEP_S_OK);
  EXPECT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, ZEP_MAX_TIME), ZEP_S_OK);
}

TEST_F(ScheduleObject, AcceptsARestartAsLongAsTheWindowAndNotAMillisecondMore) {
  Rules rules;
  rules.Daily();
  rules->put_UseRestartInterval(1);
  rules->put_RestartInterval(3600000);
  EXPECT_EQ(rules->Validate(), ZEP_S_OK);
  rules->put_RestartInterval(3600001);
  EXPECT_EQ(rules->Validate(), ZEP_SCHED_E_RESTARTTOOLONG);
  rules->put_UseRestartInterval(0);
  EXPECT_EQ(rules->Validate(), ZEP_S_OK);
}

TEST_F(ScheduleObject, AcceptsADateThatIsIncludedAndExcluded) {
  Rules rules;
  rules.Include("2024-05-06").Exclude("2024-05-06");
  EXPECT_EQ(rules->Validate(), ZEP_S_OK);
  EXPECT_FALSE(rules->AreDateSetsDisjoint());
}

TEST_F(ScheduleObject, KeepsADateOnlyOnce) {
  Rules rules;
  rules.Include("2024-05-06").Include("2024-05-06");
  std::uint32_t count = 0;
  EXPECT_EQ(rules->GetSpecificDatesCount(ZEP_SPECIFIC_INCLUDE, &count), ZEP_S_OK);
  EXPECT_EQ(count, 1u);
}

TEST_F(ScheduleObject, GivesSpecificDatesInOrderOfDate) {
  Rules rules;
  rules.Exclude("2024-07-01").Exclude("2024-05-06").Exclude("2024-06-03");
  std::vector<std::string> dates;
  for (std::uint32_t i = 0; i < 3; ++i) {
    ZepTime date = 0;
    ASSERT_EQ(rules->GetSpecificDate(ZEP_SPECIFIC_EXCLUDE, i, &date), ZEP_S_OK);
    dates.push_back(Shown(date));
  }
  EXPECT_EQ(dates, (std::vector<std::string>{"2024-05-06 00:00:00", "2024-06-03 00:00:00", "2024-07-01 00:00:00"}));
  ZepTime date = 77;
  EXPECT_EQ(rules->GetSpecificDate(ZEP_SPECIFIC_EXCLUDE, 3, &date), ZEP_E_INVALIDARG);
  EXPECT_EQ(date, 77);
  EXPECT_EQ(rules->ClearSpecificDate(ZEP_SPECIFIC_EXCLUDE, Local("2024-06-03 15:00")), ZEP_S_OK);
  std::uint32_t count = 0;
  rules->GetSpecificDatesCount(ZEP_SPECIFIC_EXCLUDE, &count);
  EXPECT_EQ(count, 2u);
}

TEST_F(ScheduleObject, KnowsTwoTypesOfSpecificDates) {
  Rules rules;
  std::uint32_t count = 42;
  EXPECT_EQ(rules->SetSpecificDate(3, Local("2024-05-06 12:00")), ZEP_E_FAIL);
  EXPECT_EQ(rules->GetSpecificDatesCount(0, &count), ZEP_E_INVALIDARG);
  EXPECT_EQ(rules->GetSpecificDatesCount(11, &count), ZEP_E_INVALIDARG);
  for (std::uint32_t type = 3; type <= 10; ++type) {
    EXPECT_EQ(rules->GetSpecificDatesCount(type, &count), ZEP_S_OK) << type;
    EXPECT_EQ(count, 42u) << type;
    ZepTime date = 0;
    EXPECT_EQ(rules->GetSpecificDate(type, 0, &date), ZEP_E_FAIL) << type;
    EXPECT_EQ(Shown(date), "1980-01-01 00:00:00") << type;
  }
  EXPECT_EQ(rules->ClearSpecificDates(7), ZEP_S_OK);
  EXPECT_EQ(rules->ClearSpecificDate(7, 0), ZEP_S_OK);
}

TEST_F(ScheduleObject, RefusesADayOfTheMonthAbove31AndTellsTheTrace) {
  Rules rules;
  ZepFoundation::CapturedTrace trace;
  EXPECT_EQ(rules->SetDayOfMonth(32), ZEP_E_INVALIDARG);
  EXPECT_TRUE(trace.Has(ZepFoundation::kTraceError, "ZEP_E_INVALIDARG"));
  std::uint16_t set = 5;
  EXPECT_EQ(rules->GetDayOfMonth(32, &set), ZEP_E_INVALIDARG);
  EXPECT_EQ(set, 5);
  std::uint16_t count = 0;
  EXPECT_EQ(rules->GetDaysOfMonthCount(&count), ZEP_S_OK);
  EXPECT_EQ(count, 32);
}

TEST_F(ScheduleObject, ThrowsOnlyWhereADayOfTheMonthIsClearedOutOfRange) {
  Rules rules;
  EXPECT_EQ(rules->ClearDayOfMonth(99), ZEP_S_OK);  // nothing is set: nothing is looked at
  rules.DayOfMonth(5);
  EXPECT_THROW(rules->ClearDayOfMonth(32), std::out_of_range);
  EXPECT_EQ(rules->ClearDayOfMonth(4), ZEP_S_OK);
  std::uint16_t set = 5;
  rules->GetDayOfMonth(4, &set);
  EXPECT_EQ(set, 0);
}

TEST_F(ScheduleObject, RefusesNullOutPointersOfEveryGetter) {
  Fresh s;
  ZepFoundation::CapturedTrace trace;
  ZepTime start = 7, end = 7;
  zepByte last = 7;
  char16_t* text = nullptr;
  EXPECT_EQ(s->get_ScheduleID(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_Name(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_Description(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_StartTime(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_EndTime(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_TimeDuration(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_UseEffectiveDate(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_EffectiveDate(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_UseRestartInterval(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_RestartInterval(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_UseRepeatInterval(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_RepeatInterval(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_AnchorDate(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_Dirty(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetDayOfWeek(0, 0, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->IsDayOfWeekSet(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetDaysOfMonthCount(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetDayOfMonth(0, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetSpecificDatesCount(1, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetSpecificDate(1, 0, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->get_CustomBitSet(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetCustomStringCount(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->CopyFrom(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->put_Name(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->put_Description(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->SetCustomString(nullptr, u""), ZEP_E_POINTER);
  EXPECT_EQ(s->SetCustomString(u"", nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetCustomString(nullptr, &text), ZEP_E_POINTER);
  EXPECT_EQ(s->GetCustomString(u"", nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetCustomStringAt(0, nullptr, &text), ZEP_E_POINTER);
  EXPECT_EQ(s->GetCustomStringAt(0, &text, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetNextTimeWindow(0, 0, 0, nullptr, &end, &last), ZEP_E_POINTER);
  EXPECT_EQ(s->GetNextTimeWindow(0, 0, 0, &start, nullptr, &last), ZEP_E_POINTER);
  EXPECT_EQ(s->GetNextTimeWindow(0, 0, 0, &start, &end, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(s->GetNextTimeWindowEx(0, 0, 0, &start, &end, &last, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(start + end + last, 21);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(trace.records(),
            (std::vector<ZepFoundation::CapturedTraceRecord>(35, {ZepFoundation::kTraceError, "ZEP_E_POINTER"})));
  std::uint32_t strings = 9;
  s->GetCustomStringCount(&strings);
  EXPECT_EQ(strings, 0u);
}

TEST_F(ScheduleObject, HandsOutCopiesOfItsTexts) {
  Fresh schedule;
  schedule->put_Name(u"Nightly");
  schedule->put_Description(u"Quarter d\u00e4ta");
  char16_t* text = nullptr;
  schedule->get_Name(&text);
  EXPECT_EQ(Taken(text), u"Nightly");
  schedule->get_Description(&text);
  EXPECT_EQ(Taken(text), u"Quarter d\u00e4ta");
}

TEST_F(ScheduleObject, BecomesDirtyByRealChangesOnly) {
  Fresh schedule;
  schedule->put_Dirty(0);
  schedule->put_Name(u"x");
  schedule->put_Description(u"y");
  schedule->put_CustomBitSet(3);
  const ZepFoundation::CGUID id;
  schedule->put_ScheduleID(&id);
  schedule->put_UseEffectiveDate(0);
  schedule->put_RepeatInterval(2);
  schedule->ClearDaysOfMonth();
  EXPECT_FALSE(IsDirty(schedule.get()));
  schedule->put_RepeatInterval(3);
  EXPECT_TRUE(IsDirty(schedule.get()));
  for (const auto& change : std::vector<std::function<void()>>{
           [&] { schedule->put_UseEffectiveDate(1); }, [&] { schedule->SetDayOfWeek(1, 1); },
           [&] { schedule->ClearDayOfWeek(1, 1); }, [&] { schedule->ClearAllDaysOfWeek(); },
           [&] { schedule->SetDayOfMonth(1); }, [&] { schedule->put_StartTime(Local("2024-01-10 13:00")); },
           [&] { schedule->SetCustomString(u"a", u"b"); }, [&] { schedule->Reset(); }}) {
    schedule->put_Dirty(0);
    change();
    EXPECT_TRUE(IsDirty(schedule.get()));
  }
}

TEST_F(ScheduleObject, BecomesDirtyWhereverARuleIsSetOrCleared) {
  Fresh schedule;
  for (const auto& change : std::vector<std::function<void()>>{
           [&] { schedule->SetDayOfWeek(1, 1); },  // set already
           [&] { schedule->ClearAllDaysOfWeek(); },
           [&] { schedule->ClearDayOfWeek(1, 1); },  // clear already
           [&] { schedule->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2024-05-06 12:00")); },
           [&] { schedule->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2024-05-06 13:00")); },
           [&] { schedule->ClearSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2024-05-07 12:00")); },
           [&] { schedule->ClearSpecificDates(ZEP_SPECIFIC_EXCLUDE); }}) {
    schedule->put_Dirty(0);
    change();
    EXPECT_TRUE(IsDirty(schedule.get()));
  }
  schedule->put_Dirty(0);
  schedule->ClearSpecificDate(3, Local("2024-05-06 12:00"));  // no such set
  schedule->ClearSpecificDates(3);
  schedule->ClearDayOfMonth(5);  // nothing is set
  EXPECT_FALSE(IsDirty(schedule.get()));
}

TEST_F(ScheduleObject, SetsAFullDayAndChangesNothingWhereItIsSetAlready) {
  Rules rules;
  rules->put_Dirty(0);
  EXPECT_EQ(rules->SetFullDay(), ZEP_S_OK);
  EXPECT_TRUE(IsDirty(&*rules));
  std::uint32_t duration = 0;
  ZepTime start = 0, end = 0;
  rules->get_TimeDuration(&duration);
  rules->get_StartTime(&start);
  rules->get_EndTime(&end);
  EXPECT_EQ(duration, 86399059u);
  EXPECT_EQ(Shown(start).substr(11), "00:00:00");
  EXPECT_EQ(Shown(end).substr(11), "23:59:59");

  rules->put_Dirty(0);
  EXPECT_EQ(rules->SetFullDay(), ZEP_S_OK);
  EXPECT_FALSE(IsDirty(&*rules));
}

TEST_F(ScheduleObject, DerivesTheDurationOfAFullDayAnewOnlyWhereItIsDirty) {
  Fresh schedule;
  std::uint32_t size = 0;
  ASSERT_EQ(schedule->MemorySizeMax(&size), ZEP_S_OK);
  std::string block(size, '\0');
  ASSERT_EQ(schedule->Save(block.data(), 0, size), ZEP_S_OK);
  const std::size_t at = block.find("\x05\x26\x58\x53");  // 23:59:59.059 in milliseconds, and none of the times
  ASSERT_NE(at, block.npos);
  block.replace(at, 4, std::string("\0\0\x03\xE8", 4));
  ASSERT_EQ(schedule->Load(block.data(), size), ZEP_S_OK);
  std::uint32_t duration = 0;
  EXPECT_EQ(schedule->SetFullDay(), ZEP_S_OK);
  schedule->get_TimeDuration(&duration);
  EXPECT_EQ(duration, 1000u);
  schedule->put_Dirty(1);
  EXPECT_EQ(schedule->SetFullDay(), ZEP_S_OK);
  schedule->get_TimeDuration(&duration);
  EXPECT_EQ(duration, 86399059u);
}

TEST_F(ScheduleObject, DerivesTheDurationFromStartAndEnd) {
  struct Case {
    int line;
    const char* start;
    const char* end;
    std::uint32_t duration;
  };
  const Case cases[] = {{__LINE__, "10:00", "11:00", 3600000},
                        {__LINE__, "22:00", "02:00", 4 * 3600000},
                        {__LINE__, "10:00", "10:00", 0},
                        {__LINE__, "00:00", "23:59:59", 86399000},
                        {__LINE__, "23:59:59", "00:00", 1000}};
  for (const Case& c : cases) {
    Rules rules;
    rules.Window(c.start, c.end);
    std::uint32_t duration = 1;
    rules->get_TimeDuration(&duration);
    EXPECT_EQ(duration, c.duration) << c.line;
  }
}

// Present is a day whose clock leaves the start out, and puts it behind the end.
TEST_F(ScheduleObject, DerivesTheDurationOnTheDateOfWhatIsSet) {
  m_clock.SetWall(Local("2024-03-10 12:00"), 0);
  Rules rules;
  rules.Window("02:45", "03:15");
  std::uint32_t duration = 0;
  rules->get_TimeDuration(&duration);
  EXPECT_EQ(duration, 1800000u);
  rules.Window("02:30", "03:15");
  EXPECT_EQ(rules->put_StartTime(Local("2024-01-10 02:45")), ZEP_S_OK);  // with the end there
  rules->get_TimeDuration(&duration);
  EXPECT_EQ(duration, 1800000u);
}

TEST_F(ScheduleObject, MovesTheEndWithTheDurationPastMidnight) {
  Rules rules;
  rules.Window("22:00", "23:00");
  EXPECT_EQ(rules->put_TimeDuration(5 * 3600000), ZEP_S_OK);
  ZepTime end = 0;
  rules->get_EndTime(&end);
  EXPECT_EQ(Shown(end).substr(11), "03:00:00");
}

TEST_F(ScheduleObject, GivesTimesOfDayOnTodaysDate) {
  Rules rules;
  ZepTime start = 0;
  rules->get_StartTime(&start);
  EXPECT_EQ(Shown(start), "2024-01-15 10:00:00");
}

TEST_F(ScheduleObject, GivesATimeThatTodayLeavesOutOnTheNearestEarlierDate) {
  Rules rules;
  rules.Window("02:30", "04:00");
  m_clock.SetWall(Local("2024-03-10 12:00"), 0);
  ZepTime start = 0, end = 0;
  rules->get_StartTime(&start);
  rules->get_EndTime(&end);
  EXPECT_EQ(Shown(start), "2024-03-09 02:30:00");
  EXPECT_EQ(Shown(end), "2024-03-10 04:00:00");
}

TEST_F(ScheduleObject, ResetsToAFullDayOfToday) {
  Rules rules;
  rules.Daily().Repeat(5, "2001-01-01").Restart(5).Effective("2030-01-01").LastDay().Include("2024-05-06");
  rules->put_Name(u"n");
  rules->SetCustomString(u"k", u"v");
  rules->put_CustomBitSet(9);
  ZepFoundation::CGUID before, after;
  rules->get_ScheduleID(&before);
  rules->Reset();
  ZepTime anchor = 0, effective = 0;
  std::int32_t days = 0;
  std::uint32_t restart = 1, duration = 0, bits = 0, strings = 0;
  zepByte any = 1, useEffective = 1;
  rules->get_AnchorDate(&anchor);
  rules->get_EffectiveDate(&effective);
  rules->get_UseEffectiveDate(&useEffective);
  rules->get_RepeatInterval(&days);
  rules->get_RestartInterval(&restart);
  rules->get_TimeDuration(&duration);
  rules->IsDayOfWeekSet(&any);
  rules->get_CustomBitSet(&bits);
  rules->GetCustomStringCount(&strings);
  rules->get_ScheduleID(&after);
  EXPECT_EQ(Shown(anchor), "2024-01-15 00:00:00");
  EXPECT_EQ(Shown(effective), "2024-01-15 00:00:00");
  EXPECT_EQ(useEffective, 0);
  EXPECT_EQ(days, 2);
  EXPECT_EQ(restart, 0u);
  EXPECT_EQ(duration, 86399059u);
  EXPECT_EQ(any, 0);
  EXPECT_EQ(bits, 9u);
  EXPECT_EQ(strings, 1u);
  EXPECT_TRUE(after == before);
  char16_t* name = nullptr;
  rules->get_Name(&name);
  EXPECT_EQ(Taken(name), u"");
}

TEST_F(ScheduleObject, CopiesAllButIdentityMapAndDuration) {
  Rules source;
  source.On(kFriday, kLastWeek).DayOfMonth(3).LastDay().Include("2024-05-06").Exclude("2024-06-03").Restart(5);
  source.Repeat(4, "2020-02-29").Effective("2025-01-01");
  source->put_Name(u"copied");
  source->put_CustomBitSet(0xF0);
  source->SetCustomString(u"k", u"v");
  Fresh copy;
  EXPECT_EQ(copy->CopyFrom(&*source), ZEP_S_OK);
  ZepTime start = 0, date = 0;
  std::uint32_t duration = 0, bits = 0, strings = 9, restart = 0;
  std::int32_t days = 0;
  zepByte set = 0;
  std::uint16_t day = 0;
  copy->get_StartTime(&start);
  EXPECT_EQ(Shown(start), "2024-01-15 10:00:00");
  copy->get_TimeDuration(&duration);
  EXPECT_EQ(duration, 86399059u);  // deliberately that of a reset
  copy->get_RestartInterval(&restart);
  EXPECT_EQ(restart, 300000u);
  copy->get_RepeatInterval(&days);
  EXPECT_EQ(days, 4);
  copy->GetDayOfWeek(kFriday, kLastWeek, &set);
  EXPECT_EQ(set, 1);
  copy->GetDayOfWeek(kFriday, kFirst, &set);
  EXPECT_EQ(set, 0);
  copy->GetDayOfMonth(kLastDayOfMonth, &day);
  EXPECT_EQ(day, 1);
  EXPECT_EQ(copy->GetSpecificDate(ZEP_SPECIFIC_EXCLUDE, 0, &date), ZEP_S_OK);
  EXPECT_EQ(Shown(date), "2024-06-03 00:00:00");
  copy->get_CustomBitSet(&bits);
  EXPECT_EQ(bits, 0xF0u);
  copy->GetCustomStringCount(&strings);
  EXPECT_EQ(strings, 0u);
}

// Notes which getters are called, and fails one of them.
class NotingSource final : public CSchedule {
 public:
  ZRESULT get_Name(char16_t** v) override { return Note("name", [&] { return CSchedule::get_Name(v); }); }
  ZRESULT get_Description(char16_t** v) override {
    return Note("description", [&] { return CSchedule::get_Description(v); });
  }
  ZRESULT get_UseEffectiveDate(zepByte* v) override {
    return Note("use effective", [&] { return CSchedule::get_UseEffectiveDate(v); });
  }
  ZRESULT get_EffectiveDate(ZepTime* v) override {
    return Note("effective", [&] { return CSchedule::get_EffectiveDate(v); });
  }
  ZRESULT get_StartTime(ZepTime* v) override { return Note("start", [&] { return CSchedule::get_StartTime(v); }); }
  ZRESULT get_EndTime(ZepTime* v) override { return Note("end", [&] { return CSchedule::get_EndTime(v); }); }
  ZRESULT get_UseRestartInterval(zepByte* v) override {
    return Note("use restart", [&] { return CSchedule::get_UseRestartInterval(v); });
  }
  ZRESULT get_RestartInterval(std::uint32_t* v) override {
    return Note("restart", [&] { return CSchedule::get_RestartInterval(v); });
  }
  ZRESULT get_UseRepeatInterval(zepByte* v) override {
    return Note("use repeat", [&] { return CSchedule::get_UseRepeatInterval(v); });
  }
  ZRESULT get_RepeatInterval(std::int32_t* v) override {
    return Note("repeat", [&] { return CSchedule::get_RepeatInterval(v); });
  }
  ZRESULT get_AnchorDate(ZepTime* v) override { return Note("anchor", [&] { return CSchedule::get_AnchorDate(v); }); }
  ZRESULT get_Dirty(zepByte* v) override { return Note("dirty", [&] { return CSchedule::get_Dirty(v); }); }
  ZRESULT GetSpecificDatesCount(std::uint32_t type, std::uint32_t* v) override {
    return Note("count " + std::to_string(type), [&] { return CSchedule::GetSpecificDatesCount(type, v); });
  }
  ZRESULT GetSpecificDate(std::uint32_t type, std::uint32_t index, ZepTime* v) override {
    return Note("date " + std::to_string(type), [&] { return CSchedule::GetSpecificDate(type, index, v); });
  }
  ZRESULT GetDayOfMonth(std::uint16_t index, std::uint16_t* v) override {
    return Note("day of month", [&] { return CSchedule::GetDayOfMonth(index, v); });
  }
  ZRESULT GetDayOfWeek(zepByte day, zepByte week, zepByte* v) override {
    return Note("day of week", [&] { return CSchedule::GetDayOfWeek(day, week, v); });
  }
  ZRESULT get_CustomBitSet(std::uint32_t* v) override {
    return Note("bits", [&] { return CSchedule::get_CustomBitSet(v); });
  }

  std::vector<std::string> m_calls;
  std::size_t m_failing = SIZE_MAX;  // index of the call that fails

 private:
  template <class Call>
  ZRESULT Note(const std::string& name, Call call) {
    m_calls.push_back(name);
    return m_calls.size() - 1 == m_failing ? ZEP_E_CLASSNOTAVAILABLE : call();
  }
};

TEST_F(ScheduleObject, CopiesInOneOrderAndStopsAtTheFirstFailure) {
  auto* const source = new NotingSource;
  source->AddRef();
  source->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2024-05-06 12:00"));
  source->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2024-05-07 12:00"));
  source->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, Local("2024-05-08 12:00"));
  std::vector<std::string> order = {"name",       "description", "use effective", "effective", "start",   "end",
                                    "use restart", "restart",     "use repeat",    "repeat",    "anchor",  "dirty",
                                    "count 1",     "date 1",      "date 1",        "count 2",   "date 2"};
  order.insert(order.end(), 32, "day of month");
  order.insert(order.end(), 35, "day of week");
  order.push_back("bits");
  {
    Fresh copy;
    ASSERT_EQ(copy->CopyFrom(source), ZEP_S_OK);
    EXPECT_EQ(source->m_calls, order);
  }
  for (std::size_t i = 0; i < order.size(); ++i) {
    Fresh copy;
    source->m_calls.clear();
    source->m_failing = i;
    EXPECT_EQ(copy->CopyFrom(source), ZEP_E_CLASSNOTAVAILABLE) << order[i];
    EXPECT_EQ(source->m_calls, std::vector<std::string>(order.begin(), order.begin() + i + 1));
  }
  source->Release();
}

TEST_F(ScheduleObject, CopiesTheFlagsTheDatesAndTheDirtyFlag) {
  Rules source;
  source.Repeat(4, "2020-02-29").Effective("2025-01-01").Restart(5).Include("2024-05-06").DayOfMonth(3);
  source->put_Name(u"copied");
  source->put_Description(u"described");
  for (const zepByte dirty : {zepByte{0}, zepByte{1}}) {
    source->put_Dirty(dirty);
    Fresh copy;
    ASSERT_EQ(copy->CopyFrom(&*source), ZEP_S_OK);
    EXPECT_EQ(IsDirty(copy.get()), dirty != 0);
    char16_t* text = nullptr;
    copy->get_Name(&text);
    EXPECT_EQ(Taken(text), u"copied");
    copy->get_Description(&text);
    EXPECT_EQ(Taken(text), u"described");
    zepByte effective = 0, restart = 0, repeat = 0;
    copy->get_UseEffectiveDate(&effective);
    copy->get_UseRestartInterval(&restart);
    copy->get_UseRepeatInterval(&repeat);
    EXPECT_EQ(effective + restart + repeat, 3);
    ZepTime date = 0, end = 0;
    copy->get_EffectiveDate(&date);
    EXPECT_EQ(Shown(date), "2025-01-01 00:00:00");
    copy->get_AnchorDate(&date);
    EXPECT_EQ(Shown(date), "2020-02-29 00:00:00");
    EXPECT_EQ(copy->GetSpecificDate(ZEP_SPECIFIC_INCLUDE, 0, &date), ZEP_S_OK);
    EXPECT_EQ(Shown(date), "2024-05-06 00:00:00");
    copy->get_EndTime(&end);
    EXPECT_EQ(Shown(end), "2024-01-15 11:00:00");
    std::uint16_t day = 0;
    copy->GetDayOfMonth(2, &day);
    EXPECT_EQ(day, 1);
    ZepFoundation::CGUID own, others;
    copy->get_ScheduleID(&own);
    source->get_ScheduleID(&others);
    EXPECT_FALSE(own == others);
  }
}

TEST_F(ScheduleObject, InsertsAMissingCustomStringWhenItIsAskedFor) {
  Fresh schedule;
  char16_t* key = nullptr;
  char16_t* value = nullptr;
  EXPECT_EQ(schedule->GetCustomStringAt(0, &key, &value), ZEP_E_INVALIDARG);
  EXPECT_EQ(schedule->GetCustomString(u"colour", &value), ZEP_S_OK);
  EXPECT_EQ(Taken(value), u"");
  std::uint32_t count = 0;
  schedule->GetCustomStringCount(&count);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(schedule->GetCustomStringAt(0, &key, &value), ZEP_S_OK);
  EXPECT_EQ(Taken(key), u"colour");
  EXPECT_EQ(Taken(value), u"");
  key = value = nullptr;
  EXPECT_EQ(schedule->GetCustomStringAt(1, &key, &value), ZEP_S_OK);
  EXPECT_EQ(key, nullptr);
}

TEST_F(ScheduleObject, TakesASendersOffsetInItsRangeOnly) {
  Fresh schedule;
  ZepFoundation::CapturedTrace trace;
  EXPECT_EQ(schedule->SetSenderTimeZoneOffset(-46800), ZEP_S_OK);
  EXPECT_EQ(schedule->SetSenderTimeZoneOffset(43200), ZEP_S_OK);
  EXPECT_EQ(schedule->SetSenderTimeZoneOffset(-46801), ZEP_E_FAIL);
  EXPECT_EQ(schedule->SetSenderTimeZoneOffset(43201), ZEP_E_FAIL);
  EXPECT_TRUE(trace.Has(ZepFoundation::kTraceError, "ZEP_E_FAIL"));
}

TEST_F(ScheduleObject, AnswersForItsInterfacesAndRefusesOthers) {
  Fresh schedule;
  for (const ZepGuid& iid : {IID_zepISchedule, IID_zepIPersistStreamInit, IID_zepIPersistPropertyBag, IID_zepIPersistMemory}) {
    void* out = nullptr;
    EXPECT_EQ(schedule->QueryInterface(iid, &out), ZEP_S_OK);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(static_cast<zepIUnknown*>(out)->Release(), 1u);
  }
  ZepFoundation::CapturedTrace trace;
  void* out = &out;
  EXPECT_EQ(schedule->QueryInterface(CLSID_CSchedule, &out), ZEP_E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(trace.Has(ZepFoundation::kTraceError, "ZEP_E_NOINTERFACE"));
}

TEST_F(ScheduleObject, PreparesItsEnvironment) {
  Fresh schedule;
  EXPECT_TRUE(schedule->InitializeEnvironment());
}

// Each line of a trace file names the operation's own place, not that of the helper that refuses.
TEST_F(ScheduleObject, TracesARefusalWithTheLineOfTheOperation) {
  const platform::TemporaryFolder folder("refusals");
  const std::string& directory = folder.Path();
  ASSERT_EQ(platform::OpenRegistryStore(directory + "/registry.db"), 0u);
  platform::RegistryKey key;
  ASSERT_EQ(CreateKey(platform::Hive::kLocalMachine, u"Software\\brelmont\\debugstream\\debugstream",
                      platform::KEY_ALL_ACCESS, key),
            0u);
  ASSERT_EQ(SetString(key, u"logFilePath", platform::WideFromUtf8(directory + "/trace.log")), 0u);
  ASSERT_EQ(SetDword(key, u"logFileFilterFlag", 2), 0u);  // errors, with the long header
  ASSERT_EQ(SetDword(key, u"LogFileSize", 1024), 0u);
  ASSERT_EQ(key.Close(), 0u);
  ZepFoundation::ResetDebugTrace();
  ZepFoundation::ConfigureDebugTrace();
  Fresh schedule;
  EXPECT_EQ(schedule->put_TimeDuration(1), ZEP_E_INVALIDARG);
  EXPECT_EQ(schedule->put_RepeatInterval(0), ZEP_E_INVALIDARG);
  EXPECT_EQ(schedule->get_Dirty(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(schedule->get_Name(nullptr), ZEP_E_POINTER);
  ZepFoundation::DebugTrace(4, 0, nullptr, 0) << "@@@";  // writes out what is pending
  ZepFoundation::ResetDebugTrace();
  EXPECT_EQ(platform::CloseRegistryStore(), 0u);
  std::ifstream in(directory + "/trace.log");
  std::vector<std::string> places;
  for (std::string line; std::getline(in, line);) {
    const std::size_t at = line.find("Schedule.cpp (");
    if (at != std::string::npos) places.push_back(line.substr(at, line.find(')', at) - at));
  }
  ASSERT_EQ(places.size(), 4u);
  EXPECT_EQ(std::set<std::string>(places.begin(), places.end()).size(), 4u);
}

TEST_F(ScheduleObject, TracesADateThatIsCleared) {
  Rules rules;
  ZepFoundation::CapturedTrace trace;
  rules->ClearSpecificDate(ZEP_SPECIFIC_INCLUDE, Local("2024-05-06 12:00"));
  EXPECT_TRUE(trace.Has(ZepFoundation::kTraceDebug, "CSchedule::ClearSpecificDate() specificDate=6 5 2024"));
}

TEST_F(ScheduleObject, TracesTheSearchForAnActiveWindow) {
  Rules rules;
  rules.Daily();
  ZepFoundation::CapturedTrace trace;
  EXPECT_EQ(rules->IsScheduleInTimeWindow(Local("2024-05-07 10:30")), 1);
  for (const char* text : {"CSchedule::IsScheduleInTimeWindow()   refTime=5/7/2024 10:30:00 AM",
                           "CSchedule::IsScheduleInTimeWindow()   correctedRefTime=5/7/2024 9:59:59 AM",
                           "CSchedule::IsScheduleInTimeWindow()   nextStartTime=5/7/2024 10:00:00 AM",
                           "CSchedule::IsScheduleInTimeWindow()   nextEndTime  =5/7/2024 11:00:00 AM"}) {
    EXPECT_TRUE(trace.Has(ZepFoundation::kTraceDebug, text)) << text;
  }
  rules->IsScheduleInTimeWindow(ZEP_MAX_TIME + 1);
  EXPECT_TRUE(trace.Has(ZepFoundation::kTraceDebug, "referenceTime is not in an active time window.2145916800"));
}

}  // namespace
}  // namespace qx::testing
