// platform/clock.h: the only source of now, and of what the zone says.
//
// Instants are seconds since 1970-01-01T00:00:00 UTC in 64 bits ("seconds"). A wall clock value is written as the
// seconds that the same calendar fields would have in UTC ("wall seconds"), so that calendar arithmetic is plain
// integer arithmetic and only a Zone converts between the two.
// Threads: every function may be called from any thread. A Zone never changes; a change of the zone swaps the table
// that CurrentZone() gives, and tables that were given out live to the end of the process.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// 100-nanosecond ticks since 1601-01-01T00:00:00 UTC in two halves, low first (the FILETIME record of winbase.h).
struct FILETIME {
  std::uint32_t dwLowDateTime = 0;
  std::uint32_t dwHighDateTime = 0;
  friend bool operator==(const FILETIME&, const FILETIME&) = default;
};

// Calendar fields (the SYSTEMTIME record of winbase.h). Month 1 to 12, day of week 0 (Sunday) to 6.
struct SYSTEMTIME {
  std::uint16_t wYear = 0;
  std::uint16_t wMonth = 0;
  std::uint16_t wDayOfWeek = 0;
  std::uint16_t wDay = 0;
  std::uint16_t wHour = 0;
  std::uint16_t wMinute = 0;
  std::uint16_t wSecond = 0;
  std::uint16_t wMilliseconds = 0;
  friend bool operator==(const SYSTEMTIME&, const SYSTEMTIME&) = default;
};

[[nodiscard]] constexpr std::uint64_t TicksFromFileTime(FILETIME ft) {
  return (std::uint64_t{ft.dwHighDateTime} << 32) | ft.dwLowDateTime;
}
[[nodiscard]] constexpr FILETIME FileTimeFromTicks(std::uint64_t ticks) {
  return {static_cast<std::uint32_t>(ticks), static_cast<std::uint32_t>(ticks >> 32)};
}
inline constexpr std::int64_t kTicksPerSecond = 10'000'000;
inline constexpr std::int64_t kTicksPerMillisecond = 10'000;
inline constexpr std::int64_t kEpochDistanceSeconds = 11'644'473'600;  // 1601-01-01 to 1970-01-01

// Wall clock and instants of one zone: an immutable table of the changes of offset from 1901 to 2039, sampled from the
// C library; outside the table the C library is asked.
class Zone {
 public:
  // A stretch of wall clock time on which the conversion to seconds is one subtraction: seconds = wall - offset.
  // Two neighbours may have one offset: stretches outside the table are cut to a few days.
  struct WallStretch {
    std::int64_t begin;   // first wall second of the stretch, INT64_MIN for the first one
    std::int64_t end;     // first wall second behind it, INT64_MAX for the last one
    std::int32_t offset;  // seconds to subtract
  };

  // The zone that a TZ text names, read as the C library reads TZ; an unknown or empty text is UTC. Not for a running
  // service: the process-wide zone of the C library is changed for the time of the call, under a lock of this file.
  [[nodiscard]] static Zone FromTz(const std::string& tz);

  // Seconds east of UTC at an instant, and whether daylight saving is in force.
  [[nodiscard]] std::int32_t OffsetAt(std::int64_t seconds) const;
  [[nodiscard]] bool IsDaylight(std::int64_t seconds) const;

  // Seconds to wall seconds.
  [[nodiscard]] std::int64_t ToWall(std::int64_t seconds) const { return seconds + OffsetAt(seconds); }

  // Wall seconds to seconds: one stateless function. A value that exists once gives that instant, whatever `isDst`
  // says. In a gap it moves forward by the gap's length; in an overlap it is the later instant, unless isDst is 1 and
  // only the earlier one is daylight saving time. So a conversion with the flag that a first one has learned gives the
  // same instant again, also where winter time bears the flag.
  //   isDst  as tm_isdst: 1, 0 or -1 for unknown
  [[nodiscard]] std::int64_t ToSeconds(std::int64_t wall, int isDst = -1) const {
    return isDst > 0 ? ToSecondsOfDaylight(wall) : wall - StretchAt(wall).offset;
  }

  // The stretch that holds `wall`, by the conversion without a flag. Neighbours follow through `end` and `begin`.
  [[nodiscard]] WallStretch StretchAt(std::int64_t wall) const;

  // UTC minus the zone's standard time of the year that holds `nowSeconds`, in seconds: positive west of Greenwich.
  // Where the year has several standard times, the one in force at that instant or next to it; where it has none, the
  // offset in force.
  [[nodiscard]] std::int32_t StandardBias(std::int64_t nowSeconds) const;
  // Up to this instant StandardBias() is what it is at `nowSeconds`: the next change or the end of the local year, if
  // the table knows of them, else the next second.
  [[nodiscard]] std::int64_t StandardBiasEnd(std::int64_t nowSeconds) const;

  // One change of offset.
  struct Change {
    std::int64_t at;  // first instant with the new offset
    std::int32_t offsetBefore;
    std::int32_t offsetAfter;
    bool daylightBefore;
    bool daylightAfter;
    friend bool operator==(const Change&, const Change&) = default;
  };
  // All changes of the table in order of time.
  [[nodiscard]] std::span<const Change> Changes() const { return m_changes; }

  // The text of TZ that this table was made for ("UTC" for an empty one); empty for the system's zone file.
  [[nodiscard]] const std::string& Name() const { return m_name; }

 private:
  [[nodiscard]] std::int64_t ToSecondsOfDaylight(std::int64_t wall) const;
  friend class ZoneLoader;
  [[nodiscard]] std::size_t FirstChangeAfter(std::int64_t seconds) const;

  std::string m_name;
  std::vector<Change> m_changes;
  std::vector<WallStretch> m_stretches;
  std::vector<std::uint16_t> m_changeIndex;   // by 2^20 seconds of instants: the first change behind the slot's begin
  std::vector<std::uint16_t> m_stretchIndex;  // the same slots of wall seconds: the stretch that holds the begin
  std::int32_t m_firstOffset = 0;
  bool m_firstDaylight = false;
};

// The zone in force: TZ when set, else the system's zone file. One atomic load.
[[nodiscard]] const Zone& CurrentZone();

// A text for the zone in force that TZ takes: TZ itself when set; else the zone's name in the zone data base, as
// "Europe/Berlin", read from where the system's zone file points to; ":/etc/localtime" for a file of its own, "UTC"
// without one.
[[nodiscard]] std::string CurrentZoneName();

// Reads the zone anew and swaps the table; true when the rules differ from those before.
bool ReloadZone();

// The told pair of calls on a change of zone. A text without "=" is refused and changes nothing, here as on the
// described system, and so is one that begins with it; NAME=VALUE sets the variable, NAME= removes it. Returns 0, or -1
// when refused. Reads nothing anew: TzSet() does.
int PutEnvironment(const char* text);
// Has the C library and CurrentZone() look at the zone again.
void TzSet();

// Now.
[[nodiscard]] std::int64_t NowSeconds();
struct WallClockReading {  // the wall clock in one look
  std::int64_t seconds;        // since 1970, UTC
  std::uint32_t milliseconds;  // 0 to 999
  // Where the steady clock stood when that millisecond began, in nanoseconds: a wait that counts from here ends on the
  // millisecond and not up to one behind it. 0 under an installed ClockSource.
  std::int64_t steadyNanoseconds = 0;
};
[[nodiscard]] WallClockReading NowWithMilliseconds();
// Milliseconds of the steady clock, low 32 bits: wraps after 49.7 days. Never set by anybody.
[[nodiscard]] std::uint32_t TickCount();
[[nodiscard]] FILETIME SystemTimeAsFileTime();
[[nodiscard]] SYSTEMTIME SystemTimeNow();  // UTC
[[nodiscard]] SYSTEMTIME LocalTimeNow();

// The bias fields that the zone information call gives: minutes that are added to local time to give UTC.
struct TimeZoneInformation {
  std::int32_t bias;  // standard bias of the present year, in minutes, cut towards zero
};
[[nodiscard]] TimeZoneInformation GetTimeZoneInformation();
// Seconds east of UTC at the present moment.
[[nodiscard]] std::int32_t OffsetInForceNow();

// Conversions, by the recorded behaviour of the platform calls of the same names; false leaves the out value untouched.
// The file time pair between local and UTC applies the offset in force now to any instant.
[[nodiscard]] bool SystemTimeToFileTime(const SYSTEMTIME& in, FILETIME& out);
[[nodiscard]] bool FileTimeToSystemTime(FILETIME in, SYSTEMTIME& out);
[[nodiscard]] bool FileTimeToLocalFileTime(FILETIME in, FILETIME& out);
[[nodiscard]] bool LocalFileTimeToFileTime(FILETIME in, FILETIME& out);
// -1, 0 or 1 as `a` is earlier, equal or later.
[[nodiscard]] int CompareFileTime(FILETIME a, FILETIME b);
// OLE dates: days since 1899-12-30, the fraction the time of day; rounded to whole seconds; negative ones run days down
// and time up.
[[nodiscard]] bool VariantTimeToSystemTime(double in, SYSTEMTIME& out);
[[nodiscard]] bool SystemTimeToVariantTime(const SYSTEMTIME& in, double& out);
// The user default's text of a time of day, as in "3:04:05 PM"; false for fields out of range.
[[nodiscard]] bool TimeText(int hour, int minute, int second, std::string& out);

// Breakdown of an instant, local or UTC, as the host's localtime_r and gmtime_r, but without a zone name; false when
// the year has no int.
[[nodiscard]] bool LocalBreakdown(std::int64_t seconds, std::tm& out);
[[nodiscard]] bool UtcBreakdown(std::int64_t seconds, std::tm& out);
// Calendar fields to seconds by Zone::ToSeconds of the current zone, fields out of range carried as mktime does; fills
// tm_wday, tm_yday and tm_isdst, and the carried fields. Returns false when the result has no 64-bit value.
[[nodiscard]] bool SecondsFromLocal(std::tm& inOut, std::int64_t& seconds);

// Days since 1970-01-01 of a proleptic Gregorian date, and back. Any year of 32 bits.
[[nodiscard]] constexpr std::int64_t DaysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}
struct CivilDate {  // a date of the calendar, proleptic Gregorian
  std::int64_t year;
  int month;
  int day;
};
[[nodiscard]] constexpr CivilDate CivilFromDays(std::int64_t days) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int monthIndex = static_cast<int>((5 * dayOfYear + 2) / 153);
  const int day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
  const int month = monthIndex + (monthIndex < 10 ? 3 : -9);
  return {yearOfEra + era * 400 + (month <= 2), month, day};
}

// What tests put in the place of the system's clock: while installed, all of now comes from it and waits consume its
// time (event.h). The functions are called from any thread.
class ClockSource {
 public:
  virtual ~ClockSource() = default;
  // Nanoseconds since 1970 of the wall clock.
  virtual std::int64_t WallNanoseconds() = 0;
  // Milliseconds of the steady clock.
  virtual std::uint64_t SteadyMilliseconds() = 0;
  // Consumes at most `milliseconds` of time; true when the clock took the wait, false for a wait in real time.
  virtual bool ConsumeWait(std::uint64_t milliseconds) = 0;
};
// Installs a source for the whole process, null for the system's clock. Only tests call this.
void InstallClockSource(ClockSource* source);
[[nodiscard]] ClockSource* InstalledClockSource();

}  // namespace platform
