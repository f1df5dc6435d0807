// Events on the bus: subscribers that die, that stall, and many of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/running_service.h"

namespace qx::testing {
namespace {

using platform::BusConnection;
using platform::BusError;
using platform::ERROR_SUCCESS;
using platform::MessageReader;
using platform::MessageWriter;

class Events : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(service.Bus().Address().empty()) << "no dbus-daemon";
    ASSERT_NO_FATAL_FAILURE(service.Register());
    ASSERT_NO_FATAL_FAILURE(service.Start());
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
    ASSERT_NO_FATAL_FAILURE(service.Connect(listener));
    ASSERT_EQ(listener.Advise(heard, cookie), 0u);
  }
  // Windows first, first+1, ... last are told, and the listener hears them in this order.
  void TellAndHear(std::int32_t first, std::int32_t last) {
    for (std::int32_t window = first; window <= last; ++window) {
      ASSERT_EQ(client.Notify_NextTimeWindow_Modify(CLSID_SchedulerService, window), 0u) << client.LastError().text;
    }
    for (std::int32_t window = first; window <= last; ++window) {
      const auto event = RunningService::WaitFor(listener, *heard, "NextTimeWindow_Modify");
      ASSERT_TRUE(event);
      ASSERT_EQ(event->window, window);
    }
  }

  RunningService service;
  SchedulerClient client;
  SchedulerClient listener;
  std::shared_ptr<EventLog> heard = std::make_shared<EventLog>();
  std::uint32_t cookie = 0;
};

TEST_F(Events, OfOneCallerArriveInItsOrder) { TellAndHear(1, 500); }

TEST_F(Events, ASubscriberThatDiesStopsNobody) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t subscriber = fork();
  if (subscriber == 0) {
    SchedulerClient doomed;
    std::uint32_t own = 0;
    const bool subscribed = doomed.Connect(service.Bus().ForClients()) == 0 &&
                            doomed.Advise(std::make_shared<EventLog>(), own) == 0;
    (void)!write(ready[1], subscribed ? "y" : "n", 1);
    while (true) pause();
  }
  close(ready[1]);
  char answer = 0;
  ASSERT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  close(ready[0]);
  ASSERT_NO_FATAL_FAILURE(TellAndHear(1, 10));
  ASSERT_EQ(kill(subscriber, SIGKILL), 0);
  ASSERT_NO_FATAL_FAILURE(TellAndHear(11, 20));  // its exit may come before any of these, or between
  ASSERT_EQ(waitpid(subscriber, nullptr, 0), subscriber);
  ASSERT_NO_FATAL_FAILURE(TellAndHear(21, 30));
}

TEST_F(Events, ASubscriberThatStallsHoldsUpNobody) {
  BusConnection stalled;
  int signals = 0;
  ASSERT_EQ(stalled.Open(service.Bus().ForClients()), ERROR_SUCCESS);
  ASSERT_EQ(stalled.Subscribe(kBusName, kBusPath, kBusEventsInterface, "", [&](MessageReader&) { ++signals; }),
            ERROR_SUCCESS);
  // Far more than any socket takes, for one who never reads.
  const std::vector<std::u16string> ids(1000, std::u16string(100, u'x'));
  const std::vector<std::int32_t> windows(1000, 5);
  for (int i = 1; i <= 200; ++i) {
    ASSERT_EQ(client.Notify_SystemTime_Change(i, ids, windows), 0u) << client.LastError().text;
    const auto event = RunningService::WaitFor(listener, *heard, "SystemTime_Change");
    ASSERT_TRUE(event);
    ASSERT_EQ(event->window, i);
  }
  EXPECT_EQ(signals, 0);
  ASSERT_NO_FATAL_FAILURE(TellAndHear(1, 10));
}

TEST_F(Events, AThousandSubscribersEachHearEveryEvent) {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  const std::size_t count = std::min<rlim_t>(1000, files.rlim_max / 4);  // what the host allows
  ASSERT_GT(count, 100u);
  std::vector<std::vector<std::int32_t>> seen(count);
  std::vector<BusConnection> subscribers(count);
  for (std::size_t i = 0; i < count; ++i) {
    ASSERT_EQ(subscribers[i].Open(service.Bus().ForClients()), ERROR_SUCCESS) << i;
    ASSERT_EQ(subscribers[i].Subscribe(kBusName, kBusPath, kBusEventsInterface, "NextTimeWindow_Modify",
                                       [&seen, i](MessageReader& signal) {
                                         std::string_view id;
                                         std::int32_t window = 0;
                                         (void)signal.ReadString(id);
                                         (void)signal.ReadInt32(window);
                                         seen[i].push_back(window);
                                       }),
              ERROR_SUCCESS)
        << i;
  }
  const std::vector<std::int32_t> told = {7, -1, 3};
  for (const std::int32_t window : told) {
    ASSERT_EQ(client.Notify_NextTimeWindow_Modify(CLSID_SchedulerService, window), 0u) << client.LastError().text;
  }
  for (std::size_t i = 0; i < count; ++i) {
    while (seen[i].size() < told.size()) {
      if (!subscribers[i].Process() && seen[i].size() < told.size()) {
        ASSERT_TRUE(subscribers[i].WaitForWork(kPatience)) << i;
      }
    }
    EXPECT_EQ(seen[i], told) << i;
  }
}

}  // namespace
}  // namespace qx::testing
