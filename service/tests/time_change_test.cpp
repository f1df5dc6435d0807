#include "service/time_change.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <utility>

#include "service/tests/at_line.h"
#include "service/tests/service_fixture.h"
#include "service/time_change_thread.h"
#include "platform/thread.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using qx::testing::AtLine;
using qx::testing::kPresent;
using qx::testing::kSecondsOfDay;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class TimeChange : public qx::testing::ServiceFixture {
 protected:
  ScheduleGuid Add(const SCHEDULE_OBJECT& schedule) {
    const ScheduleGuid id = Create(schedule);
    EXPECT_EQ(TakeEvent(), CREATE_EVENT);
    m_sink->heard.clear();
    m_log.Clear();
    return id;
  }
  void Pass() {
    qx::TimeChangePass(m_apartment, m_service);
    (void)m_apartment.Step(0);
  }
  static std::vector<int> TakeEvents() {
    std::vector<int> events;
    for (int event = TakeEvent(); event >= 0; event = TakeEvent()) events.push_back(event);
    return events;
  }
};

TEST_F(TimeChange, ComputesEveryWindowAnewAndTellsTheClients) {
  const ScheduleGuid daily = Add(Daily());
  const ScheduleGuid once = Add(Once(7200));
  m_clock.SetWall(kPresent + 10000);
  Pass();
  EXPECT_THAT(ListedIds(), ElementsAre(Text(daily)));
  EXPECT_EQ(ListedWindow(daily), kPresent + 3600 + 86400);
  EXPECT_THAT(m_sink->heard, ElementsAre("time 2 " + Text(daily) + "=" + std::to_string(kPresent + 3600 + 86400) +
                                         " " + Text(once) + "=-1"));
  EXPECT_EQ(m_log.texts().front(), "Sleep interrupted because of system time change");
  EXPECT_TRUE(m_log.Has(4, "SystemTimeChange: Number of schedules in the joblist: 2"));
  EXPECT_TRUE(m_log.Has(5, "SystemTimeChange: Number of Schedules in the registry = 2"));
  EXPECT_TRUE(m_log.Has(5, "Number of Schedules in the job list after reading the registry 2"));
  EXPECT_TRUE(m_log.Has(4, "Number of schedules in the joblist after updatelist 1"));
  EXPECT_TRUE(m_log.Has(4, "Number of schedules in safearray 2"));
  EXPECT_TRUE(m_log.Has(5, "ScheduleID: " + Text(once) + " NextTimewindow: -1"));
  EXPECT_TRUE(m_log.Has(3, "Notify_Systemtime_Change: count = 2"));
}

TEST_F(TimeChange, BringsASchedulesBackThatHadRunOut) {
  const ScheduleGuid id = Add(Once());
  m_clock.SetWall(kPresent + 7200);
  ASSERT_EQ(m_service.Refresh(), kStatusOk);
  ASSERT_EQ(g_JobList.Size(), 0u);
  m_clock.SetWall(kPresent);
  Pass();
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
  EXPECT_TRUE(m_log.Has(5, "Entered into loop for 0 time,No of expired schedules became valid = 0"));
  EXPECT_TRUE(m_log.Has(2, Text(id) + " became valid because of system time change"));
  EXPECT_THAT(m_sink->heard, ElementsAre("time 1 " + Text(id) + "=" + std::to_string(kPresent + 3600)));
}

TEST_F(TimeChange, BringsNothingBackWhenAsManyNodesLackTheirKeyAsKeysTheirNode) {
  const ScheduleGuid expired = Add(Once());
  const ScheduleGuid keyless = Add(Daily());
  {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const auto at = g_JobList.Find(expired);
    at->ReleaseScheduler();
    g_JobList.Erase(at);
  }
  ASSERT_EQ(DeleteRegistry(keyless), kStatusOk);
  Pass();
  EXPECT_THAT(ListedIds(), ElementsAre(Text(keyless)));
  EXPECT_TRUE(HasKey(expired));
}

TEST_F(TimeChange, DoesNothingWithoutKeysEvenWhereNodesAreListed) {
  const ScheduleGuid id = Add(Daily());
  ASSERT_EQ(DeleteRegistry(id), kStatusOk);
  m_clock.SetWall(kPresent + 10000);
  Pass();
  EXPECT_TRUE(m_log.Has(4, "No Schedules in the Registry"));
  EXPECT_EQ(ListedWindow(id), kPresent + 3600);
  EXPECT_THAT(m_sink->heard, IsEmpty());
}

struct ListedBehind {
  int line;
  const char* step;  // behind which the clock is set back by a day
  const ScheduleGuid* id;
  std::function<Status()> change;
};

// The window was computed by the clock as it went before.
TEST_F(TimeChange, IsAskedForAgainByAJobThatIsListedBehindItByAnEarlierWindow) {
  const ScheduleGuid id = Add(Daily());
  const SCHEDULE_OBJECT schedule = Daily();
  SCHEDULE_OBJECT refused = schedule;
  refused.dwTaskOpCode = 99;
  ScheduleGuid created{};
  const char* const kSaved = "Exited from CZEPScheduleObj::SaveScheduleToFile";
  const ListedBehind changes[] = {
      {__LINE__, kSaved, &created, [&] { return m_service.CreateSchedule(schedule, created); }},
      {__LINE__, kSaved, &id, [&] { return m_service.ModifySchedule(id, schedule); }},
      {__LINE__, "Entered Modify Registry", &id, [&] { return m_service.ModifySchedule(id, refused); }},
  };
  for (const ListedBehind& c : changes) {
    {
      const AtLine between(c.step, [&] {
        m_clock.SetWall(kPresent - kSecondsOfDay);
        Pass();
      });
      EXPECT_EQ(c.change(), kStatusOk) << c.line;
    }
    EXPECT_EQ(ListedWindow(*c.id), kPresent + 3600) << c.line;
    EXPECT_THAT(TakeEvents(), Contains(int{SYSTEM_TIME_CHANGED})) << c.line;
    Pass();
    EXPECT_EQ(ListedWindow(*c.id), kPresent + 3600 - kSecondsOfDay) << c.line;
    m_clock.SetWall(kPresent);
    Pass();
  }
  for (const ListedBehind& c : changes) {
    EXPECT_EQ(c.change(), kStatusOk) << c.line;
    EXPECT_THAT(TakeEvents(), testing::Not(Contains(int{SYSTEM_TIME_CHANGED}))) << c.line;
  }
}

// One job more in the list than it has keys hides one key more in the registry than it has jobs.
TEST_F(TimeChange, IsAskedForAgainWhereAJobWithoutKeyKeptItFromAScheduleThatHadRunOut) {
  struct JobWithoutKey {
    int line;
    const char* step;  // while the job has no key
    std::function<Status()> change;
    Status status;
  };
  ScheduleGuid deleted{}, created{};
  const JobWithoutKey changes[] = {
      {__LINE__, "Exit Delete Registry", [&] { return m_service.DeleteSchedule(deleted); }, kStatusOk},
      {__LINE__, "Entered Write Registry", [&] { return m_service.CreateSchedule(Daily(), created); },
       kStatusRegistryWrite},
  };
  const ScheduleGuid runOut = Add(Once());
  deleted = Add(Daily());
  for (const JobWithoutKey& c : changes) {
    m_clock.SetWall(kPresent + 7200);
    ASSERT_EQ(m_service.Refresh(), kStatusOk);
    ASSERT_EQ(ListedWindow(runOut), -2) << c.line;
    (void)TakeEvents();
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegCreateKey, 2, 5);  // of a creation: the schedule's key
    {
      const AtLine between(c.step, [&] {
        m_clock.SetWall(kPresent);
        Pass();
      });
      EXPECT_EQ(c.change(), c.status) << c.line;
    }
    plan.Remove();
    EXPECT_EQ(ListedWindow(runOut), -2) << c.line;
    EXPECT_THAT(TakeEvents(), Contains(int{SYSTEM_TIME_CHANGED})) << c.line;
    Pass();
    EXPECT_EQ(ListedWindow(runOut), kPresent + 3600) << c.line;
  }
  deleted = Add(Daily());
  EXPECT_EQ(m_service.DeleteSchedule(deleted), kStatusOk);
  EXPECT_THAT(TakeEvents(), testing::Not(Contains(int{SYSTEM_TIME_CHANGED})));
}

TEST_F(TimeChange, IsAskedForAgainWhereAModificationKeptItFromAScheduleThatHadRunOut) {
  const ScheduleGuid id = Add(Once());
  m_clock.SetWall(kPresent + 7200);
  ASSERT_EQ(m_service.Refresh(), kStatusOk);
  ASSERT_EQ(g_JobList.Size(), 0u);
  const SCHEDULE_OBJECT schedule = Daily();
  SCHEDULE_OBJECT refused = schedule;
  refused.dwTaskOpCode = 99;
  for (const bool rollsBack : {true, false}) {  // or ends ahead of the change
    (void)TakeEvents();
    {
      FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "ModifySchedule old path");
      if (rollsBack) plan.Remove();
      const AtLine inside(rollsBack ? "Entered Modify Registry" : "ModifySchedule:calloc failed", [&] {
        m_clock.SetWall(kPresent);
        Pass();
      });
      EXPECT_EQ(m_service.ModifySchedule(id, rollsBack ? refused : schedule), rollsBack ? kStatusOk : kStatusFailure);
    }
    EXPECT_EQ(ListedWindow(id), -2) << rollsBack;
    EXPECT_THAT(TakeEvents(), Contains(int{SYSTEM_TIME_CHANGED})) << rollsBack;
    Pass();
    EXPECT_EQ(ListedWindow(id), kPresent + 3600) << rollsBack;
    m_clock.SetWall(kPresent + 7200);
    Pass();
    ASSERT_EQ(g_JobList.Size(), 0u);
  }
}

// A change that begins behind a step of the pass, and is in its midst while the pass goes on to its end.
class OverlappedTimeChange : public TimeChange {
 protected:
  static constexpr const char* kBegins = "Sleep interrupted because of system time change";
  static constexpr const char* kHasCounted = "Entered into loop for 0 time,No of expired schedules became valid = 0";
  // A schedule that has run out and, by the clock as it goes now, hasn't.
  ScheduleGuid RunOut() {
    const ScheduleGuid id = Add(Once());
    RunOutAgain();
    return id;
  }
  void RunOutAgain() {
    m_clock.SetWall(kPresent + 7200);
    ASSERT_EQ(m_service.Refresh(), kStatusOk);
    m_clock.SetWall(kPresent);
    (void)TakeEvents();
  }
  // Has `change` begin where the pass writes `behind`, and stand where it writes `at` until the pass has ended.
  void PassOver(const char* behind, const char* at, const std::function<Status()>& change) {
    std::promise<void> reached, passed;
    Status status = kStatusFailure;
    platform::Thread changing;
    const AtLine lines({{behind,
                         [&] {
                           ASSERT_EQ(platform::Thread::Start("change", [&] { status = change(); }, changing), 0u);
                           reached.get_future().wait();
                         }},
                        {at,
                         [&] {
                           reached.set_value();
                           passed.get_future().wait();
                         }}});
    Pass();
    passed.set_value();
    changing.Join();
    EXPECT_EQ(status, kStatusOk);
  }
};

TEST_F(OverlappedTimeChange, IsAskedForAgainWhereItCountsInTheMidstOfAChangeThatBeganBehindIt) {
  const ScheduleGuid deleted = Add(Daily());
  const ScheduleGuid runOut = RunOut();
  ScheduleGuid created{};
  struct Change {
    int line;
    const char* at;
    std::function<Status()> change;
  };
  const Change changes[] = {
      {__LINE__, "Exit Delete Registry", [&] { return m_service.DeleteSchedule(deleted); }},
      {__LINE__, "Entered Write Registry", [&] { return m_service.CreateSchedule(Daily(), created); }},
  };
  for (const Change& c : changes) {
    RunOutAgain();
    PassOver(kBegins, c.at, c.change);
    EXPECT_EQ(ListedWindow(runOut), -2) << c.line;
    EXPECT_THAT(TakeEvents(), Contains(int{SYSTEM_TIME_CHANGED})) << c.line;
    Pass();
    EXPECT_EQ(ListedWindow(runOut), kPresent + 3600) << c.line;
  }
}

TEST_F(OverlappedTimeChange, LooksOnBehindAScheduleThatAModificationTookOutOfTheList) {
  const ScheduleGuid runOut = RunOut();
  ScheduleGuid modified{};
  do {
    modified = Add(Daily());
  } while (Text(runOut) < Text(modified));  // its key comes first
  PassOver(kHasCounted, "Entered Modify Registry", [&] { return m_service.ModifySchedule(modified, Daily()); });
  EXPECT_EQ(ListedWindow(modified), kPresent + 3600);
  EXPECT_EQ(ListedWindow(runOut), kPresent + 3600);
}

TEST_F(OverlappedTimeChange, IsAskedForAgainByAModificationThatBeganBehindItAndLeavesTheScheduleWithoutAJob) {
  const ScheduleGuid runOut = RunOut();
  SCHEDULE_OBJECT refused = Daily();
  refused.dwTaskOpCode = 99;
  PassOver(kHasCounted, "Entered Modify Registry", [&] { return m_service.ModifySchedule(runOut, refused); });
  EXPECT_EQ(ListedWindow(runOut), -2);
  EXPECT_THAT(TakeEvents(), Contains(int{SYSTEM_TIME_CHANGED}));
  Pass();
  EXPECT_EQ(ListedWindow(runOut), kPresent + 3600);
}

TEST_F(TimeChange, SendsNoNoticeForAnEmptyList) {
  (void)Add(Once(100));
  m_clock.SetWall(kPresent + 1000);
  ASSERT_EQ(m_service.Refresh(), kStatusOk);
  Pass();
  EXPECT_THAT(m_sink->heard, IsEmpty());
}

TEST_F(TimeChange, TellsWhyAScheduleDoesNotComeBack) {
  const ScheduleGuid noFile = Add(Daily());
  DoCleanUp();
  std::filesystem::remove(IniFile(noFile));
  Pass();
  EXPECT_TRUE(m_log.Has(4, "ini file does not exists: " + Text(noFile)));
  ASSERT_EQ(DeleteRegistry(noFile), kStatusOk);
  MakeKey(std::u16string(qx::kSchedulesKey) + u"\\nonsense");
  Pass();
  EXPECT_TRUE(m_log.Has(1, "Failed to convert String to GUID"));
}

struct PassFailure {
  int line;
  Operation operation;
  int call;
  const char* detail;
  std::vector<std::string> texts;
};
const PassFailure kPassFailures[] = {
    {__LINE__, Operation::kRegOpenKey, 1, "",
     {"Failed to open HKEY_LOCAL_MACHINE\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion key",
      "schedules which became valid because of system time change were not considered"}},
    {__LINE__, Operation::kRegOpenKey, 2, "",
     {"Failed to open the Schedules key",
      "schedules which are valid bacause of system time change were not considered"}},
    {__LINE__, Operation::kRegQueryInfoKey, 1, "",
     {"Failed to query the 'Schedules' Registry key for number of schedules"}},
    {__LINE__, Operation::kAllocate, 1, "TimeChangePass name",
     {"calloc failed to allocate the memory",
      "schedules which are valid bacause of system time change will not be included"}},
    {__LINE__, Operation::kArrayCreate, 1, "TimeChangePass ScheduleID",
     {"Failed to Create Safearray of ScheduleIDs:System Time Changed", "Failed to send the Notification"}},
    {__LINE__, Operation::kArrayCreate, 1, "TimeChangePass NextTimeWindow",
     {"Failed to Create Safearray of NextTimeWindows: System Time Changed", "Failed to send the Notification"}},
    {__LINE__, Operation::kArrayAccessData, 1, "TimeChangePass ScheduleID",
     {"Failed SafeArrayAccessData(ScheduleID)"}},
    {__LINE__, Operation::kArrayAccessData, 1, "TimeChangePass NextTimeWindow",
     {"Failed SafeArrayAccessData(NextTimeWindow)"}},
    {__LINE__, Operation::kArrayAccessData, 1, "UpdateList ScheduleID", {"Failed SafeArrayAccessData(ScheduleID)"}},
};

TEST_F(TimeChange, EndsThePassAtAFailureAndLeavesTheWindows) {
  const ScheduleGuid listed = Add(Daily());
  (void)Add(Once(7200));
  m_clock.SetWall(kPresent + 7300);
  ASSERT_EQ(m_service.Refresh(), kStatusOk);  // one key more than nodes
  m_clock.SetWall(kPresent + 7400);
  for (const PassFailure& c : kPassFailures) {
    m_log.Clear();
    FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 8, platform::kOnce, c.detail);
    Pass();
    EXPECT_EQ(plan.hits(), 1) << c.line;
    EXPECT_EQ(m_log.texts(1), c.texts) << c.line;
    EXPECT_EQ(ListedWindow(listed), kPresent + 3600 + 86400) << c.line;
    EXPECT_THAT(m_sink->heard, IsEmpty()) << c.line;
  }
}

TEST_F(TimeChange, StopsTheRevivalAtAFailedEnumerationAndGoesOn) {
  const ScheduleGuid listed = Add(Daily());
  (void)Add(Once(7200));
  m_clock.SetWall(kPresent + 7300);
  ASSERT_EQ(m_service.Refresh(), kStatusOk);
  m_log.Clear();
  FaultPlan plan = FaultPlan::FailCall(Operation::kRegEnumKey, 1, 8);
  Pass();
  EXPECT_THAT(m_log.texts(1), ElementsAre("Failed RegEnumKey for 0 key"));
  EXPECT_EQ(m_sink->heard.size(), 1u);
  EXPECT_EQ(ListedWindow(listed), kPresent + 3600 + 86400);
}

TEST_F(TimeChange, UpdatesWithoutANoticeWhenTheServiceCanNotBeReached) {
  const ScheduleGuid id = Add(Daily());
  m_clock.SetWall(kPresent + 10000);
  FaultPlan plan = FaultPlan::FailCall(Operation::kBusCreateInstance, 1, 5);
  Pass();
  EXPECT_EQ(ListedWindow(id), kPresent + 3600 + 86400);
  EXPECT_THAT(m_sink->heard, IsEmpty());
}

TEST_F(TimeChange, UpdateListDestroysBothArraysWhenAnAccessFails) {
  (void)Add(Daily());
  for (const char* detail : {"UpdateList ScheduleID", "UpdateList NextTimeWindow"}) {
    qx::IdArray ids;
    qx::WindowArray windows;
    ASSERT_EQ(ids.Create(1, "test"), 0u);
    ASSERT_EQ(windows.Create(1, "test"), 0u);
    std::uint32_t count = 0;
    FaultPlan plan = FaultPlan::FailCall(Operation::kArrayAccessData, 1, 8, platform::kOnce, detail);
    EXPECT_EQ(qx::UpdateList(count, ids, windows), 0x80070008u);
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(ids);
    EXPECT_FALSE(windows);
  }
}

TEST_F(TimeChange, UpdateListOverAnEmptyListDoesNothing) {
  qx::IdArray ids;
  qx::WindowArray windows;
  std::uint32_t count = 0;
  EXPECT_EQ(qx::UpdateList(count, ids, windows), 0u);
  EXPECT_THAT(m_log.lines(), IsEmpty());
}

// --- the thread ---

struct ZoneText {
  int line;
  std::int32_t bias;
  const char* text;
};
const ZoneText kZoneTexts[] = {
    {__LINE__, 300, "GMT+-5:0:0"}, {__LINE__, -60, "GMT+1:0:0"},    {__LINE__, 0, "GMT+0:0:0"},
    {__LINE__, -330, "GMT+5:30:0"}, {__LINE__, 210, "GMT+-3:-30:0"},
};

TEST(TimeZoneText, TellsHoursAndMinutesEastOfGreenwich) {
  for (const ZoneText& c : kZoneTexts) EXPECT_EQ(qx::TimeZoneText(c.bias), c.text) << c.line;
}

class TimeChangeThread : public TimeChange {
 protected:
  static constexpr platform::ClockNotice kNotice{platform::ClockNotice::kTimeChange, false};
  TimeChangeThread() { m_clock.Advance(5000); }
  // Whether a notice sets the event.
  bool Sets(platform::ClockNotice notice = kNotice) {
    m_thread.OnNotice(notice);
    return TakeEvent() == SYSTEM_TIME_CHANGED;
  }
  platform::ClockWatch m_watch;
  qx::CTimeChangeThread m_thread{m_watch};
};

TEST_F(TimeChangeThread, AcceptsTheFirstNoticeWhateverTheDrift) {
  EXPECT_TRUE(Sets());
  EXPECT_TRUE(m_log.Has(1, "Timezone has been changed to : GMT+0:0:0"));
  EXPECT_TRUE(m_log.Has(3, "SYSTEM_TIME_CHANGED event has been set"));
}

TEST_F(TimeChangeThread, IgnoresADriftOfAtMostOneSecond) {
  ASSERT_TRUE(Sets());
  m_clock.Advance(10000);
  EXPECT_FALSE(Sets());
  m_clock.SetWall(platform::NowSeconds() + 1);
  EXPECT_FALSE(Sets());
  m_clock.SetWall(platform::NowSeconds(), 1);
  EXPECT_TRUE(Sets());
  m_clock.SetWall(platform::NowSeconds() - 2);
  EXPECT_TRUE(Sets());
}

TEST_F(TimeChangeThread, ReckonsTheDriftIn32BitsAlsoAfterMonths) {
  ASSERT_TRUE(Sets());
  constexpr std::int64_t kWrapSeconds = 4'294'967;  // with 296 milliseconds all of 32 bits
  m_clock.Advance(60 * kSecondsOfDay * 1000);
  EXPECT_FALSE(Sets());
  m_clock.SetWall(platform::NowSeconds() + kWrapSeconds, 296);
  EXPECT_FALSE(Sets());
  m_clock.SetWall(platform::NowSeconds() + 2);
  EXPECT_TRUE(Sets());
}

// Deliberate: a tick count of 0 stands for none.
TEST_F(TimeChangeThread, TakesANoticeAtATickCountOfZeroForNone) {
  m_clock.Advance((std::uint64_t{1} << 32) - 5000);
  ASSERT_EQ(platform::TickCount(), 0u);
  EXPECT_TRUE(Sets());
  EXPECT_TRUE(Sets());
  m_clock.Advance(1);
  EXPECT_TRUE(Sets());
  EXPECT_FALSE(Sets());
}

TEST_F(TimeChangeThread, AlwaysAcceptsAChangeOfTheZone) {
  ASSERT_TRUE(Sets());
  EXPECT_FALSE(Sets());
  EXPECT_TRUE(Sets({platform::ClockNotice::kTimeChange, true}));
  {
    const platform::ScopedZone zone("America/New_York");
    EXPECT_TRUE(Sets());
    EXPECT_TRUE(m_log.Has(1, "Timezone has been changed to : GMT+-5:0:0"));
    EXPECT_FALSE(Sets());
  }
}

// The text names no variable, so the first call of the pair changes nothing; the second has the zone read anew.
TEST_F(TimeChangeThread, DoesThePairOfCallsAndLeavesTheEnvironmentAsItIs) {
  const platform::ScopedZone zone("Asia/Kolkata");
  ASSERT_TRUE(Sets());
  EXPECT_TRUE(m_log.Has(1, "Timezone has been changed to : GMT+5:30:0"));
  EXPECT_STREQ(std::getenv("TZ"), "Asia/Kolkata");
  EXPECT_EQ(std::getenv("GMT+5:30:0"), nullptr);
  EXPECT_EQ(platform::CurrentZone().Name(), "Asia/Kolkata");
  ::setenv("TZ", "America/Caracas", 1);
  EXPECT_EQ(platform::CurrentZone().Name(), "Asia/Kolkata");
  (void)Sets();
  EXPECT_EQ(platform::CurrentZone().Name(), "America/Caracas");
}

TEST_F(TimeChangeThread, LeavesOtherNoticesAlone) {
  EXPECT_FALSE(Sets({1, false}));
  EXPECT_FALSE(Sets({platform::ClockNotice::kGuard, false}));  // nothing is listed
  EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(TimeChangeThread, WakesTheLoopWhenTheGuardFindsTheHeadOverdue) {
  m_clock.SetWall(kPresent);
  (void)Add(Daily(10));
  constexpr platform::ClockNotice kGuard{platform::ClockNotice::kGuard, false};
  m_clock.SetWall(kPresent + 11, 999);
  m_thread.OnNotice(kGuard);
  EXPECT_EQ(TakeEvent(), -1);
  EXPECT_THAT(m_log.lines(), IsEmpty());
  m_clock.SetWall(kPresent + 12);
  m_thread.OnNotice(kGuard);
  EXPECT_EQ(TakeEvent(), REFRESH_EVENT);
  constexpr const char* kText =
      "The first window has passed while the scheduler slept: the schedules are looked at again";
  EXPECT_THAT(m_log.lines(), ElementsAre(ZepFoundation::CapturedLogLine{2, kText}));
}

TEST_F(TimeChangeThread, TakesTheGuardBackWhenTheLoopIsToLookAnyway) {
  m_watch.SetGuard(2000000000);
  ASSERT_TRUE(Sets());
  EXPECT_EQ(m_watch.Guard(), 0);
  m_watch.SetGuard(2000000000);
  EXPECT_FALSE(Sets());  // an echo leaves it alone
  EXPECT_EQ(m_watch.Guard(), 2000000000);
}

TEST_F(TimeChangeThread, ReadsNoticesUntilTheWatchIsDestroyed) {
  m_watch.NotifyForTest();
  platform::Thread thread;
  ASSERT_EQ(platform::Thread::Start("watch", [this] { m_thread.Run(); }, thread), 0u);
  platform::WaitResult result;
  ASSERT_EQ(g_SchedulerEvents.Wait(platform::kWaitForever, result), 0u);
  EXPECT_EQ(result.index, std::size_t{SYSTEM_TIME_CHANGED});
  m_watch.Destroy();
  thread.Join();
  EXPECT_TRUE(m_log.Has(5, "GetMessage --- 30"));
}

TEST_F(TimeChangeThread, FindsAClockThatWasSetAheadOfTheWatch) {
  for (const auto& [seconds, event] : {std::pair(0, -1), std::pair(1, -1), std::pair(-3600, int{SYSTEM_TIME_CHANGED}),
                                       std::pair(3600, int{SYSTEM_TIME_CHANGED})}) {
    platform::ClockWatch watch;
    qx::CTimeChangeThread thread(watch);
    m_clock.Advance(2000);
    m_clock.SetWall(platform::NowSeconds() + seconds);
    watch.Destroy();
    thread.Run();
    EXPECT_EQ(TakeEvent(), event) << seconds;
  }
}

// Both zones are an hour east of Greenwich; one has a summer time.
TEST_F(TimeChangeThread, FindsAZoneThatWasReplacedAheadOfTheWatch) {
  const platform::ScopedZone zone("Europe/Berlin");
  for (const auto& [environment, event] :
       {std::pair("TZ=Europe/Berlin", -1), std::pair("TZ=Africa/Algiers", int{SYSTEM_TIME_CHANGED})}) {
    platform::ClockWatch watch;
    qx::CTimeChangeThread thread(watch);
    thread.SaveBias(platform::GetTimeZoneInformation().bias);
    ASSERT_EQ(platform::PutEnvironment(environment), 0);
    watch.Destroy();
    thread.Run();
    EXPECT_EQ(TakeEvent(), event) << environment;
  }
}

TEST_F(TimeChangeThread, SeesAZoneThatTheNoticeOfAClockReadsFirst) {
  const platform::ScopedZone zone("Europe/Berlin");
  ASSERT_TRUE(Sets());
  ASSERT_FALSE(Sets());
  for (const auto& [environment, text] : {std::pair("TZ=Africa/Algiers", "GMT+1:0:0"),
                                          std::pair("TZ=America/New_York", "GMT+-5:0:0")}) {
    ASSERT_EQ(platform::PutEnvironment(environment), 0);
    m_log.Clear();
    EXPECT_TRUE(Sets()) << environment;
    EXPECT_TRUE(m_log.Has(1, std::string("Timezone has been changed to : ") + text)) << environment;
    EXPECT_FALSE(Sets()) << environment;
  }
}

TEST_F(TimeChangeThread, SeesAZoneThatComesWhileItTellsOfTheOneBefore) {
  const platform::ScopedZone zone("Europe/Berlin");
  ASSERT_TRUE(Sets());
  {
    const AtLine between("Timezone has been changed to : GMT+1:0:0",
                         [] { EXPECT_EQ(platform::PutEnvironment("TZ=Africa/Algiers"), 0); });
    EXPECT_TRUE(Sets());
  }
  EXPECT_FALSE(Sets());
}

TEST_F(TimeChangeThread, GoesOnAfterEachFailure) {
  m_watch.Destroy();
  {
    FaultPlan plan = FaultPlan::FailCall(Operation::kRegisterClockWatch, 1, 5);
    m_thread.Run();
  }
  {
    FaultPlan plan = FaultPlan::FailCall(Operation::kCreateClockWatch, 1, 5);
    m_thread.Run();
  }
  {
    FaultPlan plan = FaultPlan::FailCall(Operation::kReadClockWatch, 1, 5);
    m_thread.Run();
  }
  EXPECT_THAT(m_log.texts(1), ElementsAre("Failed  to register with error = 5", "Create Window failed with error = 5",
                                          "Error in GetMessage"));
}

}  // namespace
