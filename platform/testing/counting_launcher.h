// platform/testing/counting_launcher.h: for tests: jobs that are counted and not started.
//
// Threads: install and remove on the test's thread; jobs may be started from any.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

#include "platform/process.h"

namespace platform {

// Takes every StartDetached() for its lifetime.
class CountingLauncher final : public JobStarter {
 public:
  //   onStart  gets each command line and says what the start returns; none: all succeed
  explicit CountingLauncher(std::function<ErrorCode(std::u16string_view)> onStart = {})
      : m_onStart(std::move(onStart)), m_before(InstallJobStarter(this)) {}
  ~CountingLauncher() override { (void)InstallJobStarter(m_before); }
  CountingLauncher(const CountingLauncher&) = delete;
  CountingLauncher& operator=(const CountingLauncher&) = delete;

  // How often a start was asked for.
  [[nodiscard]] std::uint64_t count() const { return m_count.load(); }

  ErrorCode Start(std::u16string_view commandLine) override {
    m_count.fetch_add(1);
    return m_onStart ? m_onStart(commandLine) : ERROR_SUCCESS;
  }

 private:
  std::function<ErrorCode(std::u16string_view)> m_onStart;
  std::atomic<std::uint64_t> m_count{0};
  JobStarter* m_before;
};

}  // namespace platform
