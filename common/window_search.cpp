#include "common/window_search.h"

#include <bit>

#include "foundation/include/zfcdate.h"

namespace qx {
namespace {

// 1601-01-01: the calendar classes hold nothing before it, and its first tick marks an invalid value.
constexpr std::int64_t kFirstTickMs = -platform::kEpochDistanceSeconds * 1000;
// The change of offset in one place is below a day, so values this far apart compare as their wall clocks do.
constexpr std::int64_t kFarApartMs = 3 * kMillisecondsPerDay;
// No zone shows the limit of all searches on this date or before it.
constexpr DayNumber kNearLimitDay = ZEP_MAX_TIME / kSecondsPerDay + kEpochDay - 3;
constexpr DayNumber kFirstDayOfYear100 = 36159;  // 1 January
// In the place of a candidate: the calendar classes hold no date that early.
constexpr DayNumber kNoDay = INT64_MIN;
// Beyond any value that 64-bit milliseconds and the searches can meet, far from overflow.
constexpr std::int64_t kSpanLimitMs = std::int64_t{1} << 55;

// A value of the calendar classes is kept as ticks since 1601 less the offset in force now.
Moment MakeMoment(std::int64_t wallMs) {
  if (wallMs > kFirstTickMs + kFarApartMs) return {wallMs, true};
  const std::int64_t offsetMs = std::int64_t{platform::OffsetInForceNow()} * 1000;
  return {wallMs, wallMs >= kFirstTickMs && wallMs - offsetMs > kFirstTickMs};
}

// For a divisor above 0.
constexpr std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
  const std::int64_t quotient = a / b;
  return quotient - (a - quotient * b < 0 ? 1 : 0);
}

struct Month {
  std::int64_t year;
  int month;
  int length;
  DayNumber firstDay;
};

constexpr bool IsLeap(std::int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

constexpr int LengthOf(std::int64_t year, int month) {
  constexpr int kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kLengths[month - 1];
}

Month MonthOf(DayNumber day, int& dayOfMonth) {
  const platform::CivilDate date = platform::CivilFromDays(day - kEpochDay);
  dayOfMonth = date.day;
  return {date.year, date.month, LengthOf(date.year, date.month), day - date.day + 1};
}

Month MonthAfter(const Month& month) {
  const std::int64_t year = month.month == 12 ? month.year + 1 : month.year;
  const int next = month.month == 12 ? 1 : month.month + 1;
  return {year, next, LengthOf(year, next), month.firstDay + month.length};
}

constexpr std::uint32_t LowBits(int count) { return count >= 32 ? ~0u : (1u << count) - 1; }

// Bit i set: day i + 1 of the month is named by the weekday words. A week counts by the day of the month: days 1 to 7
// are the first; the last is any of the final seven days.
std::uint32_t WeekdayDaysOf(const std::array<std::uint32_t, 5>& words, const Month& month) {
  const int firstWeekday = static_cast<int>((month.firstDay + 1) % 7);  // day 0 was a Monday
  const auto turned = [](std::uint32_t word, int weekday) {
    word &= 0x7F;
    return ((word | word << 7) >> weekday) & 0x7F;
  };
  std::uint32_t days = 0;
  for (int week = 0; week < 4; ++week) days |= turned(words[week], firstWeekday) << (7 * week);
  const int lastSeven = month.length - 7;
  days |= turned(words[4], (firstWeekday + lastSeven) % 7) << lastSeven;
  return days & LowBits(month.length);
}

// Bit i set: day i + 1 of the month is named by the day-of-month rule.
std::uint32_t MonthDaysOf(std::uint32_t daysOfMonth, const Month& month) {
  std::uint32_t days = daysOfMonth & 0x7FFFFFFFu & LowBits(month.length);
  if (daysOfMonth & 0x80000000u) days |= 1u << (month.length - 1);
  return days;
}

// One day after the other through the month of `date`, from its day on.
//   out      the day found; else `date` as SetDate() takes its fields
//   returns  false when the month's rest holds none
bool WalkMonth(const std::array<std::uint32_t, 5>& words, const ZepFoundation::CDate& date, ZepFoundation::CDate& out) {
  out.SetDate(date.GetYear(), date.GetMonth(), date.GetDay());
  const int length = date.GetDaysInMonth();
  const int firstWeekday = date.GetMonthStartDay();
  int weekday = date.GetDayOfWeek();
  int week = (date.GetDay() - 1) / 7;
  for (int day = date.GetDay(); day <= length; ++day) {
    const bool isLast = day >= length - 6 && (words[4] >> weekday & 1u) != 0;
    const bool isOfWeek = week >= 0 && week < 5 && (words[static_cast<std::size_t>(week)] >> weekday & 1u) != 0;
    if (isLast || isOfWeek) {
      out.SetDay(day);
      return true;
    }
    weekday = (weekday + 1) % 7;
    if (weekday == firstWeekday) ++week;
  }
  return false;
}

// Deliberate: the fields of a date in the first century, as the invalid date has them too, make one in the twentieth,
// so that the answer isn't the next such day.
DayNumber NextWeekdayDateByWalk(const std::array<std::uint32_t, 5>& words, DayNumber day) {
  const ZepFoundation::CDate date = DateFromDay(day);
  ZepFoundation::CDate out(ZepFoundation::QTM_FIXED);
  if (!WalkMonth(words, date, out)) {
    ZepFoundation::CDate next = date;
    next.IncrementMonth(1);
    next.SetDay(1);
    (void)WalkMonth(words, next, out);
  }
  return DayFromDate(out);
}

}  // namespace

DayNumber NextWeekdayDate(const std::array<std::uint32_t, 5>& words, DayNumber day) {
  if (day < kFirstDayOfYear100) return NextWeekdayDateByWalk(words, day);
  const std::uint32_t everyWeek = words[0] & words[1] & words[2] & words[3] & words[4] & 0x7F;
  if (everyWeek != 0 && everyWeek == ((words[0] | words[1] | words[2] | words[3] | words[4]) & 0x7F)) {
    // Weekdays of all weeks: the month doesn't matter.
    const auto weekday = static_cast<int>((day + 1) % 7);  // day 0 was a Monday
    return day + std::countr_zero((everyWeek | everyWeek << 7) >> weekday);
  }
  int dayOfMonth = 0;
  const Month month = MonthOf(day, dayOfMonth);
  const std::uint32_t rest = WeekdayDaysOf(words, month) & ~LowBits(dayOfMonth - 1);
  if (rest != 0) return month.firstDay + std::countr_zero(rest);
  const Month next = MonthAfter(month);
  const std::uint32_t all = WeekdayDaysOf(words, next);
  return all != 0 ? next.firstDay + std::countr_zero(all) : next.firstDay;
}

WindowSearch::WindowSearch(const WindowRules& rules) : m_rules(rules), m_zone(platform::CurrentZone()) {}

const WindowSearch::Stretch& WindowSearch::StretchOf(std::int64_t wallMs) const {
  if (!m_stretch.Holds(wallMs)) {
    constexpr std::int64_t kFarthest = INT64_MAX / 1000;
    const platform::Zone::WallStretch found = m_zone.StretchAt(FloorDiv(wallMs, 1000));
    m_stretch = {found.begin < -kFarthest ? INT64_MIN : found.begin * 1000,
                 found.end > kFarthest ? INT64_MAX : found.end * 1000, found.offset};
  }
  return m_stretch;
}

bool WindowSearch::IsBehindLimit(DayNumber day) const { return day > kNearLimitDay && day > DateOf(Limit()); }

bool WindowSearch::IsBeforeLimit(DayNumber day, std::int64_t timeOfDayMs) const {
  return day < kNearLimitDay || Less(At(day, timeOfDayMs, true), Limit());
}

// True for the window that opens on `day` by the rules, as it is where nothing was moved.
bool WindowSearch::IsWindowOf(DayNumber day, const Window& window) const {
  const Moment start = AtStart(day);
  return start.valid && window.start.valid && window.start.wallMs == start.wallMs &&
         window.end.wallMs == Plus(start, m_rules.durationMs).wallMs;
}

Moment WindowSearch::FromSeconds(ZepTime seconds) const {
  constexpr ZepTime kFirstSecond = -platform::kEpochDistanceSeconds;
  if (seconds < kFirstSecond - kSecondsPerDay) return {};
  return MakeMoment(m_zone.ToWall(seconds) * 1000);
}

ZepTime WindowSearch::ToSeconds(Moment moment) const {
  return moment.valid ? FloorDiv(moment.wallMs, 1000) - StretchOf(moment.wallMs).offset : -1;
}

DayNumber WindowSearch::DateOf(Moment moment) {
  return moment.valid ? FloorDiv(moment.wallMs, kMillisecondsPerDay) + kEpochDay : -1;
}

Moment WindowSearch::At(DayNumber day, std::int64_t timeOfDayMs, bool exists) const {
  if (!exists || day < 0) return {};
  return MakeMoment((day - kEpochDay) * kMillisecondsPerDay + timeOfDayMs);
}

Moment WindowSearch::Plus(Moment moment, std::int64_t milliseconds) const {
  // Deliberate: a span added to an invalid value counts from the first tick of 1601 and makes it valid.
  if (!moment.valid) moment.wallMs = kFirstTickMs + std::int64_t{platform::OffsetInForceNow()} * 1000;
  return MakeMoment(moment.wallMs + std::clamp(milliseconds, -kSpanLimitMs, kSpanLimitMs));
}

bool WindowSearch::Less(Moment a, Moment b) const {
  if (a.valid && b.valid) {
    const std::int64_t apart = b.wallMs - a.wallMs;
    if (apart > kFarApartMs) return true;
    if (apart < -kFarApartMs) return false;
    if (const Stretch& stretch = StretchOf(a.wallMs); stretch.Holds(b.wallMs)) {
      return apart >= 1000 || (apart > 0 && FloorDiv(a.wallMs, 1000) < FloorDiv(b.wallMs, 1000));
    }
  }
  return ToSeconds(a) < ToSeconds(b);
}

Moment WindowSearch::FirstStepAfter(Moment start, Moment ref) const {
  if (!start.valid) start = Plus(start, m_rules.restartMs);  // seconds of an invalid value are -1: it is stepped over
  const std::int64_t refSeconds = ToSeconds(ref);
  std::int64_t t = start.wallMs;
  // Walks the stretches of constant offset: at most a few, since the wanted step lies within a day of the reference.
  for (;;) {
    const Stretch stretch = StretchOf(t);
    const std::int64_t wanted = (refSeconds + 1 + stretch.offset) * 1000;  // first wall millisecond after `ref` here
    std::int64_t at = t;
    if (at < wanted) at += (wanted - at + m_rules.restartMs - 1) / m_rules.restartMs * m_rules.restartMs;
    if (at < stretch.endMs) return {at, true};
    // No step of this stretch qualifies: go on with the first one behind it.
    t += (stretch.endMs - t + m_rules.restartMs - 1) / m_rules.restartMs * m_rules.restartMs;
  }
}

bool WindowSearch::NextRestartInWindow(Moment ref, Moment& start, Moment end, bool& more) const {
  const Moment t = FirstStepAfter(start, ref);
  if (Less(end, t) || !IsDateNotExcluded(DateOf(t))) return false;
  start = t;
  more = !Less(end, Plus(t, m_rules.restartMs));
  return true;
}

bool WindowSearch::IsDayUsedUp(Moment ref, DayNumber day) const {
  if (IsBehindLimit(day)) return true;
  if (day != DateOf(ref) || (day == m_openDay && ref.wallMs == m_openRefMs)) return false;
  const Moment start = AtStart(day);
  // Deliberate: by the wall clock; a start that it has shown in the first of two equal hours isn't offered in the
  // second.
  if (Less(ref, start)) return false;
  if (!RestartInUse()) return true;
  const Moment end = Plus(start, m_rules.durationMs);
  if (!Less(ref, end)) return true;
  const Moment t = FirstStepAfter(start, ref);
  return Less(end, t) || !IsDateNotExcluded(DateOf(t));
}

std::optional<DayNumber> WindowSearch::NextDayOfMonth(Moment ref) const {
  const DayNumber refDay = DateOf(ref);
  int dayOfMonth = 0;
  Month month = MonthOf(refDay, dayOfMonth);
  std::uint32_t days = MonthDaysOf(m_rules.daysOfMonth, month) & ~LowBits(dayOfMonth - 1);
  for (;;) {
    for (; days != 0; days &= days - 1) {
      const DayNumber day = month.firstDay + std::countr_zero(days);
      if (!IsDayUsedUp(ref, day) && IsDateNotExcluded(day)) return day;
    }
    month = MonthAfter(month);
    if (IsBehindLimit(month.firstDay)) return std::nullopt;
    days = MonthDaysOf(m_rules.daysOfMonth, month);
  }
}

std::optional<DayNumber> WindowSearch::NextIncludeDate(Moment ref, bool& more) const {
  more = true;
  const auto& days = m_rules.include.Days();
  const DayNumber from = std::max<DayNumber>(DateOf(ref), 0);
  for (auto at = std::lower_bound(days.begin(), days.end(), from); at != days.end(); ++at) {
    if (IsDateNotExcluded(*at) && !IsDayUsedUp(ref, *at)) {
      more = at + 1 != days.end();
      return *at;
    }
  }
  more = false;
  return std::nullopt;
}

std::optional<DayNumber> WindowSearch::NextRepeatDay(Moment ref) const {
  if (m_rules.anchorDay < 0) return std::nullopt;
  const DayNumber refDay = DateOf(ref);
  DayNumber day = m_rules.anchorDay;
  if (day < refDay) day += (refDay - day + m_rules.repeatDays - 1) / m_rules.repeatDays * m_rules.repeatDays;
  while (!IsBehindLimit(day) && (!IsDateNotExcluded(day) || IsDayUsedUp(ref, day))) day += m_rules.repeatDays;
  if (IsBehindLimit(day)) return std::nullopt;
  return day;
}

// The weekday rule's candidate. It starts from the one that the day-of-month rule left, and keeps it where the search
// begins at the limit.
DayNumber WindowSearch::WeekdayCandidate(Moment ref, DayNumber candidate) const {
  DayNumber day = DateOf(ref);
  const std::int64_t timeOfDay = ref.wallMs - (day - kEpochDay) * kMillisecondsPerDay;
  if (IsDayUsedUp(ref, day)) ++day;
  while (IsBeforeLimit(day, timeOfDay)) {
    candidate = NextWeekdayDate(m_rules.daysOfWeek, day);
    if (IsDateNotExcluded(candidate)) break;
    // Deliberate: the day behind an excluded last match stays the candidate when the limit ends the search there.
    day = ++candidate;
  }
  return candidate == -1 ? kNoDay : candidate;  // the invalid date is none
}

std::optional<DayNumber> WindowSearch::NextRunDay(Moment ref, bool& more, std::uint32_t& rule) const {
  more = false;
  rule = 0;
  DayNumber out = kNoDay;
  DayNumber candidate = kNoDay;
  const auto isEarlier = [&] { return candidate != kNoDay && (out == kNoDay || candidate < out); };
  if (m_rules.daysOfMonth != 0) {
    candidate = NextDayOfMonth(ref).value_or(kNoDay);
    if (candidate != kNoDay) {
      out = candidate;
      more = true;
      rule = ZEP_RULE_DAY_OF_MONTH;
    }
  }
  const auto& words = m_rules.daysOfWeek;
  if ((words[0] | words[1] | words[2] | words[3] | words[4]) != 0) {
    candidate = WeekdayCandidate(ref, candidate);
    if (isEarlier()) {
      out = candidate;
      more = true;
      rule = ZEP_RULE_DAY_OF_WEEK;
    } else if (candidate != kNoDay && candidate == out) {
      more = true;
      rule |= ZEP_RULE_DAY_OF_WEEK;
    }
  }
  if (m_rules.useRepeat && m_rules.repeatDays > 0) {
    candidate = NextRepeatDay(ref).value_or(kNoDay);
    // Deliberate: the repeat rule leaves the rule match as it was: a day of its own reads as 0.
    if (isEarlier()) {
      out = candidate;
      more = true;
    }
  }
  if (!m_rules.include.Empty()) {
    bool moreDates = false;
    candidate = NextIncludeDate(ref, moreDates).value_or(kNoDay);
    if (isEarlier()) {
      more = more || moreDates;
      out = candidate;
      rule = ZEP_RULE_INCLUDE_DATE;
    } else if (candidate != kNoDay && candidate == out) {
      more = more || moreDates;
      rule |= ZEP_RULE_INCLUDE_DATE;
    }
  }
  if (out == kNoDay) return std::nullopt;
  return out;
}

bool WindowSearch::NextRestartTime(Moment ref, Window& window, std::uint32_t& rule) const {
  Moment start = window.start;
  Moment end = window.end;
  Moment askFrom = ref;
  const bool today = !Less(ref, start) && Less(ref, end);
  if (!today) {
    const std::int64_t endMs = m_rules.endMs;
    if (m_rules.startMs <= endMs) return false;  // the window doesn't cross midnight
    end = At(DateOf(ref), endMs, endMs < kMillisecondsPerDay);
    start = Plus(end, -m_rules.durationMs);
    if (Less(ref, start) || !Less(ref, end)) return false;
    askFrom = start;
  }
  const DayNumber windowDay = DateOf(askFrom);
  bool moreRestarts = false;
  if (!NextRestartInWindow(ref, start, end, moreRestarts)) return false;
  if (today && IsWindowOf(windowDay, window)) {
    m_openDay = windowDay;
    m_openRefMs = ref.wallMs;
  }
  bool moreDays = false;
  const std::optional<DayNumber> day = NextRunDay(askFrom, moreDays, rule);
  if (!day || *day != windowDay) return false;
  window = {start, end, !moreRestarts && !moreDays};
  return true;
}

Moment WindowSearch::MoveToEffectiveDate(Moment ref) const {
  if (!m_rules.useEffective || m_rules.effectiveDay < 0) return ref;
  if (!Less(ref, AtStart(m_rules.effectiveDay))) return ref;
  // Deliberate: one second before the start by the wall clock; where that second is left out, the day counts as begun.
  const std::int64_t timeOfDay = (m_rules.startMs + 86399000) % kMillisecondsPerDay;
  const DayNumber day = timeOfDay <= m_rules.startMs ? m_rules.effectiveDay : m_rules.effectiveDay - 1;
  return At(day, timeOfDay, true);
}

ZRESULT WindowSearch::NextTimeWindow(Moment ref, Window& window, std::uint32_t& rule) const {
  ref = MoveToEffectiveDate(ref);
  window.last = false;
  if (RestartInUse()) {
    window.start = AtStart(DateOf(ref));
    window.end = Plus(window.start, m_rules.durationMs);
    if (NextRestartTime(ref, window, rule)) return ZEP_S_OK;
  }

  bool more = false;
  const std::optional<DayNumber> day = NextRunDay(ref, more, rule);
  if (!day) return RestartInUse() ? ZEP_E_FAIL : ZEP_S_FALSE;
  window.start = AtStart(*day);
  window.end = Plus(window.start, m_rules.durationMs);
  window.last = !more;
  if (!more && RestartInUse()) {
    Moment restart = window.start;
    bool moreRestarts = false;
    window.last = !NextRestartInWindow(window.start, restart, window.end, moreRestarts);
  }
  return ZEP_S_OK;
}

Moment WindowSearch::InWindowReference(Moment ref) const {
  Moment c = AtStart(DateOf(ref));
  if (RestartInUse()) {
    c = Plus(FirstStepAfter(c, ref), -m_rules.restartMs);
  }
  c = Plus(c, -1000);
  if (Less(ref, c)) c = Plus(c, -kMillisecondsPerDay);
  return c;
}

}  // namespace qx
