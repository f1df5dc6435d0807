// replication/listener.h: the peer's side: takes connections, carries out one operation each, answers.
//
// A remote operation touches this node's registry store alone, or runs a command: no job list, no .ini file, no event.
// Every failure ends its connection and is told to nobody but the log; only an operation that failed, or a body that
// can't be parsed, is acknowledged with a result other than 0.
// Threads: SocketThread() on a thread of its own; Close() and ChildCount() from any. Children run on threads that nobody
// joins: the listener outlives them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/socket.h"
#include "replication/key_manager.h"

namespace qx {

inline constexpr std::int32_t kMaxChildren = 32;
inline constexpr int kListenBacklog = 32;

// A child's hold on its socket, handed over in a cell of its own.
using SocketCell = std::unique_ptr<platform::Socket>;

class CListener {
 public:
  explicit CListener(CKeyManager& keys) : m_keys(keys) {}
  CListener(const CListener&) = delete;
  CListener& operator=(const CListener&) = delete;

  // The body of the listening thread.
  //   port     0 for one of the host's choice (tests)
  //   returns  0 after a failed wait, the socket's closing included; -1 after a failed set-up or accept
  int SocketThread(std::uint16_t port);
  // The body of a child's thread: one connection, one operation. Always -1.
  //   cell  null: nothing is done, and the count of children isn't touched
  int ChildSocketThread(SocketCell cell);

  // Closes the listening socket for good; also before SocketThread(), which then returns at once.
  void Close() { m_socket.Close(); }
  [[nodiscard]] std::int32_t ChildCount() const { return m_children.load(); }
  // The port that is listened on, 0 before and after.
  [[nodiscard]] std::uint16_t Port() const { return m_listening.load() ? m_socket.Port() : 0; }

 private:
  [[nodiscard]] bool SetUp(std::uint16_t port);
  [[nodiscard]] bool TakeConnection();
  void Refuse(SocketCell& cell);

  CKeyManager& m_keys;
  platform::ListeningSocket m_socket;
  std::atomic<bool> m_listening{false};
  std::atomic<std::int32_t> m_children{0};
};

}  // namespace qx
