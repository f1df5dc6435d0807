// Whether this machine's kernel tells the service that somebody set the clock. Run by hand, as root, and never by
// ctest: it sets the clock of the machine, to the time that it has.
//
// Exit code: 0 the notice came and an echo was ignored; 1 not so; 77 this process may not set the clock.
#include <time.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "foundation/include/zfclog.h"
#include "platform/clock.h"
#include "platform/clock_watch.h"
#include "platform/thread.h"
#include "service/scheduler_events.h"
#include "service/time_change_thread.h"

namespace {

constexpr int kFailed = 1;
constexpr int kNotPermitted = 77;
constexpr auto kPatience = std::chrono::seconds(10);

// Shows the log and counts the notices, which each write one line of this kind.
class NoticeCounter : public ZepFoundation::ServiceLogWriter {
 public:
  void Write(std::uint32_t level, std::string_view text) override {
    std::printf("%u %.*s\n", level, static_cast<int>(text.size()), text.data());
    const std::lock_guard hold(m_mutex);
    m_count += text.starts_with("Timezone has been changed to");
    m_accepted += text == "SYSTEM_TIME_CHANGED event has been set";
    m_changed.notify_all();
  }
  int Accepted() {
    const std::lock_guard hold(m_mutex);
    return m_accepted;
  }
  bool WaitFor(int count) {
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, kPatience, [&] { return m_count >= count; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_count = 0;
  int m_accepted = 0;
};

// errno of the failure, 0 else.
int SetClockToItsTime() {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return errno;
  return clock_settime(CLOCK_REALTIME, &now) == 0 ? 0 : errno;
}

int SetTwice(NoticeCounter& notices) {
  for (int notice = 1; notice <= 2; ++notice) {
    if (const int error = SetClockToItsTime(); error != 0) {
      std::printf("The clock can't be set: %s\n", std::strerror(error));
      return error == EPERM ? kNotPermitted : kFailed;
    }
    if (!notices.WaitFor(notice)) {
      std::puts("FAILED: the kernel's notice didn't come");
      return kFailed;
    }
  }
  return 0;
}

}  // namespace

int main() {
  NoticeCounter notices;
  ZepFoundation::SetServiceLogWriter(&notices);
  platform::ClockWatch watch;
  if (g_SchedulerEvents.Create(kSchedulerEventCount) != platform::ERROR_SUCCESS ||
      watch.Create() != platform::ERROR_SUCCESS) {
    std::puts("FAILED: no watch");
    return kFailed;
  }
  qx::CTimeChangeThread timeChange(watch);
  timeChange.SaveBias(platform::GetTimeZoneInformation().bias);
  platform::Thread thread;
  const auto read = [&] {
    platform::ClockNotice notice;
    while (watch.Read(notice) == platform::ERROR_SUCCESS && notice.message != 0) timeChange.OnNotice(notice);
  };
  if (platform::Thread::Start("notices", read, thread) != platform::ERROR_SUCCESS) {
    std::puts("FAILED: no thread");
    return kFailed;
  }
  const int result = SetTwice(notices);
  watch.Destroy();
  thread.Join();
  ZepFoundation::SetServiceLogWriter(nullptr);
  if (result != 0) return result;
  // The first notice is accepted always; the second is an echo, as the clock has the same time.
  if (notices.Accepted() != 1) {
    std::printf("FAILED: %d of two notices were accepted\n", notices.Accepted());
    return kFailed;
  }
  std::puts("The kernel's notice of a set clock arrives, and its echo is told apart.");
  return 0;
}
