// common/schedule_dates.h: sets of dates, and the small conversions between dates, times of day and seconds.
//
// A date is held as a day number: 0 is 1 January of year 1 in the proleptic Gregorian calendar, as in
// ZepFoundation::CDate. Threads: values; one thread at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/zepSchedIUnknown.h"

namespace ZepFoundation {
class CDate;
class CDateTime;
class WTime;
}  // namespace ZepFoundation

namespace qx {

using DayNumber = std::int64_t;

// 1970-01-01 as a day number.
inline constexpr DayNumber kEpochDay = 719162;
inline constexpr std::int64_t kSecondsPerDay = 86400;
inline constexpr std::int64_t kMillisecondsPerDay = 86400000;

// An ordered set of dates. A value without a calendar form (a negative day number) counts as absent in every search.
class DateSet {
 public:
  // Inserts a date; false when it is there already.
  bool Insert(std::int32_t day) {
    const auto at = std::lower_bound(m_days.begin(), m_days.end(), day);
    if (at != m_days.end() && *at == day) return false;
    m_days.insert(at, day);
    return true;
  }
  // Takes a date out; false when it isn't there.
  bool Erase(std::int32_t day) {
    const auto at = std::lower_bound(m_days.begin(), m_days.end(), day);
    if (at == m_days.end() || *at != day) return false;
    m_days.erase(at);
    return true;
  }
  void Clear() { m_days.clear(); }
  [[nodiscard]] bool Contains(DayNumber day) const {
    const auto at = std::lower_bound(m_days.begin(), m_days.end(), day);
    return at != m_days.end() && *at == day;
  }
  [[nodiscard]] bool Empty() const { return m_days.empty(); }
  [[nodiscard]] std::size_t Size() const { return m_days.size(); }
  // The dates in order.
  [[nodiscard]] const std::vector<std::int32_t>& Days() const { return m_days; }
  friend bool operator==(const DateSet&, const DateSet&) = default;

 private:
  std::vector<std::int32_t> m_days;
};

// A calendar value as local date and time of day; invalid where the calendar classes would be.
struct Moment {
  std::int64_t wallMs = 0;  // milliseconds since 1970-01-01T00:00 on the wall clock
  bool valid = false;
};

// Between day numbers and dates; a negative number is the invalid date, which is -1.
[[nodiscard]] ZepFoundation::CDate DateFromDay(DayNumber day);
[[nodiscard]] DayNumber DayFromDate(const ZepFoundation::CDate& date);

// Between a calendar value and what the search works on, by the offset in force now, as the calendar classes do.
[[nodiscard]] Moment MomentFromDateTime(const ZepFoundation::CDateTime& value);
[[nodiscard]] ZepFoundation::CDateTime DateTimeFromMoment(Moment moment);

// The local date of an instant; -1 when the instant has no date that the calendar classes can hold.
[[nodiscard]] std::int32_t LocalDayOf(ZepTime seconds);

// Local midnight of a date, in seconds.
[[nodiscard]] ZepTime SecondsOfDay(std::int32_t day);

// A time of day as seconds on today's date; when the local clock leaves that time out today, on the nearest earlier
// date on which it exists. So a start inside a gap survives a save and a read on the day of change.
[[nodiscard]] ZepTime SecondsOfTimeOfDay(const ZepFoundation::WTime& time);

}  // namespace qx
