// tests/terminal.h: for tests: a program in a pseudo-terminal of its own.
//
// Threads: one object from one thread.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/program_words.h"
#include "tests/running_service.h"

namespace qx::testing {

// The program's three standard streams are the terminal, which is its controlling one: what is typed as Ctrl-C is an
// interrupt. The program is killed and taken at destruction.
class Terminal {
 public:
  static constexpr const char* kCtrlC = "\x03";

  Terminal(const std::string& program, const std::vector<std::string>& arguments,
           const std::vector<std::string>& environment, unsigned short columns = 80) {
    const ProgramWords words(program, arguments, environment);
    winsize size = {};
    size.ws_row = 24;
    size.ws_col = columns;
    m_process = forkpty(&m_terminal, nullptr, nullptr, &size);
    if (m_process == 0) {
      execve(program.c_str(), words.Argv(), words.Envp());
      _exit(127);
    }
    EXPECT_GT(m_process, 0);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    if (!m_ended) {
      kill(m_process, SIGKILL);
      (void)waitpid(m_process, nullptr, 0);
    }
    close(m_terminal);
  }

  void Type(const std::string& text) {
    EXPECT_EQ(write(m_terminal, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Waits until the text has been shown, behind what earlier calls waited for.
  bool WaitFor(const std::string& text) {
    for (;;) {
      const std::size_t at = m_shown.find(text, m_seen);
      if (at != std::string::npos) {
        m_seen = at + text.size();
        return true;
      }
      if (!Read()) return false;
    }
  }
  // Reads to the end; the exit code, 128 + N after signal N.
  int Wait() {
    while (Read()) {
    }
    int status = 0;
    (void)waitpid(m_process, &status, 0);
    m_ended = true;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  // Everything shown so far, with the terminal's line ends.
  [[nodiscard]] const std::string& Shown() const { return m_shown; }

 private:
  // False at the end, or when nothing came in time.
  bool Read() {
    pollfd ready = {m_terminal, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(kPatience)) != 1) return false;
    char buffer[4096];
    const ssize_t count = read(m_terminal, buffer, sizeof buffer);
    if (count <= 0) return false;  // EIO: nobody has the other end any more
    m_shown.append(buffer, static_cast<std::size_t>(count));
    return true;
  }

  pid_t m_process = -1;
  int m_terminal = -1;
  bool m_ended = false;
  std::string m_shown;
  std::size_t m_seen = 0;
};

}  // namespace qx::testing
