#include "service/scheduler_loop.h"

#include <filesystem>

#include "platform/thread.h"
#include "service/tests/service_fixture.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::kPresent;
using qx::testing::kSecondsOfDay;
using qx::testing::Wide;
using testing::ElementsAre;
using testing::IsEmpty;

class SchedulerLoop : public qx::testing::ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    m_sink->heard.clear();
  }
  // Creates a schedule and takes its event.
  ScheduleGuid Add(const SCHEDULE_OBJECT& schedule) {
    const ScheduleGuid id = Create(schedule);
    EXPECT_EQ(TakeEvent(), CREATE_EVENT);
    m_sink->heard.clear();
    m_log.Clear();
    return id;
  }
  void Deliver() { (void)m_apartment.Step(0); }
  static void SetWindow(const ScheduleGuid& id, std::int64_t window) {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const auto at = g_JobList.Find(id);
    ASSERT_FALSE(at == g_JobList.End());
    at->NextTimeWindow = window;
    g_JobList.MarkChanged(at);
    g_JobList.Sort();
  }
  std::vector<std::string> Launches() const {
    std::vector<std::string> out;
    const std::string prefix = "Launched the schedule: ";
    for (const std::string& line : m_log.texts(3)) {
      if (line.rfind(prefix, 0) == 0) out.push_back(line.substr(prefix.size()));
    }
    return out;
  }
  static std::string Window(const ScheduleGuid& id, std::int64_t window) {
    return "window " + Text(id) + " " + std::to_string(window);
  }

  platform::ClockWatch m_watch;
  qx::CSchedulerLoop m_loop{m_apartment, m_service, &m_watch};
};

struct SleepCase {
  int line;
  std::int64_t window;
  std::int64_t now;
  std::uint32_t milliseconds;
  std::uint32_t sleep;
};
const SleepCase kSleeps[] = {
    {__LINE__, 1010, 1000, 0, 10000},
    {__LINE__, 1010, 1000, 250, 9750},
    {__LINE__, 1001, 1000, 999, 1},
    {__LINE__, 1000, 1000, 0, 0},
    {__LINE__, 1000, 1000, 1, 0xFFFFFFFFu},
    {__LINE__, 1000, 1000, 999, 4294966297u},
    {__LINE__, 1000, 1001, 0, 4294966296u},
    {__LINE__, 1000 + 4294967, 1000, 0, 4294967000u},
    {__LINE__, 1000 + 4294968, 1000, 0, 704u},           // 49.7 days: wraps
    {__LINE__, 1000 + 50 * 86400, 1000, 0, 25032704u},
    {__LINE__, std::int64_t{0x1'0000'0000} + 1010, 1000, 0, 10000},  // the low 32 bits count
};

TEST(SleepBefore, IsComputedInUnsigned32BitsWithoutALimit) {
  for (const SleepCase& c : kSleeps) {
    EXPECT_EQ(qx::SleepBefore(c.window, {c.now, c.milliseconds}), c.sleep) << c.line;
  }
}

TEST_F(SchedulerLoop, SleepsForEverOverAnEmptyListUntilAnEventArrives) {
  platform::Thread thread;
  bool more = false;
  ASSERT_EQ(platform::Thread::Start("loop", [&] { more = m_loop.Step(); }, thread), 0u);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  thread.Join();
  EXPECT_TRUE(more);
  EXPECT_THAT(m_log.lines(),
              ElementsAre(ZepFoundation::CapturedLogLine{3, "Service will sleep for INFINITE time"}));
  EXPECT_EQ(platform::NowSeconds(), kPresent);
}

TEST_F(SchedulerLoop, LaunchesOnTheSecondAndTellsTheNewWindow) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrWrapperBinaryName = u"/usr/bin/tee";
  schedule.bstrXMLFilePathName = Wide(m_folder + "/ran");
  const ScheduleGuid id = Add(schedule);
  m_clock.SetWall(kPresent, 250);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(platform::NowSeconds(), kPresent + 3600);
  EXPECT_EQ(platform::NowWithMilliseconds().milliseconds, 0u);
  ASSERT_TRUE(platform::WaitForAllChildren(60000));
  EXPECT_TRUE(std::filesystem::exists(m_folder + "/ran"));
  EXPECT_EQ(ListedWindow(id), kPresent + 3600 + kSecondsOfDay);
  EXPECT_THAT(m_sink->heard, IsEmpty());
  Deliver();
  EXPECT_THAT(m_sink->heard, ElementsAre(Window(id, kPresent + 3600 + kSecondsOfDay)));
  EXPECT_TRUE(m_log.Has(4, "The time before sleep is Wed Jan  1 08:00:00.250 2025"));
  EXPECT_TRUE(m_log.Has(3, "Service will now sleep for 3600.000000 seconds"));
  EXPECT_TRUE(m_log.Has(5, "Sleeptime in milli seconds 3599750"));
}

TEST_F(SchedulerLoop, LaunchesAtOnceWhenTheSleepIsZero) {
  const ScheduleGuid id = Add(Daily());
  m_clock.SetWall(kPresent + 3600, 0);
  g_SchedulerEvents.Set(MODIFY_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(id)));
  EXPECT_EQ(TakeEvent(), MODIFY_EVENT);  // the pass came without a wait
}

TEST_F(SchedulerLoop, SkipsAWindowInsideThePresentSecond) {
  const ScheduleGuid id = Add(Daily());
  m_clock.SetWall(kPresent + 3600, 1);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_TRUE(m_log.Has(3, "Service will now sleep for 0.000000 seconds"));
  EXPECT_TRUE(m_log.Has(5, "Sleeptime in milli seconds 4294967295"));
  m_clock.SetWall(kPresent + 3603);
  EXPECT_TRUE(qx::CSchedulerLoop::HeadIsOverdue(platform::NowSeconds()));
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), IsEmpty());
  EXPECT_EQ(ListedWindow(id), kPresent + 3600 + kSecondsOfDay);
  EXPECT_FALSE(qx::CSchedulerLoop::HeadIsOverdue(platform::NowSeconds()));
}

TEST_F(SchedulerLoop, CallsAHeadOverdueOnlyBeyondOneSecond) {
  EXPECT_FALSE(qx::CSchedulerLoop::HeadIsOverdue(kPresent));
  const ScheduleGuid id = Add(Daily());
  EXPECT_FALSE(qx::CSchedulerLoop::HeadIsOverdue(kPresent + 3601));
  EXPECT_TRUE(qx::CSchedulerLoop::HeadIsOverdue(kPresent + 3602));
  SetWindow(id, 0);
  EXPECT_FALSE(qx::CSchedulerLoop::HeadIsOverdue(kPresent));
}

TEST_F(SchedulerLoop, SetsTheGuardTwoSecondsBehindTheHeadOfEachSleep) {
  m_loop.EnableGuard();
  const ScheduleGuid id = Create(Daily());
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(m_watch.Guard(), kPresent + 3602);
  EXPECT_TRUE(m_loop.Step());
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(m_watch.Guard(), kPresent + 3602 + kSecondsOfDay);
  ASSERT_EQ(m_service.DeleteSchedule(id), kStatusOk);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(m_watch.Guard(), 0);
}

TEST_F(SchedulerLoop, TakesTheGuardBackWhenTheScanEmptiesTheList) {
  m_loop.EnableGuard();
  (void)Create(Once(100));
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(m_watch.Guard(), kPresent + 102);
  m_clock.SetWall(kPresent + 1000);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(m_watch.Guard(), 0);
}

TEST_F(SchedulerLoop, SetsNoGuardWhereATestCallsStep) {
  (void)Create(Daily());
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(m_watch.Guard(), 0);
}

TEST_F(SchedulerLoop, DoesNotRunAWindowBeyond49DaysEarly) {
  SCHEDULE_OBJECT schedule = Once(60 * kSecondsOfDay);
  const ScheduleGuid id = Add(schedule);
  ASSERT_EQ(ListedWindow(id), kPresent + 60 * kSecondsOfDay);
  EXPECT_TRUE(m_loop.Step());
  // 2^32 milliseconds before the window.
  EXPECT_EQ(platform::NowSeconds(), kPresent + 889032);
  EXPECT_EQ(platform::NowWithMilliseconds().milliseconds, 704u);
  EXPECT_TRUE(m_loop.Step());  // wraps to a sleep of 0
  EXPECT_THAT(Launches(), IsEmpty());
  m_clock.Advance(1);  // a millisecond on it wraps to the value of an endless sleep, which it must not become
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), IsEmpty());
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(platform::NowSeconds(), kPresent + 60 * kSecondsOfDay);
  EXPECT_THAT(Launches(), ElementsAre(Text(id)));
}

TEST_F(SchedulerLoop, StartsAllJobsOfOneSecondInOnePassNewestFirst) {
  const ScheduleGuid first = Add(Daily());
  const ScheduleGuid second = Add(Daily());
  const ScheduleGuid later = Add(Daily(7200));
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(second), Text(first)));
  Deliver();
  const std::int64_t next = kPresent + 3600 + kSecondsOfDay;
  EXPECT_THAT(m_sink->heard, ElementsAre(Window(second, next), Window(first, next)));
  EXPECT_THAT(ListedIds(), ElementsAre(Text(later), Text(second), Text(first)));
}

TEST_F(SchedulerLoop, StartsInOnePassAlsoWhatFallsDueWhileItRuns) {
  const ScheduleGuid due = Add(Daily());
  const ScheduleGuid meanwhile = Add(Daily(3601));
  const ScheduleGuid later = Add(Daily(3603));
  FaultPlan plan = FaultPlan::Ask([this](int, Operation operation, std::string_view) {
    if (operation == Operation::kCreateProcess) m_clock.Advance(1000);  // so long a start takes
    return platform::ErrorCode{platform::ERROR_SUCCESS};
  });
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(due), Text(meanwhile)));
  EXPECT_TRUE(m_loop.Step());
  plan.Remove();
  EXPECT_THAT(Launches(), ElementsAre(Text(due), Text(meanwhile), Text(later)));
}

// Both were listed during the sleep, and the wait was over before their event was seen.
TEST_F(SchedulerLoop, EndsThePassAtAWindowAheadOfTheOneThatItSleptUntil) {
  const ScheduleGuid sleptUntil = Add(Daily());
  std::vector<ScheduleGuid> listed;
  m_loop.SetSleepNotice([&](std::int64_t) {
    if (listed.empty()) listed = {Add(Daily(3000)), Add(Daily(3100))};
  });
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(listed[0])));
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(listed[0]), Text(sleptUntil)));
  EXPECT_EQ(ListedWindow(listed[1]), kPresent + 3100 + kSecondsOfDay);
}

TEST_F(SchedulerLoop, AdvancesTheWindowOfAJobThatCanNotBeStarted) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrWrapperBinaryName = Wide(m_folder + "/absent");
  const ScheduleGuid id = Add(schedule);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(m_log.texts(0), ElementsAre("Launch (Create process) failed with error : 2"));
  EXPECT_THAT(Launches(), ElementsAre(Text(id)));
  EXPECT_EQ(ListedWindow(id), kPresent + 3600 + kSecondsOfDay);
}

TEST_F(SchedulerLoop, LaunchesAJobAtTheEndOfItsRulesThenReportsAndRemovesIt) {
  const ScheduleGuid once = Add(Once());
  const ScheduleGuid daily = Add(Daily(3600));
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(daily), Text(once)));
  Deliver();
  EXPECT_THAT(m_sink->heard, ElementsAre(Window(daily, kPresent + 3600 + kSecondsOfDay), Window(once, -1)));
  EXPECT_THAT(ListedIds(), ElementsAre(Text(daily)));
  EXPECT_TRUE(HasKey(once));
  EXPECT_TRUE(std::filesystem::exists(IniFile(once)));
}

TEST_F(SchedulerLoop, LaunchesWithoutNoticesWhenTheServiceCanNotBeReached) {
  const ScheduleGuid daily = Add(Daily());
  const ScheduleGuid once = Add(Once());
  FaultPlan plan = FaultPlan::FailCall(Operation::kBusCreateInstance, 1, 5);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_THAT(Launches(), ElementsAre(Text(once), Text(daily)));
  Deliver();
  EXPECT_THAT(m_sink->heard, IsEmpty());
  EXPECT_EQ(m_log.Count(1, " ReleaseScheduler failed with error 80070005"), 1);
}

TEST_F(SchedulerLoop, WaitsForNobodyWhoIsToHearOfALaunch) {
  const ScheduleGuid first = Add(Daily());
  const ScheduleGuid second = Add(Daily(7200));
  for (int day = 0; day < 3; ++day) {  // the apartment is busy all the while
    EXPECT_TRUE(m_loop.Step());
    EXPECT_EQ(platform::NowSeconds(), kPresent + 3600 + day * kSecondsOfDay);
    EXPECT_TRUE(m_loop.Step());
    EXPECT_EQ(platform::NowSeconds(), kPresent + 7200 + day * kSecondsOfDay);
  }
  EXPECT_THAT(m_sink->heard, IsEmpty());
  Deliver();
  std::vector<std::string> expected;
  for (int day = 1; day <= 3; ++day) {
    expected.push_back(Window(first, kPresent + 3600 + day * kSecondsOfDay));
    expected.push_back(Window(second, kPresent + 7200 + day * kSecondsOfDay));
  }
  EXPECT_EQ(m_sink->heard, expected);
}

TEST_F(SchedulerLoop, SkipsPassedWindowsWithoutALaunchAndWithoutANotice) {
  const ScheduleGuid daily = Add(Daily());
  const ScheduleGuid far = Add(Daily(20000));
  m_clock.SetWall(kPresent + 4000);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_TRUE(
      m_log.Has(2, "Something wrong, next time window can't be earlier than current time: " + Text(daily)));
  EXPECT_EQ(ListedWindow(daily), kPresent + 3600 + kSecondsOfDay);
  EXPECT_THAT(Launches(), ElementsAre(Text(far)));
  Deliver();
  EXPECT_THAT(m_sink->heard, ElementsAre(Window(far, kPresent + 20000 + kSecondsOfDay)));
}

TEST_F(SchedulerLoop, LeavesTheJobBehindARemovedOneToTheNextCycle) {
  const ScheduleGuid first = Add(Once(100));
  const ScheduleGuid second = Add(Daily(200));
  const ScheduleGuid third = Add(Daily(300));
  m_clock.SetWall(kPresent + 1000);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(ListedWindow(first), -2);
  EXPECT_EQ(ListedWindow(second), kPresent + 200);
  EXPECT_EQ(ListedWindow(third), kPresent + 300 + kSecondsOfDay);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(ListedWindow(second), kPresent + 200 + kSecondsOfDay);
  EXPECT_THAT(Launches(), IsEmpty());
}

TEST_F(SchedulerLoop, SleepsForEverWhenTheScanEmptiesTheList) {
  (void)Add(Once(100));
  m_clock.SetWall(kPresent + 1000);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(g_JobList.Size(), 0u);
  EXPECT_TRUE(m_log.Has(3, "Service will sleep for INFINITE time"));
}

TEST_F(SchedulerLoop, SleepsForEverBehindARefreshOfAnEmptyKey) {
  const ScheduleGuid id = Add(Daily());
  ASSERT_EQ(DeleteRegistry(id), kStatusOk);
  ASSERT_EQ(m_service.Refresh(), kStatusOk);
  EXPECT_EQ(g_JobList.Size(), 0u);
  EXPECT_TRUE(m_loop.Step());  // the refresh itself
  m_log.Clear();
  // No moment ends the sleep that follows, only an event.
  std::vector<std::int64_t> wakeUps;
  m_loop.SetSleepNotice([&](std::int64_t window) { wakeUps.push_back(window); });
  g_SchedulerEvents.Set(MODIFY_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(wakeUps, ElementsAre(qx::kNoWakeUp));
  EXPECT_THAT(m_log.texts(), ElementsAre("Service will sleep for INFINITE time", "Sleep interrupted bacause of MODIFY_EVENT"));
  EXPECT_EQ(platform::NowSeconds(), kPresent);
}

TEST_F(SchedulerLoop, LeavesANodeOfWindowZeroAlone) {
  const ScheduleGuid id = Add(Daily());
  SetWindow(id, 0);
  g_SchedulerEvents.Set(REFRESH_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(ListedWindow(id), 0);
  EXPECT_THAT(m_log.texts(2), IsEmpty());
}

TEST_F(SchedulerLoop, RunsAJobAgainAfterTheClockWasMovedBack) {
  const ScheduleGuid id = Add(Daily());
  EXPECT_TRUE(m_loop.Step());
  m_clock.SetWall(kPresent);
  g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_THAT(Launches(), ElementsAre(Text(id), Text(id)));
}

struct EventCase {
  SchedulerEvent event;
  const char* text;
};
const EventCase kEvents[] = {
    {CREATE_EVENT, "Sleep interrupted bacause of CREATE_EVENT"},
    {MODIFY_EVENT, "Sleep interrupted bacause of MODIFY_EVENT"},
    {DELETE_EVENT, "Sleep interrupted bacause of DELETE_EVENT"},
};

TEST_F(SchedulerLoop, LogsWhatInterruptsItsSleep) {
  for (const EventCase& c : kEvents) {
    m_log.Clear();
    g_SchedulerEvents.Set(c.event);
    EXPECT_TRUE(m_loop.Step());
    EXPECT_THAT(m_log.lines(),
                ElementsAre(ZepFoundation::CapturedLogLine{3, "Service will sleep for INFINITE time"},
                            ZepFoundation::CapturedLogLine{3, c.text}));
  }
}

TEST_F(SchedulerLoop, ServesTheLowestOfSeveralEventsFirst) {
  g_SchedulerEvents.Set(REFRESH_EVENT);
  g_SchedulerEvents.Set(SHUTDOWN_EVENT);
  g_SchedulerEvents.Set(CREATE_EVENT);
  EXPECT_TRUE(m_loop.Step());
  EXPECT_FALSE(m_loop.Step());
  EXPECT_TRUE(m_log.Has(3, "Sleep interrupted bacause of CREATE_EVENT"));
  EXPECT_TRUE(m_log.Has(3, "Shutting down now"));
  EXPECT_EQ(TakeEvent(), REFRESH_EVENT);
}

TEST_F(SchedulerLoop, EndsForGoodAfterAFailedWait) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kWaitForEvents, 1, 6);
  EXPECT_EQ(qx::ThreadProcedure(m_loop), 0u);
  EXPECT_THAT(m_log.texts(0), ElementsAre("Wait error: 6"));
}

// Writes down what is asked of it, and whether the watch had ended before.
class RecordingChannel : public qx::INodeChannel {
 public:
  explicit RecordingChannel(platform::ClockWatch& watch) : m_watch(watch) {}
  Security LoadSecurityLibrary(platform::ErrorCode&) override { return Security::kLoaded; }
  void FreeSecurityLibrary() override {
    m_watch.NotifyForTest();  // else the look at a living watch has no end
    platform::ClockNotice notice{1, true};
    EXPECT_EQ(m_watch.Read(notice), 0u);
    if (notice.message == 0) calls.push_back("watch ended");
    calls.push_back("free");
    if (hasNoMemory) throw std::bad_alloc();
  }
  platform::ErrorCode StartSockets() override { return 0; }
  void Serve(std::uint16_t) override {}
  void CloseListener() override {
    calls.push_back("close");
    if (hasNoMemory) throw std::bad_alloc();
  }
  void CleanUpSockets() override { calls.push_back("clean"); }
  std::vector<std::string> calls;
  bool hasNoMemory = false;

 private:
  platform::ClockWatch& m_watch;
};

TEST_F(SchedulerLoop, ShutsDownInOrderAndKeepsTheList) {
  const ScheduleGuid id = Add(Daily());
  RecordingChannel channel(m_watch);
  qx::CSchedulerLoop loop(m_apartment, m_service, &m_watch, &channel);
  g_SchedulerEvents.Set(SHUTDOWN_EVENT);
  EXPECT_EQ(qx::ThreadProcedure(loop), 0u);
  EXPECT_THAT(channel.calls, ElementsAre("watch ended", "free", "close", "clean"));
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
}

TEST_F(SchedulerLoop, ShutsDownWholeWhereItsStepsFindNoMemory) {
  RecordingChannel channel(m_watch);
  channel.hasNoMemory = true;
  qx::CSchedulerLoop loop(m_apartment, m_service, &m_watch, &channel);
  g_SchedulerEvents.Set(SHUTDOWN_EVENT);
  EXPECT_FALSE(loop.Step());
  EXPECT_THAT(channel.calls, ElementsAre("watch ended", "free", "close", "clean"));
}

class SchedulerLoopInNewYork : public qx::testing::ServiceFixture {
 protected:
  // 2025-03-08 02:15 local, a day before the clocks go forward from 02:00 to 03:00.
  SchedulerLoopInNewYork() : ServiceFixture("America/New_York", 1741418100) {}
};

TEST_F(SchedulerLoopInNewYork, RunsADailyJobOfTheLeftOutHourOnceOnEachDay) {
  const ScheduleGuid id = Create(Daily(900));  // 02:30
  EXPECT_EQ(TakeEvent(), CREATE_EVENT);
  qx::CSchedulerLoop loop(m_apartment, m_service);
  std::vector<std::int64_t> runs;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(loop.Step());
    runs.push_back(platform::NowSeconds());
  }
  const std::int64_t first = 1741419000;                              // 8 March, 02:30 EST
  EXPECT_THAT(runs, ElementsAre(first, first + 86400, first + 86400 + 82800));  // 03:30 EDT, then 02:30 EDT
  EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 3);
}

}  // namespace
