// The loop beside a plain one: a linked list that is walked whole at each insertion and sorted stably after each pass.
// The same random life gives the same launches in the same order, and the same list after each cycle.
#include <list>
#include <random>

#include "service/tests/simulated_machine.h"

namespace {

using qx::testing::DayRule;
using qx::testing::kMillisecondsOfDay;
using qx::testing::kSecondsOfDay;
using qx::testing::MakeNode;
using qx::testing::WindowAfter;
using Launch = std::pair<std::string, std::int64_t>;

class PlainLoop {
 public:
  struct Node {
    std::string id;
    DayRule rule;
    std::int64_t window;
    friend bool operator<(const Node& a, const Node& b) { return a.window < b.window; }
  };

  bool Add(const Node& node) {
    auto place = m_list.end();
    for (auto at = m_list.begin(); at != m_list.end(); ++at) {
      if (at->id == node.id) return false;
      if (place == m_list.end() && node.window <= at->window) place = at;
    }
    m_list.insert(place, node);
    return true;
  }
  void Remove(const std::string& id) {
    m_list.remove_if([&](const Node& node) { return node.id == id; });
  }
  // Launches all that falls due up to an instant, at its second.
  void RunTo(std::int64_t until) {
    while (!m_list.empty() && m_list.front().window <= until) {
      const std::int64_t now = m_list.front().window;
      for (auto at = m_list.begin(); at != m_list.end() && at->window == now;) {
        launches.emplace_back(at->id, now);
        at->window = WindowAfter(at->rule, now);
        at = at->window < 0 ? m_list.erase(at) : std::next(at);
      }
      m_list.sort();
    }
  }
  void ChangeTime(std::int64_t now) {
    for (auto at = m_list.begin(); at != m_list.end();) {
      at->window = WindowAfter(at->rule, now);
      at = at->window < 0 ? m_list.erase(at) : std::next(at);
    }
    m_list.sort();
  }
  [[nodiscard]] std::vector<Launch> Contents() const {
    std::vector<Launch> out;
    for (const Node& node : m_list) out.emplace_back(node.id, node.window);
    return out;
  }
  std::vector<Launch> launches;

 private:
  std::list<Node> m_list;
};

class ToldLoop : public qx::testing::SimulatedMachine, public testing::WithParamInterface<std::uint32_t> {
 protected:
  static std::vector<Launch> Listed() {
    std::vector<Launch> out;
    const platform::CriticalSectionGuard guard(g_JobListLock);
    for (auto at = g_JobList.Begin(); at != g_JobList.End(); ++at) {
      out.emplace_back(qx::testing::Narrow(at->IdText()), at->NextTimeWindow);
    }
    return out;
  }
  // A schedule of few times of day and few periods, so that many meet on one second.
  void Insert() {
    const std::uint32_t number = 1 + Below(40);
    const std::int64_t timeOfDay = 9 * 3600 + Below(4) * 600;
    const std::int64_t period = 1 + Below(3);
    const std::int64_t today = qx::testing::DayOf(platform::NowSeconds());
    const std::int64_t last = Below(4) == 0 ? today + 2 : today + 100'000;
    SCHEDULE_OBJECT schedule = At(timeOfDay);
    DayRule rule;
    if (last == today + 2) {
      schedule.stScheduleRules.alIncludeDates[0] = static_cast<std::int32_t>(last * kSecondsOfDay);
      rule = {timeOfDay, [=](std::int64_t day) { return day == last; }};
    } else {
      schedule.stScheduleRules.bRepeatInterval = 1;
      schedule.stScheduleRules.dwRepeatInterval = static_cast<std::int32_t>(period);
      schedule.stScheduleRules.lAnchorDate = static_cast<std::int32_t>((today - 60) * kSecondsOfDay);
      rule = {timeOfDay, [=](std::int64_t day) { return day >= today - 60 && (day - today + 60) % period == 0; }};
    }
    rule.Keep(timeOfDay, platform::NowSeconds());
    CJobNode node = MakeNode(schedule, number);
    const bool added = g_JobList.AddJob(node) == kStatusOk;
    if (!added) node.ReleaseScheduler();
    EXPECT_EQ(m_plain.Add({qx::testing::Narrow(node.IdText()), rule, node.NextTimeWindow}), added);
    EXPECT_EQ(node.NextTimeWindow, WindowAfter(rule, platform::NowSeconds()));
    g_SchedulerEvents.Set(CREATE_EVENT);
  }
  void Delete() {
    CJobNode node;
    node.ScheduleID.Data1 = 1 + Below(40);
    const platform::CriticalSectionGuard guard(g_JobListLock);
    if (const auto at = g_JobList.Find(node.ScheduleID); at != g_JobList.End()) {
      at->ReleaseScheduler();
      g_JobList.RemoveJob(node);
      g_SchedulerEvents.Set(DELETE_EVENT);
    }
    m_plain.Remove(qx::testing::Narrow(node.IdText()));
  }
  void StepClock() {
    static constexpr std::int64_t kSizes[] = {100, 3600, kSecondsOfDay, 20 * kSecondsOfDay};
    const std::int64_t size = kSizes[Below(4)] + Below(100);
    const std::int64_t step = m_away > 0 ? -size : size;
    m_away += step;
    m_clock.SetWall(platform::NowSeconds() + step, 500);
    g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
    m_plain.ChangeTime(platform::NowSeconds());
  }
  std::int64_t Below(std::uint32_t bound) { return static_cast<std::int64_t>(m_random() % bound); }

  std::mt19937 m_random{GetParam()};
  std::int64_t m_away = 0;
  PlainLoop m_plain;
};

TEST_P(ToldLoop, LaunchesAndListsInTheToldOrder) {
  // Without a key nothing comes of a changed clock; none is a schedule's.
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\any");
  for (int i = 0; i < 25; ++i) Insert();
  for (int round = 0; round < 120; ++round) {
    const auto then = [&](auto&& action) {
      m_script.Then(static_cast<std::uint64_t>(Below(2) * 1000 + Below(86'400) * Below(2) * 1000 + 1000), [&, action] {
        m_plain.RunTo(platform::NowSeconds());
        EXPECT_EQ(Listed(), m_plain.Contents()) << "round " << round;
        action();
        return true;
      });
    };
    const std::int64_t kind = Below(10);
    if (kind < 5) {
      then([this] { Insert(); });
    } else if (kind < 9) {
      then([this] {
        Delete();
        g_SchedulerEvents.Set(REFRESH_EVENT);
      });
    } else {
      then([this] { StepClock(); });
    }
    while (!m_script.AtEnd()) {
      if (g_JobList.Empty()) m_script.RunNext();
      ASSERT_TRUE(m_loop.Step());
    }
    while (true) {  // what the action set
      const int event = TakeEvent();
      if (event < 0) break;
      g_SchedulerEvents.Set(static_cast<std::size_t>(event));
      ASSERT_TRUE(m_loop.Step());
    }
    ASSERT_EQ(Listed(), m_plain.Contents()) << "round " << round;
    ASSERT_EQ(m_launches, m_plain.launches) << "round " << round;
  }
  EXPECT_GT(m_launches.size(), 100u);
}
INSTANTIATE_TEST_SUITE_P(Seed, ToldLoop, testing::Range(1u, 9u));

}  // namespace
