// common/tests/told_loops.h: the window rules as plain loops, to hold the search against.
//
// Each operation walks one step at a time: day by day, restart by restart, repeat by repeat, over the calendar classes
// and a plain set of dates. Slow on purpose; nothing is shared with the search but those classes.
// Threads: a value; one thread at a time, in the zone and under the present of the caller.
#pragma once

#include <array>
#include <cstdint>
#include <set>

#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcdatetime.h"
#include "foundation/include/zfctime.h"
#include "foundation/include/zfctimespan.h"

namespace qx::testing {

class ToldLoops {
 public:
  using CDate = ZepFoundation::CDate;
  using CDateTime = ZepFoundation::CDateTime;
  using WTime = ZepFoundation::WTime;
  using WTimeSpan = ZepFoundation::WTimeSpan;

  bool m_bUseEffectiveDate = false;
  CDate m_dtEffectiveDate;
  WTime m_StartTime;
  WTime m_EndTime;
  WTimeSpan m_TimeDuration;
  bool m_bUseRestartInterval = false;
  WTimeSpan m_RestartInterval;
  std::array<std::uint32_t, 5> m_DayOfWeekList{};
  std::uint32_t m_DaysOfMonth = 0;
  bool m_bUseRepeatInterval = false;
  CDate m_AnchorDate;
  int m_iRepeatInterval = 2;
  std::set<CDate> m_SpecificIncludeDateSet;
  std::set<CDate> m_SpecificExcludeDateSet;
  std::uint32_t m_LastRuleMatch = 0;

  // Arguments and results as those of the schedule object.
  ZRESULT GetNextTimeWindow(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart, ZepTime* nextEnd,
                            zepByte* last);
  zepByte IsScheduleInTimeWindow(ZepTime reference);
  ZRESULT GetNextRestartTime(const CDate& anchor, const CDateTime& ref, CDateTime& start, CDateTime& end,
                             zepByte* last);
  bool GetNextRunDay(const CDate& anchor, const CDateTime& ref, CDate& out, bool* more);
  void GetNextDayOfMonth(CDate& out, const CDateTime& ref) const;
  bool GetNextIncludeDate(const CDateTime& ref, CDate& out, bool* more) const;
  void GetNextRepeatDay(CDate& out, const CDate& anchor, const CDateTime& ref) const;
  bool GetNextRestartInWindow(const CDateTime& ref, CDateTime& start, const CDateTime& end, bool* more) const;
  bool IsDayUsedUp(const CDateTime& ref, const CDate& date) const;
  bool IsDateNotExcluded(const CDate& date) const { return !m_SpecificExcludeDateSet.contains(date); }
  // The next date that the weekday words name, in this month or the next; the first of the next month when none does.
  CDate GetNextDate(const CDate& from) const;

 private:
  bool RestartInUse() const { return m_bUseRestartInterval && m_RestartInterval.GetMagnitude() != 0; }
  bool FindInMonth(const CDate& date, CDate& out) const;
  std::uint32_t GetDaysOfMonthFor(const CDate& date) const;
};

}  // namespace qx::testing
