#include "platform/process.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <utility>

#include "platform/child_exits.h"
#include "platform/environment_copy.h"
#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/text.h"

namespace platform {
namespace {

// --- command lines ---

constexpr bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

// The program's name: quotation marks are the only thing that counts, and only at its beginning.
std::u16string TakeProgram(std::u16string_view line, std::size_t& at) {
  std::u16string word;
  if (line[at] == u'"') {
    ++at;
    while (at < line.size() && line[at] != u'"') word += line[at++];
    if (at < line.size()) ++at;
  } else {
    while (at < line.size() && !IsBlank(line[at])) word += line[at++];
  }
  return word;
}

// Any later word, beginning at a character that is no blank.
std::u16string TakeArgument(std::u16string_view line, std::size_t& at) {
  std::u16string word;
  bool quoted = false;
  while (at < line.size() && (quoted || !IsBlank(line[at]))) {
    std::size_t backslashes = 0;
    for (; at < line.size() && line[at] == u'\\'; ++at) ++backslashes;
    if (at == line.size() || line[at] != u'"') {
      word.append(backslashes, u'\\');
      if (backslashes == 0) word += line[at++];
      continue;
    }
    word.append(backslashes / 2, u'\\');
    if (backslashes % 2 != 0) {
      word += line[at++];
      continue;
    }
    ++at;
    // A mark right behind one that closes is a mark of the word, and the quoted part stays closed.
    if (quoted && at < line.size() && line[at] == u'"') word += line[at++];
    quoted = !quoted;
  }
  return word;
}

// --- children ---

// What became of a child that somebody waits for.
struct Waited {
  bool ended = false;
  std::uint32_t exitCode = 0;
};

// Takes every child's exit. Lives to the end of the process: its thread is never joined.
class Reaper {
 public:
  static Reaper& Instance() {
    static Reaper* const instance = new Reaper;  // never deleted: the thread uses it until the process is gone
    return *instance;
  }

  // Starts a child by `spawn`, outside the lock: the exits of others, taken meanwhile, hold up no start.
  //   waited   whether its exit is kept for Wait()
  //   spawn    returns an errno value and sets the process number
  // Returns that value; `ticket` is the child's number here.
  template <typename Spawn>
  int Start(bool waited, const Spawn& spawn, std::uint64_t& ticket) {
    detail::KeepChildExits();
    MutexLock lock(m_mutex);
    if (!m_running) {
      // The reaper takes no part in signals: whoever blocks or catches them elsewhere isn't disturbed by it.
      sigset_t all, old;
      sigfillset(&all);
      pthread_sigmask(SIG_SETMASK, &all, &old);
      try {
        std::thread(&Reaper::Body, this).detach();
        m_running = true;
      } catch (const std::system_error&) {
      }
      pthread_sigmask(SIG_SETMASK, &old, nullptr);
      if (!m_running) return EAGAIN;
    }
    ++m_starting;
    lock.Unlock();
    pid_t pid = 0;
    const int error = spawn(&pid);
    lock.Lock();
    --m_starting;
    if (error == 0) Register(pid, waited, ticket);
    if (m_starting == 0) m_unclaimed.clear();
    return error;
  }

  Waited Wait(std::uint64_t ticket) {
    MutexLock lock(m_mutex);
    while (!m_waited[ticket].ended) m_changed.Wait(lock);
    return m_waited[ticket];
  }

  void Forget(std::uint64_t ticket) {
    const MutexLock lock(m_mutex);
    m_waited.erase(ticket);
  }

  std::size_t Living() {
    const MutexLock lock(m_mutex);
    return m_living.size();
  }

  bool WaitForAll(std::chrono::milliseconds limit) {
    MutexLock lock(m_mutex);
    const auto end = std::chrono::steady_clock::now() + limit;
    bool inTime = true;
    while (!m_living.empty() && inTime) inTime = m_changed.WaitUntil(lock, end);
    return m_living.empty();
  }

 private:
  void Register(pid_t pid, bool waited, std::uint64_t& ticket) QX_REQUIRES(m_mutex) {
    ticket = ++m_lastTicket;
    m_living[pid] = ticket;
    if (waited) m_waited[ticket];
    if (const auto ended = m_unclaimed.find(pid); ended != m_unclaimed.end()) {
      End(pid, ended->second);
    } else {
      m_changed.NotifyAll();
    }
  }

  void Body() {
    (void)pthread_setname_np(pthread_self(), "reaper");  // in place of its starter's, which ends before it
    MutexLock lock(m_mutex);
    while (true) {
      while (m_living.empty()) m_changed.Wait(lock);
      lock.Unlock();
      siginfo_t info = {};
      const int result = waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
      const int error = errno;
      lock.Lock();
      if (result == 0) {
        TakeAll();
      } else if (error == ECHILD) {
        EndAll();
      }
    }
  }

  // Every exit that is there: one turn for many.
  void TakeAll() QX_REQUIRES(m_mutex) {
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
      const std::uint32_t exitCode = WIFSIGNALED(status) ? 128u + static_cast<unsigned>(WTERMSIG(status))
                                                         : static_cast<unsigned>(WEXITSTATUS(status));
      if (m_starting > 0 && !m_living.contains(pid)) m_unclaimed[pid] = exitCode;
      End(pid, exitCode);
    }
  }

  void End(pid_t pid, std::uint32_t exitCode) QX_REQUIRES(m_mutex) {
    const auto child = m_living.find(pid);
    if (child == m_living.end()) return;
    if (const auto waited = m_waited.find(child->second); waited != m_waited.end()) waited->second = {true, exitCode};
    m_living.erase(child);
    m_changed.NotifyAll();
  }

  // The kernel knows no child any more: whatever is registered was taken behind our back, with its exit code.
  void EndAll() QX_REQUIRES(m_mutex) {
    while (!m_living.empty()) End(m_living.begin()->first, 0);
  }

  Mutex m_mutex;
  Condition m_changed;
  bool m_running QX_GUARDED_BY(m_mutex) = false;
  std::uint64_t m_lastTicket QX_GUARDED_BY(m_mutex) = 0;
  std::map<pid_t, std::uint64_t> m_living QX_GUARDED_BY(m_mutex);
  // Starts whose child isn't registered yet, and the exits taken meanwhile of children that nobody has registered.
  int m_starting QX_GUARDED_BY(m_mutex) = 0;
  std::map<pid_t, std::uint32_t> m_unclaimed QX_GUARDED_BY(m_mutex);
  std::map<std::uint64_t, Waited> m_waited QX_GUARDED_BY(m_mutex);
};

std::atomic<bool> g_jobOutputInherited{false};
std::atomic<JobStarter*> g_jobStarter{nullptr};

// The attributes and file actions of a child. Both may run out of memory: the errno value is kept.
class SpawnSettings {
 public:
  explicit SpawnSettings(bool inheritOutput) {
    Note(posix_spawnattr_init(&m_attributes));
    Note(posix_spawn_file_actions_init(&m_actions));
    sigset_t defaults, none;
    sigfillset(&defaults);
    sigdelset(&defaults, SIGKILL);
    sigdelset(&defaults, SIGSTOP);
    sigemptyset(&none);
    Note(posix_spawnattr_setsigdefault(&m_attributes, &defaults));
    Note(posix_spawnattr_setsigmask(&m_attributes, &none));
    Note(posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
    Note(posix_spawn_file_actions_addopen(&m_actions, 0, "/dev/null", O_RDONLY, 0));
    if (!inheritOutput) {
      Note(posix_spawn_file_actions_addopen(&m_actions, 1, "/dev/null", O_WRONLY, 0));
      Note(posix_spawn_file_actions_adddup2(&m_actions, 1, 2));
    }
    Note(posix_spawn_file_actions_addclosefrom_np(&m_actions, 3));
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    posix_spawnattr_destroy(&m_attributes);
    posix_spawn_file_actions_destroy(&m_actions);
  }
  int Error() const { return m_error; }
  const posix_spawnattr_t* Attributes() const { return &m_attributes; }
  const posix_spawn_file_actions_t* Actions() const { return &m_actions; }

 private:
  void Note(int error) {
    if (m_error == 0) m_error = error;
  }
  int m_error = 0;
  posix_spawnattr_t m_attributes;
  posix_spawn_file_actions_t m_actions;
};

// What the service manager told this process alone.
bool IsForChildren(std::string_view variable) {
  return !variable.starts_with("NOTIFY_SOCKET=") && !variable.starts_with("WATCHDOG_");
}

// Assignments by SetForThisProcess(), each with the one that it covers, empty for none. Written before threads.
std::map<std::string, std::string>& CoveredAssignments() {
  static auto* const covered = new std::map<std::string, std::string>;
  return *covered;
}

std::vector<std::string> ChildEnvironment() {
  const std::map<std::string, std::string>& covered = CoveredAssignments();
  std::vector<std::string> variables;
  for (std::string& variable : CopyEnvironment()) {
    if (!IsForChildren(variable)) continue;
    const auto found = covered.find(variable);
    if (found == covered.end()) {
      variables.push_back(std::move(variable));
    } else if (!found->second.empty()) {
      variables.push_back(found->second);
    }
  }
  return variables;
}

ErrorCode StartCommandLine(std::u16string_view commandLine, bool waited, std::uint64_t& ticket) {
  const std::vector<std::u16string> wide = SplitCommandLine(commandLine);
  if (wide.empty() || wide.front().empty()) return ERROR_FILE_NOT_FOUND;
  const std::u16string& program = wide.front();
  std::vector<std::string> words;
  for (const std::u16string& word : wide) words.push_back(Utf8FromWide(word));
  const bool isPath = program.find_first_of(u"/\\") != std::u16string::npos;
  const std::string file = isPath ? NativePath(program) : words.front();

  std::vector<std::string> environment = ChildEnvironment();
  const std::vector<char*> arguments = PointersTo(words);
  const std::vector<char*> variables = PointersTo(environment);
  const SpawnSettings settings(g_jobOutputInherited.load());
  if (settings.Error() != 0) return ErrorCodeFromErrno(settings.Error());
  const auto spawn = [&](pid_t* pid) {
    const auto call = isPath ? posix_spawn : posix_spawnp;
    return call(pid, file.c_str(), settings.Actions(), settings.Attributes(), arguments.data(), variables.data());
  };
  return ErrorCodeFromErrno(Reaper::Instance().Start(waited, spawn, ticket));
}

void CloseEnd(int& end) {
  if (end >= 0) close(end);
  end = -1;
}

}  // namespace

void detail::KeepChildExits() {
  struct sigaction present = {};
  if (sigaction(SIGCHLD, nullptr, &present) != 0 || present.sa_handler != SIG_IGN) return;
  struct sigaction usual = {};
  usual.sa_handler = SIG_DFL;
  (void)sigaction(SIGCHLD, &usual, nullptr);
}

std::vector<std::u16string> SplitCommandLine(std::u16string_view line) {
  line = line.substr(0, line.find(u'\0'));
  std::vector<std::u16string> words;
  if (line.empty()) return words;
  std::size_t at = 0;
  words.push_back(TakeProgram(line, at));
  while (true) {
    while (at < line.size() && IsBlank(line[at])) ++at;
    if (at == line.size()) return words;
    words.push_back(TakeArgument(line, at));
  }
}

void SetForThisProcess(const std::string& variable, const std::string& value) {
  std::map<std::string, std::string>& covered = CoveredAssignments();
  const std::string name = variable + "=";
  std::string before;
  if (const char* const set = std::getenv(variable.c_str())) before = name + set;
  // Set twice, the first of them tells what was there before.
  if (const auto own = covered.find(before); own != covered.end()) before = own->second;
  std::erase_if(covered, [&](const auto& entry) { return entry.first.starts_with(name); });
  setenv(variable.c_str(), value.c_str(), 1);
  if (before != name + value) covered.emplace(name + value, before);
}

void SetJobOutputInherited(bool inherited) { g_jobOutputInherited.store(inherited); }

JobStarter* InstallJobStarter(JobStarter* starter) { return g_jobStarter.exchange(starter); }

ErrorCode StartDetached(std::u16string_view commandLine) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateProcess); rc != ERROR_SUCCESS) return rc;
  if (JobStarter* const starter = g_jobStarter.load()) return starter->Start(commandLine);
  std::uint64_t ticket = 0;
  return StartCommandLine(commandLine, false, ticket);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : m_ticket(std::exchange(other.m_ticket, 0)),
      m_ended(std::exchange(other.m_ended, false)),
      m_exitCode(std::exchange(other.m_exitCode, 0)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this == &other) return *this;
  Forget();
  m_ticket = std::exchange(other.m_ticket, 0);
  m_ended = std::exchange(other.m_ended, false);
  m_exitCode = std::exchange(other.m_exitCode, 0);
  return *this;
}

ChildProcess::~ChildProcess() { Forget(); }

void ChildProcess::Forget() {
  if (m_ticket != 0) Reaper::Instance().Forget(m_ticket);
  m_ticket = 0;
  m_ended = false;
}

ErrorCode ChildProcess::Start(std::string_view command) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateProcess); rc != ERROR_SUCCESS) return rc;
  std::uint64_t ticket = 0;
  const ErrorCode rc = StartCommandLine(WideFromSystem(command), true, ticket);
  if (rc != ERROR_SUCCESS) return rc;
  Forget();
  m_ticket = ticket;
  return ERROR_SUCCESS;
}

ErrorCode ChildProcess::Wait() {
  if (const ErrorCode rc = FaultAt(Operation::kWaitForProcess); rc != ERROR_SUCCESS) return rc;
  if (m_ticket == 0) return ERROR_INVALID_HANDLE;
  m_exitCode = Reaper::Instance().Wait(m_ticket).exitCode;
  m_ended = true;
  return ERROR_SUCCESS;
}

ErrorCode ChildProcess::ExitCode(std::uint32_t& exitCode) const {
  if (const ErrorCode rc = FaultAt(Operation::kGetExitCodeProcess); rc != ERROR_SUCCESS) return rc;
  if (!m_ended) return ERROR_INVALID_HANDLE;
  exitCode = m_exitCode;
  return ERROR_SUCCESS;
}

ErrorCode RunAndWait(std::string_view command, std::uint32_t& exitCode) {
  ChildProcess child;
  if (const ErrorCode rc = child.Start(command); rc != ERROR_SUCCESS) return rc;
  if (const ErrorCode rc = child.Wait(); rc != ERROR_SUCCESS) return rc;
  return child.ExitCode(exitCode);
}

AnonymousPipe::AnonymousPipe(AnonymousPipe&& other) noexcept
    : m_read(std::exchange(other.m_read, -1)), m_write(std::exchange(other.m_write, -1)) {}

AnonymousPipe& AnonymousPipe::operator=(AnonymousPipe&& other) noexcept {
  if (this == &other) return *this;
  Close();
  m_read = std::exchange(other.m_read, -1);
  m_write = std::exchange(other.m_write, -1);
  return *this;
}

AnonymousPipe::~AnonymousPipe() { Close(); }

ErrorCode AnonymousPipe::Create() {
  if (const ErrorCode rc = FaultAt(Operation::kCreatePipe); rc != ERROR_SUCCESS) return rc;
  int ends[2];
  if (pipe(ends) != 0) return ErrorCodeFromErrno(errno);
  Close();
  m_read = ends[0];
  m_write = ends[1];
  return ERROR_SUCCESS;
}

ErrorCode AnonymousPipe::ClearInheritOfReadEnd() {
  if (const ErrorCode rc = FaultAt(Operation::kSetHandleInformation); rc != ERROR_SUCCESS) return rc;
  if (m_read < 0) return ERROR_INVALID_HANDLE;
  return fcntl(m_read, F_SETFD, FD_CLOEXEC) == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

void AnonymousPipe::Close() {
  CloseEnd(m_read);
  CloseEnd(m_write);
}

std::size_t LiveChildren() { return Reaper::Instance().Living(); }

bool WaitForAllChildren(std::uint32_t limitMs) {
  return Reaper::Instance().WaitForAll(std::chrono::milliseconds(limitMs));
}

}  // namespace platform
