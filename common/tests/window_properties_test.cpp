// Random rules and references in many zones: the search against plain loops, and what must hold of every answer.
//
// QX_SEED sets the random generator's start (it is printed), QX_CASES the number of cases. A failing case names its own
// number: the same start makes it again.
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <sstream>
#include <vector>

#include "common/tests/schedule_fixture.h"
#include "common/tests/told_loops.h"

namespace qx::testing {
namespace {

using ZepFoundation::CDate;
using ZepFoundation::CDateTime;
using ZepFoundation::WTimeSpan;

const char* const kZones[] = {"UTC",
                              "America/New_York",
                              "Europe/Berlin",
                              "Europe/Dublin",
                              "Pacific/Apia",
                              "Australia/Lord_Howe",
                              "America/St_Johns",
                              "Pacific/Kiritimati",
                              "Asia/Kolkata",
                              "Asia/Kathmandu",
                              "Africa/Casablanca",
                              "America/Sao_Paulo",
                              "Antarctica/Troll"};
// Presents: they decide the offset that every calendar value is kept with.
const std::int64_t kPresents[] = {1705320000, 1721044800, 1325246400, 1729990800};

constexpr std::int64_t kDay = 86400;
constexpr int kMaxReported = 5;

std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : otherwise;
}

std::uint64_t Seed() {
  static const std::uint64_t seed = NumberFromEnvironment("QX_SEED", 20240531);
  return seed;
}

class Random {
 public:
  explicit Random(std::uint64_t seed) : m_engine(seed * 0x9E3779B97F4A7C15u + 0x632BE59BD9B4E019u) {}
  std::int64_t In(std::int64_t low, std::int64_t high) {
    return low + static_cast<std::int64_t>(m_engine() % static_cast<std::uint64_t>(high - low + 1));
  }
  bool OneIn(int n) { return In(1, n) == 1; }
  template <typename T, std::size_t N>
  const T& Of(const T (&values)[N]) {
    return values[In(0, N - 1)];
  }
  std::uint32_t Bits() { return static_cast<std::uint32_t>(m_engine()); }

 private:
  std::mt19937_64 m_engine;
};

std::int64_t Floor(std::int64_t a, std::int64_t b) {
  return a / b - (a % b < 0 ? 1 : 0);
}
std::int64_t WallDay(ZepTime seconds) {
  return Floor(platform::CurrentZone().ToWall(seconds), kDay);
}
// Noon of a day since 1970, not behind the limit.
ZepTime Noon(std::int64_t day) {
  return std::min<ZepTime>(platform::CurrentZone().ToSeconds(day * kDay + kDay / 2), ZEP_MAX_TIME);
}

std::vector<platform::Zone::Change> ChangesOfTheCalendar() {
  std::vector<platform::Zone::Change> changes;
  for (const auto& change : platform::CurrentZone().Changes()) {
    if (change.at > 315532800 && change.at < ZEP_MAX_TIME - 400 * kDay) changes.push_back(change);
  }
  return changes;
}

struct Case {
  std::int64_t startSeconds = 0;  // of the day
  std::uint32_t durationMs = 0;
  std::int64_t endSeconds = -1;  // of the day; -1: the duration rules
  std::uint32_t words[5] = {};
  std::uint32_t monthDays = 0;
  bool useRepeat = false;
  std::int32_t repeatDays = 2;
  ZepTime anchor = 0;
  bool useRestart = false;
  std::uint32_t restartMs = 0;  // 0: never set
  bool useEffective = false;
  ZepTime effective = 0;
  std::vector<ZepTime> include;
  std::vector<ZepTime> exclude;
  ZepTime reference = 0;
  ZepTime anchorArgument = 0;
  ZepTime effectiveArgument = 0;
  std::int64_t present = 0;

  std::string Text() const {
    std::ostringstream out;
    out << "start " << startSeconds << " s, duration " << durationMs << " ms, end " << endSeconds << "\nweekdays";
    for (const std::uint32_t word : words) out << ' ' << word;
    out << ", days of month " << monthDays << "\nrepeat " << useRepeat << ' ' << repeatDays << " from " << Shown(anchor)
        << "\nrestart " << useRestart << ' ' << restartMs << " ms\neffective " << useEffective << ' '
        << Shown(effective) << "\ninclude";
    for (const ZepTime date : include) out << ' ' << Shown(date).substr(0, 10);
    out << "\nexclude";
    for (const ZepTime date : exclude) out << ' ' << Shown(date).substr(0, 10);
    out << "\nreference " << reference << " (" << Shown(reference) << "), arguments " << anchorArgument << ' '
        << effectiveArgument << ", present " << present;
    return out.str();
  }
};

void DrawReferenceAndStart(Random& random, const std::vector<platform::Zone::Change>& changes, Case& c) {
  static constexpr std::int64_t kRoundStarts[] = {0, 1, 1800, 3599, 7200, 9000, 36000, 79200, 86399};
  c.startSeconds = random.OneIn(2) ? random.Of(kRoundStarts) : random.In(0, kDay - 1);
  switch (random.In(0, 9)) {
    case 0:
    case 1:
    case 2:
    case 3: {
      if (changes.empty()) break;
      // Around a change of offset; often a start in its gap or overlap, and a reference within it to the second.
      const auto& change = changes[random.In(0, static_cast<std::int64_t>(changes.size()) - 1)];
      c.reference = change.at + random.In(-2 * kDay, 2 * kDay);
      if (!random.OneIn(3)) {
        const std::int64_t wall = change.at + std::min(change.offsetBefore, change.offsetAfter);
        c.startSeconds = ((wall + random.In(-5400, 7200)) % kDay + kDay) % kDay;
        if (random.OneIn(2)) c.reference = change.at + random.In(-7200, 7200);
        if (random.OneIn(8)) c.reference = change.at + random.In(-1, 1);
      }
      return;
    }
    case 4: {  // the days around a month's end
      const std::int64_t first = platform::DaysFromCivil(random.In(1999, 2037), static_cast<int>(random.In(1, 12)), 1);
      c.reference = Noon(first + random.In(-3, 1)) + random.In(-kDay / 2, kDay / 2 - 1);
      break;
    }
    case 5:  // the end of all searches
      c.reference = ZEP_MAX_TIME - (random.OneIn(3) ? random.In(0, 2 * kDay) : random.In(0, 60 * kDay));
      break;
    default:
      c.reference = random.In(320000000, ZEP_MAX_TIME);
  }
  if (random.OneIn(5)) {
    // At the start of the day, or within two seconds of it.
    c.reference = platform::CurrentZone().ToSeconds(WallDay(c.reference) * kDay + c.startSeconds) + random.In(-2, 2);
  }
  c.reference = std::min<ZepTime>(c.reference, ZEP_MAX_TIME);
}

void DrawWindow(Random& random, Case& c) {
  static constexpr std::uint32_t kDurations[] = {1000, 60000, 3600000, 3661000, 14400000, 86399000, 86399059, 86400000};
  c.durationMs = random.OneIn(2) ? random.Of(kDurations) : static_cast<std::uint32_t>(random.In(1, 86400)) * 1000;
  if (random.OneIn(3)) {
    c.endSeconds = random.OneIn(10) ? c.startSeconds : random.In(0, kDay - 1);
    c.durationMs = static_cast<std::uint32_t>((c.endSeconds - c.startSeconds + kDay) % kDay) * 1000;
  }
  c.useRestart = random.OneIn(2);
  if (!random.OneIn(12)) {
    static constexpr std::uint32_t kRestarts[] = {1000,   7000,    61000,   61001,   113500,
                                                  900000, 3599000, 3600000, 5400000, 86400000};
    c.restartMs = random.OneIn(2) ? random.Of(kRestarts) : static_cast<std::uint32_t>(random.In(1000, 14400000));
    // Plain loops: few cases with many steps.
    if (!random.OneIn(300)) c.restartMs = std::max(c.restartMs, c.durationMs / 200 / 1000 * 1000 + 1000);
  }
  if (c.useRestart && random.OneIn(2)) {
    // Within a window, also one that crosses midnight or a change.
    const ZepTime opened = platform::CurrentZone().ToSeconds(WallDay(c.reference) * kDay + c.startSeconds);
    c.reference = std::min<ZepTime>(opened + random.In(0, c.durationMs / 1000), ZEP_MAX_TIME);
  }
}

void DrawDates(Random& random, Case& c) {
  const std::int64_t today = WallDay(c.reference);
  if (!random.OneIn(3)) {
    const bool every = random.OneIn(3);
    const bool one = random.OneIn(3);
    for (std::uint32_t& word : c.words) word = every ? 0x7F : one ? 0 : random.Bits() & random.Bits() & 0x7F;
    if (one && !every) c.words[random.In(0, 4)] = 1u << random.In(0, random.OneIn(20) ? 7 : 6);
  }
  if (random.OneIn(3)) {
    c.monthDays = random.OneIn(2) ? 1u << random.In(27, 31) : 1u << random.In(0, 31) | 1u << random.In(0, 31);
  }
  if (random.OneIn(3)) {
    c.useRepeat = true;
    c.repeatDays = static_cast<std::int32_t>(random.OneIn(8) ? random.In(1, 9999) : random.In(1, 40));
  }
  c.anchor = Noon(today + (random.OneIn(10) ? random.In(-20000, 400) : random.In(-90, 40)));
  c.useEffective = random.OneIn(4);
  c.effective = Noon(today + random.In(-10, 20));
  if (random.OneIn(3)) {
    for (std::int64_t n = random.In(1, 5); n > 0; --n) c.include.push_back(Noon(today + random.In(-5, 40)));
  }
  if (random.OneIn(3)) {
    for (std::int64_t n = random.In(1, 6); n > 0; --n) c.exclude.push_back(Noon(today + random.In(-3, 20)));
    // Several in a row, by days or by repeats; some of them included as well.
    const std::int64_t step = random.OneIn(2) ? c.repeatDays : 1;
    const std::int64_t first = random.OneIn(2) ? WallDay(c.anchor) : today;
    if (random.OneIn(3)) {
      for (std::int64_t i = 0; i < 8; ++i) c.exclude.push_back(Noon(first + i * step));
    }
    for (const ZepTime date : c.include) {
      if (random.OneIn(3)) c.exclude.push_back(date);
    }
  }
  if (random.OneIn(12)) {
    // Only a few dates around the reference, and restarts that divide the window: what the last window is shows here.
    std::fill(std::begin(c.words), std::end(c.words), 0u);
    c.monthDays = 0;
    c.useRepeat = false;
    c.include.assign(1, Noon(today));
    if (random.OneIn(2)) c.include.push_back(Noon(today - random.In(-2, 1)));
    if (c.durationMs >= 8000) c.restartMs = c.durationMs / static_cast<std::uint32_t>(random.In(1, 8)) / 1000 * 1000;
  }
  if (c.monthDays == 0 && !c.useRepeat && c.include.empty() && !random.OneIn(10)) c.words[0] |= 1u << random.In(0, 6);
  if (random.OneIn(10)) c.anchorArgument = Noon(today + random.In(-50, 50));
  if (random.OneIn(10)) c.effectiveArgument = Noon(today + random.In(-10, 20));
}

Case Draw(std::uint64_t number, const std::vector<platform::Zone::Change>& changes) {
  Random random(Seed() + number);
  Case c;
  c.present = random.Of(kPresents);
  DrawReferenceAndStart(random, changes, c);
  DrawWindow(random, c);
  DrawDates(random, c);
  return c;
}

ZepTime TimeOfDay(std::int64_t seconds) {
  return platform::CurrentZone().ToSeconds(platform::DaysFromCivil(2024, 1, 10) * kDay + seconds);
}

void Give(const Case& c, Rules& rules) {
  ASSERT_EQ(rules->put_StartTime(TimeOfDay(c.startSeconds)), ZEP_S_OK);
  ASSERT_EQ(c.endSeconds >= 0 ? rules->put_EndTime(TimeOfDay(c.endSeconds)) : rules->put_TimeDuration(c.durationMs),
            ZEP_S_OK);
  for (zepByte week = 0; week < 5; ++week) {
    for (zepByte day = 0; day < 8; ++day) {
      if ((c.words[week] >> day & 1u) != 0) rules->SetDayOfWeek(day, week);
    }
  }
  for (std::uint16_t i = 0; i < 32; ++i) {
    if ((c.monthDays >> i & 1u) != 0) rules->SetDayOfMonth(i);
  }
  rules->put_UseRepeatInterval(c.useRepeat ? 1 : 0);
  ASSERT_EQ(rules->put_RepeatInterval(c.repeatDays), ZEP_S_OK);
  ASSERT_EQ(rules->put_AnchorDate(c.anchor), ZEP_S_OK);
  rules->put_UseRestartInterval(c.useRestart ? 1 : 0);
  if (c.restartMs != 0) {
    ASSERT_EQ(rules->put_RestartInterval(c.restartMs), ZEP_S_OK);
  }
  rules->put_UseEffectiveDate(c.useEffective ? 1 : 0);
  ASSERT_EQ(rules->put_EffectiveDate(c.effective), ZEP_S_OK);
  for (const ZepTime date : c.include) ASSERT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_INCLUDE, date), ZEP_S_OK);
  for (const ZepTime date : c.exclude) ASSERT_EQ(rules->SetSpecificDate(ZEP_SPECIFIC_EXCLUDE, date), ZEP_S_OK);
}

CDate DateAt(ZepTime seconds) {
  CDateTime value;
  value.SetDateTime(seconds);
  CDate date;
  date.SetDate(value.GetYear(), value.GetMonth(), value.GetDay());
  return date;
}

void Give(const Case& c, ToldLoops& told) {
  told.m_bUseEffectiveDate = c.useEffective;
  told.m_dtEffectiveDate = DateAt(c.effective);
  told.m_StartTime.SetTime(static_cast<int>(c.startSeconds / 3600), static_cast<int>(c.startSeconds / 60 % 60),
                           static_cast<int>(c.startSeconds % 60), 0);
  told.m_TimeDuration = WTimeSpan(c.durationMs, false);
  told.m_EndTime = told.m_StartTime + told.m_TimeDuration;
  told.m_bUseRestartInterval = c.useRestart;
  told.m_RestartInterval = WTimeSpan(c.restartMs, false);
  std::copy(std::begin(c.words), std::end(c.words), told.m_DayOfWeekList.begin());
  told.m_DaysOfMonth = c.monthDays;
  told.m_bUseRepeatInterval = c.useRepeat;
  told.m_AnchorDate = DateAt(c.anchor);
  told.m_iRepeatInterval = c.repeatDays;
  for (const ZepTime date : c.include) told.m_SpecificIncludeDateSet.insert(DateAt(date));
  for (const ZepTime date : c.exclude) told.m_SpecificExcludeDateSet.insert(DateAt(date));
}

// A reference counts as what its wall clock reading leaves as: in an overlap that is one instant for both passes.
ZepTime AsCalendarValue(ZepTime seconds) {
  const platform::Zone& zone = platform::CurrentZone();
  return zone.ToSeconds(zone.ToWall(seconds));
}

// True for an instant that only wall clock readings inside a gap lead to as well.
bool IsImageOfAGap(ZepTime seconds) {
  const auto changes = platform::CurrentZone().Changes();
  return std::any_of(changes.begin(), changes.end(), [seconds](const platform::Zone::Change& change) {
    return seconds >= change.at && seconds < change.at + change.offsetAfter - change.offsetBefore;
  });
}

class WindowProperties : public ::testing::Test {
 protected:
  // Calls check(number, case) in every zone until all cases are done or enough have failed.
  template <typename Check>
  void ForCases(std::uint64_t count, Check check) {
    const std::uint64_t zones = std::size(kZones);
    std::printf("QX_SEED=%llu QX_CASES=%llu\n", static_cast<unsigned long long>(Seed()),
                static_cast<unsigned long long>(count));
    for (std::uint64_t z = 0; z < zones && m_reported < kMaxReported; ++z) {
      const platform::ScopedZone zone(kZones[z]);
      const auto changes = ChangesOfTheCalendar();
      for (std::uint64_t n = z; n < count && m_reported < kMaxReported; n += zones) {
        const Case c = Draw(n, changes);
        m_clock.SetWall(c.present);
        if (::testing::Test::HasFailure()) ++m_reported;
        SCOPED_TRACE(::testing::Message() << "case " << n << " of seed " << Seed() << " in " << kZones[z]);
        check(n, c);
      }
    }
  }

  platform::VirtualClock m_clock;
  int m_reported = 0;
};

TEST_F(WindowProperties, TheSearchAnswersAsPlainLoopsDo) {
  const std::uint64_t count = NumberFromEnvironment("QX_CASES", 13000);
  std::uint64_t found = 0;
  std::uint64_t inside = 0;
  std::uint64_t restarts = 0;
  ForCases(count, [&](std::uint64_t n, const Case& c) {
    Rules rules;
    ASSERT_NO_FATAL_FAILURE(Give(c, rules));
    ToldLoops told;
    Give(c, told);

    const Answer got = rules.Next(c.reference, c.anchorArgument, c.effectiveArgument);
    Answer expected{.result = 0, .start = -2, .end = -2, .last = 9};
    expected.result = told.GetNextTimeWindow(c.anchorArgument, c.effectiveArgument, c.reference, &expected.start,
                                             &expected.end, &expected.last);
    expected.match = told.m_LastRuleMatch;
    EXPECT_EQ(got.result, expected.result) << c.Text();
    EXPECT_EQ(Shown(got.start), Shown(expected.start)) << c.Text();
    EXPECT_EQ(got.start, expected.start) << c.Text();
    EXPECT_EQ(got.end, expected.end) << c.Text();
    EXPECT_EQ(got.last, expected.last) << c.Text();
    EXPECT_EQ(got.match, expected.match) << c.Text();

    const zepByte in = rules->IsScheduleInTimeWindow(c.reference);
    EXPECT_EQ(in, told.IsScheduleInTimeWindow(c.reference)) << c.Text();
    inside += in;
    if (got.result != ZEP_S_OK) return;
    ++found;
    restarts += got.end - got.start != Floor(c.durationMs, 1000);

    // Inside the window that was found, and at both of its ends.
    Random random(Seed() ^ n << 20);
    const ZepTime length = std::max<ZepTime>(got.end - got.start, 0);
    for (const ZepTime at : {got.start + random.In(0, length), got.start, got.end}) {
      const zepByte within = rules->IsScheduleInTimeWindow(at);
      EXPECT_EQ(within, told.IsScheduleInTimeWindow(at)) << "at " << Shown(at) << "\n" << c.Text();
      inside += within;
    }
  });
  std::printf("%.2f %% of the cases have a window, %.2f %% a restart or a window over a change; %llu times inside\n",
              100.0 * found / count, 100.0 * restarts / count, static_cast<unsigned long long>(inside));
  EXPECT_GT(found, count * 8 / 10);
  EXPECT_GT(inside, count / 10);
}

// Times of day are kept as UTC: read in another zone they may show 24 hours and more, which no date can bear. Dates
// stay as they are and may be ones that the other zone leaves out.
TEST_F(WindowProperties, TheSearchAnswersAsPlainLoopsDoBehindAChangeOfTheZone) {
  static constexpr const char* kTo[] = {"Pacific/Kiritimati", "Pacific/Apia", "Europe/Berlin", "America/New_York"};
  constexpr std::uint64_t kCases = 400;
  constexpr std::uint64_t kPairs = std::size(kZones) * std::size(kTo);
  struct Given {
    std::uint64_t n = 0;
    Case c;
    Rules rules;
    ToldLoops told;
  };
  int none = 0;
  int found = 0;
  // All cases of a pair of zones together: a zone takes longer to load than a case.
  for (std::uint64_t pair = 0; pair < kPairs && !HasFailure(); ++pair) {
    const char* const from = kZones[pair % std::size(kZones)];
    const platform::ScopedZone before(from);
    m_clock.SetWall(kPresents[0]);
    const auto changes = ChangesOfTheCalendar();
    std::deque<Given> cases;
    for (std::uint64_t n = pair; n < kCases; n += kPairs) {
      Given& given = cases.emplace_back();
      given.n = n;
      given.c = Draw(n, changes);
      Case& c = given.c;
      c.present = kPresents[0];
      c.startSeconds = c.startSeconds / 2 + (n % 2) * kDay / 2;
      c.endSeconds = -1;
      c.durationMs = std::max(c.durationMs, 1000u);
      // Restarts of a start that is no time are counted from 1601: few of them, or the loops never end.
      c.useRestart = c.useRestart && n % 12 == 0;
      c.restartMs = c.useRestart ? 86400000 : 0;
      if (n % 4 == 1) {
        c.reference = 1325246400 + static_cast<std::int64_t>(n) * 977 % (6 * kDay) - 3 * kDay;
        c.include.assign(1, platform::DaysFromCivil(2011, 12, 30) * kDay + kDay / 2);
      }
      ASSERT_NO_FATAL_FAILURE(Give(c, given.rules));
      Give(c, given.told);
    }
    const platform::ScopedZone after(kTo[pair / std::size(kZones)]);
    for (Given& given : cases) {
      const Case& c = given.c;
      SCOPED_TRACE(::testing::Message() << "case " << given.n << " of seed " << Seed() << " from " << from);

      const Answer got = given.rules.Next(c.reference);
      Answer expected{.result = 0, .start = -2, .end = -2, .last = 9};
      expected.result = given.told.GetNextTimeWindow(0, 0, c.reference, &expected.start, &expected.end, &expected.last);
      EXPECT_EQ(got.result, expected.result) << c.Text();
      EXPECT_EQ(got.start, expected.start) << c.Text();
      EXPECT_EQ(got.end, expected.end) << c.Text();
      EXPECT_EQ(got.last, expected.last) << c.Text();
      EXPECT_EQ(got.match, given.told.m_LastRuleMatch) << c.Text();
      EXPECT_EQ(given.rules->IsScheduleInTimeWindow(c.reference), given.told.IsScheduleInTimeWindow(c.reference))
          << c.Text();
      (got.start == -1 ? none : found) += 1;
    }
  }
  std::printf("%d with a start, %d without\n", found, none);
  EXPECT_GT(found, 100);
  EXPECT_GT(none, 20);
}

TEST_F(WindowProperties, TheNextStartIsLaterThanTheReferenceAndOnNoExcludedDate) {
  ForCases(NumberFromEnvironment("QX_CASES", 13000), [&](std::uint64_t, const Case& c) {
    Rules rules;
    ASSERT_NO_FATAL_FAILURE(Give(c, rules));
    const Answer answer = rules.Next(c.reference, c.anchorArgument, c.effectiveArgument);
    if (answer.result != ZEP_S_OK) return;
    EXPECT_GT(answer.start, AsCalendarValue(c.reference)) << c.Text();
    // A start that the local clock leaves out is moved, also off its date; and the limit of all searches ends the walk
    // of the weekday rule on the day behind an excluded one, whatever that day is.
    if (IsImageOfAGap(answer.start) || WallDay(answer.start) >= WallDay(ZEP_MAX_TIME)) return;
    for (const ZepTime date : c.exclude) EXPECT_NE(WallDay(answer.start), WallDay(date)) << c.Text();
  });
}

TEST_F(WindowProperties, StartsOfSuccessiveQueriesAscend) {
  ForCases(NumberFromEnvironment("QX_CASES", 13000) / 4, [&](std::uint64_t, const Case& c) {
    Rules rules;
    ASSERT_NO_FATAL_FAILURE(Give(c, rules));
    ZepTime before = AsCalendarValue(c.reference);
    for (int i = 0; i < 8 && before <= ZEP_MAX_TIME; ++i) {
      const Answer answer = rules.Next(before, c.anchorArgument, c.effectiveArgument);
      if (answer.result != ZEP_S_OK) break;
      ASSERT_GT(answer.start, before) << c.Text();
      before = answer.start;
    }
  });
}

// From the start two days ahead of a change to the start two days behind it lie four windows; a day that the local
// clock leaves out has none of its own.
TEST_F(WindowProperties, ADailyScheduleRunsOncePerDayAcrossEveryChange) {
  for (const char* name : kZones) {
    const platform::ScopedZone scope(name);
    const platform::Zone& zone = platform::CurrentZone();
    for (const std::int64_t present : kPresents) {
      m_clock.SetWall(present);
      for (const auto& change : ChangesOfTheCalendar()) {
        const std::int64_t wall = change.at + std::min(change.offsetBefore, change.offsetAfter);
        const std::int64_t day = Floor(wall, kDay);
        const int expected = change.offsetAfter - change.offsetBefore >= kDay ? 3 : 4;
        for (const std::int64_t apart : {-1800, -1, 0, 1, 900, 1799, 1800, 2700, 3599, 3600, 5400}) {
          const std::int64_t timeOfDay = ((wall + apart) % kDay + kDay) % kDay;
          Rules rules;
          rules.Daily();
          ASSERT_EQ(rules->put_StartTime(TimeOfDay(timeOfDay)), ZEP_S_OK);
          ASSERT_EQ(rules->put_TimeDuration(60000), ZEP_S_OK);
          ZepTime at = zone.ToSeconds((day - 2) * kDay + timeOfDay);
          const ZepTime until = zone.ToSeconds((day + 2) * kDay + timeOfDay);
          int runs = 0;
          for (; at < until && runs < 10; ++runs) at = rules.Next(at).start;
          ASSERT_EQ(at, until) << name << ", change at " << Shown(change.at) << ", time of day " << timeOfDay;
          ASSERT_EQ(runs, expected) << name << ", change at " << Shown(change.at) << ", time of day " << timeOfDay;
        }
      }
    }
  }
}

}  // namespace
}  // namespace qx::testing
