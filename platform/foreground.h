// platform/foreground.h: programs that work for the user on the terminal while this one waits: an editor, a pager.
//
// For command-line programs, which take no child's exit elsewhere; a process that uses process.h may not use this.
// Threads: one at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// Runs a program with this process's streams and environment, and waits until it has ended. Signals from the keyboard
// (SIGINT, SIGQUIT) are the program's alone meanwhile. Asks Operation::kCreateProcess.
//   words     the program, searched on PATH, and its arguments; at least one
//   exitCode  0 to 255, or 128 + N after signal N; untouched on failure
//   returns   0; ERROR_FILE_NOT_FOUND (2): no such program; ERROR_ACCESS_DENIED (5) and other codes of the host
[[nodiscard]] ErrorCode RunInForeground(const std::vector<std::string>& words, std::uint32_t& exitCode);

// Sends what the process writes to its standard output through a program, from Start() to Finish(). A program that ends
// early makes further writes fail, without a signal. Move is not supported.
class OutputPager {
 public:
  OutputPager() = default;
  OutputPager(const OutputPager&) = delete;
  OutputPager& operator=(const OutputPager&) = delete;
  ~OutputPager() { Finish(); }

  // Starts the program and puts a pipe to it in the place of the standard output. What the process has buffered for the
  // output has to be written before. Asks Operation::kCreatePipe and kCreateProcess.
  //   words        as for RunInForeground()
  //   environment  assignments "NAME=VALUE" for variables that aren't set
  //   returns      0; a code as RunInForeground(): the output is what it was
  [[nodiscard]] ErrorCode Start(const std::vector<std::string>& words, const std::vector<std::string>& environment);
  [[nodiscard]] bool IsRunning() const { return m_process > 0; }
  // Ends the pipe, waits until the program has ended and puts the output back. What the process has buffered has to be
  // written before.
  void Finish();

 private:
  int m_process = 0;
  int m_output = -1;  // the standard output as it was
};

}  // namespace platform
