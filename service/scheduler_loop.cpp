#include "service/scheduler_loop.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include "foundation/include/zfclog.h"
#include "platform/event.h"
#include "platform/reserved_memory.h"
#include "platform/thread.h"
#include "service/job_list.h"
#include "service/modify_schedule.h"
#include "service/scheduler_events.h"
#include "service/time_change.h"

using platform::CriticalSectionGuard;
using platform::WaitResult;
using ZepFoundation::ServiceLog;

namespace qx {
namespace {

std::int64_t SignExtended(std::int64_t window) { return static_cast<std::int32_t>(window); }

// The clock's text form, "Thu Jan  1 00:00:00 1970", empty where it has none. In place: a sleep needs no memory.
struct ClockText {
  char text[64];  // all NUL behind the text
};
ClockText ClockTextOf(std::int64_t seconds) {
  std::tm local{};
  ClockText out{};
  if (platform::LocalBreakdown(seconds, local)) {
    static constexpr char kDays[][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr char kMonths[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::snprintf(out.text, sizeof out.text, "%.3s %.3s%3d %.2d:%.2d:%.2d %d", kDays[local.tm_wday],
                  kMonths[local.tm_mon], local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  1900 + local.tm_year);
  }
  return out;
}

constexpr std::size_t kYearPart = 20;  // where the year begins in the clock's text form

// A head that has passed by more than this counts as overlooked.
constexpr std::int64_t kToleratedDelaySeconds = 1;

double SecondsUntil(std::int64_t window, std::int64_t now) { return static_cast<double>(SignExtended(window) - now); }

// Erases an ended job, whose reference is given up first.
CJobList::Position EraseEndedJob(CJobList::Position at, const char16_t* failure, Status instance = kStatusOk)
    QX_REQUIRES(g_JobListLock) {
  const Status released = at->ReleaseScheduler();
  const Status told = instance != kStatusOk ? instance : released;
  if (told != kStatusOk) ServiceLog(1, failure, told);
  return g_JobList.Erase(at);
}

}  // namespace

std::uint32_t SleepBefore(std::int64_t headWindow, platform::WallClockReading now) {
  const auto whole = static_cast<std::int64_t>(std::trunc(SecondsUntil(headWindow, now.seconds)));
  return static_cast<std::uint32_t>(whole) * 1000u - now.milliseconds;
}

CSchedulerLoop::CSchedulerLoop(platform::Apartment& apartment, ISchedulerService& service, platform::ClockWatch* watch,
                               INodeChannel* nodes)
    : m_apartment(apartment), m_service(service), m_watch(watch), m_nodes(nodes) {}

void CSchedulerLoop::SkipPassedWindows(std::int64_t now) {
  CJobList::Position at = g_JobList.Begin();
  // The list is in order here: behind the first window that hasn't passed there is nothing to be found.
  while (at != g_JobList.End() && at->NextTimeWindow < now) {
    if (at->NextTimeWindow > 0) {
      (void)platform::RunGuarded("passed window", [&] {
        ServiceLog(2, u"Something wrong, next time window can't be earlier than current time: %s", at->IdText());
      });
      const std::int64_t window = at->UpdateNextTimeWindow();
      g_JobList.MarkChanged(at);
      if (window < 0) {
        at = EraseEndedJob(at, u"ReleaseScheduler has failed with error %x");
        // Deliberate: the walk steps past the successor of an erased node; the next cycle examines it.
        if (at == g_JobList.End()) break;
      }
    }
    ++at;
  }
  g_JobList.Sort();
}

// Under the lock, so that the moment belongs to the head of the sleep that begins.
void CSchedulerLoop::SetGuard() const {
  if (!m_guarded || m_watch == nullptr) return;
  const std::int64_t head = g_JobList.Empty() ? 0 : SignExtended(g_JobList.Begin()->NextTimeWindow);
  m_watch->SetGuard(head > 0 ? head + kToleratedDelaySeconds + 1 : 0);
}

std::uint32_t CSchedulerLoop::PrepareSleep() {
  m_sleepFrom = 0;
  m_wakeUp = kNoWakeUp;
  const CriticalSectionGuard guard(g_JobListLock);
  NoteSleep();
  g_JobList.Sort();  // a pass that was cut short hasn't
  if (g_JobList.Empty()) {
    SetGuard();
    ServiceLog(3, u"Service will sleep for INFINITE time");
    return platform::kWaitForever;
  }
  const std::int64_t now = platform::NowSeconds();
  m_firstWindow = SignExtended(g_JobList.Begin()->NextTimeWindow);
  if (now > m_firstWindow) SkipPassedWindows(now);
  SetGuard();
  const platform::WallClockReading clock = platform::NowWithMilliseconds();
  m_sleepFrom = clock.steadyNanoseconds;
  if (g_JobList.Empty()) {
    ServiceLog(3, u"Service will sleep for INFINITE time");
    return platform::kWaitForever;
  }
  const ClockText shown = ClockTextOf(clock.seconds);
  ServiceLog(4, u"The time before sleep is %.19S.%u %S", shown.text, clock.milliseconds, shown.text + kYearPart);
  const std::int64_t head = g_JobList.Begin()->NextTimeWindow;
  const std::uint32_t sleep = SleepBefore(head, clock);
  m_wakeUp = SignExtended(head);
  ServiceLog(3, u"Service will now sleep for %f seconds", SecondsUntil(head, clock.seconds));
  ServiceLog(5, u"Sleeptime in milli seconds %u", sleep);
  // A wrapped sleep of exactly this value would never end, and a window 49.7 days ahead would be missed.
  return sleep == platform::kWaitForever ? sleep - 1 : sleep;
}

void CSchedulerLoop::LaunchDueJobs(Status instance, std::vector<Notification>& notifications) {
  CJobList::Position at = g_JobList.Begin();
  while (at != g_JobList.End()) {
    // A job that couldn't be started counts as run.
    (void)platform::RunGuarded("launch", [&] { (void)at->Launch(); });
    const std::int64_t window = at->UpdateNextTimeWindow();
    g_JobList.MarkChanged(at);
    (void)platform::RunGuarded("launch notice", [&] {
      notifications.push_back({at->ScheduleID, static_cast<std::int32_t>(window)});
    });
    if (window < 0) {
      // Deliberate: the line tells of the instance that couldn't be made, not of the release.
      at = EraseEndedJob(at, u" ReleaseScheduler failed with error %x", instance);
    } else {
      ++at;
    }
    if (at == g_JobList.End()) return;
    if (at->NextTimeWindow < m_firstWindow || at->NextTimeWindow > platform::NowSeconds()) return;
  }
}

void CSchedulerLoop::LaunchPass() {
  if (g_JobList.Empty()) return;
  platform::ApartmentProxy proxy;
  std::vector<Notification> notifications;
  {
    const CriticalSectionGuard guard(g_JobListLock);
    if (g_JobList.Empty()) return;
    // Makes an early wake-up harmless.
    if (SecondsUntil(g_JobList.Begin()->NextTimeWindow, platform::NowSeconds()) > 0.0) return;
    const Status instance = platform::StatusFromErrorCode(proxy.Create(m_apartment));
    LaunchDueJobs(instance, notifications);
  }
  if (proxy) {
    for (const Notification& note : notifications) {
      (void)platform::RunGuarded("launch notice", [&] {
        proxy.Post([service = &m_service, note] {
          (void)service->Notify_NextTimeWindow_Modify(note.id, note.nextTimeWindow);
        });
      });
    }
  }
  const CriticalSectionGuard guard(g_JobListLock);
  if (!g_JobList.Empty()) g_JobList.Sort();
}

// The list is neither emptied nor are references released, as the process is about to end. The lock counts as deleted
// from here on; its storage lives as long as the threads that may still take it.
// Each step is taken, whatever the one ahead of it met: the service ends.
void CSchedulerLoop::Shutdown() {
  const auto take = [](auto step) { (void)platform::RunGuarded("shutdown", step); };
  take([] { ServiceLog(3, u"Shutting down now"); });
  if (m_watch != nullptr) take([this] { m_watch->Destroy(); });
  if (m_nodes == nullptr) return;
  take([this] { m_nodes->FreeSecurityLibrary(); });
  take([this] { m_nodes->CloseListener(); });
  take([this] { m_nodes->CleanUpSockets(); });
}

bool CSchedulerLoop::Step() {
  const std::uint32_t sleep = PrepareSleep();
  if (m_sleepNotice) m_sleepNotice(m_wakeUp);
  WaitResult wait;
  if (sleep != 0) {
    if (const platform::ErrorCode code = g_SchedulerEvents.Wait(sleep, wait, m_sleepFrom);
        code != platform::ERROR_SUCCESS) {
      ServiceLog(0, u"Wait error: %d", code);
      return false;
    }
  }
  if (wait.kind == WaitResult::Kind::kTimeout) {
    LaunchPass();
    return true;
  }
  static constexpr const char16_t* kInterruptions[] = {
      u"Sleep interrupted bacause of CREATE_EVENT",  // Deliberate: spelled so.
      u"Sleep interrupted bacause of MODIFY_EVENT",
      u"Sleep interrupted bacause of DELETE_EVENT",
  };
  switch (wait.index) {
    case CREATE_EVENT:
    case MODIFY_EVENT:
    case DELETE_EVENT:
      ServiceLog(3, kInterruptions[wait.index]);
      return true;
    case SHUTDOWN_EVENT:
      Shutdown();
      return false;
    case SYSTEM_TIME_CHANGED:
      if (!platform::RunGuarded("time change", [this] { TimeChangePass(m_apartment, m_service); })) {
        platform::PauseThread(kPauseWithoutMemoryMs);
        g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);  // the rest of the pass is still to be done
      }
      return true;
    default:  // REFRESH_EVENT
      return true;
  }
}

bool CSchedulerLoop::HeadIsOverdue(std::int64_t nowSeconds) {
  const CriticalSectionGuard guard(g_JobListLock);
  if (g_JobList.Empty()) return false;
  const std::int64_t window = SignExtended(g_JobList.Begin()->NextTimeWindow);
  return window > 0 && nowSeconds - window > kToleratedDelaySeconds;
}

std::uint32_t ThreadProcedure(CSchedulerLoop& loop) {
  loop.EnableGuard();
  platform::ReservedMemory memory(std::nothrow);
  bool goesOn = true;
  while (goesOn) {
    // Where what was set aside is used up, too.
    if (!platform::RunGuarded("ThreadProcedure", [&] { goesOn = loop.Step(); })) {
      platform::PauseThread(kPauseWithoutMemoryMs);
    }
    memory.Refill();
  }
  return 0;
}

}  // namespace qx
