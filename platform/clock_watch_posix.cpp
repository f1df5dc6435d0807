#include "platform/clock_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/clock.h"
#include "platform/descriptor.h"
#include "platform/fault_point.h"

namespace platform {
namespace {

// Far ahead: the timer is there to be cancelled, not to run out.
constexpr std::int64_t kNeverSeconds = 0x7fffffffffff;
// How long a zone file must have been left alone before it is read: replacing one gives several changes. One that is
// changed on and on is read in between.
constexpr std::chrono::milliseconds kQuiet{100};
constexpr std::chrono::milliseconds kLongestWaitForQuiet{1000};
constexpr std::uint32_t kZoneMask = IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_CLOSE_WRITE;

struct NamedFile {
  std::string directory;
  std::string name;
};

NamedFile Cut(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// Where the links of a path lead; the path itself where they lead nowhere.
std::string Target(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), free);
  return resolved != nullptr ? resolved.get() : path;
}

void Raise(int fd) {
  const std::uint64_t one = 1;
  if (fd >= 0) (void)!write(fd, &one, sizeof one);
}

// Takes what stands in an event or timer descriptor; the errno value of a failure, 0 else.
int Drain(int fd) {
  std::uint64_t count = 0;
  return read(fd, &count, sizeof count) < 0 ? errno : 0;
}

bool ArmClock(int fd) {
  itimerspec when = {};
  when.it_value.tv_sec = kNeverSeconds;
  return timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr) == 0;
}

}  // namespace

struct ClockWatch::State {
  explicit State(std::string file) : zoneFile(std::move(file)) {}

  const std::string zoneFile;
  const Descriptor quit{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  const Descriptor told{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  const Descriptor guard{timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)};
  std::atomic<bool> destroyed{false};
  std::atomic<std::int64_t> guardMoment{0};
  Procedure procedure;
  Descriptor clock;
  Descriptor zone;
  NamedFile link;
  NamedFile target;
  int linkWatch = -1;
  int targetWatch = -1;

  // A second watch where the link leads, set anew whenever the link may have changed.
  void WatchTarget() {
    target = Cut(Target(zoneFile));
    const int watch = inotify_add_watch(zone.Get(), target.directory.c_str(), kZoneMask | IN_MASK_ADD);
    // The same directory twice is the same watch: never remove the one of the link.
    if (targetWatch >= 0 && targetWatch != linkWatch && targetWatch != watch) {
      (void)inotify_rm_watch(zone.Get(), targetWatch);
    }
    targetWatch = watch;
  }

  // Takes the pending changes of the watched directories; true when one was of the zone file.
  bool TakeZoneEvents() {
    bool found = false;
    alignas(inotify_event) std::array<char, 4096> buffer;
    while (true) {
      const ssize_t size = read(zone.Get(), buffer.data(), buffer.size());
      if (size <= 0) return found;
      for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        const std::string_view name = event->len == 0 ? std::string_view() : std::string_view(event->name);
        found = found || (event->mask & IN_Q_OVERFLOW) != 0 || (event->wd == linkWatch && name == link.name) ||
                (event->wd == targetWatch && name == target.name);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
  }

  // Waits until the zone file has been left alone, or for as long as that is given, or until the watch ends. Its
  // neighbours may never rest.
  void WaitUntilQuiet() {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point longest = Clock::now() + kLongestWaitForQuiet;
    Clock::time_point quiet = Clock::now() + kQuiet;
    while (!destroyed.load()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::min(quiet, longest) - Clock::now());
      if (left.count() <= 0) return;
      std::array<pollfd, 2> descriptors = {{{quit.Get(), POLLIN, 0}, {zone.Get(), POLLIN, 0}}};
      const int ready = poll(descriptors.data(), descriptors.size(), static_cast<int>(left.count()));
      if (ready > 0 && descriptors[1].revents != 0 && TakeZoneEvents()) quiet = Clock::now() + kQuiet;
    }
  }
};

ClockWatch::ClockWatch(std::string zoneFile) : m_state(std::make_unique<State>(std::move(zoneFile))) {}
ClockWatch::~ClockWatch() = default;

ErrorCode ClockWatch::Register(Procedure procedure) {
  if (const ErrorCode rc = FaultAt(Operation::kRegisterClockWatch); rc != ERROR_SUCCESS) return rc;
  if (!procedure) return ERROR_INVALID_PARAMETER;
  m_state->procedure = std::move(procedure);
  return ERROR_SUCCESS;
}

ErrorCode ClockWatch::Create() {
  if (const ErrorCode rc = FaultAt(Operation::kCreateClockWatch); rc != ERROR_SUCCESS) return rc;
  State& state = *m_state;
  if (state.quit.Get() < 0 || state.told.Get() < 0 || state.guard.Get() < 0) return ERROR_TOO_MANY_OPEN_FILES;
  Descriptor clock(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  if (clock.Get() < 0 || !ArmClock(clock.Get())) return ErrorCodeFromErrno(errno);
  Descriptor zone(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (zone.Get() < 0) return ErrorCodeFromErrno(errno);
  state.clock = std::move(clock);
  state.zone = std::move(zone);
  state.link = Cut(state.zoneFile);
  state.linkWatch = inotify_add_watch(state.zone.Get(), state.link.directory.c_str(), kZoneMask);
  state.targetWatch = -1;
  state.WatchTarget();
  return ERROR_SUCCESS;
}

ErrorCode ClockWatch::Read(ClockNotice& notice) {
  if (const ErrorCode rc = FaultAt(Operation::kReadClockWatch); rc != ERROR_SUCCESS) return rc;
  State& state = *m_state;
  enum { kQuit, kTold, kGuardTimer, kClock, kZone };
  while (!state.destroyed.load()) {
    std::array<pollfd, 5> descriptors = {{{state.quit.Get(), POLLIN, 0},
                                          {state.told.Get(), POLLIN, 0},
                                          {state.guard.Get(), POLLIN, 0},
                                          {state.clock.Get(), POLLIN, 0},
                                          {state.zone.Get(), POLLIN, 0}}};
    if (poll(descriptors.data(), descriptors.size(), -1) < 0 && errno != EINTR) return ErrorCodeFromErrno(errno);
    if (state.destroyed.load()) break;
    if (descriptors[kTold].revents != 0) {
      (void)Drain(state.told.Get());
      notice = {ClockNotice::kTimeChange, false};
      return ERROR_SUCCESS;
    }
    if (descriptors[kClock].revents != 0) {
      (void)Drain(state.clock.Get());  // ECANCELED: the clock was set
      if (!ArmClock(state.clock.Get())) return ErrorCodeFromErrno(errno);
      notice = {ClockNotice::kTimeChange, false};
      return ERROR_SUCCESS;
    }
    if (descriptors[kZone].revents != 0 && state.TakeZoneEvents()) {
      state.WaitUntilQuiet();
      if (state.destroyed.load()) break;
      state.WatchTarget();
      notice = {ClockNotice::kTimeChange, ReloadZone()};
      return ERROR_SUCCESS;
    }
    // An error here means that the guard was moved between the wait and the look.
    if (descriptors[kGuardTimer].revents != 0 && Drain(state.guard.Get()) == 0) {
      notice = {ClockNotice::kGuard, false};
      return ERROR_SUCCESS;
    }
  }
  notice = {};
  return ERROR_SUCCESS;
}

void ClockWatch::Dispatch(const ClockNotice& notice) const {
  if (m_state->procedure) m_state->procedure(notice);
}

void ClockWatch::SetGuard(std::int64_t wallSeconds) {
  m_state->guardMoment.store(wallSeconds > 0 ? wallSeconds : 0);
  itimerspec when = {};
  if (wallSeconds > 0) when.it_value.tv_sec = wallSeconds < kNeverSeconds ? wallSeconds : kNeverSeconds;
  (void)timerfd_settime(m_state->guard.Get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

std::int64_t ClockWatch::Guard() const { return m_state->guardMoment.load(); }

void ClockWatch::Destroy() {
  m_state->destroyed.store(true);
  Raise(m_state->quit.Get());
}

void ClockWatch::NotifyForTest() { Raise(m_state->told.Get()); }

}  // namespace platform
