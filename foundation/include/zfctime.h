// foundation/include/zfctime.h: WTime, a time of day held in milliseconds since midnight UTC.
//
// The local flag says how the value is presented and accepted, not what is stored; a new value has it set. Local time
// here is standard time: the bias of the present year without daylight saving. -1 is an invalid time; other negative
// values are legal. A set operation that fails returns false and makes the time invalid.
// Threads: a value belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <ctime>
#include <iosfwd>

#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcexport.h"
#include "foundation/include/zfctimespan.h"
#include "platform/clock.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

// Carries upward in place: milliseconds to seconds, seconds to minutes, minutes to hours; hours are reduced modulo 24
// and the whole days returned. Negative fields are left alone.
std::int64_t NormalizeTimeFields(std::int64_t& hour, std::int64_t& minute, std::int64_t& second,
                                 std::int64_t& millisecond);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // never deleted through a base

class WTime {  // a time of day
 public:
  // The present time of day, or midnight UTC.
  explicit WTime(QTM_INITIAL_VALUE initial = QTM_FIXED);
  // The time fields of the argument, taken as local time when `local`; the new value is presented as local time in
  // any case. From FILETIME: its UTC fields; zero gives an invalid time.
  WTime(const SYSTEMTIME& time, bool local);
  WTime(FILETIME time, bool local);
  WTime(double date, bool local);
  WTime(const WTime&) = default;
  // Takes the local flag and then the presented fields.
  // Deliberate: an invalid time has all fields 0 and arrives as a valid one, also where it is assigned to itself.
  WTime& operator=(const WTime& other);

  virtual bool IsValid() const;
  virtual void Invalidate();
  virtual void SetUTC();
  virtual void SetLocal();
  virtual bool IsLocal() const;
  // The fields as presented; pointers may be null. An invalid time returns false and writes nothing.
  // Deliberate: nothing is reduced at the top, east of Greenwich the hour may be 24 or more.
  virtual bool GetTime(int* hour, int* minute, int* second, int* millisecond) const;
  // 0 for an invalid time.
  virtual int GetHour() const;
  virtual int GetMinute() const;
  virtual int GetSecond() const;
  virtual int GetMilliSecond() const;
  // Seconds since 1970 of this time of day on the present date; the fields of an invalid time are those of the present.
  virtual std::int64_t AsANSITime() const;
  // The breakdown of the present with this time of day, in `out`, which is returned; null when `out` is.
  virtual std::tm* AsANSICalendarTime(std::tm* out) const;
  // Deliberate: today's UTC date with this time of day, not a bare fraction of a day.
  virtual double AsOLEDATE() const;
  // The presented fields as milliseconds: taken modulo one day, given as PresentedMilliseconds() gives them.
  virtual void SetFromMilliSeconds(std::uint64_t milliseconds);
  virtual std::uint64_t AsMilliSeconds() const;
  // The present time of day. The first sets the local flag, the second clears it.
  virtual void SetToSystemCurrent();
  virtual void SetToUtcCurrent();
  // False, and invalid, for a negative field; fields above their range carry, whole days are dropped.
  // Deliberate: the first millisecond before midnight UTC is stored as -1 and so invalid, where the zone leads there.
  virtual bool SetTime(int hour, int minute, int second, int millisecond);
  virtual bool SetHour(int hour);
  virtual bool SetMinute(int minute);
  virtual bool SetSecond(int second);
  virtual bool SetMilliSecond(int millisecond);
  // A sum below zero makes the time invalid.
  virtual void IncrementHour(int hours);
  virtual void IncrementMinute(int minutes);
  virtual void IncrementSecond(int seconds);
  virtual void IncrementMilliSecond(int milliseconds);
  // The presented time as in "1:04:05 PM"; "-0:00:00 XX" for an invalid one, "-0:00:00 ZZ" for an hour above 23.
  //   text  room for 16 bytes, written with its NUL
  virtual void Print(char* text) const;
  virtual void Print(std::ostream& stream) const;
  // Hour, minute, second, millisecond in decimal with one character between them that isn't looked at, then up to two
  // characters: "AM" makes hour 12 into 0, "PM" adds 12 to any other hour, all else does nothing. Not the form printed.
  // A stream that fails leaves the time as it was.
  virtual void Read(std::istream& stream);
  // The stored milliseconds as one 32-bit integer, without the local flag; a stream that fails leaves the time as it
  // was.
  virtual void BinaryOut(bostream& stream) const;
  virtual void BinaryIn(bistream& stream);

 protected:
  // Takes whole days that an increment carried: a plain time drops them.
  virtual void CarryHour(int days);

 public:
  // The presented fields as one number of milliseconds: a day and more where GetTime() gives an hour of 24 or more; 0
  // for an invalid time.
  [[nodiscard]] std::int64_t PresentedMilliseconds() const;
  // The same by a bias that was asked for before: Zep_TimeZoneOffsetInSeconds().
  [[nodiscard]] std::int64_t PresentedMilliseconds(std::int32_t standardBias) const;

  // Hour, minute and second of the breakdown, milliseconds 0.
  bool SetTime(const std::tm& time);
  // The local or UTC time of day of an instant, by the local flag; false when it has no breakdown.
  bool SetTime(const std::int64_t& seconds);

  WTime& operator+=(const WTimeSpan& span);
  WTime& operator-=(const WTimeSpan& span);
  WTime operator+(const WTimeSpan& span) const;
  WTime operator-(const WTimeSpan& span) const;
  // Deliberate: a negative difference keeps the wrapped 64-bit magnitude, not its absolute value.
  WTimeSpan operator-(const WTime& other) const;

  // On the presented fields.
  bool operator==(const WTime& other) const;
  bool operator<(const WTime& other) const;

 protected:
  // Adds `amount` to the field of this index: hour, minute, second, millisecond.
  void IncrementField(int field, int amount);

  std::int32_t m_milliseconds = 0;
  std::uint8_t m_local = 1;
};

#pragma GCC diagnostic pop

}  // namespace ZepFoundation
