#include "replication/listener.h"

#include <exception>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "foundation/include/zfclog.h"
#include "platform/memory.h"
#include "platform/reserved_memory.h"
#include "platform/security.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "replication/child_session.h"
#include "replication/node_address.h"

namespace qx {
namespace {

using platform::AddressFamily;
using platform::Socket;
using platform::SocketError;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

// A step of the set-up that failed.
bool SetUpFailed(const char16_t* step, SocketError error) {
  ServiceLog(0, u"SocketThread: %s failed with error: %d; nothing can be received from other nodes", step, error);
  return false;
}

// Where memory has run out it may be told of or not.
void TellCaught(const char16_t* thread, const std::exception& error) noexcept {
  try {
    ServiceLog(0, u"%s: an exception was caught: %s", thread, ForLog(platform::WideFromUtf8(error.what())));
  } catch (const std::exception&) {
  }
}

}  // namespace

bool CListener::SetUp(std::uint16_t port) {
  const int families = ProbeAddressFamilies();
  (void)GetIpMode();
  if (families < 0) return SetUpFailed(u"looking for an address family", families);
  const bool ipv4Only = families == kFamilyIpv4;
  const AddressFamily family = ipv4Only ? AddressFamily::kIpv4 : AddressFamily::kIpv6;
  std::vector<platform::SocketAddress> addresses;
  // A textual address is taken as it is: asked for by the addresses of this host, "::" fails where only ::1 is one.
  if (const SocketError error =
          platform::ResolveAddress(ipv4Only ? "0.0.0.0" : "::", std::to_string(port), family, true, addresses);
      error != 0) {
    return SetUpFailed(u"getaddrinfo", error);
  }
  if (const SocketError error = m_socket.Create(family); error != 0) return SetUpFailed(u"socket", error);
  if (const SocketError error = m_socket.SetReuseAddress(); error != 0) {
    return SetUpFailed(u"setsockopt(SO_REUSEADDR)", error);
  }
  if (!ipv4Only) {
    if (const SocketError error = m_socket.TakeBothFamilies(); error != 0) {
      return SetUpFailed(u"setsockopt(IPV6_V6ONLY)", error);
    }
  }
  if (const SocketError error = m_socket.Bind(addresses[0]); error != 0) return SetUpFailed(u"bind", error);
  if (const SocketError error = m_socket.Listen(kListenBacklog); error != 0) return SetUpFailed(u"listen", error);
  ServiceLog(3, u"Listening on port %d", port == 0 ? m_socket.Port() : port);
  if (const SocketError error = m_socket.SetNonBlocking(); error != 0) return SetUpFailed(u"ioctlsocket", error);
  SetListening(true);
  return true;
}

void CListener::SetListening(bool listening) {
  const platform::MutexLock lock(m_lock);
  m_listening = listening;
  m_changed.NotifyAll();
}

bool CListener::CountChild() {
  const platform::MutexLock lock(m_lock);
  if (m_children == kMaxChildren) return false;
  ++m_children;
  m_changed.NotifyAll();
  return true;
}

// The last that a child does: the listener may be gone as soon as the lock is let go.
void CListener::ChildHasEnded() {
  const platform::MutexLock lock(m_lock);
  --m_children;
  m_changed.NotifyAll();
}

std::int32_t CListener::ChildCount() const {
  const platform::MutexLock lock(m_lock);
  return m_children;
}

std::uint16_t CListener::Port() const {
  const platform::MutexLock lock(m_lock);
  return m_listening ? m_socket.Port() : 0;
}

bool CListener::WaitForChildCount(std::int32_t count, std::chrono::milliseconds limit) const {
  const auto end = std::chrono::steady_clock::now() + limit;
  platform::MutexLock lock(m_lock);
  bool inTime = true;
  while (m_children != count && inTime) inTime = m_changed.WaitUntil(lock, end);
  return m_children == count;
}

bool CListener::WaitForPort(std::chrono::milliseconds limit) const {
  const auto end = std::chrono::steady_clock::now() + limit;
  platform::MutexLock lock(m_lock);
  bool inTime = true;
  while (!m_listening && inTime) inTime = m_changed.WaitUntil(lock, end);
  return m_listening;
}

// The caller sees its connection closed.
void CListener::Refuse(SocketCell& cell) {
  cell->Close();
  cell.reset();
  ServiceLog(6, u"SocketThread: Closing the socket");
}

// Takes one connection that is ready; false when the thread has to end.
bool CListener::TakeConnection() {
  if (!platform::NamedBuffer<std::uint8_t>(sizeof(Socket), "SocketThread cell")) return true;
  SocketCell cell(new (std::nothrow) Socket);
  if (!cell) return true;
  if (const SocketError error = m_socket.Accept(*cell); error != 0) {
    ServiceLog(0, u"SocketThread: Accept failed with error: %d\n", error);
    return false;
  }
  // Counted before it starts, so that a child that ends at once finds itself counted.
  if (!CountChild()) {
    ServiceLog(1, u"SocketThread: Crossed maximum limit of child threads");
    Refuse(cell);
    return true;
  }
  Socket* const socket = cell.release();
  if (platform::StartThread("ChildSocketThread", [this, socket] { (void)ChildSocketThread(SocketCell(socket)); }) !=
      platform::ERROR_SUCCESS) {
    ChildHasEnded();
    cell.reset(socket);
    ServiceLog(1, u"SocketThread: createThread failed");
    Refuse(cell);
  }
  return true;
}

int CListener::SocketThread(std::uint16_t port) {
  if (!platform::IsSecurityPackageLoaded()) {
    ServiceLog(0, u"SocketThread: LoadSecurityLibrary failed");
    return -1;
  }
  bool isSetUp = false;
  try {
    isSetUp = SetUp(port);
  } catch (const std::exception& error) {
    TellCaught(u"SocketThread", error);
  }
  if (!isSetUp) {
    // Bound already, it would take callers whom nobody answers.
    m_socket.Close();
    return -1;
  }
  while (true) {
    bool ready = false;
    if (const SocketError error = m_socket.WaitReadable(ready); error != 0) {
      ServiceLog(1, u"select failed %d\n", error);
      break;
    }
    if (!ready) {
      ServiceLog(1, u"Select returned no fds ready\n");
      break;
    }
    if (!TakeConnection()) {
      SetListening(false);
      return -1;
    }
  }
  // Deliberate: the listening socket isn't closed here, and nothing restarts the thread.
  SetListening(false);
  ServiceLog(3, u"Return from SocketThread");
  return 0;
}

int CListener::ChildSocketThread(SocketCell cell) {
  if (!cell) {
    ServiceLog(1, u"ChildSocketThread: NULL input SOCKET pointer");
    return -1;
  }
  CChildSession session(*cell, m_keys);
  try {
    const platform::ReservedMemory memory;
    session.Run();
  } catch (const std::exception& error) {
    TellCaught(u"ChildSocketThread", error);  // whatever a peer sent, the service goes on
  }
  session.Close();
  ChildHasEnded();
  return -1;
}

}  // namespace qx
