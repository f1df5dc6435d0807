#include "common/Schedule.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <vector>

#include "common/refusals.h"
#include "foundation/include/zfcclock.h"
#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfctext.h"
#include "platform/clock.h"

using ZepFoundation::CDate;
using ZepFoundation::CDateTime;
using ZepFoundation::CGUID;
using ZepFoundation::kTraceDebug;
using ZepFoundation::kTraceError;
using ZepFoundation::wcstring;
using ZepFoundation::WTime;
using ZepFoundation::WTimeSpan;

namespace {

constexpr std::uint32_t kMinSpanMs = 1000;
constexpr std::uint32_t kMaxSpanMs = 86400000;
constexpr std::int32_t kMinRepeatDays = 1;
constexpr std::int32_t kMaxRepeatDays = 9999;
constexpr std::int32_t kDefaultRepeatDays = 2;
constexpr std::uint16_t kDaysOfMonth = 32;
constexpr zepByte kWeekdays = 7;
constexpr std::uint32_t kMaxSpecificType = 10;
// Seconds east and west of UTC that a sender may lie.
constexpr std::int32_t kMinSenderOffset = -46800;
constexpr std::int32_t kMaxSenderOffset = 43200;

using Place = ZepFoundation::TracePlace;
using qx::RefuseArgument;
using qx::RefuseFail;
using qx::RefusePointer;

template <typename Out, typename Value>
ZRESULT Give(Out* out, const Value& value, Place at = Place::Current()) {
  if (out == nullptr) return RefusePointer(at);
  *out = static_cast<Out>(value);
  return ZEP_S_OK;
}

ZRESULT GiveText(char16_t** out, const wcstring& text, Place at = Place::Current()) {
  if (out == nullptr) return RefusePointer(at);
  *out = ZepFoundation::ZepDuplicateWideString(text.c_str());
  return *out != nullptr ? ZEP_S_OK : ZEP_E_OUTOFMEMORY;
}

std::int64_t SignedMilliseconds(const WTimeSpan& span) {
  constexpr std::uint64_t kLimit = std::uint64_t{1} << 55;
  const auto magnitude = static_cast<std::int64_t>(std::min(span.GetMagnitude(), kLimit));
  return span.IsNegative() ? -magnitude : magnitude;
}

template <typename T>
bool Same(const T& a, const T& b) {
  return a == b;
}
bool Same(const WTimeSpan& a, const WTimeSpan& b) {
  return a.GetMagnitude() == b.GetMagnitude() && a.IsNegative() == b.IsNegative();
}
bool Same(const WTime& a, const WTime& b) { return a.IsValid() == b.IsValid() && a == b; }

// A WTime in local mode that shows the local time of day of an instant; false when the instant has none.
bool LocalTimeOfDay(ZepTime seconds, WTime& time) {
  WTime shown(ZepFoundation::QTM_FIXED);
  if (qx::LocalDayOf(seconds) < 0 || !shown.SetTime(seconds)) return false;
  time = shown;
  return true;
}

}  // namespace

CSchedule::CSchedule()
    : m_dtEffectiveDate(ZepFoundation::QTM_FIXED),
      m_StartTime(ZepFoundation::QTM_FIXED),
      m_EndTime(ZepFoundation::QTM_FIXED),
      m_AnchorDate(ZepFoundation::QTM_FIXED) {
  CSchedule::Reset();
  m_SenderTimeZoneOffset = -1;
  for (zepByte week = 0; week < CDayOfWeek::kWeeks; ++week) {
    for (zepByte day = 0; day < kWeekdays; ++day) m_DayOfWeekList.SetDay(day, week);
  }
}

ZRESULT CSchedule::QueryInterface(const ZepGuid& iid, void** out) {
  if (out == nullptr) return RefusePointer();
  *out = nullptr;
  if (iid == IID_zepISchedule || iid == IID_zepIUnknown) {
    *out = static_cast<zepISchedule2*>(this);
  } else if (iid == IID_zepIPersistStreamInit) {
    *out = static_cast<zepIPersistStreamInit*>(this);
  } else if (iid == IID_zepIPersistPropertyBag) {
    *out = static_cast<zepIPersistPropertyBag*>(this);
  } else if (iid == IID_zepIPersistMemory) {
    *out = static_cast<zepIPersistMemory*>(this);
  } else {
    QX_TRACE(kTraceError, "ZEP_E_NOINTERFACE");
    return ZEP_E_NOINTERFACE;
  }
  AddRef();
  return ZEP_S_OK;
}

std::uint32_t CSchedule::AddRef() { return static_cast<std::uint32_t>(++m_referenceCount); }

std::uint32_t CSchedule::Release() {
  const std::int32_t count = --m_referenceCount;
  if (count == 0) delete this;
  return static_cast<std::uint32_t>(count);
}

template <typename T>
void CSchedule::Change(T& member, const T& value) {
  if (Same(member, value)) return;
  member = value;
  m_bDirty = 1;
}

ZRESULT CSchedule::get_ScheduleID(CGUID* id) { return Give(id, m_ScheduleID); }

ZRESULT CSchedule::put_ScheduleID(const CGUID* id) {
  // Deliberate: the pointer isn't checked, and the object doesn't become dirty.
  m_ScheduleID = *id;
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_Name(char16_t** name) { return GiveText(name, m_Name); }

ZRESULT CSchedule::put_Name(const char16_t* name) {
  if (name == nullptr) return RefusePointer();
  m_Name = name;
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_Description(char16_t** description) { return GiveText(description, m_Description); }

ZRESULT CSchedule::put_Description(const char16_t* description) {
  if (description == nullptr) return RefusePointer();
  m_Description = description;
  return ZEP_S_OK;
}

// --- the window ---

// Start and end are placed on the date of an instant; an end before the start goes one day on.
void CSchedule::RecomputeDuration(ZepTime onDateOf) {
  const CDate date = qx::DateFromDay(qx::LocalDayOf(onDateOf));
  const CDateTime start(date, m_StartTime);
  CDateTime end(date, m_EndTime);
  if (end < start) end.IncrementDay(1);
  m_TimeDuration = end - start;
}

ZRESULT CSchedule::get_StartTime(ZepTime* time) {
  if (time == nullptr) return RefusePointer();
  return Give(time, qx::SecondsOfTimeOfDay(m_StartTime));
}

ZRESULT CSchedule::put_StartTime(ZepTime time) {
  WTime shown(ZepFoundation::QTM_FIXED);
  if (time > ZEP_MAX_TIME || !LocalTimeOfDay(time, shown)) return RefuseArgument();
  Change(m_StartTime, shown);
  RecomputeDuration(time);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_EndTime(ZepTime* time) {
  if (time == nullptr) return RefusePointer();
  return Give(time, qx::SecondsOfTimeOfDay(m_EndTime));
}

ZRESULT CSchedule::put_EndTime(ZepTime time) {
  WTime shown(ZepFoundation::QTM_FIXED);
  if (time > ZEP_MAX_TIME || !LocalTimeOfDay(time, shown)) return RefuseArgument();
  Change(m_EndTime, shown);
  RecomputeDuration(time);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_TimeDuration(std::uint32_t* milliseconds) {
  return Give(milliseconds, m_TimeDuration.GetMagnitude());
}

ZRESULT CSchedule::put_TimeDuration(std::uint32_t milliseconds) {
  if (milliseconds < kMinSpanMs || milliseconds > kMaxSpanMs) return RefuseArgument();
  const WTimeSpan span = WTimeSpan(milliseconds, false);
  Change(m_TimeDuration, span);
  const WTime end = m_StartTime + span;
  Change(m_EndTime, end);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_UseEffectiveDate(zepByte* use) { return Give(use, m_bUseEffectiveDate); }

ZRESULT CSchedule::put_UseEffectiveDate(zepByte use) {
  Change(m_bUseEffectiveDate, use);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_EffectiveDate(ZepTime* date) {
  if (date == nullptr) return RefusePointer();
  return Give(date, m_dtEffectiveDate.AsANSITime());
}

ZRESULT CSchedule::put_EffectiveDate(ZepTime date) {
  const std::int32_t day = qx::LocalDayOf(date);
  if (date > ZEP_MAX_TIME || day < 0) return RefuseArgument();
  Change(m_dtEffectiveDate, qx::DateFromDay(day));
  return ZEP_S_OK;
}

// --- restarts and repeats ---

ZRESULT CSchedule::get_UseRestartInterval(zepByte* use) { return Give(use, m_bUseRestartInterval); }

ZRESULT CSchedule::put_UseRestartInterval(zepByte use) {
  Change(m_bUseRestartInterval, use);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_RestartInterval(std::uint32_t* milliseconds) {
  return Give(milliseconds, m_RestartInterval.GetMagnitude());
}

ZRESULT CSchedule::put_RestartInterval(std::uint32_t milliseconds) {
  if (milliseconds < kMinSpanMs || milliseconds > kMaxSpanMs) return RefuseArgument();
  Change(m_RestartInterval, WTimeSpan(milliseconds, false));
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_UseRepeatInterval(zepByte* use) { return Give(use, m_bUseRepeatInterval); }

ZRESULT CSchedule::put_UseRepeatInterval(zepByte use) {
  Change(m_bUseRepeatInterval, use);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_RepeatInterval(std::int32_t* days) { return Give(days, m_iRepeatInterval); }

ZRESULT CSchedule::put_RepeatInterval(std::int32_t days) {
  if (days < kMinRepeatDays || days > kMaxRepeatDays) return RefuseArgument();
  Change(m_iRepeatInterval, days);
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_AnchorDate(ZepTime* date) {
  if (date == nullptr) return RefusePointer();
  return Give(date, m_AnchorDate.AsANSITime());
}

ZRESULT CSchedule::put_AnchorDate(ZepTime date) {
  const std::int32_t day = qx::LocalDayOf(date);
  if (date > ZEP_MAX_TIME || day < 0) return RefuseArgument();
  Change(m_AnchorDate, qx::DateFromDay(day));
  return ZEP_S_OK;
}

ZRESULT CSchedule::get_Dirty(zepByte* dirty) { return Give(dirty, m_bDirty); }

ZRESULT CSchedule::put_Dirty(zepByte dirty) {
  m_bDirty = dirty;
  return ZEP_S_OK;
}

// --- weekdays and days of the month ---

ZRESULT CSchedule::SetDayOfWeek(zepByte day, zepByte week) {
  m_DayOfWeekList.SetDay(day, week);
  m_bDirty = 1;
  return ZEP_S_OK;
}

ZRESULT CSchedule::GetDayOfWeek(zepByte day, zepByte week, zepByte* set) {
  if (set == nullptr) return RefusePointer();
  return m_DayOfWeekList.GetDay(day, week, set);
}

ZRESULT CSchedule::ClearDayOfWeek(zepByte day, zepByte week) {
  m_bDirty = 1;
  return m_DayOfWeekList.ClearDay(day, week);
}

ZRESULT CSchedule::ClearAllDaysOfWeek() {
  m_bDirty = 1;
  return m_DayOfWeekList.ClearAll();
}

ZRESULT CSchedule::IsDayOfWeekSet(zepByte* any) {
  if (any == nullptr) return RefusePointer();
  // Bit 7 belongs to no weekday.
  const auto& words = m_DayOfWeekList.Words();
  return Give(any, std::any_of(words.begin(), words.end(), [](std::uint32_t word) { return (word & 0x7F) != 0; }));
}

ZRESULT CSchedule::SetDayOfMonth(std::uint16_t index) {
  if (index >= kDaysOfMonth) return RefuseArgument();
  m_DaysOfMonth |= 1u << index;
  m_bDirty = 1;
  return ZEP_S_OK;
}

ZRESULT CSchedule::ClearDayOfMonth(std::uint16_t index) {
  if (m_DaysOfMonth == 0) return ZEP_S_OK;
  if (index >= kDaysOfMonth) throw std::out_of_range("invalid bitset<N> position");
  m_DaysOfMonth &= ~(1u << index);
  m_bDirty = 1;
  return ZEP_S_OK;
}

ZRESULT CSchedule::ClearDaysOfMonth() {
  Change(m_DaysOfMonth, 0u);
  return ZEP_S_OK;
}

ZRESULT CSchedule::GetDaysOfMonthCount(std::uint16_t* count) { return Give(count, kDaysOfMonth); }

ZRESULT CSchedule::GetDayOfMonth(std::uint16_t index, std::uint16_t* set) {
  if (set == nullptr) return RefusePointer();
  if (index >= kDaysOfMonth) return RefuseArgument();
  return Give(set, m_DaysOfMonth >> index & 1u);
}

// --- specific dates ---

qx::DateSet* CSchedule::SpecificDates(std::uint32_t type) {
  if (type == ZEP_SPECIFIC_INCLUDE) return &m_SpecificIncludeDateSet;
  if (type == ZEP_SPECIFIC_EXCLUDE) return &m_SpecificExcludeDateSet;
  return nullptr;
}

ZRESULT CSchedule::SetSpecificDate(std::uint32_t type, ZepTime date) {
  const std::int32_t day = qx::LocalDayOf(date);
  if (date > ZEP_MAX_TIME || day < 0) return RefuseArgument();
  qx::DateSet* const dates = SpecificDates(type);
  if (dates == nullptr) return RefuseFail();
  dates->Insert(day);
  m_bDirty = 1;
  return ZEP_S_OK;
}

ZRESULT CSchedule::ClearSpecificDate(std::uint32_t type, ZepTime date) {
  const CDate cut = qx::DateFromDay(qx::LocalDayOf(date));
  QX_TRACE(kTraceDebug, "CSchedule::ClearSpecificDate() specificDate=" << cut.GetDay() << " " << cut.GetMonth() << " "
                                                                       << cut.GetYear());
  if (qx::DateSet* const dates = SpecificDates(type)) {
    dates->Erase(static_cast<std::int32_t>(qx::DayFromDate(cut)));
    m_bDirty = 1;  // as every clearing of a rule, whether the date was there or not
  }
  return ZEP_S_OK;
}

ZRESULT CSchedule::ClearSpecificDates(std::uint32_t type) {
  if (qx::DateSet* const dates = SpecificDates(type)) {
    dates->Clear();
    m_bDirty = 1;
  }
  return ZEP_S_OK;
}

ZRESULT CSchedule::GetSpecificDatesCount(std::uint32_t type, std::uint32_t* count) {
  if (count == nullptr) return RefusePointer();
  if (type < 1 || type > kMaxSpecificType) return RefuseArgument();
  // Deliberate: a type without a set leaves the count alone and is no failure.
  if (const qx::DateSet* const dates = SpecificDates(type)) *count = static_cast<std::uint32_t>(dates->Size());
  return ZEP_S_OK;
}

ZRESULT CSchedule::GetSpecificDate(std::uint32_t type, std::uint32_t index, ZepTime* date) {
  if (date == nullptr) return RefusePointer();
  if (type < 1 || type > kMaxSpecificType) return RefuseArgument();
  const qx::DateSet* const dates = SpecificDates(type);
  if (dates == nullptr) {
    // Deliberate: a type without a set fails and gives 1 January 1980.
    *date = CDate(ZepFoundation::QTM_FIXED).AsANSITime();
    return RefuseFail();
  }
  if (index >= dates->Size()) return RefuseArgument();
  *date = qx::SecondsOfDay(dates->Days()[index]);
  return ZEP_S_OK;
}

// --- custom data ---

ZRESULT CSchedule::get_CustomBitSet(std::uint32_t* bits) { return Give(bits, m_CustomBitSet); }

ZRESULT CSchedule::put_CustomBitSet(std::uint32_t bits) {
  m_CustomBitSet = bits;
  return ZEP_S_OK;
}

ZRESULT CSchedule::SetCustomString(const char16_t* key, const char16_t* value) {
  if (key == nullptr || value == nullptr) return RefusePointer();
  const auto [at, inserted] = m_CustomStringMap.try_emplace(wcstring(key), value);
  if (inserted) {
    m_bDirty = 1;
  } else {
    Change(at->second, wcstring(value));
  }
  return ZEP_S_OK;
}

ZRESULT CSchedule::ClearCustomStrings() {
  if (!m_CustomStringMap.empty()) m_bDirty = 1;
  m_CustomStringMap.clear();
  return ZEP_S_OK;
}

ZRESULT CSchedule::GetCustomStringCount(std::uint32_t* count) { return Give(count, m_CustomStringMap.size()); }

ZRESULT CSchedule::GetCustomString(const char16_t* key, char16_t** value) {
  if (key == nullptr || value == nullptr) return RefusePointer();
  // Deliberate: a missing key is inserted with an empty value.
  return GiveText(value, m_CustomStringMap[wcstring(key)]);
}

ZRESULT CSchedule::GetCustomStringAt(std::uint32_t index, char16_t** key, char16_t** value) {
  if (key == nullptr || value == nullptr) return RefusePointer();
  // Deliberate: only index 0 finds anything; any other runs to the map's end and writes nothing.
  if (index != 0) return ZEP_S_OK;
  if (m_CustomStringMap.empty()) return RefuseArgument();
  const auto& first = *m_CustomStringMap.begin();
  const ZRESULT result = GiveText(key, first.first);
  return ZepFailed(result) ? result : GiveText(value, first.second);
}

// --- validation and copying ---

bool CSchedule::AreDateSetsDisjoint() {
  std::vector<std::int32_t> both;
  std::set_intersection(m_SpecificIncludeDateSet.Days().begin(), m_SpecificIncludeDateSet.Days().end(),
                        m_SpecificExcludeDateSet.Days().begin(), m_SpecificExcludeDateSet.Days().end(),
                        std::back_inserter(both));
  return both.empty();
}

ZRESULT CSchedule::Validate() {
  const bool anyRule = m_DayOfWeekList.AnyDaySet() || m_bUseRepeatInterval != 0 || m_DaysOfMonth != 0;
  if (!anyRule && m_SpecificIncludeDateSet.Empty()) return ZEP_SCHED_E_NORUNDAY;
  // Deliberate: an overlap of both date sets never fails; such a date counts as excluded.
  if (!m_SpecificIncludeDateSet.Empty()) (void)AreDateSetsDisjoint();
  if (m_bUseRestartInterval != 0 && m_TimeDuration < m_RestartInterval) return ZEP_SCHED_E_RESTARTTOOLONG;
  return ZEP_S_OK;
}

ZRESULT CSchedule::SetFullDay() {
  // Deliberate: the day ends at 23:59:59.059.
  WTime start(ZepFoundation::QTM_FIXED);
  WTime end(ZepFoundation::QTM_FIXED);
  start.SetTime(0, 0, 0, 0);
  end.SetTime(23, 59, 59, 59);
  Change(m_StartTime, start);
  Change(m_EndTime, end);
  if (m_bDirty != 0) RecomputeDuration(platform::NowSeconds());
  return ZEP_S_OK;
}

ZRESULT CSchedule::Reset() {
  SetFullDay();
  const CDate today(ZepFoundation::QTM_CURRENT);
  m_AnchorDate = today;
  m_dtEffectiveDate = today;
  m_bUseEffectiveDate = 0;
  m_Name.clear();
  m_Description.clear();
  m_bUseRestartInterval = 0;
  m_RestartInterval = WTimeSpan();
  m_bUseRepeatInterval = 0;
  m_iRepeatInterval = kDefaultRepeatDays;
  m_SpecificIncludeDateSet.Clear();
  m_SpecificExcludeDateSet.Clear();
  m_DaysOfMonth = 0;
  m_DayOfWeekList.ClearAll();
  m_bDirty = 1;
  return ZEP_S_OK;
}

ZRESULT CSchedule::CopyFrom(zepISchedule* source) {
  if (source == nullptr) return RefusePointer();
  Reset();

  ZepFoundation::ZepOwnedText<char16_t> name, description;
  zepByte flag = 0;
  ZepTime time = 0;
  std::uint32_t span = 0;
  std::int32_t days = 0;
  ZRESULT result = source->get_Name(name.Out());
  if (ZepFailed(result)) return result;
  m_Name = name.Get();
  if (ZepFailed(result = source->get_Description(description.Out()))) return result;
  m_Description = description.Get();
  if (ZepFailed(result = source->get_UseEffectiveDate(&flag))) return result;
  m_bUseEffectiveDate = flag;
  if (ZepFailed(result = source->get_EffectiveDate(&time))) return result;
  m_dtEffectiveDate = qx::DateFromDay(qx::LocalDayOf(time));
  // Deliberate: start and end go straight into the members, so the duration stays that of Reset().
  if (ZepFailed(result = source->get_StartTime(&time))) return result;
  m_StartTime.SetTime(time);
  if (ZepFailed(result = source->get_EndTime(&time))) return result;
  m_EndTime.SetTime(time);
  if (ZepFailed(result = source->get_UseRestartInterval(&flag))) return result;
  m_bUseRestartInterval = flag;
  if (ZepFailed(result = source->get_RestartInterval(&span))) return result;
  m_RestartInterval = WTimeSpan(span, false);
  if (ZepFailed(result = source->get_UseRepeatInterval(&flag))) return result;
  m_bUseRepeatInterval = flag;
  if (ZepFailed(result = source->get_RepeatInterval(&days))) return result;
  m_iRepeatInterval = days;
  if (ZepFailed(result = source->get_AnchorDate(&time))) return result;
  m_AnchorDate = qx::DateFromDay(qx::LocalDayOf(time));
  if (ZepFailed(result = source->get_Dirty(&flag))) return result;
  m_bDirty = flag;
  for (const std::uint32_t type : {ZEP_SPECIFIC_INCLUDE, ZEP_SPECIFIC_EXCLUDE}) {
    std::uint32_t count = 0;
    if (ZepFailed(result = source->GetSpecificDatesCount(type, &count))) return result;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (ZepFailed(result = source->GetSpecificDate(type, i, &time))) return result;
      SpecificDates(type)->Insert(qx::LocalDayOf(time));
    }
  }
  for (std::uint16_t i = 0; i < kDaysOfMonth; ++i) {
    std::uint16_t set = 0;
    if (ZepFailed(result = source->GetDayOfMonth(i, &set))) return result;
    if (set != 0) m_DaysOfMonth |= 1u << i;
  }
  for (zepByte week = 0; week < CDayOfWeek::kWeeks; ++week) {
    for (zepByte day = 0; day < kWeekdays; ++day) {
      if (ZepFailed(result = source->GetDayOfWeek(day, week, &flag))) return result;
      if (flag != 0) m_DayOfWeekList.SetDay(day, week);
    }
  }
  std::uint32_t bits = 0;
  if (ZepFailed(result = source->get_CustomBitSet(&bits))) return result;
  m_CustomBitSet = bits;
  return ZEP_S_OK;
}

ZRESULT CSchedule::SetSenderTimeZoneOffset(std::int32_t seconds) {
  if (seconds < kMinSenderOffset || seconds > kMaxSenderOffset) return RefuseFail();
  m_SenderTimeZoneOffset = seconds;
  return ZEP_S_OK;
}

bool CSchedule::InitializeEnvironment() {
  // Deliberate: a path is built and a flag set that nothing else reads.
  static std::atomic<bool> prepared{false};
  const wcstring path(u"/tmp");
  prepared = !path.empty();
  return true;
}

// --- windows ---

qx::WindowRules CSchedule::RulesForSearch(std::int32_t anchorDay, std::int32_t effectiveDay) const {
  // Every member is named: what is left out would be zeroed first, for a tenth of a query's time.
  const std::int32_t bias = ZepFoundation::Zep_TimeZoneOffsetInSeconds();
  const std::int64_t startMs = m_StartTime.PresentedMilliseconds(bias);
  const bool useRestart = m_bUseRestartInterval != 0;
  return {.startMs = startMs,
          .startExists = startMs >= 0 && startMs < qx::kMillisecondsPerDay,
          .endMs = useRestart ? m_EndTime.PresentedMilliseconds(bias) : 0,
          .durationMs = SignedMilliseconds(m_TimeDuration),
          .useEffective = m_bUseEffectiveDate != 0,
          .effectiveDay = effectiveDay,
          .useRestart = useRestart,
          .restartMs = useRestart ? SignedMilliseconds(m_RestartInterval) : 0,
          .useRepeat = m_bUseRepeatInterval != 0,
          .repeatDays = m_iRepeatInterval,
          .anchorDay = anchorDay,
          .daysOfWeek = m_DayOfWeekList.Words(),
          .daysOfMonth = m_DaysOfMonth,
          .include = m_SpecificIncludeDateSet,
          .exclude = m_SpecificExcludeDateSet};
}

ZRESULT CSchedule::GetNextTimeWindow(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart,
                                     ZepTime* nextEnd, zepByte* last) {
  if (nextStart == nullptr || nextEnd == nullptr || last == nullptr) return RefusePointer();
  if (reference > ZEP_MAX_TIME || anchor > ZEP_MAX_TIME || effective > ZEP_MAX_TIME) return RefuseArgument();
  // A date that no rule asks for isn't worked out.
  const auto dayOf = [](zepByte used, ZepTime given, const CDate& own) {
    if (used == 0) return -1;
    return given != 0 ? qx::LocalDayOf(given) : static_cast<std::int32_t>(qx::DayFromDate(own));
  };
  const qx::WindowRules rules = RulesForSearch(dayOf(m_bUseRepeatInterval, anchor, m_AnchorDate),
                                               dayOf(m_bUseEffectiveDate, effective, m_dtEffectiveDate));
  const qx::WindowSearch search(rules);
  const qx::Moment ref = search.FromSeconds(reference);
  if (!ref.valid) return RefuseArgument();

  qx::Window window;
  const ZRESULT result = search.NextTimeWindow(ref, window, m_LastRuleMatch);
  *last = window.last ? 1 : 0;
  *nextStart = result == ZEP_S_OK ? search.ToSeconds(window.start) : -1;
  *nextEnd = result == ZEP_S_OK ? search.ToSeconds(window.end) : -1;
  return result;
}

ZRESULT CSchedule::GetNextTimeWindowEx(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart,
                                       ZepTime* nextEnd, zepByte* last, std::uint32_t* ruleMatch) {
  if (ruleMatch == nullptr) return RefusePointer();
  const ZRESULT result = GetNextTimeWindow(anchor, effective, reference, nextStart, nextEnd, last);
  *ruleMatch = m_LastRuleMatch;
  return result;
}

zepByte CSchedule::IsScheduleInTimeWindow(ZepTime reference) {
  if (reference > ZEP_MAX_TIME) {
    QX_TRACE(kTraceDebug, "referenceTime is not in an active time window." << reference);
    return 0;
  }
  const auto shown = [](qx::Moment moment) {
    char text[128] = "";
    qx::DateTimeFromMoment(moment).PrintDateTime(text);
    return std::string(text);
  };
  const qx::WindowRules rules = RulesForSearch(static_cast<std::int32_t>(qx::DayFromDate(m_AnchorDate)),
                                               static_cast<std::int32_t>(qx::DayFromDate(m_dtEffectiveDate)));
  const qx::WindowSearch search(rules);
  const qx::Moment ref = search.FromSeconds(reference);
  QX_TRACE(kTraceDebug, "CSchedule::IsScheduleInTimeWindow()   refTime=" << shown(ref));
  if (!ref.valid) return 0;
  const qx::Moment corrected = search.InWindowReference(ref);
  QX_TRACE(kTraceDebug, "CSchedule::IsScheduleInTimeWindow()   correctedRefTime=" << shown(corrected));

  ZepTime start = 0;
  ZepTime end = 0;
  zepByte last = 0;
  if (GetNextTimeWindow(0, 0, search.ToSeconds(corrected), &start, &end, &last) != ZEP_S_OK) return 0;
  QX_TRACE(kTraceDebug, "CSchedule::IsScheduleInTimeWindow()   nextStartTime=" << shown(search.FromSeconds(start)));
  QX_TRACE(kTraceDebug, "CSchedule::IsScheduleInTimeWindow()   nextEndTime  =" << shown(search.FromSeconds(end)));
  // Both ends stand outside: the comparison is that of calendar values.
  const ZepTime at = search.ToSeconds(ref);
  return at > start && at < end ? 1 : 0;
}

ZRESULT CSchedule::GetNextRestartTime(const CDate& anchor, const CDateTime& ref, CDateTime& start, CDateTime& end,
                                      zepByte* last) {
  const qx::WindowRules rules = RulesForSearch(static_cast<std::int32_t>(qx::DayFromDate(anchor)),
                                               static_cast<std::int32_t>(qx::DayFromDate(m_dtEffectiveDate)));
  const qx::WindowSearch search(rules);
  qx::Window window{qx::MomentFromDateTime(start), qx::MomentFromDateTime(end), false};
  if (!search.RestartInUse() || !search.NextRestartTime(qx::MomentFromDateTime(ref), window, m_LastRuleMatch)) {
    return ZEP_E_FAIL;
  }
  start = qx::DateTimeFromMoment(window.start);
  end = qx::DateTimeFromMoment(window.end);
  *last = window.last ? 1 : 0;
  return ZEP_S_OK;
}

bool CSchedule::GetNextRunDay(const CDate& anchor, const CDateTime& ref, CDate& out, zepByte* more) {
  const qx::WindowRules rules = RulesForSearch(static_cast<std::int32_t>(qx::DayFromDate(anchor)), -1);
  bool anotherMayFollow = false;
  const auto day =
      qx::WindowSearch(rules).NextRunDay(qx::MomentFromDateTime(ref), anotherMayFollow, m_LastRuleMatch);
  *more = anotherMayFollow ? 1 : 0;
  if (day) out = qx::DateFromDay(*day);
  return day.has_value();
}

void CSchedule::GetNextDayOfMonth(CDate& out, const CDateTime& ref) {
  const qx::WindowRules rules = RulesForSearch(-1, -1);
  out = qx::DateFromDay(qx::WindowSearch(rules).NextDayOfMonth(qx::MomentFromDateTime(ref)).value_or(-1));
}

bool CSchedule::GetNextIncludeDate(const CDateTime& ref, CDate& out, zepByte* more) {
  const qx::WindowRules rules = RulesForSearch(-1, -1);
  bool moreDates = false;
  const auto day = qx::WindowSearch(rules).NextIncludeDate(qx::MomentFromDateTime(ref), moreDates);
  *more = moreDates ? 1 : 0;
  if (day) out = qx::DateFromDay(*day);
  return day.has_value();
}

void CSchedule::GetNextRepeatDay(CDate& out, const CDate& anchor, const CDateTime& ref) {
  qx::WindowRules rules = RulesForSearch(static_cast<std::int32_t>(qx::DayFromDate(anchor)), -1);
  const bool stepping = rules.repeatDays > 0;
  out = qx::DateFromDay(
      stepping ? qx::WindowSearch(rules).NextRepeatDay(qx::MomentFromDateTime(ref)).value_or(-1) : -1);
}

bool CSchedule::GetNextRestartInWindow(const CDateTime& ref, CDateTime& start, CDateTime& end, zepByte* more) {
  const qx::WindowRules rules = RulesForSearch(-1, -1);
  const qx::WindowSearch search(rules);
  qx::Moment at = qx::MomentFromDateTime(start);
  bool moreRestarts = false;
  if (!search.RestartInUse() ||
      !search.NextRestartInWindow(qx::MomentFromDateTime(ref), at, qx::MomentFromDateTime(end), moreRestarts)) {
    return false;
  }
  start = qx::DateTimeFromMoment(at);
  *more = moreRestarts ? 1 : 0;
  return true;
}

bool CSchedule::IsDayUsedUp(const CDateTime& ref, const CDate& date) {
  const qx::WindowRules rules = RulesForSearch(-1, -1);
  return qx::WindowSearch(rules).IsDayUsedUp(qx::MomentFromDateTime(ref), qx::DayFromDate(date));
}

bool CSchedule::IsDateNotExcluded(const CDate& date) {
  return !m_SpecificExcludeDateSet.Contains(qx::DayFromDate(date));
}

void CSchedule::GetDaysOfMonthFor(const CDate& date, std::uint32_t& bits) {
  const int last = date.GetDaysInMonth();
  for (int day = date.GetDay(); day <= last; ++day) {
    const std::uint32_t bit = 1u << (day - 1);
    bits = (bits & ~bit) | (m_DaysOfMonth & bit);
  }
  if ((m_DaysOfMonth & 0x80000000u) != 0) bits |= 1u << (last - 1);
}
