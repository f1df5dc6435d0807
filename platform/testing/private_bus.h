// platform/testing/private_bus.h: for tests: a message bus of their own, in a directory of its own.
//
// Threads: one object from one thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "platform/bus.h"

extern char** environ;

namespace platform {

// Starts a bus daemon and ends it at destruction. Address() is empty when it couldn't be started.
class PrivateBus {
 public:
  //   configuration  a file of the daemon's; empty: that of a session bus
  explicit PrivateBus(std::string configuration = {})
      : m_kind(configuration.empty() ? "--session" : "--config-file=" + configuration) {
    Start();
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus() {
    Kill();
    if (!m_directory.empty()) (void)rmdir(m_directory.c_str());
  }

  // The address as clients need it; of the last daemon.
  [[nodiscard]] const std::string& Address() const { return m_address; }
  [[nodiscard]] BusAddress ForClients() const { return BusAddress::Explicit(m_address); }

  // Ends the daemon, and returns when it has ended: every connection is lost then.
  void Kill() {
    if (m_process < 0) return;
    // By its descriptor: the number may be another process's once somebody else has taken the exit.
    (void)syscall(SYS_pidfd_send_signal, m_process, SIGTERM, nullptr, 0);
    pollfd ended = {m_process, POLLIN, 0};
    (void)poll(&ended, 1, -1);
    (void)waitpid(m_number, nullptr, 0);
    close(m_process);
    m_process = -1;
    if (!m_socket.empty()) (void)unlink(m_socket.c_str());
  }
  // A daemon at the very address of the last one, after Kill().
  void Restart() { Start(); }

 private:
  void Start() {
    std::string listen = m_address;
    if (listen.empty()) {
      const char* const temporary = std::getenv("TMPDIR");
      std::string pattern = std::string(temporary != nullptr ? temporary : "/tmp") + "/qx-bus-XXXXXX";
      if (mkdtemp(pattern.data()) == nullptr) return;
      m_directory = pattern;
      m_socket = m_directory + "/bus";
      listen = "unix:path=" + m_socket;
    }
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::string words[] = {"dbus-daemon", m_kind, "--nofork", "--nopidfile", "--print-address=1",
                           "--address=" + listen};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                         words[4].data(), words[5].data(), nullptr};
    const int error = posix_spawnp(&m_number, "dbus-daemon", &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    if (error == 0) {
      m_process = static_cast<int>(syscall(SYS_pidfd_open, m_number, 0));
      m_address = ReadLine(output[0]);  // printed when the socket listens
      m_address.resize(std::min(m_address.find(','), m_address.size()));  // without the mark of this one daemon
    }
    close(output[0]);
  }

  static std::string ReadLine(int fd) {
    std::string line;
    char c = 0;
    while (read(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }

  std::string m_kind;
  std::string m_directory;
  std::string m_socket;
  std::string m_address;
  pid_t m_number = -1;
  int m_process = -1;
};

}  // namespace platform
