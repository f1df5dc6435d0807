#include <atomic>
#include <functional>
#include <future>

#include "platform/thread.h"
#include "service/scheduler_loop.h"
#include "service/tests/service_fixture.h"
#include "service/time_change_thread.h"

namespace {

using qx::testing::kPresent;
using qx::testing::kSecondsOfDay;
using testing::IsEmpty;

// A clock that stands while somebody waits: waits are real and end with an event. Tells each wait that begins.
class StandingClock : public platform::VirtualClock {
 public:
  using VirtualClock::VirtualClock;
  bool ConsumeWait(std::uint64_t milliseconds) override {
    sleeps.fetch_add(1);
    lastSleep.store(milliseconds);
    if (onWait) onWait(sleeps.load());
    return false;
  }
  std::atomic<int> sleeps{0};
  std::atomic<std::uint64_t> lastSleep{0};
  std::function<void(int)> onWait;  // with the number of the wait, on the waiting thread
};

class OverdueGuard : public qx::testing::ServiceFixture {
 protected:
  StandingClock m_standing{kPresent, 0, 5000};
  platform::ClockWatch m_watch{"/nonexistent/zone"};
  qx::CSchedulerLoop m_loop{m_apartment, m_service, &m_watch};
  qx::CTimeChangeThread m_timeChange{m_watch};
};

// Both threads as in the service. The kernel's timer of the guard runs on the machine's clock, on which the moment has
// long passed, so that the notice comes as soon as somebody reads.
TEST_F(OverdueGuard, AWindowInsideThePresentSecondIsSkippedAndTheOthersGoOn) {
  const ScheduleGuid skipped = Create(Daily(100));
  const ScheduleGuid other = Create(Daily(103));
  EXPECT_EQ(TakeEvent(), CREATE_EVENT);
  m_log.Clear();
  m_standing.Advance(100250);
  std::promise<void> wrapped, looked;
  m_standing.onWait = [&](int number) {
    if (number == 1) {
      m_standing.Advance(1750);
      wrapped.set_value();
    } else if (number == 2) {
      looked.set_value();
    }
  };
  platform::Thread scheduler, timeChange;
  ASSERT_EQ(platform::Thread::Start(
                "scheduler", [this] { (void)qx::ThreadProcedure(m_loop); }, scheduler),
            0u);
  wrapped.get_future().get();
  EXPECT_EQ(m_standing.lastSleep, 4294967046u);
  EXPECT_EQ(m_watch.Guard(), kPresent + 102);
  ASSERT_EQ(platform::Thread::Start(
                "time change", [this] { m_timeChange.Run(); }, timeChange),
            0u);
  looked.get_future().get();
  EXPECT_EQ(ListedWindow(skipped), kPresent + 100 + kSecondsOfDay);
  EXPECT_EQ(ListedWindow(other), kPresent + 103);
  EXPECT_EQ(m_standing.lastSleep, 1000u);
  EXPECT_EQ(m_watch.Guard(), kPresent + 105);
  g_SchedulerEvents.Set(SHUTDOWN_EVENT);
  scheduler.Join();
  timeChange.Join();
  EXPECT_EQ(m_log.Count(2, "The first window has passed while the scheduler slept: the schedules are looked at again"),
            1);
  EXPECT_EQ(m_log.Count(2, "Something wrong, next time window can't be earlier than current time: " + Text(skipped)),
            1);
  EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(skipped)), 0);
  EXPECT_THAT(ErrorLines(), IsEmpty());
}

}  // namespace
