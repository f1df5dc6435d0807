// client/calendar.h: the windows of any number of schedules, day by day, for a month or a year.
//
// The rules library gives every window; what lies between two of its answers is only counted where the library has
// confirmed both ends of a run of restarts. Days are those of the local clock in the zone of the process, which must
// not change while a builder lives. What is kept doesn't grow with the schedules beyond their names: of each day the
// counts and the earliest entries. Threads: a builder on one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "interface/records.h"
#include "platform/clock.h"

namespace qx {

// The years that have a calendar: the rules know no window behind 2037.
inline constexpr int kFirstCalendarYear = 1970;
inline constexpr int kLastCalendarYear = 2037;

// A month or a whole year.
struct CalendarSpan {
  int year = 0;
  int month = 0;                                // 1 to 12; 0: the whole year
  [[nodiscard]] std::int64_t FirstDay() const;  // days since 1970-01-01
  [[nodiscard]] std::int64_t LastDay() const;
};
// "2026-11" and "2026"; nothing for any other text and for years without a calendar.
[[nodiscard]] std::optional<CalendarSpan> ParseCalendarMonth(std::string_view text);
[[nodiscard]] std::optional<CalendarSpan> ParseCalendarYear(std::string_view text);
// The month of an instant, the nearest one that has a calendar.
[[nodiscard]] CalendarSpan CalendarMonthOf(std::int64_t seconds, const platform::Zone& zone);

// What one schedule does from one moment of a day on: a window that opens with the restarts in it up to midnight, or
// the restarts behind midnight of a window of the day before.
struct CalendarEntry {
  std::int64_t start = 0;      // seconds: of the window, or of the first restart
  std::int64_t end = 0;        // seconds: of the window
  std::uint32_t schedule = 0;  // index of Calendar::schedules
  std::uint32_t rule = 0;      // ZEP_RULE_... that gave the day of the window, 0 for the repeat rule alone
  std::string reason;          // the same in words: "every fri, last day"
  std::uint32_t restarts = 0;
  bool opens = false;           // the window opens here
  bool behindMidnight = false;  // of a window of the day before
  bool last = false;            // nothing of the schedule follows this entry
};

// A date that a schedule would run on were it not excluded.
struct CalendarExclusion {
  std::uint32_t schedule = 0;
  std::string reason;  // the rules that would give the day
};

struct CalendarDay {
  std::int64_t day = 0;        // since 1970-01-01
  std::uint64_t windows = 0;   // that open
  std::uint64_t restarts = 0;  // all, also those of windows of the day before
  std::uint64_t excluded = 0;  // schedules that would run
  // Windows that are open at some time of each hour of the local clock; an hour that comes twice counts as one.
  std::array<std::uint32_t, 24> open{};
  bool change = false;                 // the zone changes its offset on this date
  std::int32_t changeSeconds = 0;      // by how much, where it is this date that loses (above 0) or repeats a time
  std::int32_t changeAt = 0;           // and at what time of day by the clock that ends, in seconds, up to 86400
  std::vector<CalendarEntry> entries;  // the earliest, in order of start, then of schedule
  std::vector<CalendarExclusion> exclusions;  // the first, in order of schedule
  std::uint64_t allEntries = 0;               // also those that aren't kept
};

struct CalendarSchedule {
  std::string name;  // as it came
  std::uint64_t windows = 0;
  std::uint64_t restarts = 0;
  std::uint64_t excluded = 0;
};

struct Calendar {
  CalendarSpan span;
  std::string zone;        // its name
  std::int64_t now = 0;    // seconds, when it was made
  std::int64_t today = 0;  // the local day of `now`
  std::vector<CalendarDay> days;
  std::vector<CalendarSchedule> schedules;
  std::uint64_t windows = 0;
  std::uint64_t restarts = 0;
  std::uint64_t excluded = 0;
  std::uint64_t mostOnADay = 0;  // windows
};

class CalendarBuilder {
 public:
  // `now` in seconds; `kept`: entries and exclusions kept of each day, at least 1.
  CalendarBuilder(CalendarSpan span, std::int64_t now, std::size_t kept);

  // Takes a schedule in.
  //   returns  0, or the refusal of its rules: nothing of it is in the calendar then. Rules in the past are no refusal.
  [[nodiscard]] Status Add(std::string name, const SCHEDULE_OBJECT& record);

  // The calendar; the builder is used up.
  [[nodiscard]] Calendar Finish();

 private:
  void MarkChanges();
  CalendarDay* DayOf(std::int64_t day);
  void Keep(const CalendarEntry& entry, std::int64_t day, const SCHEDULE_RULE& rules);
  void CountOpen(std::int64_t start, std::int64_t end);

  const platform::Zone& m_zone;
  std::size_t m_kept;
  std::int64_t m_first;
  std::int64_t m_begin;  // seconds: the span is [m_begin, m_behind)
  std::int64_t m_behind;
  std::vector<std::int64_t> m_openChange;  // by hour of the span: how many more are open than in the hour before
  Calendar m_calendar;
};

// The hour of the day in which most windows are open, the first of equals; nothing where none is open.
[[nodiscard]] std::optional<int> BusiestHour(const CalendarDay& day);

// How full a day is, for a colour: 0 for nothing on it, else 1 to 4, the quarter of the fullest day's windows into
// which its own fall; where no day has more than 4, each counts. Restarts alone are 1.
inline constexpr int kMostDensity = 4;
[[nodiscard]] int DensityOf(const CalendarDay& day, const Calendar& calendar);
// The most windows that a day of a density, 1 to kMostDensity, can have.
[[nodiscard]] std::uint64_t MostOfDensity(int density, const Calendar& calendar);

// "clock goes forward 1h at 02:00", "clock changes" where the date only touches a change; empty for other days.
[[nodiscard]] std::string ChangeText(const CalendarDay& day);

// The column of a day since 1970-01-01 in a week that begins on Monday: 0 to 6.
[[nodiscard]] std::size_t WeekColumn(std::int64_t day);

// "November 2026", "2026".
[[nodiscard]] std::string SpanTitle(const CalendarSpan& span);
[[nodiscard]] const char* MonthName(int month);  // 1 to 12, in English

}  // namespace qx
