// common/zepSchedIUnknown.h: the abstract interfaces of the schedule rules library, its result codes and identifiers.
//
// Every interface begins with the three operations of zepIUnknown, and the order of virtual operations is fixed: it is
// the contract between a program and a library that was loaded at run time.
// Threads: the reference count is atomic; all else serves one thread at a time.
// Strings: a getter hands out a new NUL-terminated buffer, which the caller gives back with ZepStringFree.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/guid.h"

using ZRESULT = std::int32_t;    // 0 or positive: done; negative: failed
using zepByte = unsigned char;   // an octet; a flag: 0 or not 0
using ZepGuid = platform::GUID;  // 16 bytes, compared as a whole
using ZepTime = std::int64_t;    // seconds since 1970 in UTC

namespace ZepFoundation {
class CGUID;
}

// Results of the library.
inline constexpr ZRESULT ZepResult(std::uint32_t code) { return static_cast<ZRESULT>(code); }
inline constexpr ZRESULT ZEP_S_OK = 0;     // done
inline constexpr ZRESULT ZEP_S_FALSE = 1;  // no further time window, and no restart interval is in use
inline constexpr ZRESULT ZEP_E_NOTIMPL = ZepResult(0x80000001);             // the operation is not provided
inline constexpr ZRESULT ZEP_E_OUTOFMEMORY = ZepResult(0x80000002);         // no memory for the object
inline constexpr ZRESULT ZEP_E_INVALIDARG = ZepResult(0x80000003);          // a value outside its range
inline constexpr ZRESULT ZEP_E_NOINTERFACE = ZepResult(0x80000004);         // the object has no such interface
inline constexpr ZRESULT ZEP_E_POINTER = ZepResult(0x80000005);             // a pointer that is needed is null
inline constexpr ZRESULT ZEP_E_FAIL = ZepResult(0x80000006);                // failed; the operation tells why
inline constexpr ZRESULT ZEP_E_NOAGGREGATION = ZepResult(0x80010007);       // an outer object was given
inline constexpr ZRESULT ZEP_E_CLASSNOTAVAILABLE = ZepResult(0x80010003);   // no library serves the class
inline constexpr ZRESULT ZEP_E_ALREADYINITIALIZED = ZepResult(0x80010004);  // the factory works already
inline constexpr ZRESULT ZEP_E_ENTRYNOTFOUND = ZepResult(0x80010009);       // no such library, or no such entry in it
inline constexpr ZRESULT ZEP_SCHED_E_NORUNDAY = ZepResult(0x80040000);      // no run-day rule
inline constexpr ZRESULT ZEP_SCHED_E_DATEOVERLAP = ZepResult(0x80040001);   // understood by the adapter, never returned
inline constexpr ZRESULT ZEP_SCHED_E_RESTARTTOOLONG = ZepResult(0x80040002);  // restart longer than window

[[nodiscard]] inline constexpr bool ZepFailed(ZRESULT result) { return result < 0; }  // ZEP_S_FALSE is no failure

// End of every time and of every search: the last second of 2037 in UTC.
inline constexpr ZepTime ZEP_MAX_TIME = 2145916799;

// Class and interface identifiers.
inline constexpr ZepGuid CLSID_CSchedule{0xC2EDA523, 0x69C6, 0x11D2, {0x8A, 0x7C, 0x00, 0x00, 0xC0, 0xB8, 0x39, 0xE5}};
inline constexpr ZepGuid IID_zepISchedule{0x59FC77E0, 0x323E, 0x11D4, {0xB1, 0xFB, 0x00, 0x10, 0x5A, 0x9C, 0xC6, 0x42}};
inline constexpr ZepGuid IID_zepIPersistStreamInit{
    0x759F00F0, 0x3154, 0x11D4, {0xB1, 0xFA, 0x00, 0x10, 0x5A, 0x9C, 0xC6, 0x42}};
inline constexpr ZepGuid IID_zepIPersistPropertyBag{
    0xEFF3D633, 0x4827, 0x11D4, {0xB1, 0x04, 0x00, 0x10, 0x4B, 0x22, 0xCC, 0xD0}};
inline constexpr ZepGuid IID_zepIPersistMemory{
    0xFB9996E0, 0x315B, 0x11D4, {0xB1, 0xFA, 0x00, 0x10, 0x5A, 0x9C, 0xC6, 0x42}};
inline constexpr ZepGuid IID_zepIUnknown{0x3B942460, 0x1A8F, 0x11D3, {0x80, 0x79, 0x00, 0x10, 0x5A, 0x9B, 0x6A, 0x36}};
// The property bag's own identifier; made for this implementation, no file or wire holds it.
inline constexpr ZepGuid IID_zepIPropertyBag{
    0x2B8F6C51, 0x0D34, 0x4B6E, {0x9A, 0x1D, 0x5E, 0x72, 0xC4, 0x90, 0x3F, 0x18}};

// The two sets of specific dates.
inline constexpr std::uint32_t ZEP_SPECIFIC_INCLUDE = 1;
inline constexpr std::uint32_t ZEP_SPECIFIC_EXCLUDE = 2;

// Which rule gave the last run day; bits add up where two rules gave the same day.
inline constexpr std::uint32_t ZEP_RULE_INCLUDE_DATE = 1;
inline constexpr std::uint32_t ZEP_RULE_DAY_OF_WEEK = 2;
inline constexpr std::uint32_t ZEP_RULE_DAY_OF_MONTH = 4;  // 0: the repeat rule alone

class zepIUnknown {  // counted references and the way to other interfaces
 public:
  // Gives the interface `iid` of the object and adds a reference; an unknown one gives null and ZEP_E_NOINTERFACE.
  virtual ZRESULT QueryInterface(const ZepGuid& iid, void** out) = 0;
  virtual std::uint32_t AddRef() = 0;  // the new count
  // Gives up one reference; the object is gone when the answer is 0.
  virtual std::uint32_t Release() = 0;

 protected:
  ~zepIUnknown() = default;
};

struct PropertyValue;

// A store of named, tagged values (property_value.h tells the tags and who owns what a value points to).
class zepIPropertyBag : public zepIUnknown {
 public:
  virtual ZRESULT Write(const char16_t* name, PropertyValue* value) = 0;  // keeps the value under the name
  virtual ZRESULT Read(const char16_t* name, PropertyValue* value) = 0;   // a missing one fails

 protected:
  ~zepIPropertyBag() = default;
};

// A byte stream; both answer how many bytes they took.
class zepIStream : public zepIUnknown {
 public:
  virtual ZRESULT Read(void* buffer, std::uint32_t size, std::uint32_t* read) = 0;             // fewer: the end
  virtual ZRESULT Write(const void* buffer, std::uint32_t size, std::uint32_t* written) = 0;  // fewer: it is full

 protected:
  ~zepIStream() = default;
};

class zepIPersistPropertyBag : public zepIUnknown {  // saves to a property bag
 public:
  virtual ZRESULT GetClassID(ZepGuid* classId) = 0;                    // null: ZEP_E_POINTER
  virtual ZRESULT InitNew() = 0;                                       // always ZEP_E_NOTIMPL
  virtual ZRESULT Load(zepIPropertyBag* bag) = 0;                      // a missing value leaves the field as it is
  virtual ZRESULT Save(zepIPropertyBag* bag, zepByte clearDirty) = 0;  // not 0: no longer dirty afterwards

 protected:
  ~zepIPersistPropertyBag() = default;
};

class zepIPersistStreamInit : public zepIUnknown {  // saves to a stream
 public:
  virtual ZRESULT GetClassID(ZepGuid* classId) = 0;                  // null: ZEP_E_POINTER
  virtual ZRESULT InitNew() = 0;                                     // always ZEP_E_NOTIMPL
  virtual ZRESULT IsDirty() = 0;                                     // 0 when dirty, 1 when not
  // Deliberate: an estimate, which the saved form may well exceed; zepIPersistMemory tells its size.
  virtual ZRESULT GetSizeMax(std::uint32_t* size) = 0;
  // Big-endian. Deliberate: one Read of at most 2048 bytes; rows behind them keep the values of Reset(). What is wrong
  // with the header is ZEP_E_FAIL; the object has the read ID then, and behind the class check it is reset. Rows aren't
  // validated, and those that can't be read are passed over. Nothing read: the result of Read, the object unchanged.
  virtual ZRESULT Load(zepIStream* stream) = 0;
  // As the bag's, with the result of one Write. Deliberate: how many bytes were written isn't looked at, and the object
  // counts as saved also where the stream refused them.
  virtual ZRESULT Save(zepIStream* stream, zepByte clearDirty) = 0;

 protected:
  ~zepIPersistStreamInit() = default;
};

class zepIPersistMemory : public zepIUnknown {  // saves to memory
 public:
  virtual ZRESULT GetClassID(ZepGuid* classId) = 0;                                // null: ZEP_E_POINTER
  virtual ZRESULT InitNew() = 0;                                                   // always ZEP_E_NOTIMPL
  virtual ZRESULT IsDirty() = 0;                                                   // 0 when dirty, 1 when not
  virtual ZRESULT GetSizeMax(std::uint32_t* size) = 0;                             // exact
  virtual ZRESULT Load(void* memory, std::uint32_t size) = 0;                      // the stream's bytes
  virtual ZRESULT Save(void* memory, zepByte clearDirty, std::uint32_t size) = 0;  // of GetSizeMax() bytes

 protected:
  ~zepIPersistMemory() = default;
};

// One schedule: its time-of-day window, its run-day rules and a few free-form extras. Times are seconds since 1970 and
// at most ZEP_MAX_TIME, else ZEP_E_INVALIDARG; dates are passed in the same form and cut to their local date. A null
// out pointer is ZEP_E_POINTER. A refused value leaves the object as it was.
class zepISchedule : public zepIUnknown {
 public:
  virtual ZRESULT get_ScheduleID(ZepFoundation::CGUID* id) = 0;        // made with the object
  virtual ZRESULT put_ScheduleID(const ZepFoundation::CGUID* id) = 0;  // not null; not dirty by it
  virtual ZRESULT get_Name(char16_t** name) = 0;                       // null pointer: ZEP_E_POINTER
  virtual ZRESULT put_Name(const char16_t* name) = 0;                  // null: ZEP_E_POINTER; not dirty by it
  virtual ZRESULT get_Description(char16_t** description) = 0;         // as the name
  virtual ZRESULT put_Description(const char16_t* description) = 0;    // as the name
  // The time of day at which a window opens, as seconds on a date on which that time exists (today where it does).
  virtual ZRESULT get_StartTime(ZepTime* time) = 0;
  // Keeps the local time of day and computes the duration anew.
  virtual ZRESULT put_StartTime(ZepTime time) = 0;
  virtual ZRESULT get_EndTime(ZepTime* time) = 0;  // as the start
  virtual ZRESULT put_EndTime(ZepTime time) = 0;   // as the start; before the start: of the next day
  // Milliseconds, 1000 to 86400000. Setting it moves the end.
  virtual ZRESULT get_TimeDuration(std::uint32_t* milliseconds) = 0;
  virtual ZRESULT put_TimeDuration(std::uint32_t milliseconds) = 0;  // else ZEP_E_INVALIDARG
  virtual ZRESULT get_UseEffectiveDate(zepByte* use) = 0;            // whether the next one counts
  virtual ZRESULT put_UseEffectiveDate(zepByte use) = 0;             // 0 or not 0
  virtual ZRESULT get_EffectiveDate(ZepTime* date) = 0;              // midnight of the first date
  virtual ZRESULT put_EffectiveDate(ZepTime date) = 0;               // its local date is kept
  virtual ZRESULT get_UseRestartInterval(zepByte* use) = 0;          // whether a job starts again in a window
  virtual ZRESULT put_UseRestartInterval(zepByte use) = 0;           // 0 or not 0
  // Milliseconds, 1000 to 86400000.
  virtual ZRESULT get_RestartInterval(std::uint32_t* milliseconds) = 0;
  virtual ZRESULT put_RestartInterval(std::uint32_t milliseconds) = 0;  // else ZEP_E_INVALIDARG
  virtual ZRESULT get_UseRepeatInterval(zepByte* use) = 0;              // whether days repeat from the anchor
  virtual ZRESULT put_UseRepeatInterval(zepByte use) = 0;               // 0 or not 0
  // Days, 1 to 9999.
  virtual ZRESULT get_RepeatInterval(std::int32_t* days) = 0;
  virtual ZRESULT put_RepeatInterval(std::int32_t days) = 0;  // else ZEP_E_INVALIDARG
  virtual ZRESULT get_AnchorDate(ZepTime* date) = 0;          // the date from which the repeat counts
  virtual ZRESULT put_AnchorDate(ZepTime date) = 0;           // its local date is kept
  virtual ZRESULT get_Dirty(zepByte* dirty) = 0;              // 1 when changed since it was loaded or saved
  virtual ZRESULT put_Dirty(zepByte dirty) = 0;               // 0 or not 0
  // Day 0 (Sunday) to 6, week 0 (first) to 4 (last). A week above 4 and a day above 7 throw std::out_of_range; day 7
  // can be set, but no date matches it.
  virtual ZRESULT SetDayOfWeek(zepByte day, zepByte week) = 0;
  virtual ZRESULT GetDayOfWeek(zepByte day, zepByte week, zepByte* set) = 0;  // gives 1 or 0
  virtual ZRESULT ClearDayOfWeek(zepByte day, zepByte week) = 0;              // also where it isn't set
  virtual ZRESULT ClearAllDaysOfWeek() = 0;                                   // of all weeks
  virtual ZRESULT IsDayOfWeekSet(zepByte* any) = 0;                           // 1 when one is, in any week
  // Index 0 to 30 is day 1 to 31, index 31 the last day of the month.
  virtual ZRESULT SetDayOfMonth(std::uint16_t index) = 0;
  virtual ZRESULT ClearDayOfMonth(std::uint16_t index) = 0;  // throws std::out_of_range above 31, unless none is set
  virtual ZRESULT ClearDaysOfMonth() = 0;                    // all 32
  virtual ZRESULT GetDaysOfMonthCount(std::uint16_t* count) = 0;               // always 32
  virtual ZRESULT GetDayOfMonth(std::uint16_t index, std::uint16_t* set) = 0;  // 1 or 0; above 31: ZEP_E_INVALIDARG
  virtual ZRESULT SetSpecificDate(std::uint32_t type, ZepTime date) = 0;    // one of ZEP_SPECIFIC_..., else ZEP_E_FAIL
  virtual ZRESULT ClearSpecificDate(std::uint32_t type, ZepTime date) = 0;  // 0, also where it isn't in the set
  virtual ZRESULT ClearSpecificDates(std::uint32_t type) = 0;               // always 0
  virtual ZRESULT GetSpecificDatesCount(std::uint32_t type, std::uint32_t* count) = 0;  // 3 to 10: 0, `count` untouched
  virtual ZRESULT GetSpecificDate(std::uint32_t type, std::uint32_t index, ZepTime* date) = 0;  // index from 0, by date
  virtual ZRESULT get_CustomBitSet(std::uint32_t* bits) = 0;  // kept for the caller, no rule reads it
  virtual ZRESULT put_CustomBitSet(std::uint32_t bits) = 0;   // not dirty by it
  virtual ZRESULT SetCustomString(const char16_t* key, const char16_t* value) = 0;  // null: ZEP_E_POINTER
  virtual ZRESULT ClearCustomStrings() = 0;                                         // all
  virtual ZRESULT GetCustomStringCount(std::uint32_t* count) = 0;                   // of strings
  virtual ZRESULT GetCustomString(const char16_t* key, char16_t** value) = 0;       // a missing key is made, empty
  // Of index 0; without a string ZEP_E_INVALIDARG. Deliberate: any other index gives 0 with nothing written.
  virtual ZRESULT GetCustomStringAt(std::uint32_t index, char16_t** key, char16_t** value) = 0;
  // 1 when the time lies strictly inside a window, else 0; never fails.
  virtual zepByte IsScheduleInTimeWindow(ZepTime reference) = 0;
  virtual ZRESULT Validate() = 0;  // 0; ZEP_SCHED_E_NORUNDAY; ZEP_SCHED_E_RESTARTTOOLONG
  // The first window that opens after `reference`. Anchor and effective date of 0 mean the schedule's own.
  //   nextStart, nextEnd  seconds; -1 when there is none
  //   last                1 when no window follows this one
  //   returns  0; ZEP_S_FALSE when there is none and no restart interval is in use; ZEP_E_FAIL when there is none and
  //            one is; ZEP_E_POINTER; ZEP_E_INVALIDARG with the outs untouched
  virtual ZRESULT GetNextTimeWindow(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart,
                                    ZepTime* nextEnd, zepByte* last) = 0;
  virtual ZRESULT Reset() = 0;  // a full day and no run-day rule; ID and custom data stay
  // 00:00:00.000 to 23:59:59.059.
  virtual ZRESULT SetFullDay() = 0;
  virtual ZRESULT CopyFrom(zepISchedule* source) = 0;  // all but ID and custom strings; null: ZEP_E_POINTER

 protected:
  ~zepISchedule() = default;
};

class zepISchedule2 : public zepISchedule {  // with the rule that gave a window
 public:
  // As GetNextTimeWindow, and which rule gave the day (ZEP_RULE_...).
  virtual ZRESULT GetNextTimeWindowEx(ZepTime anchor, ZepTime effective, ZepTime reference, ZepTime* nextStart,
                                      ZepTime* nextEnd, zepByte* last, std::uint32_t* ruleMatch) = 0;
  // Seconds west of UTC of the machine that a loaded stream comes from: -46800 to 43200, else ZEP_E_FAIL; -1 for no
  // adjustment.
  virtual ZRESULT SetSenderTimeZoneOffset(std::int32_t seconds) = 0;

 protected:
  ~zepISchedule2() = default;
};

// Gives back a string that a getter handed out; null is allowed.
void ZepStringFree(char16_t* text);
