#include "platform/service_control.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/apartment.h"
#include "platform/descriptor.h"
#include "platform/fault_point.h"
#include "platform/mutex.h"
#include "platform/state_lock.h"

namespace platform {
namespace {

std::string_view AssignmentOf(ServiceState state) {
  switch (state) {
    case ServiceState::kRunning:
      return "READY=1\n";
    case ServiceState::kStopPending:
      return "STOPPING=1\n";
    case ServiceState::kStopped:
    case ServiceState::kStartPending:
      break;
  }
  return "";
}

ErrorCode Notify(std::string_view assignment, std::string_view statusText) {
  if (!HasServiceManager()) return ERROR_SUCCESS;
  // A line end would begin an assignment of its own.
  std::string message(assignment);
  message += "STATUS=";
  message += statusText.substr(0, statusText.find_first_of(std::string_view("\n\0", 2)));
  const int result = sd_notify(0, message.c_str());
  return result < 0 ? ErrorCodeFromErrno(-result) : ERROR_SUCCESS;
}

// Whether a process has a file open (proc(5)): 0; ERROR_FILE_NOT_FOUND (2); the code of what can't be looked at.
ErrorCode HasOpen(pid_t process, const std::string& file) {
  struct stat wanted {};
  if (stat(file.c_str(), &wanted) != 0) return ErrorCodeFromErrno(errno);
  const std::string name = "/proc/" + std::to_string(process) + "/fd";
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(name.c_str()), &closedir);
  if (!directory) return ErrorCodeFromErrno(errno);
  while (const dirent* const entry = readdir(directory.get())) {
    struct stat present {};
    if (fstatat(dirfd(directory.get()), entry->d_name, &present, 0) == 0 && present.st_dev == wanted.st_dev &&
        present.st_ino == wanted.st_ino) {
      return ERROR_SUCCESS;
    }
  }
  return ERROR_FILE_NOT_FOUND;
}

}  // namespace

bool HasServiceManager() {
  const char* const socket = std::getenv("NOTIFY_SOCKET");
  return socket != nullptr && *socket != '\0';
}

ErrorCode ReportServiceState(ServiceState state, std::string_view statusText) {
  return Notify(AssignmentOf(state), statusText);
}

ErrorCode ReportServiceStatus(std::string_view statusText) { return Notify("", statusText); }

ErrorCode SendStopControl(std::uint32_t processId) {
  const auto process = static_cast<pid_t>(processId);
  if (process <= 0) return ERROR_INVALID_PARAMETER;  // 0 and below would be groups of processes
  if (const ErrorCode rc = FaultAt(Operation::kOpenService, "stop"); rc != ERROR_SUCCESS) return rc;
  // Whatever ends and begins from here on, the descriptor stands for one process.
  const Descriptor held(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  if (!held.IsOpen()) return errno == ESRCH ? ErrorCode{ERROR_INVALID_PARAMETER} : ErrorCodeFromErrno(errno);
  if (const ErrorCode rc = HasOpen(process, StateLockFile()); rc != ERROR_SUCCESS) return rc;
  const long sent = syscall(SYS_pidfd_send_signal, held.Get(), SIGTERM, nullptr, 0);
  return sent == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

struct ServiceControlHandler::State {
  Handler handler;
  int signals = -1;
  int wake = -1;
  sigset_t earlierMask = {};
  std::thread thread;
  Mutex mutex;
  std::vector<std::uint32_t> injected QX_GUARDED_BY(mutex);
  bool ending QX_GUARDED_BY(mutex) = false;

  ~State() {
    if (thread.joinable()) {
      {
        const MutexLock lock(mutex);
        ending = true;
      }
      Wake();
      thread.join();
      pthread_sigmask(SIG_SETMASK, &earlierMask, nullptr);
    }
    if (signals >= 0) close(signals);
    if (wake >= 0) close(wake);
  }

  void Wake() const {
    const std::uint64_t one = 1;
    (void)!write(wake, &one, sizeof one);
  }

  void Deliver(std::uint32_t control) const {
    (void)RunGuarded("service control", [&] { handler(control); });
  }

  void Body() {
    while (true) {
      std::array<pollfd, 2> descriptors = {{{signals, POLLIN, 0}, {wake, POLLIN, 0}}};
      (void)poll(descriptors.data(), descriptors.size(), -1);
      signalfd_siginfo info = {};
      while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) Deliver(kServiceControlStop);
      std::uint64_t count = 0;
      (void)!read(wake, &count, sizeof count);
      std::vector<std::uint32_t> controls;
      bool last = false;
      {
        const MutexLock lock(mutex);
        controls.swap(injected);
        last = ending;
      }
      for (const std::uint32_t control : controls) Deliver(control);
      if (last) return;
    }
  }
};

ServiceControlHandler::ServiceControlHandler() = default;
ServiceControlHandler::~ServiceControlHandler() = default;

ErrorCode ServiceControlHandler::Start(Handler handler) {
  if (const ErrorCode rc = FaultAt(Operation::kRegisterServiceHandler); rc != ERROR_SUCCESS) return rc;
  if (m_state) return ERROR_BUSY;
  if (!handler) return ERROR_INVALID_PARAMETER;
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  auto state = std::make_unique<State>();
  state->handler = std::move(handler);
  state->signals = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
  if (state->signals < 0) return ErrorCodeFromErrno(errno);
  state->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (state->wake < 0) return ErrorCodeFromErrno(errno);
  pthread_sigmask(SIG_BLOCK, &stop, &state->earlierMask);
  try {
    state->thread = std::thread(&State::Body, state.get());
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_SETMASK, &state->earlierMask, nullptr);
    return ERROR_NO_PROC_SLOTS;
  }
  m_state = std::move(state);
  return ERROR_SUCCESS;
}

void ServiceControlHandler::Inject(std::uint32_t control) {
  if (!m_state) return;
  State& state = *m_state;
  {
    const MutexLock lock(state.mutex);
    state.injected.push_back(control);
  }
  state.Wake();
}

}  // namespace platform
