// replication/listener.h: the peer's side: takes connections, carries out one operation each, answers.
//
// A remote operation touches this node's registry store alone, or runs a command: no job list, no .ini file, no event.
// Every failure ends its connection and is told to nobody but the log; only an operation that failed, or a body that
// can't be parsed, is acknowledged with a result other than 0.
// Threads: SocketThread() on a thread of its own; Close() and what tells or waits from any. Children run on threads
// that nobody joins: the listener outlives them.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "platform/mutex.h"
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
  [[nodiscard]] std::int32_t ChildCount() const;
  // The port that is listened on, 0 before and after.
  [[nodiscard]] std::uint16_t Port() const;
  // Wait until it is so, at most `limit` of the real clock; false when it isn't by then.
  [[nodiscard]] bool WaitForChildCount(std::int32_t count, std::chrono::milliseconds limit) const;
  [[nodiscard]] bool WaitForPort(std::chrono::milliseconds limit) const;

 private:
  [[nodiscard]] bool SetUp(std::uint16_t port);
  [[nodiscard]] bool TakeConnection();
  void Refuse(SocketCell& cell);
  void SetListening(bool listening);
  // One more; false, and nothing is counted, where there are as many as may be.
  [[nodiscard]] bool CountChild();
  void ChildHasEnded();

  CKeyManager& m_keys;
  platform::ListeningSocket m_socket;
  mutable platform::Mutex m_lock;
  mutable platform::Condition m_changed;  // what the lock guards
  bool m_listening QX_GUARDED_BY(m_lock) = false;
  std::int32_t m_children QX_GUARDED_BY(m_lock) = 0;
};

}  // namespace qx
