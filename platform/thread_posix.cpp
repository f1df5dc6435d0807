#include "platform/thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/fault_point.h"

namespace platform {
namespace {

constexpr std::size_t kThreadNameBytes = 15;  // the kernel's limit, without the NUL

// A thread begins with the signals blocked that end a program: they are for the thread that waits for them, which may
// come to it later than this one begins, and would else end the program here and now.
class EndingSignalsBlocked {
 public:
  EndingSignalsBlocked() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    (void)pthread_sigmask(SIG_BLOCK, &ending, &m_earlier);
  }
  ~EndingSignalsBlocked() { (void)pthread_sigmask(SIG_SETMASK, &m_earlier, nullptr); }
  EndingSignalsBlocked(const EndingSignalsBlocked&) = delete;
  EndingSignalsBlocked& operator=(const EndingSignalsBlocked&) = delete;

 private:
  sigset_t m_earlier = {};
};

ErrorCode Launch(std::string_view name, std::function<void()> function, std::thread& out) {
  if (const ErrorCode fault = FaultAt(Operation::kCreateThread, name); fault != ERROR_SUCCESS) return fault;
  try {
    std::string shown(name.substr(0, kThreadNameBytes));
    const EndingSignalsBlocked blocked;
    std::thread started([shown = std::move(shown), body = std::move(function)]() noexcept {
      (void)pthread_setname_np(pthread_self(), shown.c_str());
      body();
    });
    out = std::move(started);
  } catch (const std::system_error& error) {
    return ErrorCodeFromErrno(error.code().value());
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  return ERROR_SUCCESS;
}

}  // namespace

Thread& Thread::operator=(Thread&& other) noexcept {
  if (this == &other) return *this;
  Join();
  m_thread = std::move(other.m_thread);
  return *this;
}

ErrorCode Thread::Start(std::string_view name, std::function<void()> function, Thread& out) {
  Thread thread;
  if (const ErrorCode rc = Launch(name, std::move(function), thread.m_thread); rc != ERROR_SUCCESS) return rc;
  out = std::move(thread);
  return ERROR_SUCCESS;
}

void Thread::Join() {
  if (m_thread.joinable()) m_thread.join();
}

void Thread::Detach() {
  if (m_thread.joinable()) m_thread.detach();
}

ErrorCode StartThread(std::string_view name, std::function<void()> function) {
  Thread thread;
  if (const ErrorCode rc = Thread::Start(name, std::move(function), thread); rc != ERROR_SUCCESS) return rc;
  thread.Detach();
  return ERROR_SUCCESS;
}

void PauseThread(std::uint32_t milliseconds) {
  ClockSource* const clock = InstalledClockSource();
  if (clock != nullptr && clock->ConsumeWait(milliseconds)) return;
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::uint32_t CurrentProcessId() {
  return static_cast<std::uint32_t>(getpid());
}

std::uint32_t CurrentThreadId() {
  return static_cast<std::uint32_t>(gettid());
}

}  // namespace platform
