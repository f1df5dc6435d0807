// service/tests/at_line.h: something that happens between two steps of an operation.
//
// Threads: made and destroyed on one; the action runs on the one that writes the line.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/include/zfclog.h"

namespace qx::testing {

// Does it once, at the first line of the log that ends with a text; takes the log's place meanwhile.
class AtLine final : public ZepFoundation::ServiceLogWriter {
 public:
  AtLine(std::string end, std::function<void()> action)
      : m_end(std::move(end)), m_action(std::move(action)), m_before(SetServiceLogWriter(this)) {}
  ~AtLine() override { SetServiceLogWriter(m_before); }
  AtLine(const AtLine&) = delete;
  AtLine& operator=(const AtLine&) = delete;
  void Write(std::uint32_t, std::string_view text) override {
    if (text.ends_with(m_end)) std::exchange(m_action, [] {})();
  }

 private:
  std::string m_end;
  std::function<void()> m_action;
  ZepFoundation::ServiceLogWriter* m_before;
};

}  // namespace qx::testing
