#include "platform/interrupt.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace platform {
namespace {

sigset_t InterruptSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  return set;
}

bool IsIgnored() {
  struct sigaction action = {};
  return sigaction(SIGINT, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

bool IsBlocked() {
  sigset_t present;
  sigemptyset(&present);
  (void)pthread_sigmask(SIG_BLOCK, nullptr, &present);
  return sigismember(&present, SIGINT) == 1;
}

void CloseIfOpen(int& descriptor) {
  if (descriptor >= 0) ::close(descriptor);
  descriptor = -1;
}

}  // namespace

InterruptWatch::InterruptWatch(std::uint32_t lateMs, std::function<void()> late, std::function<void()> interrupted)
    : m_lateMs(lateMs), m_late(std::move(late)), m_interrupted(std::move(interrupted)) {
  m_end = ::eventfd(0, EFD_CLOEXEC);
  if (m_end < 0) return;
  if (!IsIgnored() && !IsBlocked()) {
    const sigset_t set = InterruptSet();
    m_signals = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    // The thread below inherits the mask, so that the signal is left to the descriptor.
    if (m_signals >= 0) m_blocked = pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
  }
  if (Thread::Start("interrupt", [this] { Watch(); }, m_thread) != ERROR_SUCCESS) PutBack();
}

InterruptWatch::~InterruptWatch() {
  if (m_thread.joinable()) {
    (void)eventfd_write(m_end, 1);
    m_thread.Join();
  }
  PutBack();
}

void InterruptWatch::PutBack() {
  CloseIfOpen(m_signals);
  CloseIfOpen(m_end);
  if (std::exchange(m_blocked, false)) {
    const sigset_t set = InterruptSet();
    (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  }
}

void InterruptWatch::Watch() {
  using Clock = std::chrono::steady_clock;
  const auto due = Clock::now() + std::chrono::milliseconds(m_lateMs);
  bool waits = m_lateMs != kNever && m_late;
  for (;;) {
    int limit = -1;
    if (waits) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
      limit = static_cast<int>(std::clamp<std::int64_t>(left, 0, INT32_MAX));
    }
    pollfd descriptors[] = {{m_end, POLLIN, 0}, {m_signals, POLLIN, 0}};
    const int ready = ::poll(descriptors, 2, limit);
    if (descriptors[0].revents != 0) return;
    if (ready == 0 && waits && Clock::now() >= due) {
      waits = false;
      m_late();
    }
    signalfd_siginfo info;
    if (ready > 0 && descriptors[1].revents != 0 && ::read(m_signals, &info, sizeof info) == sizeof info &&
        m_interrupted) {
      m_interrupted();
    }
  }
}

void EndByInterrupt() {
  (void)::signal(SIGINT, SIG_DFL);
  const sigset_t set = InterruptSet();
  (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  (void)::raise(SIGINT);
  ::_exit(128 + SIGINT);
}

}  // namespace platform
