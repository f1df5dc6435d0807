// The next window, per query: kinds of rules against one localtime_r and mktime of the C library and, where libical is
// installed, against its recurrence iterator set to the same reference; and rules that could cost much against rules
// that don't.
#ifdef QX_HAVE_LIBICAL
#include <libical/ical.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "benchmarks/figure.h"
#include "common/Schedule.h"
#include "platform/clock.h"

namespace qx::bench {
namespace {

constexpr char kZone[] = "America/New_York";
constexpr int kQueries = 200000;
constexpr ZepTime kFirstReference = 1700000000;
constexpr ZepTime kLocalNoon = 1704906000;  // 2024-01-10 12:00 in New York
constexpr ZepTime kDay = 86400;

// References strewn over ten years, the same for both sides.
ZepTime Reference(int i) { return kFirstReference + (static_cast<ZepTime>(i) * 104729) % 315360000; }

void UseZone() {
  static const bool once = [] {
    setenv("TZ", kZone, 1);
    tzset();
    platform::ReloadZone();
    return true;
  }();
  (void)once;
}

using SetRules = std::function<void(CSchedule&)>;

double TimeQueries(const SetRules& setRules, int queries = kQueries) {
  UseZone();
  auto* const schedule = new CSchedule;
  schedule->AddRef();
  schedule->Reset();
  schedule->put_StartTime(kLocalNoon);
  schedule->put_EndTime(kLocalNoon + 3600);
  setRules(*schedule);
  ZepTime start = 0, end = 0;
  zepByte last = 0;
  const double begin = SteadyNanoseconds();
  for (int i = 0; i < queries; ++i) {
    schedule->GetNextTimeWindow(0, 0, Reference(i), &start, &end, &last);
    Keep(start);
  }
  const double taken = SteadyNanoseconds() - begin;
  schedule->Release();
  return taken / queries;
}

double TimeLibraryPair() {
  UseZone();
  const double begin = SteadyNanoseconds();
  for (int i = 0; i < kQueries; ++i) {
    const std::time_t at = Reference(i);
    std::tm fields;
    localtime_r(&at, &fields);
    fields.tm_isdst = -1;
    Keep(std::mktime(&fields));
  }
  return (SteadyNanoseconds() - begin) / kQueries;
}

// --- rules ---

void EveryWeek(CSchedule& schedule, zepByte firstDay, zepByte lastDay) {
  for (zepByte week = 0; week < 5; ++week) {
    for (zepByte day = firstDay; day <= lastDay; ++day) schedule.SetDayOfWeek(day, week);
  }
}

void Daily(CSchedule& schedule) { EveryWeek(schedule, 0, 6); }
void MondayToFriday(CSchedule& schedule) { EveryWeek(schedule, 1, 5); }
void LastFriday(CSchedule& schedule) { schedule.SetDayOfWeek(5, 4); }
void Day31(CSchedule& schedule) { schedule.SetDayOfMonth(30); }

void EveryThreeDays(CSchedule& schedule, ZepTime anchor) {
  schedule.put_UseRepeatInterval(1);
  schedule.put_RepeatInterval(3);
  schedule.put_AnchorDate(anchor);
}
void EveryThreeDaysFrom2000(CSchedule& schedule) { EveryThreeDays(schedule, 946746000); }  // 2000-01-01 12:00

void Exclude(CSchedule& schedule, ZepTime noon) { schedule.SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, noon); }

// Strewn over the ten years of the references: every tenth week's Friday.
ZepTime FiftyExcluded(int i) { return 1711730000 + i * 70 * kDay; }
void ExcludeFifty(CSchedule& schedule) {
  for (int i = 0; i < 50; ++i) Exclude(schedule, FiftyExcluded(i));
}

void FullDayWindow(CSchedule& schedule) {
  schedule.put_StartTime(kLocalNoon);
  schedule.put_TimeDuration(86400000);
}

// Every 31st that is left, so that the search goes on to the end of 2037.
void Day31WithAllExcluded(CSchedule& schedule) {
  Day31(schedule);
  for (ZepTime noon = kLocalNoon - 365 * kDay; noon <= ZEP_MAX_TIME; noon += kDay) {
    if (platform::CivilFromDays(noon / kDay).day == 31) Exclude(schedule, noon);
  }
}

// The weekends of 1980 to 2037 and the first other days, 10,000 in all: none that the rule names from 2023 on.
void MondayToFridayWith10000Excluded(CSchedule& schedule) {
  MondayToFriday(schedule);
  int count = 0;
  const auto excludeEach = [&](bool weekend) {
    for (ZepTime noon = 315594000; noon <= ZEP_MAX_TIME && count < 10000; noon += kDay) {  // from 1980-01-01 12:00
      const auto weekday = (noon / kDay + 4) % 7;
      if ((weekday == 0 || weekday == 6) != weekend) continue;
      Exclude(schedule, noon);
      ++count;
    }
  };
  excludeEach(true);
  excludeEach(false);
}

#ifdef QX_HAVE_LIBICAL
// --- the same rules by the recurrences of another library ---

// One query is: the iterator to the reference, and from there to the first occurrence that is later and not excluded.
// The reference is taken as if it were local time, which spares the other library the zone.
double TimeRecurrences(const char* rule, const std::vector<ZepTime>& excluded) {
  constexpr int kRecurrences = 5000;
  const icaltimetype start = icaltime_from_string("20000101T120000");
  icalrecur_iterator* const iterator = icalrecur_iterator_new(icalrecurrencetype_from_string(rule), start);
  std::vector<int> days;
  for (const ZepTime at : excluded) days.push_back(static_cast<int>(at / kDay));
  const double begin = SteadyNanoseconds();
  for (int i = 0; i < kRecurrences; ++i) {
    const icaltimetype reference = icaltime_from_timet_with_zone(Reference(i), 0, nullptr);
    icalrecur_iterator_set_start(iterator, reference);
    icaltimetype next = icalrecur_iterator_next(iterator);
    while (icaltime_compare(next, reference) <= 0 ||
           (!days.empty() && std::binary_search(days.begin(), days.end(),
                                                static_cast<int>(platform::DaysFromCivil(next.year, next.month, next.day))))) {
      next = icalrecur_iterator_next(iterator);
    }
    Keep(next.day);
  }
  const double taken = SteadyNanoseconds() - begin;
  icalrecur_iterator_free(iterator);
  return taken / kRecurrences;
}
#endif

}  // namespace

std::vector<Figure> NextWindowFigures() {
  const auto also = [](SetRules first, SetRules second) -> SetRules {
    return [first, second](CSchedule& schedule) {
      first(schedule);
      second(schedule);
    };
  };
  const struct {
    std::string name;
    SetRules setRules;
    const char* recurrence;
    bool fiftyExcluded;
  } kinds[] = {
      {"daily", Daily, "FREQ=DAILY", false},
      {"monday-to-friday", MondayToFriday, "FREQ=WEEKLY;BYDAY=MO,TU,WE,TH,FR", false},
      {"last-friday", LastFriday, "FREQ=MONTHLY;BYDAY=-1FR", false},
      {"day-31", Day31, "FREQ=MONTHLY;BYMONTHDAY=31", false},
      {"every-3-days", EveryThreeDaysFrom2000, "FREQ=DAILY;INTERVAL=3", false},
      {"last-friday-50-excluded", also(LastFriday, ExcludeFifty), "FREQ=MONTHLY;BYDAY=-1FR", true},
      {"monday-to-friday-50-excluded", also(MondayToFriday, ExcludeFifty), "FREQ=WEEKLY;BYDAY=MO,TU,WE,TH,FR", true},
  };
  std::vector<Figure> figures;
  for (const auto& kind : kinds) {
    figures.push_back({"next-window/" + kind.name, "one localtime_r + mktime", "ns", 1.5,
                       [setRules = kind.setRules] { return TimeQueries(setRules); }, TimeLibraryPair});
  }
#ifdef QX_HAVE_LIBICAL
  for (const auto& kind : kinds) {
    std::vector<ZepTime> excluded;
    for (int i = 0; kind.fiftyExcluded && i < 50; ++i) excluded.push_back(FiftyExcluded(i));
    figures.push_back({"next-window/ical/" + kind.name, "libical's iterator set to the reference", "ns", 1.0 / 40,
                       [setRules = kind.setRules] { return TimeQueries(setRules); },
                       [rule = kind.recurrence, excluded] { return TimeRecurrences(rule, excluded); }});
  }
#endif
  const auto timed = [](SetRules setRules) { return [setRules] { return TimeQueries(setRules); }; };
  figures.push_back({"next-window/anchor-1980", "the same from an anchor of today", "ns", 1.1,
                     timed([](CSchedule& s) { EveryThreeDays(s, 315594000); }),
                     timed([](CSchedule& s) { EveryThreeDays(s, kFirstReference); })});
  figures.push_back({"next-window/restart-1s-in-24h", "the same without a restart", "ns", 1.5,
                     timed([](CSchedule& s) {
                       Daily(s);
                       FullDayWindow(s);
                       s.put_UseRestartInterval(1);
                       s.put_RestartInterval(1000);
                     }),
                     timed([](CSchedule& s) {
                       Daily(s);
                       FullDayWindow(s);
                     })});
  constexpr int kExhaustedQueries = 20000;
  figures.push_back({"next-window/none-left", "100 localtime_r + mktime", "ns", 1.0,
                     [] { return TimeQueries(Day31WithAllExcluded, kExhaustedQueries); },
                     [] { return 100 * TimeLibraryPair(); }});
  figures.push_back({"next-window/10000-excluded-none-hit", "the same without excluded dates", "ns", 2.0,
                     timed(MondayToFridayWith10000Excluded), timed(MondayToFriday)});
  return figures;
}

}  // namespace qx::bench
