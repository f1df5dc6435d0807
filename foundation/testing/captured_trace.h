// foundation/testing/captured_trace.h: for tests: collects what QX_TRACE statements write, of every level.
//
// Installed for its lifetime; captures of inner scopes take over and give back. Threads: records of any thread are
// taken.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/include/zfcdbg.h"
#include "platform/mutex.h"

namespace ZepFoundation {

struct CapturedTraceRecord {
  std::uint16_t level = 0;
  std::string text;  // without header, "SS ", final newline and marker
  friend bool operator==(const CapturedTraceRecord&, const CapturedTraceRecord&) = default;
  friend std::ostream& operator<<(std::ostream& out, const CapturedTraceRecord& record) {
    return out << '{' << record.level << ", \"" << record.text << "\"}";
  }
};

class CapturedTrace final : public DebugTraceSink {
 public:
  CapturedTrace() : m_before(SetDebugTraceSink(this)) {}
  ~CapturedTrace() override { SetDebugTraceSink(m_before); }
  CapturedTrace(const CapturedTrace&) = delete;
  CapturedTrace& operator=(const CapturedTrace&) = delete;

  // All records so far, in order.
  [[nodiscard]] std::vector<CapturedTraceRecord> records() const {
    const platform::MutexLock hold(m_lock);
    return m_records;
  }
  [[nodiscard]] bool Has(std::uint16_t level, std::string_view text) const {
    for (const CapturedTraceRecord& record : records()) {
      if (record.level == level && record.text == text) return true;
    }
    return false;
  }
  void Clear() {
    const platform::MutexLock hold(m_lock);
    m_records.clear();
  }

  void Write(std::uint16_t level, std::string_view text) override {
    const platform::MutexLock hold(m_lock);
    m_records.push_back({level, std::string(text)});
  }

 private:
  mutable platform::Mutex m_lock;
  std::vector<CapturedTraceRecord> m_records QX_GUARDED_BY(m_lock);
  DebugTraceSink* m_before;
};

}  // namespace ZepFoundation
