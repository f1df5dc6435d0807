#include "service/run_thread.h"

#include "service/tests/service_fixture.h"

namespace {

using platform::FaultPlan;
using platform::Operation;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class Channel : public qx::INodeChannel {
 public:
  Security LoadSecurityLibrary(platform::ErrorCode& code) override {
    code = 127;
    return security;
  }
  void FreeSecurityLibrary() override {}
  platform::ErrorCode StartSockets() override { return sockets; }
  void Serve(std::uint16_t port) override { served = port; }
  void CloseListener() override {}
  void CleanUpSockets() override {}
  Security security = Security::kLoaded;
  platform::ErrorCode sockets = 0;
  int served = -1;
};

class RunThread : public qx::testing::ServiceFixture {
 protected:
  // Starts everything, stops it and waits for all threads.
  void StartAndStop(qx::INodeChannel* nodes) {
    platform::ClockWatch watch("/nonexistent/zone");
    qx::CSchedulerLoop loop(m_apartment, m_service, &watch, nodes);
    qx::CTimeChangeThread timeChange(watch);
    qx::RunThreadParts parts{.loop = loop, .timeChange = timeChange, .nodes = nodes};
    EXPECT_EQ(qx::RunThread(parts), kStatusOk);
    m_scheduler = parts.schedulerThread.joinable();
    m_port = parts.port;
    g_SchedulerEvents.Set(SHUTDOWN_EVENT);
    parts.schedulerThread.Join();
    watch.Destroy();
    parts.timeChangeThread.Join();
    parts.socketThread.Join();
  }
  static void SetPort(std::uint32_t port) {
    platform::RegistryKey key;
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(platform::SetDword(key, u"DefaultPort", port), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  bool m_scheduler = false;
  std::uint16_t m_port = 0;
};

TEST_F(RunThread, StartsAllThreads) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  m_log.Clear();
  Channel channel;
  StartAndStop(&channel);
  EXPECT_EQ(channel.served, 4888);
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
  EXPECT_TRUE(m_log.Has(3, "Port Value set is: 4888"));
  EXPECT_TRUE(m_log.Has(3, "Intial TimeZone = GMT+0:0:0"));
  EXPECT_TRUE(m_log.Has(5, "successful WSAStartup"));
  EXPECT_TRUE(m_log.Has(3, "Shutting down now"));
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(RunThread, RunsLocalSchedulesWithoutASecurityLibrary) {
  StartAndStop(nullptr);
  EXPECT_TRUE(m_scheduler);
  EXPECT_THAT(m_log.texts(0),
              ElementsAre("LoadSecurityLibrary: LoadLibrary() returned NULL with error : 126",
                          "LoadSecurityLibrary: Can not replicate registry on far nodes in the cluster",
                          "RunThread: SocketThread has not been created, as secure communcation would not be possible"));
}

TEST_F(RunThread, TellsOfAMissingEntryOfTheSecurityLibrary) {
  Channel channel;
  channel.security = qx::INodeChannel::Security::kNoEntry;
  StartAndStop(&channel);
  EXPECT_EQ(channel.served, -1);
  EXPECT_EQ(m_log.texts(0).front(), "LoadSecurityLibrary: GetProcAddress() returned NULL with error : 127");
}

TEST_F(RunThread, LeavesTheSchedulerRunningWhenTheSocketsDoNotStart) {
  Channel channel;
  channel.sockets = 10091;
  StartAndStop(&channel);
  EXPECT_TRUE(m_scheduler);
  EXPECT_EQ(channel.served, -1);
  EXPECT_TRUE(m_log.Has(1, "WSAStartup failed with error 10091\n"));
}

TEST_F(RunThread, ReadsTheLow16BitsOfThePort) {
  EXPECT_EQ(qx::ReadPort(), 4888);
  SetPort(70000);
  EXPECT_EQ(qx::ReadPort(), 70000 - 65536);
  StartAndStop(nullptr);
  EXPECT_EQ(m_port, 4464);
  EXPECT_TRUE(m_log.Has(3, "Port Value set is: 4464"));
}

struct ThreadFailure {
  const char* thread;
  const char* text;
};
const ThreadFailure kThreadFailures[] = {
    {"ThreadProcedure", "RunThread: CreateThread(ThreadProcedure) failed with error :8"},
    {"TimeChangeThread", "RunThread: CreateThread(TimeChangeThread) failed with error :8"},
    {"SocketThread", "RunThread: CreateThread(TimeChangeThread) failed with error :8"},
};

TEST_F(RunThread, GoesOnWhenAThreadCanNotBeStarted) {
  for (const ThreadFailure& c : kThreadFailures) {
    m_log.Clear();
    Channel channel;
    FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, 8, platform::kOnce, c.thread);
    StartAndStop(&channel);
    EXPECT_EQ(plan.hits(), 1) << c.thread;
    EXPECT_THAT(m_log.texts(0), ElementsAre(c.text)) << c.thread;
    EXPECT_TRUE(m_log.Has(5, "successful WSAStartup")) << c.thread;
  }
}

TEST_F(RunThread, TellsOfEventsThatCouldNotBeMade) {
  FaultPlan plan = FaultPlan::FailCall(Operation::kCreateEvent, 1, 8);
  StartAndStop(nullptr);
  EXPECT_THAT(m_log.texts(0), Contains("RunThread: the events couldn't be made, error :8"));
}

// Notes what is there when it is called.
class ObservingChannel : public Channel {
 public:
  Security LoadSecurityLibrary(platform::ErrorCode& code) override {
    platform::WaitResult result;
    const bool events = g_SchedulerEvents.Wait(0, result) == 0;
    ZepFoundation::ServiceLog(0, u"security, events: %d, listed: %d", events ? 1 : 0,
                              static_cast<std::uint32_t>(g_JobList.Size()));
    return Channel::LoadSecurityLibrary(code);
  }
  platform::ErrorCode StartSockets() override {
    ZepFoundation::ServiceLog(0, u"sockets, listed: %d, scheduler: %d, time change: %d",
                              static_cast<std::uint32_t>(g_JobList.Size()), scheduler->joinable() ? 1 : 0,
                              timeChange->joinable() ? 1 : 0);
    return 0;
  }
  platform::Thread* scheduler = nullptr;
  platform::Thread* timeChange = nullptr;
};

TEST_F(RunThread, MakesWhatLaterStepsUseAheadOfThem) {
  Create(Daily());
  DoCleanUp();
  m_log.Clear();
  g_SchedulerEvents = {};
  ObservingChannel channel;
  platform::ClockWatch watch("/nonexistent/zone");
  qx::CSchedulerLoop loop(m_apartment, m_service, &watch, &channel);
  qx::CTimeChangeThread timeChange(watch);
  qx::RunThreadParts parts{.loop = loop, .timeChange = timeChange, .nodes = &channel};
  channel.scheduler = &parts.schedulerThread;
  channel.timeChange = &parts.timeChangeThread;
  EXPECT_EQ(qx::RunThread(parts), kStatusOk);
  g_SchedulerEvents.Set(SHUTDOWN_EVENT);
  parts.schedulerThread.Join();
  watch.Destroy();
  parts.timeChangeThread.Join();
  parts.socketThread.Join();
  // The lines of the starting thread.
  std::vector<std::string> steps;
  for (const std::string& text : m_log.texts(5)) {
    for (const char* own : {"security,", "Port Value", "Intial", "sockets,", "successful"}) {
      if (text.starts_with(own)) steps.push_back(text);
    }
  }
  EXPECT_THAT(steps, ElementsAre("security, events: 1, listed: 0", "Port Value set is: 4888",
                                 "Intial TimeZone = GMT+0:0:0", "sockets, listed: 1, scheduler: 1, time change: 1",
                                 "successful WSAStartup"));
}

}  // namespace
