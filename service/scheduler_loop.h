// service/scheduler_loop.h: sleeps until the first job falls due, starts it, works out its next window, sleeps again.
//
// The thread's body is while (Step()) {}; a test calls Step() itself. Events that clients hear of a pass are collected
// under g_JobListLock and put, in order, into the apartment's queue after it is released; nobody waits for them.
//
// A window inside the present second makes the sleep wrap to seven weeks, and that window is skipped. So that the other
// schedules don't wait with it, the thread sets the guard of the clock watch before each sleep: once the head's window
// has passed by more than a second and the loop still sleeps, the time-change thread wakes it with REFRESH_EVENT.
// Threads: EnableGuard() and Step() on one thread; HeadIsOverdue() on any.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "interface/ISchedulerService.h"
#include "platform/apartment.h"
#include "platform/clock.h"
#include "platform/clock_watch.h"
#include "service/job_list.h"
#include "service/node_channel.h"

namespace qx {

// The sleep before a window, in milliseconds.
//   headWindow  its low 32 bits count, sign-extended
// Deliberate: unsigned 32-bit arithmetic without a limit. A window more than 49.7 days ahead wraps and wakes too early,
// which does no harm; one inside the present second wraps to nearly 2^32, unless the milliseconds are 0.
[[nodiscard]] std::uint32_t SleepBefore(std::int64_t headWindow, platform::WallClockReading now);

inline constexpr std::int64_t kNoWakeUp = -1;

// Between a try for which there was no memory and the next one, on the scheduler thread and the clock watch's.
inline constexpr std::uint32_t kPauseWithoutMemoryMs = 100;

class CSchedulerLoop {
 public:
  // All are borrowed and outlive the loop.
  //   apartment  where the service's object lives
  //   service    the service itself, called there
  //   watch      bears the guard and is ended at shutdown; null for none
  //   nodes      closed at shutdown; null for none
  CSchedulerLoop(platform::Apartment& apartment, ISchedulerService& service, platform::ClockWatch* watch = nullptr,
                 INodeChannel* nodes = nullptr);
  CSchedulerLoop(const CSchedulerLoop&) = delete;
  CSchedulerLoop& operator=(const CSchedulerLoop&) = delete;

  // Has `notice` called ahead of each sleep, without a lock, on the thread of Step(): with the window that is slept
  // until, kNoWakeUp for an endless sleep. Set before the first Step().
  void SetSleepNotice(std::function<void(std::int64_t window)> notice) { m_sleepNotice = std::move(notice); }

  // One cycle: skips windows that have passed, sleeps until the first window or an event, and does what is to be done.
  //   returns  false after SHUTDOWN_EVENT and after a failed wait: the loop is over for good
  bool Step();

  // From now on Step() sets the watch's guard. Off at first, as whoever calls Step() himself looks when he likes.
  void EnableGuard() { m_guarded = true; }

  // Whether the head's window has passed by more than a second, at `nowSeconds`. Takes g_JobListLock.
  [[nodiscard]] static bool HeadIsOverdue(std::int64_t nowSeconds);

 private:
  struct Notification {
    ScheduleGuid id;
    std::int32_t nextTimeWindow;
  };

  std::uint32_t PrepareSleep();
  void SetGuard() const QX_REQUIRES(g_JobListLock);
  void SkipPassedWindows(std::int64_t now) QX_REQUIRES(g_JobListLock);
  void LaunchPass();
  void LaunchDueJobs(Status instance, std::vector<Notification>& notifications) QX_REQUIRES(g_JobListLock);
  void Shutdown();

  platform::Apartment& m_apartment;
  ISchedulerService& m_service;
  platform::ClockWatch* m_watch;
  INodeChannel* m_nodes;
  bool m_guarded = false;
  std::int64_t m_firstWindow = 0;  // the head's window when the cycle began
  std::function<void(std::int64_t)> m_sleepNotice;
  std::int64_t m_wakeUp = kNoWakeUp;  // the window that the sleep was computed for
  std::int64_t m_sleepFrom = 0;    // steady nanoseconds from which the sleep runs, so that it ends on the second
};

// The body of the scheduler thread, with the guard. Memory that runs out ends a cycle and not the thread. Always 0.
std::uint32_t ThreadProcedure(CSchedulerLoop& loop);

}  // namespace qx
