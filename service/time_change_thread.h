// service/time_change_thread.h: tells real changes of the clock and the zone from echoes of small adjustments, and
// wakes a scheduler loop that sleeps past its head.
//
// Threads: SaveBias() before the thread is started; all else on the thread alone.
#pragma once

#include <cstdint>
#include <string>

#include "platform/clock.h"
#include "platform/clock_watch.h"

namespace qx {

// A drift up to this counts as an adjustment, in milliseconds.
inline constexpr std::int64_t kToleratedDriftMs = 1000;

// "GMT+%ld:%ld:%ld" with hours, minutes and 0 east of Greenwich: "GMT+-5:0:0" for a bias of 300.
//   bias  minutes to add to local time to give UTC
[[nodiscard]] std::string TimeZoneText(std::int32_t bias);

// Reads the zone's bias, logs it behind `format` (one %S) at `level` and does the pair of calls with its text.
// Deliberate: the text has no "TZ=" in front, so the first call refuses it, and its result isn't looked at.
void AnnounceTimeZone(std::uint32_t level, const char16_t* format, std::int32_t bias);

class CTimeChangeThread {
 public:
  // The watch is borrowed. Made ahead of everything that computes windows.
  explicit CTimeChangeThread(platform::ClockWatch& watch) : m_watch(watch) {}

  // The bias that the next notice is compared with, in minutes.
  void SaveBias(std::int32_t bias) { m_bias = bias; }

  // The thread's body: registers, creates, reads and hands on notices until the watch is destroyed. Failures are logged
  // and the thread goes on. A clock that was set and a zone that was replaced ahead of the watch, since this object was
  // made, count as a kTimeChange.
  void Run();

  // Hands a notice on to the watch's procedure. Where memory runs out on the way, a kTimeChange counts as accepted, and
  // the notice is handed on again and again.
  void HandOn(const platform::ClockNotice& notice);

  // One notice. A kTimeChange sets SYSTEM_TIME_CHANGED unless the wall clock has drifted from the tick count by at most
  // kToleratedDriftMs since the last accepted one and the zone is the same; the first is always accepted. A kGuard sets
  // REFRESH_EVENT, with one log line, when the head of the job list is overdue (scheduler_loop.h).
  void OnNotice(const platform::ClockNotice& notice);

 private:
  // Both clocks at one moment.
  struct Reading {
    std::uint32_t tickCount = 0;
    platform::WallClockReading wall{};
    static Reading Now();
  };
  static bool HasDrifted(const Reading& from, const Reading& to);
  void OnTimeChange(bool zoneRulesChanged);

  platform::ClockWatch& m_watch;
  std::int32_t m_bias = 0;
  const Reading m_begin = Reading::Now();
  Reading m_accepted;  // at the last accepted change; a tick count of 0 for none
};

}  // namespace qx
