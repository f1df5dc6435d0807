// platform/socket.h: stream sockets over IPv4 and IPv6, the resolving of names, waiting for several at once.
//
// Failures are the host's own error numbers (errno of the call, or the resolver's), since log lines carry them.
// Sockets are closed in programs that the process starts.
// Threads: one Socket by one thread at a time; ListeningSocket::Close() from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// The host's number of a failed call; 0 for none.
using SocketError = int;

// The failures that callers tell apart.
enum class SocketFailure {
  kNone,
  kWouldBlock,  // nothing to be had or taken at the moment
  kOther,
};
[[nodiscard]] SocketFailure KindOf(SocketError error);

// Address families by their published numbers (winsock2.h).
enum class AddressFamily : int { kUnspecified = 0, kIpv4 = 2, kIpv6 = 23, kOther = -1 };

// What a wait in milliseconds takes for no limit.
inline constexpr std::int64_t kNoLimit = -1;

// A resolved address. A value.
class SocketAddress {
 public:
  [[nodiscard]] AddressFamily Family() const;
  // The address's bytes in network order: 4 for IPv4, 16 for IPv6.
  [[nodiscard]] std::span<const std::uint8_t> Bytes() const;
  // An IPv6 address whose first ten bits are 1111111010.
  [[nodiscard]] bool IsIpv6LinkLocal() const;
  [[nodiscard]] std::uint16_t Port() const;

 private:
  friend class Socket;
  friend class ListeningSocket;
  friend SocketError ResolveAddress(const std::string&, const std::string&, AddressFamily, bool,
                                    std::vector<SocketAddress>&);
  alignas(8) std::uint8_t m_storage[128] = {};
  std::uint32_t m_length = 0;
};

// The addresses of a name or textual address for stream sockets, in the resolver's order.
//   service  a port in decimal
//   family   kUnspecified for all
//   numeric  `node` is a textual address and is taken as it is; else it is a name, asked for with all addresses, only
//            of families that this host has an address of, IPv4 addresses mapped where IPv6 is asked for
//   out      untouched on failure
//   returns  0, or the resolver's number
[[nodiscard]] SocketError ResolveAddress(const std::string& node, const std::string& service, AddressFamily family,
                                         bool numeric, std::vector<SocketAddress>& out);

// Whether the text is an IPv4 address (four decimal numbers) or an IPv6 address without a scope.
[[nodiscard]] bool IsIpv4Text(const char* text);
[[nodiscard]] bool IsIpv6Text(const char* text);

// Sends and receives on a connection.
//
// An interface, so that a test can stand between a protocol and its wire.
class IConnection {
 public:
  virtual ~IConnection() = default;
  // Waits until there is something to receive, the end included.
  //   limitMs  kNoLimit for ever; a limit that ran out gives `ready` false
  //   returns  0 or the host's number
  [[nodiscard]] virtual SocketError WaitReadable(std::int64_t limitMs, bool& ready) = 0;
  // Takes what has arrived, at most the buffer.
  //   count    0: the other side has closed
  //   returns  0 or the host's number, one of kind kWouldBlock where nothing has arrived
  [[nodiscard]] virtual SocketError ReceiveSome(std::span<std::uint8_t> buffer, std::size_t& count) = 0;
  // Gives what the host takes at once, on a blocking socket all of it.
  [[nodiscard]] virtual SocketError SendSome(std::span<const std::uint8_t> bytes, std::size_t& count) = 0;
};

// A socket. Empty by default, move only, closed at its end.
class Socket final : public IConnection {
 public:
  Socket() = default;
  Socket(Socket&& other) noexcept;
  Socket& operator=(Socket&& other) noexcept;
  ~Socket() override;

  //   family   kIpv4 or kIpv6
  //   out      untouched on failure
  //   returns  0 or the host's number, here and below
  [[nodiscard]] static SocketError Create(AddressFamily family, Socket& out);
  // Blocks for as long as the host tries.
  [[nodiscard]] SocketError Connect(const SocketAddress& address);
  [[nodiscard]] SocketError SetNonBlocking();

  [[nodiscard]] SocketError WaitReadable(std::int64_t limitMs, bool& ready) override;
  [[nodiscard]] SocketError ReceiveSome(std::span<std::uint8_t> buffer, std::size_t& count) override;
  [[nodiscard]] SocketError SendSome(std::span<const std::uint8_t> bytes, std::size_t& count) override;

  // What came first of data and the end.
  enum class LingerEnd { kTimeout, kReadOnly, kClosed };
  // Waits until the other side has sent something or closed.
  [[nodiscard]] SocketError WaitForClose(std::int64_t limitMs, LingerEnd& end);

  void Close();
  explicit operator bool() const { return m_descriptor >= 0; }

 private:
  friend class ListeningSocket;
  friend SocketError WaitForAnyReadable(std::span<Socket* const>, std::int64_t, std::vector<bool>&, std::size_t&);
  int m_descriptor = -1;
};

// Waits until one of the sockets has something to receive.
//   ready    one flag a socket
//   count    how many of them are set; 0: the limit ran out
[[nodiscard]] SocketError WaitForAnyReadable(std::span<Socket* const> sockets, std::int64_t limitMs,
                                             std::vector<bool>& ready, std::size_t& count);

// A listening socket that another thread can close.
class ListeningSocket {
 public:
  ListeningSocket();
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;
  ~ListeningSocket();

  // Makes the socket; refused after Close().
  [[nodiscard]] SocketError Create(AddressFamily family);
  [[nodiscard]] SocketError SetReuseAddress();
  // One IPv6 socket takes both families.
  [[nodiscard]] SocketError TakeBothFamilies();
  [[nodiscard]] SocketError Bind(const SocketAddress& address);
  [[nodiscard]] SocketError Listen(int backlog);
  [[nodiscard]] SocketError SetNonBlocking();
  // Waits without a limit for a connection.
  //   returns  0; the number of a descriptor that isn't open once another thread has closed it
  [[nodiscard]] SocketError WaitReadable(bool& ready);
  // Takes a connection. Its socket is made non-blocking: on this host it doesn't inherit that.
  //   out      untouched on failure
  [[nodiscard]] SocketError Accept(Socket& out);
  // The port that it is bound to, 0 for none.
  [[nodiscard]] std::uint16_t Port() const;

  // Closes it for good and wakes a waiter. Any thread, any number of times.
  void Close();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform
