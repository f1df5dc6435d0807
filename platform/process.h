// platform/process.h: start a command line detached; run one and wait for it.
//
// A command line is split into words without a shell and without any expansion. A first word without a separator
// ('/' or '\') is searched on PATH, one with a separator is a path and goes through NativePath(). A child starts in a
// session of its own with all signals at their defaults and none blocked, its input is the null device, every
// descriptor above 2 is closed; working directory and environment are this process's, without NOTIFY_SOCKET and the
// WATCHDOG_ variables, and with what SetForThisProcess() covers as it was before.
// One thread of this file (the reaper, started with the first child) takes the exit of every child of the process, so
// nothing else in the process may start one and ask for its exit.
// Threads: every function may be called from any thread; one object at a time from one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// The words of a command line by the rules of CommandLineToArgvW (shellapi.h): the first word ends at a blank or tab,
// or, when it begins with a quotation mark, at the next one, and knows no backslash rule; in the others quotation marks
// group, 2n backslashes before a quotation mark are n backslashes, 2n+1 are n and the mark itself, and a mark right
// behind a closing one is a mark. A leading blank gives an empty first word. The empty line gives no word.
[[nodiscard]] std::vector<std::u16string> SplitCommandLine(std::u16string_view line);

// Where the output and error output of detached jobs go: the null device (false, the first setting), or where this
// process's own go (true, for a service on a terminal). For the whole process.
void SetJobOutputInherited(bool inherited);

// Sets a variable of the environment for this process alone: its children go on getting the value that it had before,
// or none. What others set afterwards in its place they get again. Called before threads.
void SetForThisProcess(const std::string& variable, const std::string& value);

// Starts a command line and forgets it. Returns when the program runs or couldn't be started; a failure leaves nothing
// behind. The text is used up to a NUL. Asks Operation::kCreateProcess.
//   returns  0; ERROR_FILE_NOT_FOUND (2): no such program, or an empty first word;
//            ERROR_PATH_NOT_FOUND (3): a part of the path is no directory;
//            ERROR_ACCESS_DENIED (5): a directory, or not executable;
//            ERROR_BAD_EXE_FORMAT (193): neither a program nor a script with "#!", never handed to a shell;
//            ERROR_NO_PROC_SLOTS (89): too many processes
[[nodiscard]] ErrorCode StartDetached(std::u16string_view commandLine);

// What tests put in the place of the start itself: while installed, StartDetached() asks its operation and hands the
// command line over. Called from any thread.
class JobStarter {
 public:
  virtual ~JobStarter() = default;
  // Returns what StartDetached() is to return.
  virtual ErrorCode Start(std::u16string_view commandLine) = 0;
};
// Installs a starter for the whole process, null for real processes; returns the one before. Only tests call this.
JobStarter* InstallJobStarter(JobStarter* starter);

// One child that somebody waits for. Move only. Destroying one that still runs lets it run on.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ~ChildProcess();

  // Starts a narrow command line; its output goes where StartDetached() sends it. Codes as there.
  //   command  in the system code page (text.h); used up to a NUL
  [[nodiscard]] ErrorCode Start(std::string_view command);
  // Waits without a limit until the child has ended. Asks Operation::kWaitForProcess.
  //   returns  0; ERROR_INVALID_HANDLE (6) when nothing was started
  [[nodiscard]] ErrorCode Wait();
  // The exit code after Wait(): the status (0 to 255), or 128 + N after signal N. Asks Operation::kGetExitCodeProcess.
  //   returns  0; ERROR_INVALID_HANDLE (6) before a Wait() that returned 0, `exitCode` untouched
  [[nodiscard]] ErrorCode ExitCode(std::uint32_t& exitCode) const;

 private:
  void Forget();
  std::uint64_t m_ticket = 0;  // the reaper's number of the child, 0 for none
  bool m_ended = false;
  std::uint32_t m_exitCode = 0;
};

// Start, wait and exit code in one.
//   returns  the first failure, `exitCode` untouched by one
[[nodiscard]] ErrorCode RunAndWait(std::string_view command, std::uint32_t& exitCode);

// An anonymous pipe, kept for its two ends only. Both are closed in every child, whatever their inherit mark says.
class AnonymousPipe {
 public:
  AnonymousPipe() = default;
  AnonymousPipe(AnonymousPipe&& other) noexcept;
  AnonymousPipe& operator=(AnonymousPipe&& other) noexcept;
  ~AnonymousPipe();

  // Makes both ends inheritable. Asks Operation::kCreatePipe.
  [[nodiscard]] ErrorCode Create();
  // Clears the inherit mark of the reading end. Asks Operation::kSetHandleInformation.
  //   returns  0; ERROR_INVALID_HANDLE (6) before Create()
  [[nodiscard]] ErrorCode ClearInheritOfReadEnd();
  void Close();

 private:
  int m_read = -1;
  int m_write = -1;
};

// The number of children started here that the reaper has not taken yet.
[[nodiscard]] std::size_t LiveChildren();
// Waits until the reaper has taken every child started here, at most `limitMs` milliseconds; true when none is left.
bool WaitForAllChildren(std::uint32_t limitMs);

}  // namespace platform
