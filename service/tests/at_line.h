// service/tests/at_line.h: something that happens between two steps of an operation.
//
// Threads: made and destroyed on one; an action runs on the one that writes the line. Several write at a time only
// where no two of them write the line of one action.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/include/zfclog.h"

namespace qx::testing {

// Does each thing once, at the first line of the log that ends with its text; takes the log's place meanwhile.
class AtLine final : public ZepFoundation::ServiceLogWriter {
 public:
  using Action = std::pair<std::string, std::function<void()>>;  // the end of a line, and what is done there
  AtLine(std::string end, std::function<void()> action)
      : AtLine(std::vector<Action>{{std::move(end), std::move(action)}}) {}
  explicit AtLine(std::vector<Action> actions)
      : m_actions(std::move(actions)), m_before(SetServiceLogWriter(this)) {}
  ~AtLine() override { SetServiceLogWriter(m_before); }
  AtLine(const AtLine&) = delete;
  AtLine& operator=(const AtLine&) = delete;
  void Write(std::uint32_t, std::string_view text) override {
    for (auto& [end, action] : m_actions) {
      if (text.ends_with(end)) std::exchange(action, [] {})();
    }
  }

 private:
  std::vector<Action> m_actions;
  ZepFoundation::ServiceLogWriter* m_before;
};

}  // namespace qx::testing
