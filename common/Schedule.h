// common/Schedule.h: the rule object. Programs reach it through zepISchedule only (zepSchedIUnknown.h tells each
// operation's contract); this header is for the library itself and its tests.
//
// Threads: one thread at a time; only the reference count is atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>

#include "common/DayOfWeek.h"
#include "common/SchedPersist.h"
#include "common/schedule_dates.h"
#include "common/window_search.h"
#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcdatetime.h"
#include "foundation/include/zfcguid.h"
#include "foundation/include/zfcstring.h"
#include "foundation/include/zfctime.h"
#include "foundation/include/zfctimespan.h"

// The time of day, the run-day rules and the extras of one schedule. A new object runs on every day of the week, from
// 00:00:00 for almost 24 hours; Reset() leaves one without any run day. Made with a count of 0: QueryInterface() takes
// it to 1, and Release() to 0 deletes it.
class CSchedule : public zepISchedule2,
                  public qx::PersistStreamInitBase,
                  public zepIPersistPropertyBag,
                  public qx::PersistMemoryBase {
 public:
  CSchedule();
  CSchedule(const CSchedule&) = delete;
  CSchedule& operator=(const CSchedule&) = delete;

  ZRESULT QueryInterface(const ZepGuid& iid, void** out) override;
  std::uint32_t AddRef() override;
  std::uint32_t Release() override;

  ZRESULT get_ScheduleID(ZepFoundation::CGUID* id) override;
  ZRESULT put_ScheduleID(const ZepFoundation::CGUID* id) override;
  ZRESULT get_Name(char16_t** name) override;
  ZRESULT put_Name(const char16_t* name) override;
  ZRESULT get_Description(char16_t** description) override;
  ZRESULT put_Description(const char16_t* description) override;
  ZRESULT get_StartTime(ZepTime* time) override;
  ZRESULT put_StartTime(ZepTime time) override;
  ZRESULT get_EndTime(ZepTime* time) override;
  ZRESULT put_EndTime(ZepTime time) override;
  ZRESULT get_TimeDuration(std::uint32_t* milliseconds) override;
  ZRESULT put_TimeDuration(std::uint32_t milliseconds) override;
  ZRESULT get_UseEffectiveDate(zepByte* use) override;
  ZRESULT put_UseEffectiveDate(zepByte use) override;
  ZRESULT get_EffectiveDate(ZepTime* date) override;
  ZRESULT put_EffectiveDate(ZepTime date) override;
  ZRESULT get_UseRestartInterval(zepByte* use) override;
  ZRESULT put_UseRestartInterval(zepByte use) override;
  ZRESULT get_RestartInterval(std::uint32_t* milliseconds) override;
  ZRESULT put_RestartInterval(std::uint32_t milliseconds) override;
  ZRESULT get_UseRepeatInterval(zepByte* use) override;
  ZRESULT put_UseRepeatInterval(zepByte use) override;
  ZRESULT get_RepeatInterval(std::int32_t* days) override;
  ZRESULT put_RepeatInterval(std::int32_t days) override;
  ZRESULT get_AnchorDate(ZepTime* date) override;
  ZRESULT put_AnchorDate(ZepTime date) override;
  ZRESULT get_Dirty(zepByte* dirty) override;
  ZRESULT put_Dirty(zepByte dirty) override;
  ZRESULT SetDayOfWeek(zepByte day, zepByte week) override;
  ZRESULT GetDayOfWeek(zepByte day, zepByte week, zepByte* set) override;
  ZRESULT ClearDayOfWeek(zepByte day, zepByte week) override;
  ZRESULT ClearAllDaysOfWeek() override;
  ZRESULT IsDayOfWeekSet(zepByte* any) override;
  ZRESULT SetDayOfMonth(std::uint16_t index) override;
  ZRESULT ClearDayOfMonth(std::uint16_t index) override;  // throws std::out_of_range above 31 when any day is set
  ZRESULT ClearDaysOfMonth() override;
  ZRESULT GetDaysOfMonthCount(std::uint16_t* count) override;
  ZRESULT GetDayOfMonth(std::uint16_t index, std::uint16_t* set) override;
  ZRESULT SetSpecificDate(std::uint32_t type, ZepTime date) override;
  ZRESULT ClearSpecificDate(std::uint32_t type, ZepTime date) override;
  ZRESULT ClearSpecificDates(std::uint32_t type) override;
  ZRESULT GetSpecificDatesCount(std::uint32_t type, std::uint32_t* count) override;
  ZRESULT GetSpecificDate(std::uint32_t type, std::uint32_t index, ZepTime* date) override;
  ZRESULT get_CustomBitSet(std::uint32_t* bits) override;
  ZRESULT put_CustomBitSet(std::uint32_t bits) override;
  ZRESULT SetCustomString(const char16_t* key, const char16_t* value) override;
  ZRESULT ClearCustomStrings() override;
  ZRESULT GetCustomStringCount(std::uint32_t* count) override;
  ZRESULT GetCustomString(const char16_t* key, char16_t** value) override;
  ZRESULT GetCustomStringAt(std::uint32_t index, char16_t** key, char16_t** value) override;
  zepByte IsScheduleInTimeWindow(ZepTime reference) override;
  ZRESULT Validate() override;
  ZRESULT GetNextTimeWindow(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart, ZepTime* nextEnd,
                            zepByte* last) override;
  ZRESULT Reset() override;
  ZRESULT SetFullDay() override;
  ZRESULT CopyFrom(zepISchedule* source) override;
  ZRESULT GetNextTimeWindowEx(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart,
                              ZepTime* nextEnd, zepByte* last, std::uint32_t* ruleMatch) override;
  ZRESULT SetSenderTimeZoneOffset(std::int32_t seconds) override;

  virtual ~CSchedule() = default;

  // The run-day helpers. `ref` and the in-out values are local; outs stay untouched when the answer is negative.
  virtual ZRESULT GetNextRestartTime(const ZepFoundation::CDate& anchor, const ZepFoundation::CDateTime& ref,
                                     ZepFoundation::CDateTime& start, ZepFoundation::CDateTime& end, zepByte* last);
  virtual bool GetNextRunDay(const ZepFoundation::CDate& anchor, const ZepFoundation::CDateTime& ref,
                             ZepFoundation::CDate& out, zepByte* more);
  // None is the date -1.
  virtual void GetNextDayOfMonth(ZepFoundation::CDate& out, const ZepFoundation::CDateTime& ref);
  virtual bool GetNextIncludeDate(const ZepFoundation::CDateTime& ref, ZepFoundation::CDate& out, zepByte* more);
  virtual void GetNextRepeatDay(ZepFoundation::CDate& out, const ZepFoundation::CDate& anchor,
                                const ZepFoundation::CDateTime& ref);
  virtual bool GetNextRestartInWindow(const ZepFoundation::CDateTime& ref, ZepFoundation::CDateTime& start,
                                      ZepFoundation::CDateTime& end, zepByte* more);
  virtual bool IsDayUsedUp(const ZepFoundation::CDateTime& ref, const ZepFoundation::CDate& date);
  virtual bool IsDateNotExcluded(const ZepFoundation::CDate& date);
  // Copies the bits of the days from `date` to its month's end, and the last day's when bit 31 is set.
  virtual void GetDaysOfMonthFor(const ZepFoundation::CDate& date, std::uint32_t& bits);
  // True when no date lies in both sets.
  virtual bool AreDateSetsDisjoint();
  // Prepares nothing that anybody reads; true.
  virtual bool InitializeEnvironment();

  // zepIPersistPropertyBag, zepIPersistStreamInit, zepIPersistMemory (SchedPersist.cpp).
  ZRESULT GetClassID(ZepGuid* classId) override;
  ZRESULT InitNew() override;
  ZRESULT IsDirty() override;
  ZRESULT Load(zepIPropertyBag* bag) override;
  ZRESULT Save(zepIPropertyBag* bag, zepByte clearDirty) override;
  ZRESULT Load(zepIStream* stream) override;
  ZRESULT Save(zepIStream* stream, zepByte clearDirty) override;
  ZRESULT Load(void* memory, std::uint32_t size) override;
  ZRESULT Save(void* memory, zepByte clearDirty, std::uint32_t size) override;
  ZRESULT StreamSizeMax(std::uint32_t* size) override;
  ZRESULT MemorySizeMax(std::uint32_t* size) override;

 private:
  friend class qx::SchedulePersistence;

  // The rules as the search sees them; borrows the date sets.
  [[nodiscard]] qx::WindowRules RulesForSearch(std::int32_t anchorDay, std::int32_t effectiveDay) const;
  [[nodiscard]] qx::DateSet* SpecificDates(std::uint32_t type);
  void RecomputeDuration(ZepTime onDateOf);
  template <typename T>
  void Change(T& member, const T& value);

  std::atomic<std::int32_t> m_referenceCount{0};
  zepByte m_bDirty = 0;
  ZepFoundation::CGUID m_ScheduleID;
  ZepFoundation::wcstring m_Name;
  ZepFoundation::wcstring m_Description;
  zepByte m_bUseEffectiveDate = 0;
  ZepFoundation::CDate m_dtEffectiveDate;
  ZepFoundation::WTime m_StartTime;
  ZepFoundation::WTime m_EndTime;
  ZepFoundation::WTimeSpan m_TimeDuration;
  zepByte m_bUseRestartInterval = 0;
  ZepFoundation::WTimeSpan m_RestartInterval;
  CDayOfWeek m_DayOfWeekList;
  std::uint32_t m_DaysOfMonth = 0;
  zepByte m_bUseRepeatInterval = 0;
  ZepFoundation::CDate m_AnchorDate;
  std::int32_t m_iRepeatInterval = 2;
  qx::DateSet m_SpecificIncludeDateSet;
  qx::DateSet m_SpecificExcludeDateSet;
  std::uint32_t m_CustomBitSet = 0;
  std::map<ZepFoundation::wcstring, ZepFoundation::wcstring> m_CustomStringMap;
  std::uint32_t m_LastRuleMatch = 0;
  std::int32_t m_SenderTimeZoneOffset = -1;
};
