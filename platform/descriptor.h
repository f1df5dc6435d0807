// platform/descriptor.h: owns a file descriptor of a POSIX host.
//
// For the files that ask the host themselves, and their tests. Threads: one at a time.
#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

// Closes the descriptor with its end. Movable; what was moved from has none.
class Descriptor {
 public:
  //   fd  negative for none
  explicit Descriptor(int fd = -1) : m_fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~Descriptor() {
    if (m_fd >= 0) ::close(m_fd);
  }

  [[nodiscard]] int Get() const { return m_fd; }
  [[nodiscard]] bool IsOpen() const { return m_fd >= 0; }

 private:
  int m_fd;
};

}  // namespace platform
