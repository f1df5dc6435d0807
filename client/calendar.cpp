#include "client/calendar.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "client/cli_offline.h"
#include "client/rule_object.h"
#include "client/time_text.h"
#include "common/schedule_adapter.h"

namespace qx {
namespace {

constexpr std::int64_t kHourSeconds = 3600;
constexpr std::int64_t kHours = 24;
// A run of restarts shorter than this is asked for one by one.
constexpr std::int64_t kShortestRun = 3;

bool AllDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string ReasonText(std::uint32_t match, std::int64_t day, const SCHEDULE_RULE& rules) {
  std::string text;
  for (const std::string& name : RuleNames(match, day, rules)) text += (text.empty() ? "" : ", ") + name;
  return text;
}

bool ComesBefore(const CalendarEntry& a, const CalendarEntry& b) {
  return std::tie(a.start, a.schedule, a.opens) < std::tie(b.start, b.schedule, b.opens);
}

// A schedule's rules, asked for one window after the other.
class Walk {
 public:
  struct Step {
    ZepTime start = 0;
    ZepTime end = 0;
    std::uint32_t rule = 0;
    bool last = false;
  };
  explicit Walk(zepISchedule2& schedule) : m_schedule(schedule) {}
  // The first window or restart behind `from`; false when there is none.
  bool After(ZepTime from, Step& step) {
    if (from > ZEP_MAX_TIME) return false;
    zepByte last = 0;
    const ZRESULT result = m_schedule.GetNextTimeWindowEx(0, 0, from, &step.start, &step.end, &last, &step.rule);
    step.last = last != 0;
    return result == ZEP_S_OK && step.start > from;
  }

 private:
  zepISchedule2& m_schedule;
};

// The schedule's interval between restarts in whole seconds; 0 without restarts, and for an interval with a fraction.
std::int64_t RestartSeconds(zepISchedule2& schedule) {
  zepByte use = 0;
  std::uint32_t interval = 0;
  (void)schedule.get_UseRestartInterval(&use);
  (void)schedule.get_RestartInterval(&interval);
  return use != 0 && interval % kMillisecondsPerSecond == 0
             ? static_cast<std::int64_t>(interval / kMillisecondsPerSecond)
             : 0;
}

std::vector<std::int64_t> ExcludedDays(zepISchedule2& schedule, std::int64_t first, std::int64_t last,
                                       const platform::Zone& zone) {
  std::vector<std::int64_t> days;
  std::uint32_t count = 0;
  (void)schedule.GetSpecificDatesCount(ZEP_SPECIFIC_EXCLUDE, &count);
  for (std::uint32_t i = 0; i < count; ++i) {
    ZepTime date = 0;
    if (schedule.GetSpecificDate(ZEP_SPECIFIC_EXCLUDE, i, &date) != ZEP_S_OK) continue;
    const std::int64_t day = LocalDay(date, zone);
    if (day >= first && day <= last) days.push_back(day);
  }
  return days;
}

}  // namespace

// --- spans ---

std::int64_t CalendarSpan::FirstDay() const {
  return platform::DaysFromCivil(year, month == 0 ? 1 : month, 1);
}

std::int64_t CalendarSpan::LastDay() const {
  const bool yearEnds = month == 0 || month == 12;
  return platform::DaysFromCivil(year + yearEnds, yearEnds ? 1 : month + 1, 1) - 1;
}

std::optional<CalendarSpan> ParseCalendarYear(std::string_view text) {
  if (text.size() != 4 || !AllDigits(text)) return std::nullopt;
  int year = 0;
  for (const char c : text) year = year * 10 + (c - '0');
  if (year < kFirstCalendarYear || year > kLastCalendarYear) return std::nullopt;
  return CalendarSpan{year, 0};
}

std::optional<CalendarSpan> ParseCalendarMonth(std::string_view text) {
  if (text.size() != 7 || text[4] != '-' || !AllDigits(text.substr(5))) return std::nullopt;
  auto span = ParseCalendarYear(text.substr(0, 4));
  const int month = (text[5] - '0') * 10 + (text[6] - '0');
  if (!span || month < 1 || month > 12) return std::nullopt;
  span->month = month;
  return span;
}

CalendarSpan CalendarMonthOf(std::int64_t seconds, const platform::Zone& zone) {
  const platform::CivilDate date = platform::CivilFromDays(LocalDay(seconds, zone));
  if (date.year < kFirstCalendarYear) return {kFirstCalendarYear, 1};
  if (date.year > kLastCalendarYear) return {kLastCalendarYear, 12};
  return {static_cast<int>(date.year), date.month};
}

// --- the builder ---

CalendarBuilder::CalendarBuilder(CalendarSpan span, std::int64_t now, std::size_t kept)
    : m_zone(platform::CurrentZone()),
      m_kept(std::max<std::size_t>(kept, 1)),
      m_first(span.FirstDay()),
      m_begin(m_zone.ToSeconds(m_first * kDaySeconds)),
      m_behind(m_zone.ToSeconds((span.LastDay() + 1) * kDaySeconds)) {
  m_calendar.span = span;
  m_calendar.zone = m_zone.Name().empty() ? "local" : m_zone.Name();
  m_calendar.now = now;
  m_calendar.today = LocalDay(now, m_zone);
  for (std::int64_t day = m_first; day <= span.LastDay(); ++day) m_calendar.days.emplace_back().day = day;
  m_openChange.assign(m_calendar.days.size() * kHours + 1, 0);
  MarkChanges();
}

void CalendarBuilder::MarkChanges() {
  for (CalendarDay& day : m_calendar.days) day.change = IsChangeDay(day.day, m_zone);
  for (const platform::Zone::Change& change : m_zone.Changes()) {
    const std::int32_t by = change.offsetAfter - change.offsetBefore;
    if (by == 0) continue;
    // The date that holds the begin of the gap or of the repeated time.
    CalendarDay* const day =
        DayOf(FloorDiv(change.at + std::min(change.offsetBefore, change.offsetAfter), kDaySeconds));
    if (day == nullptr) continue;
    day->changeSeconds = by;
    day->changeAt = static_cast<std::int32_t>(change.at + change.offsetBefore - day->day * kDaySeconds);
  }
}

CalendarDay* CalendarBuilder::DayOf(std::int64_t day) {
  const std::int64_t at = day - m_first;
  return at < 0 || at >= static_cast<std::int64_t>(m_calendar.days.size())
             ? nullptr
             : &m_calendar.days[static_cast<std::size_t>(at)];
}

void CalendarBuilder::Keep(const CalendarEntry& entry, std::int64_t at, const SCHEDULE_RULE& rules) {
  CalendarDay* const day = DayOf(at);
  if (day == nullptr) return;
  day->windows += entry.opens;
  day->restarts += entry.restarts;
  ++day->allEntries;
  // A heap with the latest entry on top, which gives way.
  std::vector<CalendarEntry>& kept = day->entries;
  if (kept.size() == m_kept) {
    if (!ComesBefore(entry, kept.front())) return;
    std::pop_heap(kept.begin(), kept.end(), ComesBefore);
    kept.back() = entry;
  } else {
    kept.push_back(entry);
  }
  // Restarts ahead of the time of day at which windows open belong to the day before.
  const std::int64_t ruleDay = LocalDay(entry.start, m_zone) - (entry.behindMidnight ? 1 : 0);
  kept.back().reason = ReasonText(entry.rule, ruleDay, rules);
  std::push_heap(kept.begin(), kept.end(), ComesBefore);
}

void CalendarBuilder::CountOpen(std::int64_t start, std::int64_t end) {
  const std::int64_t hours = static_cast<std::int64_t>(m_openChange.size()) - 1;
  const std::int64_t begin = m_first * kHours;
  const std::int64_t first = FloorDiv(m_zone.ToWall(start), kHourSeconds) - begin;
  // An empty window counts in the hour of its start; a window that ends on the hour doesn't reach into the next one.
  const std::int64_t last = FloorDiv(m_zone.ToWall(std::max(start, end - 1)), kHourSeconds) - begin;
  if (last < 0 || first >= hours || last < first) return;
  ++m_openChange[static_cast<std::size_t>(std::max<std::int64_t>(first, 0))];
  --m_openChange[static_cast<std::size_t>(std::min(last + 1, hours))];
}

Status CalendarBuilder::Add(std::string name, const SCHEDULE_OBJECT& record) {
  const RuleObject schedule = NewRuleObject();
  if (!schedule) return kStatusFailure;
  CZEPScheduleObj adapter;
  adapter.m_pSchedule = schedule.get();
  if (const Status status = adapter.Validate_ScheduleRules(&record); status != kStatusOk) return status;

  const auto index = static_cast<std::uint32_t>(m_calendar.schedules.size());
  CalendarSchedule& totals = m_calendar.schedules.emplace_back();
  totals.name = std::move(name);

  ZepTime startTime = 0;
  (void)schedule->get_StartTime(&startTime);
  const std::int32_t timeOfDay = LocalTimeOfDay(startTime, m_zone);
  const std::int64_t interval = RestartSeconds(*schedule);

  CalendarEntry entry;
  std::optional<std::int64_t> entryDay;
  const auto flush = [&] {
    if (entryDay) Keep(entry, *entryDay, record.stScheduleRules);
    entryDay.reset();
  };
  const auto count = [&](const Walk::Step& step, std::int64_t day, std::int64_t opening, std::uint32_t restarts) {
    const bool opens = step.start == opening;
    if (opens || !entryDay || *entryDay != day) {
      flush();
      entry = {step.start, step.end, index, step.rule, "", 0, opens, step.start < opening, false};
      entryDay = day;
    }
    entry.restarts += restarts;
    entry.last = step.last;
    if (opens) CountOpen(step.start, step.end);
    if (step.start < m_begin) return;
    totals.windows += opens;
    totals.restarts += restarts;
  };

  // One day ahead: a window of the last day before the span may be open on its first day.
  Walk walk(*schedule);
  Walk::Step step;
  for (ZepTime from = m_zone.ToSeconds((m_first - 1) * kDaySeconds) - 1;
       walk.After(from, step) && step.start < m_behind; from = step.start) {
    const std::int64_t day = LocalDay(step.start, m_zone);
    const std::int64_t opening = m_zone.ToSeconds(day * kDaySeconds + timeOfDay);
    count(step, day, opening, step.start == opening ? 0 : 1);
    if (interval == 0) continue;
    // Further restarts of this window on this date follow each other evenly up to its end, the opening of the date's
    // own window or midnight, whichever comes first. The answer for the last but one tells that they are there.
    const CalendarDay* const shown = DayOf(day);
    if (shown == nullptr || shown->change) continue;
    const std::int64_t behind =
        std::min(m_zone.ToSeconds((day + 1) * kDaySeconds), opening > step.start ? opening : INT64_MAX);
    const std::int64_t run = (std::min(step.end, behind - 1) - step.start) / interval;
    Walk::Step end;
    if (run < kShortestRun || !walk.After(step.start + (run - 1) * interval, end)) continue;
    if (end.start != step.start + run * interval || end.end != step.end) continue;
    step = end;
    count(step, day, opening, static_cast<std::uint32_t>(run));
  }
  flush();

  const auto excluded =
      ExcludedDays(*schedule, m_first, m_first + static_cast<std::int64_t>(m_calendar.days.size()) - 1, m_zone);
  if (!excluded.empty()) {
    // The same rules without exclusions and restarts tell which of them take a run day away.
    (void)schedule->ClearSpecificDates(ZEP_SPECIFIC_EXCLUDE);
    (void)schedule->put_UseRestartInterval(0);
    for (const std::int64_t date : excluded) {
      if (!walk.After(m_zone.ToSeconds(date * kDaySeconds) - 1, step) || LocalDay(step.start, m_zone) != date) continue;
      CalendarDay& day = *DayOf(date);
      ++day.excluded;
      ++totals.excluded;
      if (day.exclusions.size() < m_kept) {
        day.exclusions.push_back({index, ReasonText(step.rule, date, record.stScheduleRules)});
      }
    }
  }
  m_calendar.windows += totals.windows;
  m_calendar.restarts += totals.restarts;
  m_calendar.excluded += totals.excluded;
  return kStatusOk;
}

Calendar CalendarBuilder::Finish() {
  std::int64_t open = 0;
  for (std::size_t i = 0; i < m_calendar.days.size(); ++i) {
    CalendarDay& day = m_calendar.days[i];
    for (std::size_t hour = 0; hour < day.open.size(); ++hour) {
      open += m_openChange[i * kHours + hour];
      day.open[hour] = static_cast<std::uint32_t>(open);
    }
    std::sort_heap(day.entries.begin(), day.entries.end(), ComesBefore);
    m_calendar.mostOnADay = std::max(m_calendar.mostOnADay, day.windows);
  }
  return std::move(m_calendar);
}

// --- what is told about a day ---

std::optional<int> BusiestHour(const CalendarDay& day) {
  const auto most = std::max_element(day.open.begin(), day.open.end());
  if (*most == 0) return std::nullopt;
  return static_cast<int>(most - day.open.begin());
}

std::uint64_t MostOfDensity(int density, const Calendar& calendar) {
  const auto step = static_cast<std::uint64_t>(density);
  return std::max<std::uint64_t>(step, calendar.mostOnADay * step / kMostDensity);
}

int DensityOf(const CalendarDay& day, const Calendar& calendar) {
  if (day.windows == 0) return day.restarts > 0 ? 1 : 0;
  int density = 1;
  while (density < kMostDensity && day.windows > MostOfDensity(density, calendar)) ++density;
  return density;
}

std::string ChangeText(const CalendarDay& day) {
  if (day.changeSeconds == 0) return day.change ? "clock changes" : "";
  const auto by = static_cast<std::uint32_t>(std::abs(day.changeSeconds)) * kMillisecondsPerSecond;
  const std::string at = day.changeAt == kDaySeconds ? "24:00" : FormatTimeOfDay(day.changeAt);
  return std::string("clock goes ") + (day.changeSeconds > 0 ? "forward " : "back ") +
         FormatDuration(static_cast<std::uint32_t>(by)) + " at " + at;
}

const char* MonthName(int month) {
  static constexpr const char* kNames[] = {"January", "February", "March",     "April",   "May",      "June",
                                           "July",    "August",   "September", "October", "November", "December"};
  return kNames[month - 1];
}

std::size_t WeekColumn(std::int64_t day) {
  return static_cast<std::size_t>(((day + 3) % 7 + 7) % 7);
}

std::string SpanTitle(const CalendarSpan& span) {
  const std::string year = std::to_string(span.year);
  return span.month == 0 ? year : std::string(MonthName(span.month)) + " " + year;
}

}  // namespace qx
