// foundation/include/zfcdate.h: CDate, a calendar date held as a day number.
//
// Day 0 is 1 January of year 1 in the proleptic Gregorian calendar, -1 an invalid date. A set operation that fails
// returns false and makes the date invalid. GetDate() doesn't look at validity.
// Threads: a value belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <ctime>
#include <iosfwd>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfctimespan.h"
#include "platform/clock.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

using platform::FILETIME;
using platform::SYSTEMTIME;

// What a new value starts from: the present (0), or a fixed value.
enum QTM_INITIAL_VALUE : std::int32_t { QTM_CURRENT = 0, QTM_FIXED = 1 };

enum EDAYOFWEEK : std::int32_t {
  EDOW_SUNDAY,
  EDOW_MONDAY,
  EDOW_TUESDAY,
  EDOW_WEDNESDAY,
  EDOW_THURSDAY,
  EDOW_FRIDAY,
  EDOW_SATURDAY,
};

inline constexpr std::int64_t kMillisecondsOfADay = 86'400'000;

// Divisible by 4 and not by 100, or by 400.
[[nodiscard]] constexpr bool IsLeapYearValue(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }
// Days of a month by leap flag and month; entry 0 is 0.
inline constexpr int DaysInMonthTable[2][13] = {{0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
                                                {0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31}};
// Days before a month by leap flag and month.
inline constexpr int CumulativeDaysTable[2][13] = {{0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
                                                   {0, 0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335}};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // never deleted through a base

class CDate {  // a date of the calendar
 public:
  // The present local date, or 1 January 1980.
  explicit CDate(QTM_INITIAL_VALUE initial = QTM_FIXED);
  // Invalid when the fields have no date.
  explicit CDate(const SYSTEMTIME& time);
  // The local date by the offset in force now; invalid for zero and for what can't be converted.
  explicit CDate(FILETIME time);
  // The date of an OLE date; invalid when it can't be converted.
  explicit CDate(double date);

  virtual bool IsValid() const;
  virtual void Invalidate();
  // The fields; the pointers must not be null. Always true: an invalid date gives a meaningless result.
  virtual bool GetDate(int* year, int* month, int* day) const;
  virtual int GetYear() const;
  virtual int GetMonth() const;
  virtual int GetDay() const;
  virtual EDAYOFWEEK GetDayOfWeek() const;
  virtual int GetDaysInMonth() const;
  // Day of the week of the first of the month.
  virtual EDAYOFWEEK GetMonthStartDay() const;
  // Weeks that the month touches, Sunday first.
  // Deliberate: a 30-day month has six weeks when it starts on a Friday, and five when on a Saturday.
  virtual int GetWeeksInMonth() const;
  virtual bool IsLeapYear() const;
  // Seconds since 1970 of local midnight; in a gap at midnight the instant behind it.
  virtual std::int64_t AsANSITime() const;
  // That instant broken down into `out`, which is returned; null when it can't be, or when `out` is null.
  virtual std::tm* AsANSICalendarTime(std::tm* out) const;
  // 0.0 when the date has none.
  virtual double AsOLEDATE() const;
  // The present date, local and UTC.
  virtual void SetToSystemCurrent();
  virtual void SetToUtcCurrent();
  // False, and invalid, for a year below 0 and a month or day that doesn't exist.
  // Deliberate: years 0 to 99 have 1900 added, so that year 1 becomes 1901.
  virtual bool SetDate(int year, int month, int day);
  // 29 February becomes the 28th where the year has none; else as SetDate().
  virtual bool SetYear(int year);
  // Clamps to 1 to 12, and the day to the new month's length.
  virtual bool SetMonth(int month);
  // Clamps to the month's days.
  virtual bool SetDay(int day);
  // Deliberate: a sum below 1 becomes year 1, which SetDate() takes as 1901.
  virtual void IncrementYear(int years);
  // The day is clamped to the new month's length.
  virtual void IncrementMonth(int months);
  // Adds to the day number, whatever comes of it: an invalid date is moved too.
  virtual void IncrementDay(int days);
  // Month, day and year in decimal with "/" between them, without padding. The stream is left at decimal base.
  virtual void Print(std::ostream& stream) const;
  // Integer, character, integer, character, integer as month, day, year; the characters aren't looked at. A stream that
  // fails leaves the date as it was.
  virtual void Read(std::istream& stream);
  // The day number as one 32-bit integer; a stream that fails leaves the date as it was.
  virtual void BinaryOut(bostream& stream) const;
  virtual void BinaryIn(bistream& stream);
  // The day number in milliseconds, as a signed value in 64 bits.
  virtual void SetFromMilliSeconds(std::uint64_t milliseconds);
  virtual std::uint64_t AsMilliSeconds() const;

  //   text  room for 40 bytes, written with its NUL
  void Print(char* text) const;

  // Deliberate: two equal dates give a zero span with its negative flag set.
  WTimeSpan operator-(const CDate& other) const;
  // By whole days of the span.
  CDate operator+(const WTimeSpan& span) const;
  CDate operator-(const WTimeSpan& span) const;

  // By year, month and day.
  bool operator==(const CDate& other) const;
  bool operator!=(const CDate& other) const { return !(*this == other); }
  bool operator<(const CDate& other) const;
  bool operator>(const CDate& other) const { return other < *this; }
  bool operator<=(const CDate& other) const { return !(other < *this); }
  bool operator>=(const CDate& other) const { return !(*this < other); }

 protected:
  std::int32_t m_days;
};

#pragma GCC diagnostic pop

}  // namespace ZepFoundation
