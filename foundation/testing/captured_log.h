// foundation/testing/captured_log.h: for tests: collects what ServiceLog() is given.
//
// Installed for its lifetime; captures of inner scopes take over and give back. Threads: lines of any thread are taken.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/include/zfclog.h"
#include "platform/mutex.h"

namespace ZepFoundation {

struct CapturedLogLine {
  std::uint32_t level = 0;
  std::string text;  // system code page, which is UTF-8 unless a test sets another
  friend bool operator==(const CapturedLogLine&, const CapturedLogLine&) = default;
  friend std::ostream& operator<<(std::ostream& out, const CapturedLogLine& line) {
    return out << '{' << line.level << ", \"" << line.text << "\"}";
  }
};

class CapturedServiceLog final : public ServiceLogWriter {
 public:
  CapturedServiceLog() : m_before(SetServiceLogWriter(this)) {}
  ~CapturedServiceLog() override { SetServiceLogWriter(m_before); }
  CapturedServiceLog(const CapturedServiceLog&) = delete;
  CapturedServiceLog& operator=(const CapturedServiceLog&) = delete;

  // All lines so far, in order.
  [[nodiscard]] std::vector<CapturedLogLine> lines() const {
    const platform::MutexLock hold(m_lock);
    return m_lines;
  }
  // The texts of the lines up to a level.
  [[nodiscard]] std::vector<std::string> texts(std::uint32_t greatestLevel = 0xFFFFFFFFu) const {
    const platform::MutexLock hold(m_lock);
    std::vector<std::string> out;
    for (const CapturedLogLine& line : m_lines) {
      if (line.level <= greatestLevel) out.push_back(line.text);
    }
    return out;
  }
  // Whether a line is exactly this.
  [[nodiscard]] bool Has(std::uint32_t level, std::string_view text) const { return Count(level, text) != 0; }
  [[nodiscard]] int Count(std::uint32_t level, std::string_view text) const {
    const platform::MutexLock hold(m_lock);
    return CountHeld(level, text);
  }
  // Waits until a line was given so often; false after a minute of the real clock.
  [[nodiscard]] bool WaitFor(std::uint32_t level, std::string_view text, int times = 1) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    platform::MutexLock hold(m_lock);
    bool inTime = true;
    while (CountHeld(level, text) < times && inTime) inTime = m_given.WaitUntil(hold, end);
    return CountHeld(level, text) >= times;
  }
  void Clear() {
    const platform::MutexLock hold(m_lock);
    m_lines.clear();
  }

  void Write(std::uint32_t level, std::string_view text) override {
    const platform::MutexLock hold(m_lock);
    m_lines.push_back({level, std::string(text)});
    m_given.NotifyAll();
  }

 private:
  [[nodiscard]] int CountHeld(std::uint32_t level, std::string_view text) const QX_REQUIRES(m_lock) {
    int count = 0;
    for (const CapturedLogLine& line : m_lines) count += line.level == level && line.text == text;
    return count;
  }

  mutable platform::Mutex m_lock;
  mutable platform::Condition m_given;
  std::vector<CapturedLogLine> m_lines QX_GUARDED_BY(m_lock);
  ServiceLogWriter* m_before;
};

}  // namespace ZepFoundation
