// platform/clock_watch.h: the notice of changes of the clock and of the zone, and the guard over an overdue moment.
//
// Stands for a hidden window: one thread registers, creates and then reads notices for ever; what it reads may be an
// echo of a small adjustment, so the reader compares clocks itself. The zone of clock.h is loaded anew before a notice
// of a changed zone file is given out.
// Sources of the notices: a timer of the kernel that is cancelled when the wall clock is set (timerfd_create(2)), the
// system's zone file and the file that its link names (inotify(7)), a second timer for the guard.
// Threads: SetGuard(), Guard(), NotifyForTest() and Destroy() from any thread; the others from the reading thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/error_codes.h"

namespace platform {

// One notice. The numbers are those of the window messages of the same meaning (winuser.h).
struct ClockNotice {
  static constexpr std::uint32_t kTimeChange = 0x001E;  // clock or zone may have changed
  static constexpr std::uint32_t kGuard = 0x0113;       // the guarded moment has passed
  std::uint32_t message = 0;
  bool zoneRulesChanged = false;  // for kTimeChange: CurrentZone() has other rules than before
  friend bool operator==(const ClockNotice&, const ClockNotice&) = default;
};

class ClockWatch {
 public:
  using Procedure = std::function<void(const ClockNotice&)>;
  static constexpr const char* kSystemZoneFile = "/etc/localtime";

  // A watch that is not registered or not created gives only the notices of NotifyForTest() and waits otherwise.
  //   zoneFile  the zone file or link to watch
  explicit ClockWatch(std::string zoneFile = kSystemZoneFile);
  ClockWatch(const ClockWatch&) = delete;
  ClockWatch& operator=(const ClockWatch&) = delete;
  ~ClockWatch();  // nobody may be reading

  // Names the procedure that Dispatch() calls. Asks Operation::kRegisterClockWatch.
  //   returns  0; ERROR_INVALID_PARAMETER (87) without a procedure
  [[nodiscard]] ErrorCode Register(Procedure procedure);
  // Begins to watch. Asks Operation::kCreateClockWatch.
  //   returns  0; the host's code, the watch is as before then. A missing directory of the zone file is no failure: its
  //            changes go unnoticed.
  [[nodiscard]] ErrorCode Create();
  // Waits for the next notice. Bursts of changes of the zone file come as one, 100 ms after the last of them, but not
  // later than a second behind the first. Asks Operation::kReadClockWatch.
  //   returns  0 with the notice; 0 with message 0 after Destroy(), at once; the host's code
  [[nodiscard]] ErrorCode Read(ClockNotice& notice);
  // Calls the registered procedure; nothing without one.
  void Dispatch(const ClockNotice& notice) const;

  // Has Read() give kGuard once the wall clock has reached a moment, in seconds since 1970; 0 or less for no guard.
  // Replaces the earlier moment; costs no wake-up before it.
  void SetGuard(std::int64_t wallSeconds);
  // The moment that was set last, 0 for none; it stays after its notice.
  [[nodiscard]] std::int64_t Guard() const;
  // Ends the watch: Read() returns at once with message 0, now and from now on.
  void Destroy();
  // Has Read() give a kTimeChange, as if the clock had been set.
  void NotifyForTest();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform
