// tests/line_reader.h: for tests: lines of other processes through a pipe with a name.
//
// Threads: one object from one thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "tests/running_service.h"

namespace qx::testing {

// Reads lines of a process as they come, without a sleep.
class LineReader {
 public:
  explicit LineReader(std::string fifo) : m_name(std::move(fifo)) {
    EXPECT_EQ(mkfifo(m_name.c_str(), 0600), 0);
    m_descriptor = open(m_name.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);  // both ends, so that nobody waits to open
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() { close(m_descriptor); }

  // The first line that holds `text`; empty when none came in time.
  std::string WaitFor(const std::string& text) {
    for (;;) {
      for (std::size_t end; (end = m_text.find('\n')) != std::string::npos;) {
        const std::string line = m_text.substr(0, end);
        m_text.erase(0, end + 1);
        if (line.find(text) != std::string::npos) return line;
      }
      pollfd ready = {m_descriptor, POLLIN, 0};
      if (poll(&ready, 1, static_cast<int>(kPatience)) != 1) return "";
      char buffer[4096];
      const ssize_t count = read(m_descriptor, buffer, sizeof buffer);
      if (count > 0) m_text.append(buffer, static_cast<std::size_t>(count));
    }
  }
  [[nodiscard]] const std::string& Name() const { return m_name; }

 private:
  std::string m_name;
  int m_descriptor = -1;
  std::string m_text;
};

}  // namespace qx::testing
