// foundation/include/zfcdatetime.h: CDateTime, an instant held as a FILETIME.
//
// The value is always UTC and zero when invalid; the local flag says how fields are presented and accepted, by the
// offset in force now whatever the instant. The day number and milliseconds of the two bases are not kept in step with
// it. A set operation that fails returns false and makes the value invalid.
// Threads: a value belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <ctime>
#include <iosfwd>

#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcexport.h"
#include "foundation/include/zfctime.h"
#include "foundation/include/zfctimespan.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // never deleted through a base

class CDateTime : public CDate, public WTime {  // a date with a time of day
 public:
  // An invalid value.
  CDateTime() = default;
  // `local` holds for the argument alone: a new value is presented as local time. What can't be converted is invalid.
  CDateTime(const SYSTEMTIME& time, bool local);
  CDateTime(FILETIME time, bool local);
  CDateTime(double date, bool local);
  // The fields of both as local time.
  CDateTime(const CDate& date, const WTime& time);
  CDateTime(const CDateTime&) = default;
  CDateTime& operator=(const CDateTime& other);

  // Of both bases.
  bool IsValid() const override;
  void Invalidate() override;
  bool GetDate(int* year, int* month, int* day) const override;  // as GetDateTime()
  EDAYOFWEEK GetDayOfWeek() const override;
  // Seconds since 1970 of the local fields, converted twice, the second time with the daylight flag of the first;
  // -1 when there are none.
  std::int64_t AsANSITime() const override;
  // The presented fields with the daylight flag they have as local time; null when `out` is, or when there are none.
  std::tm* AsANSICalendarTime(std::tm* out) const override;
  // The present instant. The first sets the local flag, the second clears it.
  void SetToSystemCurrent() override;
  void SetToUtcCurrent() override;
  // Keeps the time of day. No field is carried and no year is moved: what doesn't exist is refused.
  bool SetDate(int year, int month, int day) override;
  // An invalid value stays as it is; one whose fields are all zero, which have no date, becomes invalid.
  // Deliberate: days are borrowed from no month, a day of 0 or below makes the value invalid.
  void IncrementDay(int days) override;
  bool GetTime(int* hour, int* minute, int* second, int* millisecond) const override;  // as GetDateTime()
  // Keeps the date; an invalid value stays invalid.
  bool SetTime(int hour, int minute, int second, int millisecond) override;
  using WTime::SetTime;
  void IncrementHour(int hours) override;
  // The OLE date of the presented fields, 0.0 when there is none.
  double AsOLEDATE() const override;

  virtual void RewriteMilliSecond();
  // The fields, local or UTC; all zero when they have no calendar form.
  virtual SYSTEMTIME AsSystemTime(bool local) const;
  // The value, local or UTC; zero when it has no local form.
  virtual FILETIME AsFileTime(bool local) const;
  // The presented fields; pointers may be null. An invalid value returns false and writes nothing.
  virtual bool GetDateTime(int* year, int* month, int* day, int* hour, int* minute, int* second,
                           int* millisecond) const;
  virtual bool SetDateTime(const std::tm& time);
  // The local or UTC fields of an instant, by the local flag. Before 1601 or behind 30827 it has none.
  virtual bool SetDateTime(const std::int64_t& seconds);
  // Deliberate: each field is cut to 16 bits before it is looked at; nothing carries.
  virtual bool SetDateTime(int year, int month, int day, int hour, int minute, int second, int millisecond);
  // An instant to the second, whatever the local flag.
  virtual bool SetFromANSITime(std::int64_t seconds);
  // Milliseconds of the presented fields since 1 January of year 1, and back.
  virtual std::uint64_t AsTotalMilliSeconds() const;
  virtual bool SetFromTotalMilliSeconds(std::uint64_t milliseconds);
  // The form of CDate, one blank, the form of WTime.
  //   text  room for 64 bytes, written with its NUL
  virtual void PrintDateTime(char* text) const;
  virtual void PrintDateTime(std::ostream& stream) const;
  // CDate::Read(), then WTime::Read().
  virtual void ReadDateTime(std::istream& stream);
  // Low half, then high half, as 32-bit integers; a stream that fails leaves the value as it was. BinaryOut() and
  // BinaryIn() of the bases don't carry the value.
  virtual void BinaryOutDateTime(bostream& stream) const;
  virtual void BinaryInDateTime(bistream& stream);

  // Whole milliseconds between two values.
  WTimeSpan operator-(const CDateTime& other) const;
  // The results are presented as local time; whether they are valid isn't looked at.
  CDateTime operator+(const WTimeSpan& span) const;
  CDateTime operator-(const WTimeSpan& span) const;
  // Deliberate: both set the local flag.
  CDateTime& operator+=(const WTimeSpan& span);
  CDateTime& operator-=(const WTimeSpan& span);

  // By whole seconds, AsANSITime() of both as local values.
  // Deliberate: two values within one second are equal.
  bool operator==(const CDateTime& other) const;
  bool operator!=(const CDateTime& other) const { return !(*this == other); }
  bool operator<(const CDateTime& other) const;
  bool operator>=(const CDateTime& other) const { return !(*this < other); }
  bool operator<=(const CDateTime& other) const;
  bool operator>(const CDateTime& other) const { return !(*this <= other); }

 protected:
  void CarryHour(int days) override;

 private:
  [[nodiscard]] CDateTime Moved(const WTimeSpan& span, bool back) const;

  FILETIME m_fileTime;
};

#pragma GCC diagnostic pop

}  // namespace ZepFoundation
