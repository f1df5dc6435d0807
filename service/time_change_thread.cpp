#include "service/time_change_thread.h"

#include <span>

#include "foundation/include/zfclog.h"
#include "foundation/include/zfclogformat.h"
#include "platform/apartment.h"
#include "platform/thread.h"
#include "service/scheduler_events.h"
#include "service/scheduler_loop.h"

using ZepFoundation::ServiceLog;

namespace qx {
namespace {

constexpr const char* kGuardName = "TimeChangeThread";
constexpr std::size_t kTimeZoneTextSize = 30;  // characters, the final NUL included

// Milliseconds from `from` to `to`, in 32 bits as the comparison wants them.
std::int32_t MillisecondsBetween(platform::WallClockReading from, platform::WallClockReading to) {
  const auto seconds = static_cast<std::uint32_t>(to.seconds - from.seconds);
  return static_cast<std::int32_t>(seconds * 1000u + to.milliseconds - from.milliseconds);
}

}  // namespace

std::string TimeZoneText(std::int32_t bias) {
  const std::int32_t east = -bias;
  const ZepFoundation::LogArgument arguments[] = {east / 60, east % 60, 0};
  char text[kTimeZoneTextSize] = "";
  (void)ZepFoundation::FormatLogText(std::span<char>(text, sizeof text - 1), "GMT+%ld:%ld:%ld", arguments);
  return text;
}

void AnnounceTimeZone(std::uint32_t level, const char16_t* format, std::int32_t bias) {
  const std::string text = TimeZoneText(bias);
  ServiceLog(level, format, text);
  (void)platform::PutEnvironment(text.c_str());
  platform::TzSet();
}

void CTimeChangeThread::OnNotice(const platform::ClockNotice& notice) {
  if (notice.message == platform::ClockNotice::kTimeChange) {
    OnTimeChange(notice.zoneRulesChanged);
  } else if (notice.message == platform::ClockNotice::kGuard && CSchedulerLoop::HeadIsOverdue(platform::NowSeconds())) {
    ServiceLog(2, u"The first window has passed while the scheduler slept: the schedules are looked at again");
    g_SchedulerEvents.Set(REFRESH_EVENT);
  }
}

CTimeChangeThread::Reading CTimeChangeThread::Reading::Now() {
  const std::uint32_t tickCount = platform::TickCount();
  return {tickCount, platform::NowWithMilliseconds()};
}

bool CTimeChangeThread::HasDrifted(const Reading& from, const Reading& to) {
  const auto drift = static_cast<std::int32_t>(static_cast<std::uint32_t>(MillisecondsBetween(from.wall, to.wall)) -
                                               (to.tickCount - from.tickCount));
  const std::int64_t magnitude = drift < 0 ? -std::int64_t{drift} : std::int64_t{drift};
  return magnitude > kToleratedDriftMs;
}

void CTimeChangeThread::OnTimeChange(bool zoneRulesChanged) {
  const Reading now = Reading::Now();
  // Ahead of the zone file's own notice, maybe, to which these rules are no change any more.
  const bool reread = platform::ReloadZone();
  const platform::Zone& zone = platform::CurrentZone();
  const std::int32_t bias = platform::GetTimeZoneInformation().bias;
  AnnounceTimeZone(1, u"Timezone has been changed to : %S", bias);
  // The second of the pair of calls reads the zone too, and may find the next one.
  const bool isAnother = &platform::CurrentZone() != &zone;
  const bool zoneChanged = bias != m_bias || zoneRulesChanged || reread || isAnother;
  m_bias = bias;
  if (m_accepted.tickCount != 0 && !zoneChanged && !HasDrifted(m_accepted, now)) return;
  ServiceLog(3, u"SYSTEM_TIME_CHANGED event has been set");
  m_watch.SetGuard(0);  // the loop looks anyway, and sets it anew
  g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
  m_accepted = now;
}

void CTimeChangeThread::Run() {
  const auto procedure = [this](const platform::ClockNotice& notice) { OnNotice(notice); };
  if (const platform::ErrorCode code = m_watch.Register(procedure); code != platform::ERROR_SUCCESS) {
    ServiceLog(1, u"Failed  to register with error = %d", code);
  }
  if (const platform::ErrorCode code = m_watch.Create(); code != platform::ERROR_SUCCESS) {
    ServiceLog(1, u"Create Window failed with error = %d", code);
  }
  // No notice tells of what came ahead of the watch.
  const bool zoneRulesChanged = platform::ReloadZone();
  if (zoneRulesChanged || HasDrifted(m_begin, Reading::Now())) OnTimeChange(zoneRulesChanged);
  while (true) {
    platform::ClockNotice notice;
    platform::ErrorCode code = platform::ERROR_SUCCESS;
    if (!platform::RunGuarded(kGuardName, [&] { code = m_watch.Read(notice); })) {
      notice = {platform::ClockNotice::kTimeChange, false};  // whatever it was
    }
    if (code != platform::ERROR_SUCCESS) {
      ServiceLog(1, u"Error in GetMessage");
      continue;
    }
    if (notice.message == 0) return;  // destroyed: the process is about to end
    ServiceLog(5, u"GetMessage --- %d", notice.message);
    HandOn(notice);
  }
}

void CTimeChangeThread::HandOn(const platform::ClockNotice& notice) {
  while (!platform::RunGuarded(kGuardName, [&] { m_watch.Dispatch(notice); })) {
    if (notice.message == platform::ClockNotice::kTimeChange) g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
    platform::PauseThread(kPauseWithoutMemoryMs);
  }
}

}  // namespace qx
