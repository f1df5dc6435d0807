// The client interface as its users see it: each test runs on the service's own object within this process and over the
// bus, on the client library and the real program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

#include "client/scheduler_client.h"
#include "foundation/include/zfclog.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/testing/temporary_folder.h"
#include "service/job_list.h"
#include "service/populate.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"
#include "service/scheduler_service.h"
#include "tests/running_service.h"

namespace {

using platform::Utf8FromWide;
using qx::testing::Child;
using qx::testing::Event;
using qx::testing::EventLog;
using qx::testing::RunningService;
using testing::ElementsAre;
using testing::IsEmpty;

using Sink = std::shared_ptr<ISchedulerServiceEvents>;

// A service somewhere, and how its events come.
class Host {
 public:
  virtual ~Host() = default;
  virtual ISchedulerService& Service() = 0;
  virtual Status Advise(Sink sink, std::uint32_t& cookie) = 0;
  virtual Status Unadvise(std::uint32_t cookie) = 0;
  // Has every event of the calls so far arrive.
  virtual void Settle() = 0;
  // A directory for the files of jobs.
  [[nodiscard]] virtual std::string Jobs() const = 0;
};

// The service's object, called directly, over a store of its own.
class InProcess : public Host {
 public:
  InProcess() {
    platform::SetStateDirectory(m_folder);
    EXPECT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
    for (const auto path : {qx::kVolumeManagerKey, qx::kProviderKey, qx::kSchedulesKey}) {
      platform::RegistryKey key;
      EXPECT_EQ(platform::CreateKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
      EXPECT_EQ(key.Close(), 0u);
    }
    EXPECT_EQ(g_SchedulerEvents.Create(kSchedulerEventCount), 0u);
  }
  ~InProcess() override {
    DoCleanUp();
    g_SchedulerEvents = {};
    (void)platform::CloseRegistryStore();
    platform::SetStateDirectory({});
    ZepFoundation::SetServiceLogWriter(m_writerBefore);
  }
  ISchedulerService& Service() override { return m_service; }
  Status Advise(Sink sink, std::uint32_t& cookie) override { return m_service.Advise(std::move(sink), cookie); }
  Status Unadvise(std::uint32_t cookie) override { return m_service.Unadvise(cookie); }
  void Settle() override {}  // they came within the call
  [[nodiscard]] std::string Jobs() const override { return m_folder; }

 private:
  const platform::TemporaryFolder m_temporary{"qx-interface"};
  const std::string m_folder = m_temporary.Path();
  ZepFoundation::ServiceLogWriter* m_writerBefore =
      ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
  CSchedulerService m_service;
};

// The real program, asked by the client library.
class OverBus : public Host {
 public:
  OverBus() {
    m_program.Register();
    m_program.Start();
    m_program.Connect(m_client);
  }
  ISchedulerService& Service() override { return m_client; }
  Status Advise(Sink sink, std::uint32_t& cookie) override { return m_client.Advise(std::move(sink), cookie); }
  Status Unadvise(std::uint32_t cookie) override { return m_client.Unadvise(cookie); }
  void Settle() override {
    // A signal overtakes no answer: with this one here, those of the calls before are here too.
    qx::ServiceProperties properties;
    EXPECT_EQ(m_client.Properties(properties), kStatusOk) << m_client.LastError().text;
    (void)m_client.WaitForEvents(0);
  }
  [[nodiscard]] std::string Jobs() const override { return m_program.Jobs(); }

 private:
  RunningService m_program;
  qx::SchedulerClient m_client;
};

struct HostKind {
  const char* name;
  std::unique_ptr<Host> (*make)();
};
void PrintTo(const HostKind& kind, std::ostream* out) {
  *out << kind.name;
}

class Interface : public testing::TestWithParam<HostKind> {
 protected:
  ISchedulerService& Service() { return m_host->Service(); }

  // Daily, an hour from now, for a minute.
  SCHEDULE_OBJECT Daily() const {
    SCHEDULE_OBJECT schedule;
    schedule.bstrName = u"daily";
    schedule.bstrDescription = u"made by a test";
    schedule.bstrApplication = u"snapshot";
    schedule.bstrObjectID = u"vol-17";
    schedule.dwTaskOpCode = 4;
    schedule.bstrWrapperBinaryName = u"/bin/true";
    schedule.bstrXMLFilePathName = platform::WideFromUtf8(m_host->Jobs() + "/job.xml");
    schedule.bstrParameters = u"-v \u00E4";
    schedule.stScheduleRules.lStartTime = static_cast<std::int32_t>(platform::NowSeconds() + 3600);
    schedule.stScheduleRules.dwTimeDuration = 60 * 1000;
    schedule.stScheduleRules.bRepeatInterval = 1;
    schedule.stScheduleRules.dwRepeatInterval = 1;
    return schedule;
  }
  ScheduleGuid Create(const SCHEDULE_OBJECT& schedule) {
    ScheduleGuid id{};
    EXPECT_EQ(Service().CreateSchedule(schedule, id), kStatusOk);
    return id;
  }
  SCHEDULE_OBJECT Get(const ScheduleGuid& id) {
    ScheduleInfo info;
    EXPECT_EQ(Service().GetScheduleInfo(id, info), kStatusOk);
    EXPECT_EQ(info.size(), 1u);
    return info.size() == 1 ? info.records()[0] : SCHEDULE_OBJECT();
  }
  std::uint32_t Count() {
    std::uint32_t count = 0;
    ScheduleList list;
    EXPECT_EQ(Service().ListSchedule(count, list), kStatusOk);
    EXPECT_EQ(list.size(), count);
    return count;
  }
  static std::vector<std::string> Names(const EventLog& log) {
    std::vector<std::string> names;
    for (const Event& event : log.events) names.push_back(event.name);
    return names;
  }

  std::unique_ptr<Host> m_host = GetParam().make();
};

INSTANTIATE_TEST_SUITE_P(Everywhere, Interface,
                         testing::Values(HostKind{"InProcess", []() -> std::unique_ptr<Host> {
                                                    return std::make_unique<InProcess>();
                                                  }},
                                         HostKind{"OverBus", []() -> std::unique_ptr<Host> {
                                                    return std::make_unique<OverBus>();
                                                  }}),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(Interface, AScheduleIsReadBackAsItWasGiven) {
  const SCHEDULE_OBJECT given = Daily();
  const SCHEDULE_OBJECT back = Get(Create(given));
  EXPECT_EQ(back.bstrName, given.bstrName);
  EXPECT_EQ(back.bstrDescription, given.bstrDescription);
  EXPECT_EQ(back.bstrApplication, given.bstrApplication);
  EXPECT_EQ(back.bstrObjectID, given.bstrObjectID);
  EXPECT_EQ(back.dwTaskOpCode, given.dwTaskOpCode);
  EXPECT_EQ(back.bstrWrapperBinaryName, given.bstrWrapperBinaryName);
  EXPECT_EQ(back.bstrXMLFilePathName, given.bstrXMLFilePathName);
  EXPECT_EQ(back.bstrParameters, given.bstrParameters);
  EXPECT_EQ(back.stScheduleRules.dwTimeDuration, given.stScheduleRules.dwTimeDuration);
  EXPECT_EQ(back.stScheduleRules.dwRepeatInterval, 1);
  EXPECT_EQ(back.lNextTimeWindow, given.stScheduleRules.lStartTime);
  EXPECT_EQ(back.bRunNow, 0u);
}

TEST_P(Interface, WhatOnlyLeavesTheServiceIsNotTakenFromAClient) {
  SCHEDULE_OBJECT given = Daily();
  given.lNextTimeWindow = 1;
  const ScheduleGuid id = Create(given);
  EXPECT_EQ(Get(id).lNextTimeWindow, given.stScheduleRules.lStartTime);
  EXPECT_EQ(Service().ModifySchedule(id, given), kStatusOk);
  EXPECT_EQ(Get(id).lNextTimeWindow, given.stScheduleRules.lStartTime);
}

TEST_P(Interface, AnElementOfADayListOtherThanZeroNamesItsDay) {
  SCHEDULE_OBJECT given = Daily();
  given.stScheduleRules.bRepeatInterval = 0;
  given.stScheduleRules.adwDaysOfMonth[0] = -1;
  given.stScheduleRules.adwDaysOfMonth[31] = 2;
  given.stScheduleRules.dwDaysOfWeek0[6] = 0x80000000;
  given.stScheduleRules.dwDaysOfWeek4[0] = 256;
  const SCHEDULE_OBJECT back = Get(Create(given));
  SCHEDULE_RULE expected;
  expected.adwDaysOfMonth[0] = expected.adwDaysOfMonth[31] = 1;
  expected.dwDaysOfWeek0[6] = expected.dwDaysOfWeek4[0] = 1;
  EXPECT_EQ(back.stScheduleRules.adwDaysOfMonth, expected.adwDaysOfMonth);
  EXPECT_EQ(back.stScheduleRules.dwDaysOfWeek0, expected.dwDaysOfWeek0);
  EXPECT_EQ(back.stScheduleRules.dwDaysOfWeek4, expected.dwDaysOfWeek4);
}

TEST_P(Interface, ADateListEndsAtItsFirstZero) {
  SCHEDULE_OBJECT given = Daily();
  const std::int32_t day = 86400;
  given.stScheduleRules.alIncludeDates = {given.stScheduleRules.lStartTime + 40 * day, 0,
                                          given.stScheduleRules.lStartTime + 41 * day};
  const auto back = Get(Create(given)).stScheduleRules.alIncludeDates;
  EXPECT_NE(back[0], 0);
  EXPECT_EQ(back[1], 0);
}

TEST_P(Interface, AnIncludedDateAmongTheExcludedOnesIsTaken) {
  SCHEDULE_OBJECT given = Daily();
  given.stScheduleRules.alIncludeDates[0] = given.stScheduleRules.alExcludeDates[0] =
      given.stScheduleRules.lStartTime + 40 * 86400;
  const SCHEDULE_OBJECT back = Get(Create(given));
  EXPECT_NE(back.stScheduleRules.alIncludeDates[0], 0);
  EXPECT_EQ(back.stScheduleRules.alIncludeDates[0], back.stScheduleRules.alExcludeDates[0]);
}

TEST_P(Interface, AListOfNoSchedulesIsEmptyAndTheArrayStays) {
  std::uint32_t count = 7;
  ScheduleList list;
  EXPECT_EQ(Service().ListSchedule(count, list), kStatusOk);
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(list);
}

TEST_P(Interface, TheListHoldsEverySchedule) {
  SCHEDULE_OBJECT other = Daily();
  other.bstrObjectID = u"vol-18";
  other.dwTaskOpCode = 0xFFFFFFFF;
  const ScheduleGuid first = Create(Daily()), second = Create(other);
  std::uint32_t count = 0;
  ScheduleList list;
  ASSERT_EQ(Service().ListSchedule(count, list), kStatusOk);
  ASSERT_EQ(count, 2u);
  ASSERT_EQ(list.size(), 2u);
  for (const SCHEDULE_OBJECT_EX& row : list.records()) {
    const bool isSecond = row.bstrScheduleID == platform::GuidText(second);
    EXPECT_EQ(row.bstrScheduleID, platform::GuidText(isSecond ? second : first));
    EXPECT_EQ(row.bstrObjectID, isSecond ? u"vol-18" : u"vol-17");
    EXPECT_EQ(row.dwTaskOpCode, isSecond ? 0xFFFFFFFF : 4);
    EXPECT_EQ(row.bstrWrapperBinaryName, u"/bin/true");
  }
}

TEST_P(Interface, ADeletedScheduleIsGone) {
  const ScheduleGuid id = Create(Daily());
  EXPECT_EQ(Service().DeleteSchedule(id), kStatusOk);
  EXPECT_EQ(Count(), 0u);
  ScheduleInfo info;
  EXPECT_EQ(Service().GetScheduleInfo(id, info), kStatusRegistryRead);
  EXPECT_FALSE(info);
  EXPECT_EQ(Service().DeleteSchedule(id), kStatusNotFoundForDelete);
}

TEST_P(Interface, ARefusedScheduleHasItsStatusAndLeavesNothingBehind) {
  struct Case {
    int line;
    Status status;
    std::function<void(SCHEDULE_OBJECT&)> spoil;
  };
  const Case cases[] = {
      {__LINE__, kStatusFailure, [](SCHEDULE_OBJECT& s) { s.bstrWrapperBinaryName = u""; }},
      {__LINE__, kStatusNoDirectory, [](SCHEDULE_OBJECT& s) { s.bstrXMLFilePathName = u"/nonexistent/job.xml"; }},
      {__LINE__, kStatusNoDirectory, [](SCHEDULE_OBJECT& s) { s.bstrXMLFilePathName.reset(); }},
      {__LINE__, kStatusNoRunDay, [](SCHEDULE_OBJECT& s) { s.stScheduleRules.bRepeatInterval = 0; }},
      {__LINE__, kStatusNoRunDay,
       [](SCHEDULE_OBJECT& s) {
         s.stScheduleRules.bRepeatInterval = 0;
         s.stScheduleRules.bLastDayOfMonth = 1;  // not read
       }},
      {__LINE__, kStatusRestartTooLong,
       [](SCHEDULE_OBJECT& s) {
         s.stScheduleRules.bRestartInterval = 1;
         s.stScheduleRules.dwRestartInterval = 61 * 1000;
       }},
      {__LINE__, kStatusBackdated,
       [](SCHEDULE_OBJECT& s) {
         s.stScheduleRules.bRepeatInterval = 0;
         s.stScheduleRules.alIncludeDates[0] = s.stScheduleRules.lStartTime - 10 * 86400;
       }},
  };
  for (const Case& c : cases) {
    SCHEDULE_OBJECT schedule = Daily();
    c.spoil(schedule);
    ScheduleGuid id{};
    EXPECT_EQ(Service().CreateSchedule(schedule, id), c.status) << "line " << c.line;
    EXPECT_NE(id, ScheduleGuid{}) << "the ID is made first, line " << c.line;
  }
  EXPECT_EQ(Count(), 0u);
}

TEST_P(Interface, AModificationIsReadBackAndTold) {
  const auto log = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  const ScheduleGuid id = Create(Daily());
  ASSERT_EQ(m_host->Advise(log, cookie), kStatusOk);
  SCHEDULE_OBJECT changed = Daily();
  changed.bstrParameters = u"-w";
  changed.stScheduleRules.dwTimeDuration = 120 * 1000;
  EXPECT_EQ(Service().ModifySchedule(id, changed), kStatusOk);
  m_host->Settle();
  EXPECT_THAT(Names(*log), ElementsAre("Schedule_Modify"));
  const SCHEDULE_OBJECT back = Get(id);
  EXPECT_EQ(back.bstrParameters, u"-w");
  EXPECT_EQ(back.stScheduleRules.dwTimeDuration, 120u * 1000);
  EXPECT_EQ(Count(), 1u);
}

TEST_P(Interface, AModificationOfAFixedValueIsTakenBackWithoutAWord) {
  const std::function<void(SCHEDULE_OBJECT&)> changes[] = {
      [](SCHEDULE_OBJECT& s) { s.bstrApplication = u"other"; },
      [](SCHEDULE_OBJECT& s) { s.bstrObjectID = u"vol-18"; },
      [](SCHEDULE_OBJECT& s) { s.dwTaskOpCode = 5; },
  };
  const auto log = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  const ScheduleGuid id = Create(Daily());
  ASSERT_EQ(m_host->Advise(log, cookie), kStatusOk);
  for (const auto& change : changes) {
    SCHEDULE_OBJECT changed = Daily();
    change(changed);
    changed.bstrParameters = u"-w";
    EXPECT_EQ(Service().ModifySchedule(id, changed), kStatusOk);
    m_host->Settle();
    EXPECT_THAT(Names(*log), IsEmpty());
    const SCHEDULE_OBJECT back = Get(id);
    EXPECT_EQ(back.bstrApplication, u"snapshot");
    EXPECT_EQ(back.bstrObjectID, u"vol-17");
    EXPECT_EQ(back.dwTaskOpCode, 4u);
    EXPECT_EQ(back.bstrParameters, Daily().bstrParameters);
  }
}

TEST_P(Interface, ARefusedModificationHasItsStatus) {
  const ScheduleGuid id = Create(Daily());
  EXPECT_EQ(Service().ModifySchedule(ScheduleGuid{1}, Daily()), kStatusNoSuchKey);
  SCHEDULE_OBJECT bad = Daily();
  bad.stScheduleRules.bRepeatInterval = 0;
  EXPECT_EQ(Service().ModifySchedule(id, bad), kStatusNoRunDay);
  bad = Daily();
  bad.bstrXMLFilePathName = u"/nonexistent/job.xml";
  EXPECT_EQ(Service().ModifySchedule(id, bad), kStatusNoDirectory);
  EXPECT_EQ(Get(id).stScheduleRules.dwRepeatInterval, 1);
}

TEST_P(Interface, TwoSchedulesMayBearOneName) {
  EXPECT_NE(Create(Daily()), Create(Daily()));
  EXPECT_EQ(Count(), 2u);
}

TEST_P(Interface, ReadingTheStoreAgainKeepsEverySchedule) {
  const ScheduleGuid id = Create(Daily());
  const std::int32_t window = Get(id).lNextTimeWindow;
  EXPECT_EQ(Service().Refresh(), kStatusOk);
  EXPECT_EQ(Get(id).lNextTimeWindow, window);
}

TEST_P(Interface, UpdateListTakesTheKnownTypesAndLeavesTheOutputs) {
  const std::pair<std::int32_t, Status> cases[] = {{0, 0}, {1, 0}, {2, 0}, {3, 1}, {-1, 1}};
  for (const auto& [type, status] : cases) {
    std::uint32_t count = 99;
    std::vector<std::u16string> ids = {u"before"};
    EXPECT_EQ(Service().UpdateList(type, u"snapshot", count, ids), status) << type;
    EXPECT_EQ(count, 99u);
    EXPECT_THAT(ids, ElementsAre(u"before"));
  }
}

// --- events ---

TEST_P(Interface, EventsTellOfChangesInTheirOrder) {
  const auto log = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
  ASSERT_EQ(m_host->Advise(log, cookie), kStatusOk);
  const ScheduleGuid id = Create(Daily());
  ASSERT_EQ(Service().DeleteSchedule(id), kStatusOk);
  SCHEDULE_OBJECT refused = Daily();
  refused.stScheduleRules.bRepeatInterval = 0;
  ScheduleGuid none{};
  ASSERT_EQ(Service().CreateSchedule(refused, none), kStatusNoRunDay);
  ASSERT_EQ(Service().Notify_NextTimeWindow_Modify(id, -1), kStatusOk);
  ASSERT_EQ(Service().Notify_SystemTime_Change(2, {u"a", u"b"}, {5, -1}), kStatusOk);
  m_host->Settle();
  EXPECT_THAT(Names(*log),
              ElementsAre("Schedule_Add", "Schedule_Delete", "NextTimeWindow_Modify", "SystemTime_Change"));
  ASSERT_EQ(log->events.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(log->events[static_cast<std::size_t>(i)].id, id) << i;
  EXPECT_EQ(log->events[2].window, -1);
  EXPECT_EQ(log->events[3].window, 2);
}

// Tells in a common list which sink heard of a deletion; does something else meanwhile.
class Numbered : public EventLog {
 public:
  Numbered(int number, std::vector<int>& heard, std::function<void()> meanwhile = {})
      : m_number(number), m_heard(heard), m_meanwhile(std::move(meanwhile)) {}
  void Schedule_Delete(const ScheduleGuid&) override {
    m_heard.push_back(m_number);
    if (m_meanwhile) m_meanwhile();
  }

 private:
  int m_number;
  std::vector<int>& m_heard;
  std::function<void()> m_meanwhile;
};

TEST_P(Interface, SinksHearInTheOrderOfTheirSlotsAndAnEmptySlotIsTakenAgain) {
  std::vector<int> heard;
  std::uint32_t cookies[4] = {};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(i, heard), cookies[i]), kStatusOk);
  ASSERT_EQ(m_host->Unadvise(cookies[1]), kStatusOk);
  ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(3, heard), cookies[3]), kStatusOk);
  for (const std::uint32_t cookie : {cookies[0], cookies[1], cookies[2]}) EXPECT_NE(cookie, cookies[3]);
  (void)Service().DeleteSchedule(Create(Daily()));
  m_host->Settle();
  EXPECT_THAT(heard, ElementsAre(0, 3, 2));
}

TEST_P(Interface, ACookieThatNamesNobodyAndANullSinkAreRefused) {
  std::uint32_t cookie = 77;
  EXPECT_EQ(m_host->Advise(nullptr, cookie), kStatusNoSink);
  EXPECT_EQ(cookie, 77u);
  EXPECT_EQ(m_host->Unadvise(cookie), kStatusNoSuchSubscription);
  ASSERT_EQ(m_host->Advise(std::make_shared<EventLog>(), cookie), kStatusOk);
  EXPECT_EQ(m_host->Unadvise(cookie), kStatusOk);
  EXPECT_EQ(m_host->Unadvise(cookie), kStatusNoSuchSubscription);
}

TEST_P(Interface, ASinkThatThrowsStopsNobodyElse) {
  std::vector<int> heard;
  std::uint32_t cookie = 0;
  ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(0, heard, [] { throw std::runtime_error("a bad sink"); }), cookie),
            kStatusOk);
  ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(1, heard), cookie), kStatusOk);
  (void)Service().DeleteSchedule(Create(Daily()));
  m_host->Settle();
  EXPECT_THAT(heard, ElementsAre(0, 1));
}

TEST_P(Interface, ASinkMayLeaveInsideItsOwnEvent) {
  std::vector<int> heard;
  std::uint32_t first = 0, second = 0;
  ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(0, heard, [&] { (void)m_host->Unadvise(first); }), first),
            kStatusOk);
  ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(1, heard), second), kStatusOk);
  const ScheduleGuid a = Create(Daily()), b = Create(Daily());
  (void)Service().DeleteSchedule(a);
  m_host->Settle();
  (void)Service().DeleteSchedule(b);
  m_host->Settle();
  EXPECT_THAT(heard, ElementsAre(0, 1, 1));
}

// The array's length is read once: with three sinks in four slots the fourth slot still belongs to the event, a fifth
// one, for which the array has to grow, doesn't.
TEST_P(Interface, ASinkThatComesInsideAnEventHearsOfItOnlyInASlotThatIsThere) {
  std::vector<int> heard;
  std::uint32_t cookie = 0;
  bool come = true;
  ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(0, heard,
                                                      [&] {
                                                        if (!come) return;
                                                        come = false;
                                                        for (int i = 3; i < 5; ++i) {
                                                          (void)m_host->Advise(std::make_shared<Numbered>(i, heard),
                                                                               cookie);
                                                        }
                                                      }),
                           cookie),
            kStatusOk);
  for (int i = 1; i < 3; ++i) ASSERT_EQ(m_host->Advise(std::make_shared<Numbered>(i, heard), cookie), kStatusOk);
  (void)Service().DeleteSchedule(Create(Daily()));
  m_host->Settle();
  EXPECT_THAT(heard, ElementsAre(0, 1, 2, 3));
}

// --- the example ---

TEST(ClientExample, ListsAndHearsOfItsOwnSchedule) {
  RunningService service;
  service.Register();
  service.Start();
  const std::string output = service.Jobs() + "/watch.out";
  Child example(test_paths::Programs() + "/qx_example_client", {service.Bus().Address()}, output,
                {"PATH=/usr/bin:/bin", "TZ=UTC"});
  EXPECT_EQ(example.Wait(), 0) << RunningService::ReadFile(output);
  EXPECT_EQ(RunningService::ReadFile(output), "0 schedules\nevent: added mine\nevent: deleted mine\n");
}

}  // namespace
