// replication/tests/connection_crowd.h: many connections to one port at once: one byte each, then silence.
//
// The queue of a listening port is short: of a crowd the host drops many halfway, and the caller takes them for
// connections. Their byte isn't taken, which tells them; they are begun anew.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace qx::testing {

// Threads: one object from one thread.
class ConnectionCrowd {
 public:
  // Raises this process's limit of descriptors to the host's; of so many connections as many as that allows, both ends
  // of which may lie in this process.
  static int MostOf(int count) {
    constexpr rlim_t kOthers = 200;
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur <= kOthers) return 0;
    return static_cast<int>(std::min<rlim_t>(static_cast<rlim_t>(count), (limit.rlim_cur - kOthers) / 2));
  }

  // Begins them all before any is waited for.
  ConnectionCrowd(int count, const std::string& address, std::uint16_t port) {
    m_to.sin_family = AF_INET;
    m_to.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, address.c_str(), &m_to.sin_addr), 1);
    for (int i = 0; i < count; ++i) m_waiting.push_back(Begin());
  }
  ConnectionCrowd(const ConnectionCrowd&) = delete;
  ConnectionCrowd& operator=(const ConnectionCrowd&) = delete;
  ~ConnectionCrowd() {
    for (const pollfd& each : m_waiting) close(each.fd);
  }

  // Waits until the other side has closed so many and holds all others, and looks that none of them heard a byte; false
  // after two minutes.
  bool WaitForClosed(std::size_t count) {
    const std::size_t held = m_waiting.size() - count;
    for (int round = 0; round < 600; ++round) {
      constexpr int kPatienceMs = 200;
      while (poll(m_waiting.data(), m_waiting.size(), kPatienceMs) > 0) std::erase_if(m_waiting, HasEnded);
      std::size_t lost = 0;
      for (pollfd& each : m_waiting) {
        if (IsTaken(each)) continue;
        ++lost;
        close(each.fd);
        each = Begin();
      }
      if (lost == 0) return m_waiting.size() == held;
    }
    return false;
  }

 private:
  pollfd Begin() const {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    EXPECT_GE(descriptor, 0);
    const int result = connect(descriptor, reinterpret_cast<const sockaddr*>(&m_to), sizeof m_to);
    EXPECT_TRUE(result == 0 || errno == EINPROGRESS) << errno;
    return {descriptor, POLLOUT, 0};
  }
  // Looks at one that poll() has marked.
  static bool HasEnded(pollfd& each) {
    if (each.revents == 0) return false;
    if (each.revents == POLLOUT) {  // it is connected now
      each.events = POLLIN;
      (void)send(each.fd, "Q", 1, MSG_NOSIGNAL);
      return false;
    }
    char byte = 0;
    EXPECT_LE(recv(each.fd, &byte, 1, 0), 0) << "a byte was said";
    close(each.fd);
    return true;
  }
  // Whether the byte has arrived.
  static bool IsTaken(const pollfd& each) {
    int unsent = 0;
    return each.events == POLLIN && ioctl(each.fd, SIOCOUTQ, &unsent) == 0 && unsent == 0;
  }

  sockaddr_in m_to = {};
  std::vector<pollfd> m_waiting;
};

}  // namespace qx::testing
