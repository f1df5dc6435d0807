#include "common/tests/told_loops.h"

namespace qx::testing {
namespace {

using ZepFoundation::CDate;
using ZepFoundation::CDateTime;
using ZepFoundation::WTime;
using ZepFoundation::WTimeSpan;

const WTimeSpan kOneSecond(1000, false);
const WTimeSpan kOneDay(86400000, false);

CDate DateOf(const CDateTime& value) {
  CDate date;
  date.SetDate(value.GetYear(), value.GetMonth(), value.GetDay());
  return date;
}

WTime TimeOf(const CDateTime& value) {
  int hour = 0, minute = 0, second = 0, millisecond = 0;
  value.GetTime(&hour, &minute, &second, &millisecond);
  WTime time;
  time.SetTime(hour, minute, second, millisecond);
  return time;
}

CDateTime FromSeconds(ZepTime seconds) {
  CDateTime value;
  value.SetDateTime(seconds);
  return value;
}

CDate NoDate() {
  CDate date;
  date.SetDate(-1, -1, -1);
  return date;
}

CDate LimitDate() {
  return DateOf(FromSeconds(ZEP_MAX_TIME));
}

// A value without a calendar form has a day below 1: no bit stands for it.
bool Bit(std::uint32_t word, int index) {
  return index >= 0 && (word >> index & 1u) != 0;
}

}  // namespace

ZRESULT ToldLoops::GetNextTimeWindow(ZepTime anchorTime, ZepTime effectiveTime, ZepTime reference, ZepTime* nextStart,
                                     ZepTime* nextEnd, zepByte* last) {
  if (nextStart == nullptr || nextEnd == nullptr || last == nullptr) return ZEP_E_POINTER;
  if (reference > ZEP_MAX_TIME || (anchorTime != 0 && anchorTime > ZEP_MAX_TIME) ||
      (effectiveTime != 0 && effectiveTime > ZEP_MAX_TIME)) {
    return ZEP_E_INVALIDARG;
  }
  const CDate anchor = anchorTime != 0 ? DateOf(FromSeconds(anchorTime)) : m_AnchorDate;
  const CDate effective = effectiveTime != 0 ? DateOf(FromSeconds(effectiveTime)) : m_dtEffectiveDate;
  CDateTime ref = FromSeconds(reference);

  if (m_bUseEffectiveDate && ref < CDateTime(effective, m_StartTime)) {
    const WTime x = m_StartTime + WTimeSpan(86399000, false);
    CDate date = effective;
    if (!(x < m_StartTime || x == m_StartTime)) date.IncrementDay(-1);
    ref = CDateTime(date, x);
  }

  *last = 0;
  CDateTime start(DateOf(ref), m_StartTime);
  CDateTime end = start + m_TimeDuration;
  ZRESULT restartResult = ZEP_S_FALSE;
  if (RestartInUse()) restartResult = GetNextRestartTime(anchor, ref, start, end, last);
  if (restartResult != ZEP_S_OK) {
    CDate day;
    bool more = false;
    if (!GetNextRunDay(anchor, ref, day, &more)) {
      *nextStart = -1;
      *nextEnd = -1;
      return restartResult;
    }
    start = CDateTime(day, m_StartTime);
    end = start + m_TimeDuration;
    if (!more && RestartInUse()) {
      CDateTime startCopy = start;
      const CDateTime endCopy = end;
      bool moreRestarts = false;
      *last = GetNextRestartInWindow(start, startCopy, endCopy, &moreRestarts) ? 0 : 1;
    } else {
      *last = more ? 0 : 1;
    }
  }
  *nextStart = start.AsANSITime();
  *nextEnd = end.AsANSITime();
  return ZEP_S_OK;
}

ZRESULT ToldLoops::GetNextRestartTime(const CDate& anchor, const CDateTime& ref, CDateTime& start, CDateTime& end,
                                      zepByte* last) {
  CDateTime s;
  CDateTime e;
  CDateTime askFrom;
  if (ref >= start && ref < end) {
    s = start;
    e = end;
    askFrom = ref;
  } else {
    if (m_StartTime < m_EndTime || m_StartTime == m_EndTime) return ZEP_E_FAIL;
    e = CDateTime(DateOf(ref), m_EndTime);
    s = e - m_TimeDuration;
    if (!(ref >= s && ref < e)) return ZEP_E_FAIL;
    askFrom = s;
  }
  bool moreRestarts = false;
  if (!GetNextRestartInWindow(ref, s, e, &moreRestarts)) return ZEP_E_FAIL;
  CDate day;
  bool moreDays = false;
  if (!GetNextRunDay(anchor, askFrom, day, &moreDays)) return ZEP_E_FAIL;
  if (day != DateOf(askFrom)) return ZEP_E_FAIL;
  start = s;
  end = e;
  *last = !moreRestarts && !moreDays ? 1 : 0;
  return ZEP_S_OK;
}

bool ToldLoops::GetNextRestartInWindow(const CDateTime& ref, CDateTime& start, const CDateTime& end, bool* more) const {
  CDateTime t = start;
  while (t <= ref) t += m_RestartInterval;
  if (t > end || !IsDateNotExcluded(DateOf(t))) return false;
  start = t;
  t += m_RestartInterval;
  *more = t <= end;
  return true;
}

bool ToldLoops::GetNextRunDay(const CDate& anchor, const CDateTime& ref, CDate& out, bool* more) {
  *more = false;
  bool found = false;
  m_LastRuleMatch = 0;
  CDate candidate = NoDate();
  if (m_DaysOfMonth != 0) {
    GetNextDayOfMonth(candidate, ref);
    if (candidate.IsValid()) {
      found = true;
      *more = true;
      out = candidate;
      m_LastRuleMatch = 4;
    }
  }

  bool anyDay = false;
  for (const std::uint32_t word : m_DayOfWeekList) anyDay = anyDay || word != 0;
  if (anyDay) {
    CDateTime d = ref;
    if (IsDayUsedUp(ref, DateOf(d))) d.IncrementDay(1);
    while (d < FromSeconds(ZEP_MAX_TIME)) {
      candidate = GetNextDate(DateOf(d));
      if (IsDateNotExcluded(candidate)) break;
      candidate.IncrementDay(1);
      d = CDateTime(candidate, TimeOf(d));
    }
    if (candidate.IsValid()) {
      if (!found || candidate < out) {
        found = true;
        out = candidate;
        *more = true;
        m_LastRuleMatch = 2;
      } else if (candidate == out) {
        *more = true;
        m_LastRuleMatch |= 2;
      }
    }
  }

  if (m_bUseRepeatInterval && m_iRepeatInterval >= 1) {
    GetNextRepeatDay(candidate, anchor, ref);
    if (candidate.IsValid() && (!found || candidate < out)) {
      found = true;
      out = candidate;
      *more = true;
    }
  }

  bool moreDates = false;
  if (!m_SpecificIncludeDateSet.empty() && GetNextIncludeDate(ref, candidate, &moreDates)) {
    if (!found) {
      m_LastRuleMatch = 1;
      *more = moreDates;
      found = true;
      out = candidate;
    } else if (candidate == out) {
      m_LastRuleMatch |= 1;
      if (!*more) *more = moreDates;
    } else if (candidate < out) {
      if (!*more) *more = moreDates;
      m_LastRuleMatch = 1;
      out = candidate;
    }
  }
  return found;
}

void ToldLoops::GetNextDayOfMonth(CDate& out, const CDateTime& ref) const {
  CDate cursor = DateOf(ref);
  for (;;) {
    const std::uint32_t bits = GetDaysOfMonthFor(cursor);
    const int last = cursor.GetDaysInMonth();
    for (int day = cursor.GetDay(); day <= last; ++day) {
      if (!Bit(bits, day - 1)) continue;
      out.SetDate(cursor.GetYear(), cursor.GetMonth(), day);
      if (!IsDayUsedUp(ref, out) && IsDateNotExcluded(out)) return;
    }
    cursor.IncrementMonth(1);
    cursor.SetDay(1);
    if (cursor > LimitDate()) {
      out = NoDate();
      return;
    }
  }
}

std::uint32_t ToldLoops::GetDaysOfMonthFor(const CDate& date) const {
  std::uint32_t bits = 0;
  const int last = date.GetDaysInMonth();
  for (int index = date.GetDay() - 1; index < last; ++index) {
    if (Bit(m_DaysOfMonth, index)) bits |= 1u << index;
  }
  if (Bit(m_DaysOfMonth, 31)) bits |= 1u << (last - 1);
  return bits;
}

bool ToldLoops::GetNextIncludeDate(const CDateTime& ref, CDate& out, bool* more) const {
  *more = true;
  const CDate from = DateOf(ref);
  std::size_t count = 0;
  for (const CDate& date : m_SpecificIncludeDateSet) {
    ++count;
    if (date < from || !IsDateNotExcluded(date) || IsDayUsedUp(ref, date)) continue;
    out = date;
    if (count == m_SpecificIncludeDateSet.size()) *more = false;
    return true;
  }
  *more = false;
  return false;
}

void ToldLoops::GetNextRepeatDay(CDate& out, const CDate& anchor, const CDateTime& ref) const {
  const CDate from = DateOf(ref);
  const CDate limit = LimitDate();
  out = anchor;
  while (out < from) out.IncrementDay(m_iRepeatInterval);
  if (out > limit) {
    out = NoDate();
    return;
  }
  for (;;) {
    bool accepted = false;
    while (!IsDateNotExcluded(out)) out.IncrementDay(m_iRepeatInterval);
    if (IsDayUsedUp(ref, out)) {
      out.IncrementDay(m_iRepeatInterval);
    } else {
      accepted = true;
    }
    if (out > limit) {
      out = NoDate();
      return;
    }
    if (accepted) return;
  }
}

bool ToldLoops::IsDayUsedUp(const CDateTime& ref, const CDate& date) const {
  if (date > LimitDate()) return true;
  if (date != DateOf(ref)) return false;
  CDateTime t(date, m_StartTime);
  if (ref < t) return false;
  if (!RestartInUse()) return true;
  const CDateTime e = t + m_TimeDuration;
  if (e <= ref) return true;
  while (t <= ref) t += m_RestartInterval;
  if (t > e) return true;
  return !IsDateNotExcluded(DateOf(t));
}

CDate ToldLoops::GetNextDate(const CDate& from) const {
  CDate out;
  if (FindInMonth(from, out)) return out;
  CDate next = from;
  next.IncrementMonth(1);
  next.SetDay(1);
  FindInMonth(next, out);
  return out;
}

bool ToldLoops::FindInMonth(const CDate& date, CDate& out) const {
  out.SetDate(date.GetYear(), date.GetMonth(), date.GetDay());
  int d = date.GetDay();
  const int n = date.GetDaysInMonth();
  int w = date.GetDayOfWeek();
  const int f = date.GetMonthStartDay();
  int k = (d - 1) / 7;
  const auto goOn = [&] {
    w = w == 6 ? 0 : w + 1;
    if (w == f) ++k;
    ++d;
  };
  // From a date that isn't one the walk may pass the fifth week.
  const auto named = [&](int week) { return week < 5 && Bit(m_DayOfWeekList[static_cast<std::size_t>(week)], w); };
  bool found = false;
  while (!found && d < n - 6) {
    found = named(k);
    if (!found) goOn();
  }
  while (!found && d <= n) {
    found = named(k) || named(4);
    if (!found) goOn();
  }
  if (found) out.SetDay(d);
  return found;
}

zepByte ToldLoops::IsScheduleInTimeWindow(ZepTime reference) {
  if (reference > ZEP_MAX_TIME) return 0;
  const CDateTime ref = FromSeconds(reference);
  CDateTime c(DateOf(ref), m_StartTime);
  if (!RestartInUse()) {
    c -= kOneSecond;
  } else {
    while (c <= ref) c += m_RestartInterval;
    c = c - m_RestartInterval - kOneSecond;
  }
  if (c > ref) c -= kOneDay;
  ZepTime start = 0;
  ZepTime end = 0;
  zepByte last = 0;
  if (GetNextTimeWindow(0, 0, c.AsANSITime(), &start, &end, &last) != ZEP_S_OK) return 0;
  return ref > FromSeconds(start) && ref < FromSeconds(end) ? 1 : 0;
}

}  // namespace qx::testing
