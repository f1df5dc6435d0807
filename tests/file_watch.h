// tests/file_watch.h: for tests: waits for what other processes bring about by files.
//
// Threads: one object from one thread.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/clock.h"
#include "tests/running_service.h"

namespace qx::testing {

class FileWatch {
 public:
  // Hears of every change to the files of a directory, which has to exist, from now on.
  explicit FileWatch(const std::string& directory) : m_descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    constexpr std::uint32_t kChanges = IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
    EXPECT_GE(inotify_add_watch(m_descriptor, directory.c_str(), kChanges), 0) << directory << ": "
                                                                               << std::strerror(errno);
  }
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;
  ~FileWatch() { close(m_descriptor); }

  // Looks whether it is so, at once and after each change; false when it isn't in time.
  //   lookMs  looks after so many milliseconds without a change too
  template <class IsSo>
  [[nodiscard]] bool Until(IsSo isSo, std::uint32_t lookMs = kPatience) {
    const std::uint32_t begun = platform::TickCount();
    while (!isSo()) {
      const std::uint32_t passed = platform::TickCount() - begun;
      if (passed >= kPatience) return false;
      pollfd changed = {m_descriptor, POLLIN, 0};
      (void)poll(&changed, 1, static_cast<int>(std::min(lookMs, kPatience - passed)));
      char changes[4096];
      while (read(m_descriptor, changes, sizeof changes) > 0) {
      }
    }
    return true;
  }

 private:
  int m_descriptor;
};

}  // namespace qx::testing
