// Schedules without restarts, walked day by day: a calendar of this file's own decides whether a day is a run day, and
// only the zone turns the day's start into an instant.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/tests/schedule_fixture.h"

namespace qx::testing {
namespace {

struct Day {
  int year;
  int month;
  int day;
  int weekday;        // 0 Sunday
  std::int64_t wall;  // midnight, as wall seconds

  int Length() const {
    if (month == 2) return year % 400 == 0 || (year % 4 == 0 && year % 100 != 0) ? 29 : 28;
    return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
  }
  void Forward() {
    wall += 86400;
    weekday = (weekday + 1) % 7;
    if (++day <= Length()) return;
    day = 1;
    if (++month <= 12) return;
    month = 1;
    ++year;
  }
};

// Every day from 1 January 1995, a Sunday, to the end of 2037, counted up one by one.
const std::vector<Day>& Calendar() {
  static const std::vector<Day> days = [] {
    std::vector<Day> all;
    for (Day day{1995, 1, 1, 0, 788918400}; day.year < 2038; day.Forward()) all.push_back(day);
    return all;
  }();
  return days;
}

// Which days a schedule runs on, in positions of the calendar.
struct Prose {
  bool weekly[5][7] = {};  // first, second, third, fourth, last; by weekday
  std::set<int> daysOfMonth;
  bool lastDay = false;
  int repeat = 0;  // 0: none
  int anchor = 0;
  int effective = -1;  // -1: none
  std::set<int> include;
  std::set<int> exclude;
  std::int64_t timeOfDay = 0;

  bool RunsOn(int position) const {
    const Day& day = Calendar()[position];
    if (exclude.contains(position) || position < effective) return false;
    if (include.contains(position)) return true;
    if (daysOfMonth.contains(day.day) || (lastDay && day.day == day.Length())) return true;
    const bool isLast = day.day + 7 > day.Length();
    if (isLast && weekly[4][day.weekday]) return true;
    if (day.day <= 7 && weekly[0][day.weekday]) return true;
    if (day.day >= 8 && day.day <= 14 && weekly[1][day.weekday]) return true;
    if (day.day >= 15 && day.day <= 21 && weekly[2][day.weekday]) return true;
    if (day.day >= 22 && day.day <= 28 && weekly[3][day.weekday]) return true;
    // The walk of a month counts days 29 to 31 as its fifth week, which is the word of the last: they are in its final
    // seven days in any case.
    return repeat > 0 && position >= anchor && (position - anchor) % repeat == 0;
  }

  // The first start later than `reference`; -1 when there is none before the calendar ends.
  ZepTime FirstStartAfter(ZepTime reference, int from) const {
    const platform::Zone& zone = platform::CurrentZone();
    // A reference in an overlap reads as one time of day, whichever pass it is of.
    const ZepTime seen = zone.ToSeconds(zone.ToWall(reference));
    for (int position = from; position < static_cast<int>(Calendar().size()); ++position) {
      if (!RunsOn(position)) continue;
      const ZepTime start = zone.ToSeconds(Calendar()[position].wall + timeOfDay);
      // A day is over once its start has come, also where the local clock leaves the start out.
      if (start > seen) return start;
    }
    return -1;
  }
};

std::string TextOf(const Day& day) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d", day.year, day.month, day.day);
  return text;
}

class WindowWalker : public ::testing::Test {
 protected:
  static constexpr const char* kZones[] = {
      "UTC",           "America/New_York",  "Europe/Berlin",     "Australia/Lord_Howe",
      "Pacific/Apia",  "America/St_Johns",  "America/Sao_Paulo", "Africa/Casablanca",
      "Europe/Dublin", "Pacific/Kiritimati"};
  platform::VirtualClock m_clock{1721044800};
};

class Dice {
 public:
  explicit Dice(std::uint64_t seed) : m_engine(seed) {}
  int operator()(int low, int high) {
    return low + static_cast<int>(m_engine() % static_cast<std::uint64_t>(high - low + 1));
  }
  bool OneIn(int n) { return (*this)(1, n) == 1; }

 private:
  std::mt19937_64 m_engine;
};

// True where the local clock has this date.
bool Exists(const Day& day) {
  const platform::Zone& zone = platform::CurrentZone();
  return zone.ToWall(zone.ToSeconds(day.wall + 43200)) == day.wall + 43200;
}

ZepTime Noon(int position) {
  return platform::CurrentZone().ToSeconds(Calendar()[position].wall + 43200);
}

// Gives the same rules to the words of the walker and to the schedule.
void Draw(Dice& dice, int today, Prose& prose, Rules& rules) {
  const auto near = [&](int back, int ahead) {
    int position = today + dice(-back, ahead);
    while (!Exists(Calendar()[position])) ++position;
    return position;
  };
  const int kinds = dice(1, 15);
  if ((kinds & 1) != 0) {
    for (int n = dice(1, 4); n > 0; --n) {
      const int week = dice(0, 4), day = dice(0, 6);
      prose.weekly[week][day] = true;
      rules->SetDayOfWeek(static_cast<zepByte>(day), static_cast<zepByte>(week));
    }
  }
  if ((kinds & 2) != 0) {
    for (int n = dice(1, 2); n > 0; --n) {
      const int day = dice(1, 31);
      prose.daysOfMonth.insert(day);
      rules.DayOfMonth(day);
    }
    if (dice.OneIn(3)) {
      prose.lastDay = true;
      rules.LastDay();
    }
  }
  if ((kinds & 4) != 0) {
    prose.repeat = dice(1, dice.OneIn(5) ? 2000 : 30);
    prose.anchor = near(400, 30);
    rules.Repeat(prose.repeat, (TextOf(Calendar()[prose.anchor]) + " 12:00").c_str());
  }
  if ((kinds & 8) != 0) {
    for (int n = dice(1, 4); n > 0; --n) {
      const int position = near(3, 60);
      prose.include.insert(position);
      rules.Include(TextOf(Calendar()[position]).c_str());
    }
  }
  for (int n = dice.OneIn(2) ? dice(1, 8) : 0; n > 0; --n) {
    const int position = near(2, 20);
    prose.exclude.insert(position);
    rules.Exclude(TextOf(Calendar()[position]).c_str());
  }
  if (dice.OneIn(4)) {
    prose.effective = near(20, 40);
    rules.Effective((TextOf(Calendar()[prose.effective]) + " 12:00").c_str());
  }
  prose.timeOfDay = dice.OneIn(2) ? dice(0, 5 * 3600) : dice(0, 86399);
  const ZepTime plain =
      platform::CurrentZone().ToSeconds(platform::DaysFromCivil(2024, 1, 10) * 86400 + prose.timeOfDay);
  ASSERT_EQ(rules->put_StartTime(plain), ZEP_S_OK);
  ASSERT_EQ(rules->put_TimeDuration(60000), ZEP_S_OK);
}

TEST_F(WindowWalker, GivesTheSameStartDayByDay) {
  const char* const seedText = std::getenv("QX_SEED");
  const std::uint64_t seed = seedText != nullptr ? std::strtoull(seedText, nullptr, 10) : 20240229;
  const char* const casesText = std::getenv("QX_CASES");
  const int cases = casesText != nullptr ? std::atoi(casesText) : 10000;
  std::printf("QX_SEED=%llu QX_CASES=%d\n", static_cast<unsigned long long>(seed), cases);
  int found = 0;
  const int zones = static_cast<int>(std::size(kZones));
  for (int z = 0; z < zones; ++z) {
    const platform::ScopedZone scope(kZones[z]);
    std::vector<ZepTime> changes;
    for (const auto& change : platform::CurrentZone().Changes()) {
      if (change.at > Noon(1000) && change.at < Noon(14000)) changes.push_back(change.at);
    }
    for (int n = z; n < cases; n += zones) {
      Dice dice(seed * 1000003 + static_cast<std::uint64_t>(n));
      // Around a change of the zone, or anywhere up to 2033.
      ZepTime reference = 0;
      if (!changes.empty() && dice.OneIn(2)) {
        reference =
            changes[static_cast<std::size_t>(dice(0, static_cast<int>(changes.size()) - 1))] + dice(-100000, 100000);
      } else {
        reference = Noon(dice(1000, 14000)) + dice(-43200, 43199);
      }
      const std::int64_t wall = platform::CurrentZone().ToWall(reference);
      const int today = static_cast<int>((wall - Calendar().front().wall) / 86400);
      Prose prose;
      Rules rules;
      ASSERT_NO_FATAL_FAILURE(Draw(dice, today, prose, rules));
      const ZepTime expected = prose.FirstStartAfter(reference, today);
      const Answer answer = rules.Next(reference);
      // Behind the calendar's end the schedule may still find a day: nothing is said about it here.
      if (expected == -1 && answer.result == ZEP_S_OK && Shown(answer.start) >= "2037-12-31") continue;
      ASSERT_EQ(Shown(answer.start), Shown(expected))
          << "case " << n << " of seed " << seed << " in " << kZones[z] << ", reference " << Shown(reference);
      ASSERT_EQ(answer.start, expected);
      found += expected != -1;
    }
  }
  std::printf("%.2f %% of the cases have a window\n", 100.0 * found / cases);
  EXPECT_GT(found, cases * 8 / 10);
}

// The walker's own calendar, against known days.
TEST_F(WindowWalker, CountsDaysRight) {
  EXPECT_EQ(TextOf(Calendar().back()), "2037-12-31");
  EXPECT_EQ(Calendar().back().weekday, kThursday);
  EXPECT_EQ(Calendar().back().wall, 2145830400);
  const Day& leap = Calendar()[10651];
  EXPECT_EQ(TextOf(leap), "2024-02-29");
  EXPECT_EQ(leap.weekday, kThursday);
}

}  // namespace
}  // namespace qx::testing
