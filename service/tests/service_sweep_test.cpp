// Every platform call of the service's own operations fails: what changes no schedule, registration, start and stop.
#include "platform/service_record.h"
#include "service/list_info.h"
#include "service/run_command.h"
#include "service/run_thread.h"
#include "service/scheduler_loop.h"
#include "service/service_account.h"
#include "service/service_registration.h"
#include "service/tests/sweep_fixture.h"
#include "service/time_change.h"
#include "service/time_change_thread.h"

namespace qx::testing {
namespace {

using platform::Operation;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST_F(ServiceSweep, ARefreshTakesEachScheduleWholeOrSkipsItWithALine) {
  Status status = 0;
  Sweep("refresh of three schedules", [&] { status = m_service.Refresh(); },
        [&](const Fault* fault) {
          EXPECT_EQ(status, kStatusOk);
          EXPECT_TRUE(ReadStoredState(m_folder) == m_before);
          EXPECT_TRUE(TakeEvent() == REFRESH_EVENT || (fault != nullptr && fault->operation == Operation::kCreateEvent));
          if (ListedIds().size() < 3) {
            ASSERT_NE(fault, nullptr);
            ExpectTold();
          }
          EXPECT_EQ(m_service.Refresh(), kStatusOk);
          EXPECT_EQ(ListedIds().size(), 3u);
          for (const ScheduleGuid& id : {m_first, m_subject, m_second}) EXPECT_TRUE(ReadBack(id) == m_records.at(id));
        });
}

TEST_F(ServiceSweep, ARunAtOnceChangesNothingAndStartsTheJobAtMostOnce) {
  Status status = 0;
  SCHEDULE_OBJECT schedule = m_records.at(m_subject);
  schedule.bRunNow = 1;
  Sweep("run at once of a schedule", [&] { status = m_service.ModifySchedule(m_subject, schedule); },
        [&](const Fault* fault) {
          ExpectOthersUntouched(m_subject);
          EXPECT_LE(m_log.Count(3, "Launched the schedule: " + Text(m_subject)), 1);
          if (fault == nullptr) {
            EXPECT_EQ(status, kStatusOk);
            EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(m_subject)), 1);
          }
          if (status != kStatusOk) ExpectTold();
          EXPECT_EQ(m_service.Refresh(), kStatusOk);
          EXPECT_EQ(ListedWindow(m_subject), kPresent + 3600);
          EXPECT_TRUE(ReadBack(m_subject) == m_records.at(m_subject));
        });
}

TEST_F(ServiceSweep, APageOfTheListIsWholeShowsADamagedRowOrFails) {
  CListInfo list;
  Status status = 0;
  std::vector<std::string> ids;
  int damaged = 0;
  const auto page = [&] {
    ids.clear();
    damaged = 0;
    return list.Page(u"", 0, [&](const SentListRow& row) {
      ids.emplace_back(row.id);
      damaged += row.nextWindow == kDamagedKey ? 1 : 0;
      return true;
    });
  };
  Sweep("page of the list of three",
        [&] {
          list = CListInfo();
          status = page();
        },
        [&](const Fault* fault) {
          EXPECT_TRUE(ReadStoredState(m_folder) == m_before);
          if (status == kStatusOk) {
            EXPECT_EQ(ids.size(), 3u);
          } else {
            EXPECT_THAT(ids, IsEmpty());
          }
          if (status != kStatusOk || damaged > 0) {
            ASSERT_NE(fault, nullptr);
          }
          // Asked again, nothing of the fault is kept.
          EXPECT_EQ(page(), kStatusOk);
          EXPECT_EQ(ids.size(), 3u);
          EXPECT_EQ(damaged, 0);
        });
}

TEST_F(ServiceSweep, CallsThatOnlyPassSomethingOnMakeNoPlatformCall) {
  Reset();
  const auto sink = std::make_shared<RecordingSink>();
  platform::FaultPlan plan = platform::FaultPlan::FailAnyCall(1, platform::ERROR_ACCESS_DENIED, platform::kFromThenOn);
  std::uint32_t cookie = 0;
  std::uint32_t count = 0;
  std::vector<std::u16string> ids;
  EXPECT_EQ(m_service.Advise(sink, cookie), 0u);
  EXPECT_EQ(m_service.Notify_NextTimeWindow_Modify(m_first, 7), kStatusOk);
  EXPECT_EQ(m_service.Notify_SystemTime_Change(0, {}, {}), kStatusOk);
  EXPECT_EQ(m_service.UpdateList(0, {}, count, ids), kStatusOk);
  EXPECT_EQ(m_service.UpdateList(9, {}, count, ids), kStatusFailure);
  EXPECT_EQ(m_service.Unadvise(cookie), 0u);
  plan.Remove();
  EXPECT_EQ(plan.hits(), 0);
  EXPECT_THAT(sink->heard, ElementsAre("window " + Text(m_first) + " 7", "time 0"));
  std::cout << "swept | advise, notices, update list, unadvise | 0 | 0 |\n";
}

TEST_F(ServiceSweep, APassAfterAChangeOfTheClockLosesNoSchedule) {
  // One schedule has run out; the clock goes back, and it has windows again.
  m_clock.SetWall(kPresent - kSecondsOfDay);
  const ScheduleGuid once = Create(Once());
  KeepStores();
  const auto prepare = [&] {
    Reset(false);
    m_clock.SetWall(kPresent + 7200);
    ASSERT_EQ(m_service.Refresh(), kStatusOk);
    ASSERT_EQ(ListedIds().size(), 3u);
    m_clock.SetWall(kPresent - kSecondsOfDay);
    while (TakeEvent() >= 0) {
    }
    m_sink->heard.clear();
    m_log.Clear();
  };
  platform::RunSweep({
      .name = "pass after a change of the clock, four schedules",
      .prepare = prepare,
      .operation =
          [&] {
            TimeChangePass(m_apartment, m_service);
            (void)m_apartment.Step(0);
          },
      .judge =
          [&](const Fault* fault) {
            if (fault == nullptr) {
              EXPECT_EQ(ListedIds().size(), 4u);
              EXPECT_EQ(m_sink->heard.size(), 1u);
            }
            // Those that are listed stay so, whatever fails.
            for (const ScheduleGuid& id : {m_first, m_subject, m_second}) EXPECT_GT(ListedWindow(id), 0);
            // Deliberate: what the rules library can't get memory for while it loads is an empty text or list.
            const bool goesOnWithout = fault != nullptr && fault->operation == Operation::kAllocate &&
                                       (fault->detail == "ZepUtf8ToWcs" || fault->detail.starts_with("Property"));
            if ((ListedIds().size() < 4 || m_sink->heard.empty()) && !goesOnWithout) {
              ASSERT_NE(fault, nullptr);
              // Of a file that isn't seen the log tells at its level of details.
              EXPECT_THAT(m_log.texts(4), Contains(AnyOf(HasSubstr("fail"), HasSubstr("Fail"),
                                                         HasSubstr("does not exists"),
                                                         HasSubstr("clients are not told"))));
            }
            // The next pass makes up for it.
            m_sink->heard.clear();
            TimeChangePass(m_apartment, m_service);
            (void)m_apartment.Step(0);
            EXPECT_EQ(ListedIds().size(), 4u);
            EXPECT_EQ(m_sink->heard.size(), 1u);
            const std::int64_t first = kPresent + 3600 - kSecondsOfDay;
            for (const ScheduleGuid& id : {m_first, m_subject, m_second}) EXPECT_EQ(ListedWindow(id), first);
            EXPECT_GT(ListedWindow(once), 0);
          },
      .explain = [&] { return "log:\n" + LogText(); },
  });
}

TEST_F(ServiceSweep, ACommandOfAnotherNodeRunsOnceOrItsFailureIsTold) {
  Status status = 0;
  std::uint32_t code = 77;
  const std::string file = m_folder + "/ran";
  const std::string command = "/bin/mkdir " + file;
  platform::RunSweep({
      .name = "command of another node",
      .prepare =
          [&] {
            std::filesystem::remove_all(file);
            m_log.Clear();
            code = 77;
          },
      .operation = [&] { status = RunCommand(command, &code); },
      .judge =
          [&](const Fault* fault) {
            if (status == kStatusOk) {
              EXPECT_EQ(code, 0u);
              EXPECT_TRUE(std::filesystem::exists(file));
              return;
            }
            ASSERT_NE(fault, nullptr);
            EXPECT_EQ(code, 77u);
            EXPECT_EQ(status, platform::StatusFromErrorCode(fault->code));
            EXPECT_TRUE(platform::WaitForAllChildren(60000));
          },
      .explain = [&] { return "log:\n" + LogText(); },
  });
}

TEST_F(ServiceSweep, TheCheckOfTheAccountTakesWhatItCanNotReadForTheLocalSystem) {
  ASSERT_EQ(RegisterServer(true), platform::ERROR_SUCCESS);
  bool isLocal = false;
  platform::RunSweep({
      .name = "check of the account",
      .prepare = [&] { m_log.Clear(); },
      .operation = [&] { isLocal = CheckIfRunningAsLocalSystem(); },
      .judge =
          [&](const Fault* fault) {
            // Deliberate: refused memory answers "no".
            EXPECT_EQ(isLocal, !LogHas("CheckIfRunningAsLocalSystem: memory allocation using new failed."));
            EXPECT_TRUE(isLocal || fault != nullptr);
            ExpectTold();
          },
  });
}

TEST_F(ServiceSweep, AStartGoesOnWithWhatDidStartAndTheNextOneIsWhole) {
  class Channel : public INodeChannel {
   public:
    Security LoadSecurityLibrary(platform::ErrorCode&) override { return Security::kLoaded; }
    void FreeSecurityLibrary() override {}
    platform::ErrorCode StartSockets() override { return platform::ERROR_SUCCESS; }
    void Serve(std::uint16_t) override {}
    void CloseListener() override {}
    void CleanUpSockets() override {}
  };
  Channel channel;
  Status status = 0;
  bool scheduler = false;
  const std::thread::id self = std::this_thread::get_id();
  const auto startAndStop = [&] {
    platform::ClockWatch watch("/nonexistent/zone");
    CSchedulerLoop loop(m_apartment, m_service, &watch, &channel);
    CTimeChangeThread timeChange(watch);
    RunThreadParts parts{.loop = loop, .timeChange = timeChange, .nodes = &channel};
    status = RunThread(parts);
    scheduler = parts.schedulerThread.joinable();
    g_SchedulerEvents.Set(SHUTDOWN_EVENT);
    if (scheduler) parts.schedulerThread.Join();
    watch.Destroy();
    if (parts.timeChangeThread.joinable()) parts.timeChangeThread.Join();
    if (parts.socketThread.joinable()) parts.socketThread.Join();
  };
  platform::RunSweep({
      .name = "start of the working threads, and stop",
      .prepare = [&] { Reset(false); },
      .operation = startAndStop,
      .judge =
          [&](const Fault* fault) {
            EXPECT_EQ(status, kStatusOk);
            EXPECT_TRUE(ReadStoredState(m_folder) == m_before);
            if (fault == nullptr) {
              EXPECT_TRUE(scheduler);
            }
            if (!scheduler) {
              ASSERT_NE(fault, nullptr);
            }
            startAndStop();
            EXPECT_EQ(status, kStatusOk);
            EXPECT_TRUE(scheduler);
            EXPECT_TRUE(ReadStoredState(m_folder) == m_before);
          },
      .isOwn = [self](Operation) { return std::this_thread::get_id() == self; },
      .explain = [&] { return "log:\n" + LogText(); },
  });
}

TEST_F(ServiceSweep, ARegistrationIsWholeOrItsFailureIsToldAndNoScheduleIsTouched) {
  const StoredState before = m_before;
  platform::ErrorCode rc = 0;
  std::string told;
  const auto carry = [&](const std::function<platform::ErrorCode()>& operation) {
    ::testing::internal::CaptureStderr();
    rc = operation();
    told = ::testing::internal::GetCapturedStderr();
  };
  const auto judge = [&](const Fault* fault, const std::function<platform::ErrorCode()>& again) {
    EXPECT_EQ(rc != platform::ERROR_SUCCESS, !told.empty());
    EXPECT_TRUE(rc == platform::ERROR_SUCCESS || fault != nullptr);
    EXPECT_TRUE(ReadStoredState(m_folder) == before);
    EXPECT_EQ(again(), platform::ERROR_SUCCESS);
    std::u16string account;
    EXPECT_EQ(platform::QueryServiceAccount(kServiceName, account) == platform::ERROR_SUCCESS, m_registers);
  };
  m_registers = true;
  platform::RunSweep({
      .name = "register as a service",
      .prepare = [&] { Reset(false); },
      .operation = [&] { carry([] { return RegisterServer(true); }); },
      .judge = [&](const Fault* fault) { judge(fault, [] { return RegisterServer(true); }); },
  });
  if (HasFailure()) return;
  ASSERT_EQ(RegisterServer(true), platform::ERROR_SUCCESS);
  KeepStores();
  m_registers = false;
  platform::RunSweep({
      .name = "unregister",
      .prepare = [&] { Reset(false); },
      .operation = [&] { carry([] { return UnregisterServer(); }); },
      .judge = [&](const Fault* fault) { judge(fault, [] { return UnregisterServer(); }); },
  });
}

}  // namespace
}  // namespace qx::testing
