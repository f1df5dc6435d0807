// common/window_search.h: from rules and a reference to the next time window.
//
// All calendar work is done on wall clock values; the zone is asked where two values are compared (through their
// seconds) and where an answer leaves. No search depends on a rule's value to end: repeats and restarts are computed in
// one step, and every loop consumes an excluded date, an include date or a month before the end of 2037.
// Threads: a search is a value on one thread; the rules it looks at must not change while it lives.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "common/schedule_dates.h"
#include "common/zepSchedIUnknown.h"
#include "platform/clock.h"

namespace qx {

// The rules of a schedule as the search sees them. References are borrowed for the life of the search.
struct WindowRules {
  std::int64_t startMs = 0;     // time of day at which a window opens, as presented
  bool startExists = true;      // false: no date can bear that time: below 0, or 24 hours or more
  std::int64_t endMs = 0;       // when it closes, as presented; looked at only for restarts behind midnight
  std::int64_t durationMs = 0;  // length of a window
  bool useEffective = false;
  DayNumber effectiveDay = -1;
  bool useRestart = false;      // with restartMs below 1 it counts as switched off
  std::int64_t restartMs = 0;
  bool useRepeat = false;       // with repeatDays below 1 it counts as switched off
  std::int64_t repeatDays = 0;
  DayNumber anchorDay = -1;
  std::array<std::uint32_t, 5> daysOfWeek{};  // weekday bits of the first, second, third, fourth, last week
  std::uint32_t daysOfMonth = 0;              // bit i is day i + 1, bit 31 the last day
  const DateSet& include;
  const DateSet& exclude;
};

// The next date on or after `day` that the weekday words name; where this month and the next hold none (only bit 7 is
// set), the first of the next month. A negative `day` is the invalid date, which may come out, too, as -1. From a day
// in front of the year 100 the answer is a date of 1901 to 1999.
[[nodiscard]] DayNumber NextWeekdayDate(const std::array<std::uint32_t, 5>& words, DayNumber day);

// The answer of a window query.
struct Window {
  Moment start;
  Moment end;
  bool last = false;
};

// One question's context: the rules and the zone. Cheap to make.
class WindowSearch {
 public:
  explicit WindowSearch(const WindowRules& rules);

  // The wall clock value of an instant; invalid before 1601.
  [[nodiscard]] Moment FromSeconds(ZepTime seconds) const;
  // Seconds of a value; -1 for an invalid one.
  [[nodiscard]] ZepTime ToSeconds(Moment moment) const;
  // A date at the start time.
  [[nodiscard]] Moment AtStart(DayNumber day) const { return At(day, m_rules.startMs, m_rules.startExists); }
  [[nodiscard]] Moment Plus(Moment moment, std::int64_t milliseconds) const;
  [[nodiscard]] static DayNumber DateOf(Moment moment);
  // Comparison as the calendar classes compare: through whole seconds of the instants.
  [[nodiscard]] bool Less(Moment a, Moment b) const;

  // The first window that opens after `ref`.
  //   returns  ZEP_S_OK; ZEP_S_FALSE or ZEP_E_FAIL (a restart interval is in use) when there is none
  //   rule     which rule gave the day; untouched where no run day was searched
  [[nodiscard]] ZRESULT NextTimeWindow(Moment ref, Window& window, std::uint32_t& rule) const;

  // The restart inside the window that holds `ref`; start and end are today's window on entry.
  [[nodiscard]] bool NextRestartTime(Moment ref, Window& window, std::uint32_t& rule) const;
  // The first start + k * interval after `ref`; false when it lies behind the end or on an excluded date.
  [[nodiscard]] bool NextRestartInWindow(Moment ref, Moment& start, Moment end, bool& more) const;
  [[nodiscard]] std::optional<DayNumber> NextRunDay(Moment ref, bool& more, std::uint32_t& rule) const;
  [[nodiscard]] std::optional<DayNumber> NextDayOfMonth(Moment ref) const;
  [[nodiscard]] std::optional<DayNumber> NextIncludeDate(Moment ref, bool& more) const;
  [[nodiscard]] std::optional<DayNumber> NextRepeatDay(Moment ref) const;
  // True when the date offers no more window after `ref`.
  [[nodiscard]] bool IsDayUsedUp(Moment ref, DayNumber day) const;
  [[nodiscard]] bool IsDateNotExcluded(DayNumber day) const { return !m_rules.exclude.Contains(day); }
  // start, start + interval, ...: the first one whose seconds lie after those of `ref`.
  [[nodiscard]] Moment FirstStepAfter(Moment start, Moment ref) const;
  // The moment that a query for "is this time inside a window" searches from.
  [[nodiscard]] Moment InWindowReference(Moment ref) const;

  [[nodiscard]] bool RestartInUse() const { return m_rules.useRestart && m_rules.restartMs > 0; }

 private:
  [[nodiscard]] Moment At(DayNumber day, std::int64_t timeOfDayMs, bool exists) const;
  [[nodiscard]] Moment MoveToEffectiveDate(Moment ref) const;
  [[nodiscard]] DayNumber WeekdayCandidate(Moment ref, DayNumber candidate) const;

  // The stretch of constant offset that holds a wall clock value, kept from one question to the next: most values of
  // one search lie on one.
  struct Stretch {
    std::int64_t beginMs = 0;
    std::int64_t endMs = 0;
    std::int32_t offset = 0;
    [[nodiscard]] bool Holds(std::int64_t wallMs) const { return wallMs >= beginMs && wallMs < endMs; }
  };
  [[nodiscard]] const Stretch& StretchOf(std::int64_t wallMs) const;
  // Whether a date lies behind that of ZEP_MAX_TIME.
  [[nodiscard]] bool IsBehindLimit(DayNumber day) const;
  // Whether a date at a time of day lies before ZEP_MAX_TIME.
  [[nodiscard]] bool IsBeforeLimit(DayNumber day, std::int64_t timeOfDayMs) const;
  [[nodiscard]] bool IsWindowOf(DayNumber day, const Window& window) const;
  [[nodiscard]] Moment Limit() const { return {m_zone.ToWall(ZEP_MAX_TIME) * 1000, true}; }

  const WindowRules& m_rules;
  const platform::Zone& m_zone;
  mutable Stretch m_stretch;
  // A date known to offer a window after a moment: that of the restart just found.
  mutable DayNumber m_openDay = -1;
  mutable std::int64_t m_openRefMs = 0;
};

}  // namespace qx
