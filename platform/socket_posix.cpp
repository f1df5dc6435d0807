#include "platform/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "platform/fault_point.h"
#include "platform/mutex.h"

namespace platform {
namespace {

static_assert(sizeof(sockaddr_storage) <= 128, "SocketAddress holds every address of the host");

// A told fault stands for the host's number of the call's failure.
SocketError Fault(Operation operation, std::string_view detail = {}) {
  return static_cast<SocketError>(FaultAt(operation, detail));
}

// What a test tells a wait to fail with when its limit is to run out at once.
constexpr SocketError kLimitRanOut = static_cast<SocketError>(ERROR_TIMEOUT);

int NativeFamily(AddressFamily family) {
  switch (family) {
    case AddressFamily::kIpv4:
      return AF_INET;
    case AddressFamily::kIpv6:
      return AF_INET6;
    case AddressFamily::kUnspecified:
      return AF_UNSPEC;
    case AddressFamily::kOther:
      break;
  }
  return -1;
}

// poll() with a limit that signals don't lengthen.
SocketError Poll(std::span<pollfd> watched, std::int64_t limitMs, std::size_t& count) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limitMs);
  while (true) {
    std::int64_t left = -1;
    if (limitMs >= 0) {
      left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
      left = std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max());
    }
    const int result = poll(watched.data(), watched.size(), static_cast<int>(left));
    if (result >= 0) {
      count = static_cast<std::size_t>(result);
      return 0;
    }
    if (errno != EINTR) return errno;
  }
}

template <typename Call>
auto Retry(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

SocketError ErrorOf(int result) { return result == 0 ? 0 : errno; }

SocketError SetFlag(int descriptor, int level, int option, int value) {
  return ErrorOf(setsockopt(descriptor, level, option, &value, sizeof value));
}

SocketError MakeNonBlocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return flags < 0 ? errno : ErrorOf(fcntl(descriptor, F_SETFL, flags | O_NONBLOCK));
}

// A message is a header and a payload in two sends: the second must not wait for the other side's answer to the first.
void SendSmallPiecesAtOnce(int descriptor) { (void)SetFlag(descriptor, IPPROTO_TCP, TCP_NODELAY, 1); }

void CloseDescriptor(int& descriptor) {
  if (descriptor >= 0) close(descriptor);
  descriptor = -1;
}

}  // namespace

SocketFailure KindOf(SocketError error) {
  if (error == 0) return SocketFailure::kNone;
  return error == EAGAIN || error == EWOULDBLOCK ? SocketFailure::kWouldBlock : SocketFailure::kOther;
}

// --- addresses ---

AddressFamily SocketAddress::Family() const {
  sa_family_t family = AF_UNSPEC;
  std::memcpy(&family, m_storage + offsetof(sockaddr, sa_family), sizeof family);
  return family == AF_INET ? AddressFamily::kIpv4 : family == AF_INET6 ? AddressFamily::kIpv6 : AddressFamily::kOther;
}

std::span<const std::uint8_t> SocketAddress::Bytes() const {
  switch (Family()) {
    case AddressFamily::kIpv4:
      return {m_storage + offsetof(sockaddr_in, sin_addr), 4};
    case AddressFamily::kIpv6:
      return {m_storage + offsetof(sockaddr_in6, sin6_addr), 16};
    default:
      return {};
  }
}

bool SocketAddress::IsIpv6LinkLocal() const {
  return Family() == AddressFamily::kIpv6 && Bytes()[0] == 0xFE && (Bytes()[1] & 0xC0) == 0x80;
}

std::uint16_t SocketAddress::Port() const {
  std::uint16_t port = 0;  // at the same place in both families
  static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
  std::memcpy(&port, m_storage + offsetof(sockaddr_in, sin_port), sizeof port);
  return ntohs(port);
}

SocketError ResolveAddress(const std::string& node, const std::string& service, AddressFamily family, bool numeric,
                           std::vector<SocketAddress>& out) {
  if (const SocketError fault = Fault(Operation::kResolveAddress, node); fault != 0) return fault;
  addrinfo hints = {};
  hints.ai_family = NativeFamily(family);
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = numeric ? AI_NUMERICHOST : AI_ALL | AI_ADDRCONFIG | AI_V4MAPPED;
  addrinfo* list = nullptr;
  if (const int result = getaddrinfo(node.c_str(), service.c_str(), &hints, &list); result != 0) return result;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
  std::vector<SocketAddress> found;
  for (const addrinfo* at = list; at != nullptr; at = at->ai_next) {
    SocketAddress address;
    address.m_length = static_cast<std::uint32_t>(std::min<std::size_t>(at->ai_addrlen, sizeof address.m_storage));
    std::memcpy(address.m_storage, at->ai_addr, address.m_length);
    found.push_back(address);
  }
  out = std::move(found);
  return 0;
}

bool IsIpv4Text(const char* text) {
  in_addr address;
  return inet_pton(AF_INET, text, &address) == 1;
}

bool IsIpv6Text(const char* text) {
  in6_addr address;
  return inet_pton(AF_INET6, text, &address) == 1;
}

// --- connections ---

Socket::Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this == &other) return *this;
  Close();
  m_descriptor = std::exchange(other.m_descriptor, -1);
  return *this;
}

Socket::~Socket() { Close(); }

void Socket::Close() { CloseDescriptor(m_descriptor); }

SocketError Socket::Create(AddressFamily family, Socket& out) {
  if (const SocketError fault = Fault(Operation::kSocketCreate, family == AddressFamily::kIpv6 ? "IPv6" : "IPv4");
      fault != 0) {
    return fault;
  }
  const int descriptor = socket(NativeFamily(family), SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (descriptor < 0) return errno;
  Socket made;
  made.m_descriptor = descriptor;
  out = std::move(made);
  return 0;
}

SocketError Socket::Connect(const SocketAddress& address) {
  if (const SocketError fault = Fault(Operation::kSocketConnect); fault != 0) return fault;
  const auto* const target = reinterpret_cast<const sockaddr*>(address.m_storage);
  SendSmallPiecesAtOnce(m_descriptor);
  if (connect(m_descriptor, target, address.m_length) == 0) return 0;
  if (errno != EINTR) return errno;
  // An interrupted connect goes on by itself.
  pollfd watched = {m_descriptor, POLLOUT, 0};
  std::size_t count = 0;
  if (const SocketError error = Poll({&watched, 1}, kNoLimit, count); error != 0) return error;
  int result = 0;
  socklen_t length = sizeof result;
  return getsockopt(m_descriptor, SOL_SOCKET, SO_ERROR, &result, &length) == 0 ? result : errno;
}

SocketError Socket::SetNonBlocking() { return MakeNonBlocking(m_descriptor); }

SocketError Socket::WaitReadable(std::int64_t limitMs, bool& ready) {
  ready = false;
  if (const SocketError fault = Fault(Operation::kSocketSelect, "one"); fault != 0) {
    return fault == kLimitRanOut ? 0 : fault;
  }
  pollfd watched = {m_descriptor, POLLIN, 0};
  std::size_t count = 0;
  const SocketError error = Poll({&watched, 1}, limitMs, count);
  if (error == 0 && (watched.revents & POLLNVAL) != 0) return EBADF;
  ready = error == 0 && count != 0;
  return error;
}

SocketError Socket::ReceiveSome(std::span<std::uint8_t> buffer, std::size_t& count) {
  if (const SocketError fault = Fault(Operation::kSocketReceive); fault != 0) return fault;
  const ssize_t result = Retry([&] { return recv(m_descriptor, buffer.data(), buffer.size(), 0); });
  if (result < 0) return errno;
  count = static_cast<std::size_t>(result);
  return 0;
}

SocketError Socket::SendSome(std::span<const std::uint8_t> bytes, std::size_t& count) {
  if (const SocketError fault = Fault(Operation::kSocketSend); fault != 0) return fault;
  const ssize_t result = Retry([&] { return send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL); });
  if (result < 0) return errno;
  count = static_cast<std::size_t>(result);
  return 0;
}

SocketError Socket::WaitForClose(std::int64_t limitMs, LingerEnd& end) {
  end = LingerEnd::kTimeout;
  if (const SocketError fault = Fault(Operation::kSocketEvents); fault != 0) return fault == kLimitRanOut ? 0 : fault;
  pollfd watched = {m_descriptor, POLLIN | POLLRDHUP, 0};
  std::size_t count = 0;
  if (const SocketError error = Poll({&watched, 1}, limitMs, count); error != 0 || count == 0) return error;
  end = (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0 ? LingerEnd::kClosed : LingerEnd::kReadOnly;
  return 0;
}

SocketError WaitForAnyReadable(std::span<Socket* const> sockets, std::int64_t limitMs, std::vector<bool>& ready,
                               std::size_t& count) {
  count = 0;
  ready.assign(sockets.size(), false);
  if (const SocketError fault = Fault(Operation::kSocketSelectAny, std::to_string(limitMs)); fault != 0) {
    return fault == kLimitRanOut ? 0 : fault;
  }
  std::vector<pollfd> watched;
  for (const Socket* socket : sockets) watched.push_back({socket->m_descriptor, POLLIN, 0});
  if (const SocketError error = Poll(watched, limitMs, count); error != 0) return error;
  for (std::size_t i = 0; i < watched.size(); ++i) ready[i] = watched[i].revents != 0;
  return 0;
}

// --- listening ---

struct ListeningSocket::State {
  Mutex lock;
  int descriptor = -1;  // set by the listening thread alone, with the lock held; others read it with the lock held
  int closing = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  bool closed QX_GUARDED_BY(lock) = false;
};

ListeningSocket::ListeningSocket() : m_state(std::make_unique<State>()) {}

ListeningSocket::~ListeningSocket() {
  CloseDescriptor(m_state->descriptor);
  CloseDescriptor(m_state->closing);
}

SocketError ListeningSocket::Create(AddressFamily family) {
  if (const SocketError fault = Fault(Operation::kSocketCreate, "listener"); fault != 0) return fault;
  State& state = *m_state;
  const MutexLock hold(state.lock);
  if (state.closed) return EBADF;
  CloseDescriptor(state.descriptor);
  state.descriptor = socket(NativeFamily(family), SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  return state.descriptor < 0 ? errno : 0;
}

SocketError ListeningSocket::SetReuseAddress() {
  if (const SocketError fault = Fault(Operation::kSocketOption, "reuse"); fault != 0) return fault;
  return SetFlag(m_state->descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
}

SocketError ListeningSocket::TakeBothFamilies() {
  if (const SocketError fault = Fault(Operation::kSocketOption, "both families"); fault != 0) return fault;
  return SetFlag(m_state->descriptor, IPPROTO_IPV6, IPV6_V6ONLY, 0);
}

SocketError ListeningSocket::Bind(const SocketAddress& address) {
  if (const SocketError fault = Fault(Operation::kSocketBind); fault != 0) return fault;
  return ErrorOf(bind(m_state->descriptor, reinterpret_cast<const sockaddr*>(address.m_storage), address.m_length));
}

SocketError ListeningSocket::Listen(int backlog) {
  if (const SocketError fault = Fault(Operation::kSocketListen); fault != 0) return fault;
  return ErrorOf(listen(m_state->descriptor, backlog));
}

SocketError ListeningSocket::SetNonBlocking() {
  if (const SocketError fault = Fault(Operation::kSocketOption, "non-blocking"); fault != 0) return fault;
  return MakeNonBlocking(m_state->descriptor);
}

SocketError ListeningSocket::WaitReadable(bool& ready) {
  ready = false;
  if (const SocketError fault = Fault(Operation::kSocketSelect, "listener"); fault != 0) {
    return fault == kLimitRanOut ? 0 : fault;
  }
  pollfd watched[] = {{m_state->descriptor, POLLIN, 0}, {m_state->closing, POLLIN, 0}};
  std::size_t count = 0;
  if (const SocketError error = Poll(watched, kNoLimit, count); error != 0) return error;
  if (watched[1].revents != 0) return EBADF;
  ready = watched[0].revents != 0;
  return 0;
}

SocketError ListeningSocket::Accept(Socket& out) {
  if (const SocketError fault = Fault(Operation::kSocketAccept); fault != 0) return fault;
  Socket taken;
  taken.m_descriptor =
      Retry([&] { return accept4(m_state->descriptor, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); });
  if (taken.m_descriptor < 0) return errno;
  SendSmallPiecesAtOnce(taken.m_descriptor);
  out = std::move(taken);
  return 0;
}

std::uint16_t ListeningSocket::Port() const {
  SocketAddress bound;
  socklen_t length = sizeof bound.m_storage;
  State& state = *m_state;
  const MutexLock hold(state.lock);
  if (state.closed || getsockname(state.descriptor, reinterpret_cast<sockaddr*>(bound.m_storage), &length) != 0) {
    return 0;
  }
  return bound.Port();
}

void ListeningSocket::Close() {
  State& state = *m_state;
  const MutexLock hold(state.lock);
  state.closed = true;
  // First, as a shut queue wakes its waiter, too, which then has to see why.
  const std::uint64_t one = 1;
  (void)!write(state.closing, &one, sizeof one);
  // The listening thread may be about to use the number: the connection queue is shut, the number is kept to the end.
  if (state.descriptor >= 0) (void)shutdown(state.descriptor, SHUT_RDWR);
}

}  // namespace platform
