// Figures of the calendar: a year of ten thousand schedules as a page, against the rules library asked for the same
// windows one after the other.
#include <array>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/figure.h"
#include "client/calendar.h"
#include "client/calendar_page.h"
#include "client/rule_object.h"
#include "common/Schedule.h"
#include "common/schedule_adapter.h"
#include "interface/records.h"
#include "platform/clock.h"

namespace qx::bench {
namespace {

constexpr int kSchedules = 10000;
constexpr int kYear = 2026;
constexpr std::size_t kKeptOfYear = 12;  // as qxsched calendar --year

void EachWeek(SCHEDULE_RULE& rules, std::size_t day) {
  for (auto* week :
       {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3, &rules.dwDaysOfWeek4}) {
    (*week)[day] = 1;
  }
}

// Ten thousand schedules of five kinds, over the hours of the day; some are tried again each hour.
const std::vector<SCHEDULE_OBJECT>& Records(bool restarts) {
  static std::array<std::vector<SCHEDULE_OBJECT>, 2> both;
  std::vector<SCHEDULE_OBJECT>& records = both[restarts ? 1 : 0];
  if (!records.empty()) return records;
  setenv("TZ", "America/New_York", 1);
  platform::ReloadZone();
  const platform::Zone& zone = platform::CurrentZone();
  const std::int64_t newYear = platform::DaysFromCivil(kYear, 1, 1) * 86400;
  for (int i = 0; i < kSchedules; ++i) {
    SCHEDULE_OBJECT record;
    SCHEDULE_RULE& rules = record.stScheduleRules;
    rules.lStartTime = static_cast<std::int32_t>(zone.ToSeconds(newYear - 86400 + (i * 7919) % 86400));
    rules.dwTimeDuration = 3 * 3600 * 1000;
    if (restarts && i % 4 == 0) {
      rules.bRestartInterval = 1;
      rules.dwRestartInterval = 3600 * 1000;
    }
    switch (i % 5) {
      case 0:
        for (std::size_t day = 1; day < 6; ++day) EachWeek(rules, day);
        break;
      case 1:
        rules.dwDaysOfWeek4[5] = 1;
        break;
      case 2:
        rules.adwDaysOfMonth[static_cast<std::size_t>(i / 5 % 28)] = 1;
        break;
      case 3:
        rules.bRepeatInterval = 1;
        rules.dwRepeatInterval = static_cast<std::uint32_t>(1 + i / 5 % 7);
        break;
      default:
        EachWeek(rules, 0);
        EachWeek(rules, 6);
    }
    records.push_back(std::move(record));
  }
  return records;
}

// Milliseconds from the records to the text of the page.
double TimePage(bool restarts) {
  const std::vector<SCHEDULE_OBJECT>& records = Records(restarts);
  const double begin = SteadyNanoseconds();
  CalendarBuilder builder({kYear, 0}, platform::NowSeconds(), kKeptOfYear);
  for (const SCHEDULE_OBJECT& record : records) {
    if (builder.Add("job", record) != kStatusOk) throw std::runtime_error("rules are refused");
  }
  const std::string page = CalendarPage(builder.Finish());
  const double taken = SteadyNanoseconds() - begin;
  Keep(page.size());
  return taken / 1e6;
}

// Milliseconds for the windows of the year of the same records.
double TimeWindows(bool restarts) {
  const std::vector<SCHEDULE_OBJECT>& records = Records(restarts);
  const platform::Zone& zone = platform::CurrentZone();
  const ZepTime first = zone.ToSeconds(platform::DaysFromCivil(kYear, 1, 1) * 86400);
  const ZepTime behind = zone.ToSeconds(platform::DaysFromCivil(kYear + 1, 1, 1) * 86400);
  const double begin = SteadyNanoseconds();
  for (const SCHEDULE_OBJECT& record : records) {
    const RuleObject schedule = NewRuleObject();
    CZEPScheduleObj adapter;
    adapter.m_pSchedule = schedule.get();
    if (adapter.Validate_ScheduleRules(&record) != kStatusOk) throw std::runtime_error("rules are refused");
    ZepTime start = first - 1, end = 0;
    zepByte last = 0;
    while (schedule->GetNextTimeWindow(0, 0, start, &start, &end, &last) == ZEP_S_OK && start < behind) Keep(start);
  }
  return (SteadyNanoseconds() - begin) / 1e6;
}

}  // namespace

std::vector<Figure> CalendarFigures() {
  constexpr char kBare[] = "the rules library asked for the same windows";
  return {
      {"calendar/year-of-10k", kBare, "ms", 3, [] { return TimePage(false); }, [] { return TimeWindows(false); }},
      {"calendar/year-of-10k-with-restarts", kBare, "ms", 3, [] { return TimePage(true); },
       [] { return TimeWindows(true); }},
  };
}

}  // namespace qx::bench
