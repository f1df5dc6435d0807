// The windows of ten years against the recurrences of another library.
#include <libical/ical.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "common/tests/schedule_fixture.h"
#include "platform/clock.h"

namespace qx::testing {
namespace {

constexpr char kBegin[] = "20200101T100000";
constexpr char kReference[] = "2020-01-01 09:59:59";
constexpr int kLastYear = 2029;

using Dates = std::vector<std::string>;

std::string DateText(int year, int month, int day) {
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d", year, month, day);
  return text;
}

// The occurrences of 2020 to 2029 of all rules together, without the excluded dates.
Dates Occurrences(const std::vector<std::string>& recurrences, const std::set<std::string>& excluded) {
  std::set<std::string> dates;
  for (const std::string& recurrence : recurrences) {
    icalrecur_iterator* const iterator =
        icalrecur_iterator_new(icalrecurrencetype_from_string(recurrence.c_str()), icaltime_from_string(kBegin));
    EXPECT_NE(iterator, nullptr) << recurrence;
    if (iterator == nullptr) return {};
    for (icaltimetype at = icalrecur_iterator_next(iterator); !icaltime_is_null_time(at) && at.year <= kLastYear;
         at = icalrecur_iterator_next(iterator)) {
      EXPECT_EQ(at.hour, 10) << recurrence;
      dates.insert(DateText(at.year, at.month, at.day));
    }
    icalrecur_iterator_free(iterator);
  }
  Dates left;
  std::set_difference(dates.begin(), dates.end(), excluded.begin(), excluded.end(), std::back_inserter(left));
  return left;
}

Dates Windows(const Rules& rules) {
  Dates dates;
  for (ZepTime at = Local(kReference);;) {
    const Answer answer = rules.Next(at);
    if (answer.result != ZEP_S_OK || Shown(answer.start).substr(0, 4) > std::to_string(kLastYear)) return dates;
    EXPECT_EQ(Shown(answer.start).substr(11), "10:00:00");
    EXPECT_EQ(Shown(answer.end), Shown(answer.start).substr(0, 11) + "11:00:00");
    dates.push_back(Shown(answer.start).substr(0, 10));
    at = answer.start;
  }
}

class AgainstRecurrences : public InZone {
 protected:
  AgainstRecurrences() : InZone("America/New_York", "2020-01-01 00:00") {}

  static void Compare(const std::string& name, const Rules& rules, const std::vector<std::string>& recurrences,
                      const std::set<std::string>& excluded = {}) {
    const Dates expected = Occurrences(recurrences, excluded);
    EXPECT_GT(expected.size(), 10u) << name;
    EXPECT_EQ(Windows(rules), expected) << name;
  }
};

constexpr const char* kDays[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

TEST_F(AgainstRecurrences, WeeklyRules) {
  // All sets of weekdays.
  for (int set = 1; set < 128; ++set) {
    Rules rules;
    std::string days;
    for (int day = 0; day < 7; ++day) {
      if ((set >> day & 1) == 0) continue;
      rules.Every(static_cast<Weekday>(day));
      days += (days.empty() ? "" : ",") + std::string(kDays[day]);
    }
    Compare(days, rules, {"FREQ=WEEKLY;BYDAY=" + days});
  }
}

TEST_F(AgainstRecurrences, NthAndLastWeekdaysOfTheMonth) {
  for (int day = 0; day < 7; ++day) {
    for (int week = 0; week < 5; ++week) {
      Rules rules;
      rules.On(static_cast<Weekday>(day), static_cast<Week>(week));
      const std::string nth = (week == 4 ? "-1" : std::to_string(week + 1)) + kDays[day];
      Compare(nth, rules, {"FREQ=MONTHLY;BYDAY=" + nth});
    }
  }
  Rules both;
  both.On(kMonday, kFirst).On(kFriday, kLastWeek).On(kWednesday, kThird);
  Compare("three", both, {"FREQ=MONTHLY;BYDAY=1MO,-1FR,3WE"});
}

TEST_F(AgainstRecurrences, DaysOfTheMonth) {
  for (int day = 1; day <= 31; ++day) {
    Rules rules;
    rules.DayOfMonth(day);
    Compare(std::to_string(day), rules, {"FREQ=MONTHLY;BYMONTHDAY=" + std::to_string(day)});
  }
  Rules last;
  last.LastDay();
  Compare("last", last, {"FREQ=MONTHLY;BYMONTHDAY=-1"});
  Rules several;
  several.DayOfMonth(1).DayOfMonth(15).DayOfMonth(31).LastDay();
  Compare("several", several, {"FREQ=MONTHLY;BYMONTHDAY=1,15,31,-1"});
}

TEST_F(AgainstRecurrences, EverySoManyDays) {
  for (const int days : {1, 2, 3, 5, 7, 10, 14, 30, 31, 100, 365}) {
    Rules rules;
    rules.Repeat(days, "2020-01-01");
    Compare(std::to_string(days), rules, {"FREQ=DAILY;INTERVAL=" + std::to_string(days)}, {});
  }
}

TEST_F(AgainstRecurrences, ExcludedDates) {
  std::set<std::string> excluded;
  // Every fifth day, so that each rule loses some of its dates and keeps others.
  for (std::int64_t day = platform::DaysFromCivil(2020, 1, 1); day < platform::DaysFromCivil(2030, 1, 1); day += 5) {
    const platform::CivilDate date = platform::CivilFromDays(day);
    excluded.insert(DateText(static_cast<int>(date.year), date.month, date.day));
  }
  const struct {
    const char* recurrence;
    void (*set)(Rules&);
  } kCases[] = {
      {"FREQ=DAILY", [](Rules& r) { r.Daily(); }},
      {"FREQ=WEEKLY;BYDAY=MO,TU,WE,TH,FR",
       [](Rules& r) { r.Every(kMonday).Every(kTuesday).Every(kWednesday).Every(kThursday).Every(kFriday); }},
      {"FREQ=MONTHLY;BYDAY=-1FR", [](Rules& r) { r.On(kFriday, kLastWeek); }},
      {"FREQ=MONTHLY;BYMONTHDAY=31", [](Rules& r) { r.DayOfMonth(31); }},
      {"FREQ=MONTHLY;BYMONTHDAY=-1", [](Rules& r) { r.LastDay(); }},
      {"FREQ=DAILY;INTERVAL=3", [](Rules& r) { r.Repeat(3, "2020-01-01"); }},
  };
  for (const auto& c : kCases) {
    Rules rules;
    c.set(rules);
    for (const std::string& date : excluded) rules.Exclude(date.c_str());
    Compare(c.recurrence, rules, {c.recurrence}, excluded);
  }
}

TEST_F(AgainstRecurrences, RulesAddUp) {
  Rules rules;
  rules.On(kTuesday, kSecond).DayOfMonth(30).Repeat(11, "2020-01-01");
  Compare("three rules", rules,
          {"FREQ=MONTHLY;BYDAY=2TU", "FREQ=MONTHLY;BYMONTHDAY=30", "FREQ=DAILY;INTERVAL=11"});
}

}  // namespace
}  // namespace qx::testing
