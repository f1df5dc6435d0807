#include "platform/foreground.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/child_exits.h"
#include "platform/environment_copy.h"
#include "platform/fault_point.h"

namespace platform {
namespace {

// Signals from the keyboard are ignored while it lives. A child gets them as they were.
class KeyboardIgnored {
 public:
  KeyboardIgnored() {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &m_interrupt);
    sigaction(SIGQUIT, &ignore, &m_quit);
  }
  KeyboardIgnored(const KeyboardIgnored&) = delete;
  KeyboardIgnored& operator=(const KeyboardIgnored&) = delete;
  ~KeyboardIgnored() {
    sigaction(SIGINT, &m_interrupt, nullptr);
    sigaction(SIGQUIT, &m_quit, nullptr);
  }
  // The signals that the child takes with their usual effect: those that this process didn't ignore before.
  [[nodiscard]] sigset_t ForChild() const {
    sigset_t set;
    sigemptyset(&set);
    if (m_interrupt.sa_handler != SIG_IGN) sigaddset(&set, SIGINT);
    if (m_quit.sa_handler != SIG_IGN) sigaddset(&set, SIGQUIT);
    return set;
  }

 private:
  struct sigaction m_interrupt = {};
  struct sigaction m_quit = {};
};

//   input  the child's standard input; -1: this process's own
ErrorCode Spawn(std::vector<std::string> words, std::vector<std::string> variables, int input, sigset_t defaults,
                pid_t& process) {
  if (const ErrorCode fault = FaultAt(Operation::kCreateProcess, words.empty() ? "" : words[0]); fault != 0) {
    return fault;
  }
  if (words.empty() || words[0].empty()) return ERROR_FILE_NOT_FOUND;
  detail::KeepChildExits();
  const std::vector<char*> argv = PointersTo(words);
  const std::vector<char*> environment = PointersTo(variables);
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  int result = 0;
  if (input >= 0) result = posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  if (result == 0) result = posix_spawnp(&process, argv[0], &actions, &attributes, argv.data(), environment.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return result == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(result);
}

int WaitFor(pid_t process) {
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace

ErrorCode RunInForeground(const std::vector<std::string>& words, std::uint32_t& exitCode) {
  const KeyboardIgnored ignored;
  pid_t process = 0;
  if (const ErrorCode code = Spawn(words, CopyEnvironment(), -1, ignored.ForChild(), process); code != ERROR_SUCCESS) {
    return code;
  }
  const int status = WaitFor(process);
  exitCode = static_cast<std::uint32_t>(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
  return ERROR_SUCCESS;
}

ErrorCode OutputPager::Start(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
  if (IsRunning()) return ERROR_BUSY;
  if (const ErrorCode fault = FaultAt(Operation::kCreatePipe); fault != 0) return fault;
  std::vector<std::string> variables = CopyEnvironment();
  for (const std::string& assignment : environment) {
    const std::string name = assignment.substr(0, assignment.find('=') + 1);
    const bool isSet = std::any_of(variables.begin(), variables.end(),
                                   [&](const std::string& variable) { return variable.starts_with(name); });
    if (!isSet) variables.push_back(assignment);
  }
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return ErrorCodeFromErrno(errno);
  // A write to a pager that has ended fails; it doesn't end this process.
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, nullptr);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  pid_t process = 0;
  ErrorCode code = Spawn(words, std::move(variables), ends[0], defaults, process);
  ::close(ends[0]);
  if (code == ERROR_SUCCESS) {
    m_process = process;
    m_output = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (m_output < 0 || ::dup2(ends[1], STDOUT_FILENO) < 0) code = ErrorCodeFromErrno(errno);
  }
  ::close(ends[1]);
  if (code != ERROR_SUCCESS) Finish();
  return code;
}

void OutputPager::Finish() {
  if (!IsRunning()) return;
  if (m_output >= 0) {
    (void)::dup2(m_output, STDOUT_FILENO);  // closes the pipe
    ::close(m_output);
    m_output = -1;
  }
  // Ctrl-C belongs to the pager, which goes on after it.
  const KeyboardIgnored ignored;
  (void)WaitFor(m_process);
  m_process = 0;
}

}  // namespace platform
