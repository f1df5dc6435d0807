// service/tests/simulated_machine.h: a service on a machine whose time passes by a script: the real loop, comparison of
// clocks and store run under a clock that is set, zones that change and jobs that are only counted. At the end of each
// stretch of undisturbed time the launches are compared with the windows that plain calendar reckoning gives.
#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/testing/counting_launcher.h"
#include "service/scheduler_loop.h"
#include "service/tests/service_fixture.h"
#include "service/time_change.h"
#include "service/time_change_thread.h"

namespace qx::testing {

inline constexpr std::uint64_t kMillisecondsOfDay = 86'400'000;
inline constexpr int kCyclesOfAMillisecond = 20;

// Lets the time of a wait pass, and at given moments of the steady clock does something before it goes on.
class ScriptedClock : public platform::ClockSource {
 public:
  // Returns whether it set an event, which ends the wait.
  using Action = std::function<bool()>;

  explicit ScriptedClock(platform::VirtualClock& clock) : m_clock(clock), m_before(platform::InstalledClockSource()) {
    platform::InstallClockSource(this);
  }
  ~ScriptedClock() override { platform::InstallClockSource(m_before); }

  // After all that stands in the script so far, `milliseconds` later.
  void Then(std::uint64_t milliseconds, Action action) {
    m_end = std::max(m_end, m_clock.SteadyMilliseconds()) + milliseconds;
    m_script.emplace_back(m_end, std::move(action));
  }
  [[nodiscard]] bool AtEnd() const { return m_script.empty(); }
  // Goes to the next action without a wait.
  void RunNext() {
    m_clock.Advance(m_script.front().first - m_clock.SteadyMilliseconds());
    (void)TakeFirst();
  }

  std::int64_t WallNanoseconds() override { return m_clock.WallNanoseconds(); }
  std::uint64_t SteadyMilliseconds() override { return m_clock.SteadyMilliseconds(); }
  bool ConsumeWait(std::uint64_t milliseconds) override {
    const std::uint64_t end = m_clock.SteadyMilliseconds() + milliseconds;
    while (!m_script.empty() && m_script.front().first <= end) {
      m_clock.Advance(m_script.front().first - m_clock.SteadyMilliseconds());
      if (TakeFirst()) return false;
    }
    return m_clock.ConsumeWait(end - m_clock.SteadyMilliseconds());
  }

 private:
  bool TakeFirst() {
    const Action action = std::move(m_script.front().second);
    m_script.pop_front();
    return action();
  }

  platform::VirtualClock& m_clock;
  platform::ClockSource* m_before;
  std::deque<std::pair<std::uint64_t, Action>> m_script;
  std::uint64_t m_end = 0;
};

// A schedule as plain reckoning sees it: a time of day, and the days on which it runs (days since 1970, local).
//
// What stays of a time of day is its distance from UTC's in the zone's standard time: in another zone the schedule
// opens at another hour. One that would open at 24:00 or later, as it may after a move to the east, has no window; it
// leaves the list, and the next change of the clock or the zone reads it anew from its file, which holds the time of
// day as an instant.
struct DayRule {
  std::int64_t timeOfDay;  // seconds, as the zone's clock showed it when the schedule was made
  std::function<bool(std::int64_t day)> runsOn;
  std::int64_t kept = 0;
  std::int64_t instant = 0;
  std::int64_t next = -1;  // the window that the service waits for; -1 while it isn't listed

  void Read(std::int64_t now) { Keep(Wrapped(platform::CurrentZone().ToWall(instant)), now); }
  void Keep(std::int64_t shown, std::int64_t now) {
    kept = shown + platform::CurrentZone().StandardBias(now);
    if (kept >= kSecondsOfDay) kept -= kSecondsOfDay;
  }
  static std::int64_t Wrapped(std::int64_t seconds) {
    return (seconds % kSecondsOfDay + kSecondsOfDay) % kSecondsOfDay;
  }
};

// The instant of a wall clock value, from the changes of a zone alone: the last one at which the clock shows it; where
// it never does, as many seconds behind the change as the value stands behind the gap's begin.
inline std::int64_t InstantOf(const platform::Zone& zone, std::int64_t wall) {
  std::set<std::int32_t> offsets = {zone.OffsetAt(wall - 3 * kSecondsOfDay), zone.OffsetAt(wall + 3 * kSecondsOfDay)};
  const platform::Zone::Change* gap = nullptr;
  for (const platform::Zone::Change& change : zone.Changes()) {
    if (std::abs(change.at - wall) > 4 * kSecondsOfDay) continue;
    offsets.insert({change.offsetBefore, change.offsetAfter});
    if (wall >= change.at + change.offsetBefore && wall < change.at + change.offsetAfter) gap = &change;
  }
  std::int64_t latest = INT64_MIN;
  for (const std::int32_t offset : offsets) {
    if (zone.OffsetAt(wall - offset) == offset) latest = std::max(latest, wall - offset);
  }
  return latest != INT64_MIN ? latest : gap->at + (wall - gap->at - gap->offsetBefore);
}

inline std::int64_t DayOf(std::int64_t wall) {
  return (wall >= 0 ? wall : wall - kSecondsOfDay + 1) / kSecondsOfDay;
}

// The first window of a rule that is asked for at `now`, -1 for none within twenty years. It is one that the clock, as it
// goes now, shows later: a time of day that has come in the first of two equal hours is past, although a start that was
// asked for earlier is in the second one.
inline std::int64_t WindowAfter(const DayRule& rule, std::int64_t now) {
  const platform::Zone& zone = platform::CurrentZone();
  std::int64_t timeOfDay = rule.kept - zone.StandardBias(now);
  if (timeOfDay < 0) timeOfDay += kSecondsOfDay;
  if (timeOfDay >= kSecondsOfDay) return -1;
  const std::int64_t shown = zone.ToWall(now);
  const std::int64_t today = DayOf(shown);
  for (std::int64_t day = today; day < today + 20 * 366; ++day) {
    if (!rule.runsOn(day)) continue;
    const std::int64_t window = InstantOf(zone, day * kSecondsOfDay + timeOfDay);
    if (zone.ToWall(window) > shown) return window;
  }
  return -1;
}

// The windows of a rule up to `to`, each asked for when the one before it was launched. A rule that comes to its end
// leaves the list.
inline std::vector<std::int64_t> TakeWindows(DayRule& rule, std::int64_t to) {
  std::vector<std::int64_t> windows;
  for (; rule.next != -1 && rule.next <= to; rule.next = WindowAfter(rule, rule.next)) windows.push_back(rule.next);
  return windows;
}

// A node of a record without a key and a file, under an ID of that number; whoever lists it owns its rule object.
inline CJobNode MakeNode(const SCHEDULE_OBJECT& schedule, std::uint32_t number) {
  CJobNode node;
  node.ScheduleID.Data1 = number;
  EXPECT_EQ(node.InitializeScheduler(), kStatusOk);
  EXPECT_EQ(node.ValidateScheduleRules(schedule), kStatusOk);
  EXPECT_EQ(node.SetLaunchPath(*schedule.bstrWrapperBinaryName, u"", u"", 1, u"", u""), kStatusOk);
  EXPECT_GT(node.UpdateNextTimeWindow(), 0);
  return node;
}

class SimulatedMachine : public ServiceFixture {
 protected:
  explicit SimulatedMachine(const std::string& zone = "UTC", std::int64_t present = kPresent)
      : ServiceFixture(zone, present), m_script(m_clock) {
    m_timeChange.SaveBias(platform::GetTimeZoneInformation().bias);
    m_clock.Advance(500);  // so that no action of a script meets a window
    m_from = platform::NowSeconds();
  }

  // --- schedules ---

  // A record that runs at the rule's time of day, its run days left to the caller.
  SCHEDULE_OBJECT At(std::int64_t timeOfDay) const {
    SCHEDULE_OBJECT schedule = Once();
    const platform::Zone& zone = platform::CurrentZone();
    const std::int64_t today = DayOf(zone.ToWall(platform::NowSeconds()));
    schedule.stScheduleRules.lStartTime = static_cast<std::int32_t>(InstantOf(zone, today * kSecondsOfDay + timeOfDay));
    schedule.stScheduleRules.alIncludeDates = {};
    schedule.bUseGUID = 1;
    return schedule;
  }
  SCHEDULE_OBJECT EveryDayAt(std::int64_t timeOfDay) const {
    SCHEDULE_OBJECT schedule = At(timeOfDay);
    for (auto* week : Weeks(schedule)) week->fill(1);
    return schedule;
  }
  static std::vector<std::array<std::uint32_t, kDaysOfWeekCount>*> Weeks(SCHEDULE_OBJECT& schedule) {
    SCHEDULE_RULE& rules = schedule.stScheduleRules;
    return {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
            &rules.dwDaysOfWeek4};
  }
  // Creates it in the store, with its rule as plain reckoning has it.
  ScheduleGuid Keep(const SCHEDULE_OBJECT& schedule, DayRule rule) {
    const ScheduleGuid id = Create(schedule);
    Remember(Text(id), std::move(rule));
    return id;
  }
  // Lists it without a key and a file, under an ID of that number.
  ScheduleGuid List(const SCHEDULE_OBJECT& schedule, std::uint32_t number, DayRule rule) {
    CJobNode node = MakeNode(schedule, number);
    EXPECT_EQ(g_JobList.AddJob(node), kStatusOk);
    Remember(Narrow(node.IdText()), std::move(rule));
    return node.ScheduleID;
  }

  // --- the script ---

  // Another present, before anything is listed.
  void Begin(std::int64_t seconds) {
    m_clock.SetWall(seconds, 500);
    m_from = seconds;
  }

  // Sets the machine's clock by `seconds`, the given time after the script's last action. A step of more than a second
  // is told to the service and ends a stretch.
  void ThenStepClock(std::uint64_t milliseconds, std::int64_t seconds) {
    m_script.Then(milliseconds, [this, seconds] {
      CloseStretch();
      m_clock.SetWall(platform::NowSeconds() + seconds, 500);
      return Notify(false);
    });
  }
  void ThenChangeZone(std::uint64_t milliseconds, const std::string& zone) {
    m_script.Then(milliseconds, [this, zone] {
      CloseStretch();
      ::setenv("TZ", zone.c_str(), 1);
      return Notify(platform::ReloadZone());
    });
  }
  // Runs the script and `milliseconds` more.
  void Run(std::uint64_t milliseconds) {
    m_script.Then(milliseconds, [this] {
      CloseStretch();
      g_SchedulerEvents.Set(REFRESH_EVENT);
      return true;
    });
    int still = 0;  // cycles in which no time passed
    while (!m_script.AtEnd()) {
      if (g_JobList.Empty()) m_script.RunNext();  // the loop would sleep without end
      const std::uint64_t before = m_clock.SteadyMilliseconds();
      ASSERT_TRUE(m_loop.Step());
      (void)m_apartment.Step(0);
      // A sleep that wraps to 0 is no wait: a machine's loop goes round until its clock shows another millisecond.
      still = m_clock.SteadyMilliseconds() == before ? still + 1 : 0;
      if (still > kCyclesOfAMillisecond) (void)m_script.ConsumeWait(1);
    }
    while (TakeEvent() >= 0) {
    }
  }

  // --- what came of it ---

  std::uint64_t Launches() const { return m_launcher.count(); }

  ScriptedClock m_script;
  platform::ClockWatch m_watch{"/nonexistent/zone"};
  CSchedulerLoop m_loop{m_apartment, m_service, &m_watch};
  CTimeChangeThread m_timeChange{m_watch};
  std::map<std::string, DayRule> m_rules;
  std::map<std::string, std::vector<std::int64_t>> m_runs;  // of the present stretch
  std::vector<std::pair<std::string, std::int64_t>> m_launches;  // all, in order
  platform::CountingLauncher m_launcher{[this](std::u16string_view line) {
    const std::size_t brace = line.find(u'{');
    const std::string id = Narrow(line.substr(brace, 38));
    m_runs[id].push_back(platform::NowSeconds());
    m_launches.emplace_back(id, platform::NowSeconds());
    return platform::ErrorCode{0};
  }};

 private:
  void Remember(const std::string& id, DayRule rule) {
    const platform::Zone& zone = platform::CurrentZone();
    const std::int64_t today = DayOf(zone.ToWall(platform::NowSeconds()));
    rule.instant = InstantOf(zone, today * kSecondsOfDay + rule.timeOfDay);
    rule.Keep(rule.timeOfDay, platform::NowSeconds());
    rule.next = WindowAfter(rule, platform::NowSeconds());
    m_rules[id] = std::move(rule);
  }

  // The notice as the clock watch gives it.
  bool Notify(bool zoneRulesChanged) {
    m_timeChange.OnNotice({platform::ClockNotice::kTimeChange, zoneRulesChanged});
    m_from = platform::NowSeconds();
    const int event = TakeEvent();
    if (event >= 0) g_SchedulerEvents.Set(static_cast<std::size_t>(event));
    EXPECT_EQ(event, SYSTEM_TIME_CHANGED);
    m_expectTimeChange = event >= 0;
    return event >= 0;
  }

  // Every window of the stretch was launched once, on its second, and nothing else; every launch was told with the next
  // window; the change that began the stretch was told once, with the window of every schedule that was listed or came
  // back.
  void CloseStretch() {
    (void)m_apartment.Step(0);
    const std::int64_t to = platform::NowSeconds();
    const std::string stretch =
        " between " + std::to_string(m_from) + " and " + std::to_string(to) + " in " + platform::CurrentZone().Name();
    std::map<std::string, std::vector<std::string>> told;
    std::map<std::string, std::int64_t> toldChange, expectedChange;
    int timeChanges = 0;
    for (const std::string& text : m_sink->heard) {
      if (text.starts_with("window ")) told[text.substr(7, 38)].push_back(text.substr(46));
      if (!text.starts_with("time ")) continue;
      ++timeChanges;
      for (std::size_t at = text.find('{'); at != text.npos; at = text.find('{', at + 1)) {
        toldChange[text.substr(at, 38)] = std::stoll(text.substr(at + 39));
      }
    }
    if (m_expectTimeChange) {
      for (auto& [id, rule] : m_rules) {
        const bool wasListed = rule.next != -1;
        if (!wasListed) rule.Read(m_from);
        rule.next = WindowAfter(rule, m_from);
        if (wasListed || rule.next != -1) expectedChange[id] = rule.next;
      }
    }
    for (auto& [id, rule] : m_rules) {
      const std::vector<std::int64_t> expected = TakeWindows(rule, to);
      EXPECT_EQ(m_runs[id], expected) << id << stretch;
      std::vector<std::string> expectedTold;
      for (const std::int64_t window : expected) expectedTold.push_back(std::to_string(WindowAfter(rule, window)));
      EXPECT_EQ(told[id], expectedTold) << id << stretch;
    }
    EXPECT_EQ(timeChanges, expectedChange.empty() ? 0 : 1) << stretch;  // of an empty list nothing is told
    EXPECT_EQ(toldChange, expectedChange) << stretch;
    m_from = to;
    m_expectTimeChange = false;
    m_runs.clear();
    m_sink->heard.clear();
    m_log.Clear();
  }

  std::int64_t m_from = 0;  // when the stretch began
  bool m_expectTimeChange = false;
};

}  // namespace qx::testing
