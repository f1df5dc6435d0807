#include "platform/bus.h"

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <list>

#include "platform/bus_export.h"
#include "platform/bus_hello.h"
#include "platform/bus_inside.h"
#include "platform/fault_point.h"

namespace platform {

ErrorCode detail::BusCode(int result) {
  struct Row {
    int error;
    ErrorCode code;
  };
  static constexpr Row kRows[] = {
      {ECONNREFUSED, ERROR_CONNECTION_REFUSED},
      {ECONNRESET, ERROR_CONNECTION_ABORTED},
      {ECONNABORTED, ERROR_CONNECTION_ABORTED},
      {EPIPE, ERROR_CONNECTION_ABORTED},
      {ENOTCONN, ERROR_NOT_CONNECTED},
      {ESHUTDOWN, ERROR_NOT_CONNECTED},
      {ETIMEDOUT, ERROR_TIMEOUT},
      {ETIME, ERROR_TIMEOUT},
      {ENXIO, ERROR_INVALID_DATA},
      {EBADMSG, ERROR_INVALID_DATA},
      {ENOMEDIUM, ERROR_FILE_NOT_FOUND},  // no bus is configured for this user
  };
  if (result >= 0) return ERROR_SUCCESS;
  for (const Row& row : kRows) {
    if (row.error == -result) return row.code;
  }
  return ErrorCodeFromErrno(-result);
}

namespace {

using detail::BusCode;
using detail::ExportedInterface;
using detail::OrEmpty;
using detail::Slot;

// An error of the library, freed on the way out.
class LibraryError {
 public:
  LibraryError() = default;
  LibraryError(const LibraryError&) = delete;
  LibraryError& operator=(const LibraryError&) = delete;
  ~LibraryError() { sd_bus_error_free(&m_error); }
  sd_bus_error* Get() { return &m_error; }
  bool Has(const char* name) const { return sd_bus_error_has_name(&m_error, name) > 0; }

 private:
  sd_bus_error m_error = SD_BUS_ERROR_NULL;
};

BusError FromLibrary(const sd_bus_error* error) {
  BusError out;
  if (error == nullptr || error->name == nullptr) return out;
  out.name = error->name;
  if (error->message != nullptr) out.text = error->message;
  return out;
}

// An error of this end, for a call that got no answer.
BusError LocalError(ErrorCode code, std::string text) {
  const bool lost = code == ERROR_NOT_CONNECTED || code == ERROR_CONNECTION_ABORTED;
  const std::string_view name = lost                    ? kBusErrorDisconnected
                                : code == ERROR_TIMEOUT ? kBusErrorNoReply
                                                        : kBusErrorFailed;
  return {std::string(name), std::move(text)};
}

std::uint64_t LimitInMicroseconds(std::uint64_t limitMs) {
  if (limitMs >= kNoCallLimit / 1000) return UINT64_MAX;
  return std::max<std::uint64_t>(limitMs * 1000, 1);  // 0 would be the library's own limit
}

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

// Waits until the daemon has admitted the connection.
ErrorCode WaitForHello(sd_bus* bus) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(detail::g_busHelloLimitMs.load());
  while (sd_bus_is_ready(bus) == 0) {
    int result = sd_bus_process(bus, nullptr);
    if (result == 0) {
      const auto left = std::chrono::ceil<std::chrono::microseconds>(end - Clock::now()).count();
      if (left <= 0) return ERROR_TIMEOUT;
      result = sd_bus_wait(bus, static_cast<std::uint64_t>(left));
    }
    if (result < 0 && result != -EINTR) return BusCode(result);
  }
  return ERROR_SUCCESS;
}

struct Subscription {
  BusConnection::SignalHandler handler;
  Slot slot;
};

struct PendingCall {
  std::list<PendingCall>* home = nullptr;
  std::list<PendingCall>::iterator place;
  BusConnection::ReplyHandler handler;
  Slot slot;
};

int OnSignal(sd_bus_message* signal, void* userData, sd_bus_error*) noexcept {
  MessageReader reader = BusInternals::Reader(signal);
  (void)sd_bus_message_rewind(signal, 1);  // another handler may have read it
  (void)RunGuarded("signal", [&] { static_cast<Subscription*>(userData)->handler(reader); });
  return 0;  // others may want it too
}

int OnReply(sd_bus_message* reply, void* userData, sd_bus_error*) noexcept {
  auto* const pending = static_cast<PendingCall*>(userData);
  std::list<PendingCall> own;  // out of the connection's list first: the handler may close the connection
  own.splice(own.begin(), *pending->home, pending->place);
  const BusError error = FromLibrary(sd_bus_message_get_error(reply));
  MessageReader reader = error.IsSet() ? MessageReader() : BusInternals::Reader(reply);
  (void)RunGuarded("reply", [&] { pending->handler(reader, error); });
  return 1;
}

}  // namespace

struct BusConnection::State {
  sd_bus* bus = nullptr;
  std::list<ExportedInterface> exported;
  std::list<Subscription> subscriptions;
  std::list<PendingCall> pending;
  bool working = false;       // inside Process()
  bool closeWanted = false;   // Close() was called there

  // Tells everybody who waits for a reply that none will come.
  void AnswerPending() {
    std::list<PendingCall> left;
    left.swap(pending);
    const BusError error = LocalError(ERROR_NOT_CONNECTED, "the connection to the bus is gone");
    for (PendingCall& call : left) {
      MessageReader none;
      (void)RunGuarded("reply", [&] { call.handler(none, error); });
    }
  }

  explicit State(sd_bus* connection) : bus(connection) {}
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() {
    // Flushing waits for the other end, so only where something stands in the queue of a working connection.
    const bool unsent = sd_bus_is_ready(bus) > 0 && (sd_bus_get_events(bus) & POLLOUT) != 0;
    if (unsent) (void)sd_bus_flush(bus);
    sd_bus_close(bus);
    pending.clear();
    subscriptions.clear();
    exported.clear();
    sd_bus_unref(bus);
  }
};

BusConnection::BusConnection() = default;
BusConnection::BusConnection(BusConnection&&) noexcept = default;
BusConnection& BusConnection::operator=(BusConnection&&) noexcept = default;
BusConnection::~BusConnection() = default;

ErrorCode BusConnection::Open(const BusAddress& address) {
  if (const ErrorCode rc = FaultAt(Operation::kBusConnect); rc != ERROR_SUCCESS) return rc;
  sd_bus* bus = nullptr;
  int result = 0;
  switch (address.kind) {
    case BusAddress::Kind::kSession:
      result = sd_bus_open_user(&bus);
      break;
    case BusAddress::Kind::kSystem:
      result = sd_bus_open_system(&bus);
      break;
    case BusAddress::Kind::kExplicit:
      result = sd_bus_new(&bus);
      if (result >= 0) result = sd_bus_set_address(bus, address.address.c_str());
      if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
      if (result >= 0) result = sd_bus_start(bus);
      break;
  }
  if (result < 0) {
    sd_bus_unref(bus);
    return BusCode(result);
  }
  auto state = std::make_unique<State>(bus);
  // Starting succeeds before the daemon has answered.
  if (const ErrorCode rc = WaitForHello(bus); rc != ERROR_SUCCESS) return rc;
  const char* name = nullptr;
  if (result = sd_bus_get_unique_name(bus, &name); result < 0) return BusCode(result);
  m_state = std::move(state);
  return ERROR_SUCCESS;
}

ErrorCode BusConnection::OpenPair(BusConnection& server, BusConnection& client) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) return ErrorCodeFromErrno(errno);
  const auto make = [](int fd, bool serves, BusConnection& out) {
    sd_bus* bus = nullptr;
    int result = sd_bus_new(&bus);
    if (result >= 0) result = sd_bus_set_fd(bus, fd, fd);
    if (result < 0) {
      close(fd);
      sd_bus_unref(bus);
      return BusCode(result);
    }
    sd_id128_t id = SD_ID128_NULL;
    if (serves) {
      result = sd_id128_randomize(&id);
      if (result >= 0) result = sd_bus_set_server(bus, 1, id);
    }
    if (result >= 0) result = sd_bus_start(bus);
    auto state = std::make_unique<State>(bus);
    if (result >= 0) out.m_state = std::move(state);
    return BusCode(result);
  };
  const ErrorCode first = make(ends[0], true, server);
  const ErrorCode second = make(ends[1], false, client);
  return first != ERROR_SUCCESS ? first : second;
}

void BusConnection::Close() {
  if (!m_state) return;
  if (m_state->working) {
    m_state->closeWanted = true;
  } else {
    m_state.reset();
  }
}

bool BusConnection::IsOpen() const { return m_state && !m_state->closeWanted && sd_bus_is_open(m_state->bus) > 0; }

std::string BusConnection::UniqueName() const {
  const char* name = nullptr;
  if (!IsOpen() || sd_bus_is_bus_client(m_state->bus) <= 0) return {};
  return sd_bus_get_unique_name(m_state->bus, &name) >= 0 ? std::string(OrEmpty(name)) : std::string();
}

ErrorCode BusConnection::Export(std::string_view path, BusInterface served) {
  if (!IsOpen()) return ERROR_NOT_CONNECTED;
  std::list<ExportedInterface> fresh;
  fresh.emplace_back(std::move(served));
  const ErrorCode rc = fresh.front().Add(m_state->bus, std::string(path));
  if (rc == ERROR_SUCCESS) m_state->exported.splice(m_state->exported.end(), fresh);
  return rc;
}

ErrorCode BusConnection::RequestName(std::string_view name) {
  if (const ErrorCode rc = FaultAt(Operation::kBusRequestName); rc != ERROR_SUCCESS) return rc;
  if (!IsOpen()) return ERROR_NOT_CONNECTED;
  const int result = sd_bus_request_name(m_state->bus, std::string(name).c_str(), 0);
  return result == -EALREADY ? ERROR_SUCCESS : BusCode(result);  // already ours
}

void BusConnection::ReleaseName(std::string_view name) {
  if (IsOpen()) (void)sd_bus_release_name(m_state->bus, std::string(name).c_str());
}

ErrorCode BusConnection::WatchDepartures(std::function<void(std::string_view)> left) {
  return Subscribe("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                   [left = std::move(left)](MessageReader& signal) {
                     std::string_view name, oldOwner, newOwner;
                     if (signal.ReadString(name) != ERROR_SUCCESS || signal.ReadString(oldOwner) != ERROR_SUCCESS ||
                         signal.ReadString(newOwner) != ERROR_SUCCESS) {
                       return;
                     }
                     if (name.starts_with(':') && newOwner.empty()) left(name);
                   });
}

ErrorCode BusConnection::NewCall(std::string_view destination, std::string_view path, std::string_view interfaceName,
                                 std::string_view member, MessageWriter& call) {
  if (!IsOpen()) return ERROR_NOT_CONNECTED;
  sd_bus_message* message = nullptr;
  const std::string to(destination);
  const int result =
      sd_bus_message_new_method_call(m_state->bus, &message, OrNull(to), std::string(path).c_str(),
                                     OrNull(std::string(interfaceName)), std::string(member).c_str());
  if (result < 0) return BusCode(result);
  call = BusInternals::Writer(message);
  return ERROR_SUCCESS;
}

ErrorCode BusConnection::NewSignal(std::string_view path, std::string_view interfaceName, std::string_view member,
                                   MessageWriter& signal) {
  if (!IsOpen()) return ERROR_NOT_CONNECTED;
  sd_bus_message* message = nullptr;
  const int result = sd_bus_message_new_signal(m_state->bus, &message, std::string(path).c_str(),
                                               std::string(interfaceName).c_str(), std::string(member).c_str());
  if (result < 0) return BusCode(result);
  signal = BusInternals::Writer(message);
  return ERROR_SUCCESS;
}

ErrorCode BusConnection::CheckSend(const MessageWriter& writer) const {
  if (const ErrorCode rc = FaultAt(Operation::kBusSend); rc != ERROR_SUCCESS) return rc;
  if (writer.Result() != ERROR_SUCCESS) return writer.Result();
  if (BusInternals::Of(writer) == nullptr) return ERROR_INVALID_HANDLE;
  return IsOpen() ? ERROR_SUCCESS : ERROR_NOT_CONNECTED;
}

ErrorCode BusConnection::Send(MessageWriter signal) {
  if (const ErrorCode rc = CheckSend(signal); rc != ERROR_SUCCESS) return rc;
  return BusCode(sd_bus_send(m_state->bus, BusInternals::Of(signal), nullptr));
}

ErrorCode BusConnection::Call(MessageWriter call, MessageReader& reply, BusError& error, std::uint64_t limitMs) {
  if (const ErrorCode rc = CheckSend(call); rc != ERROR_SUCCESS) {
    error = LocalError(rc, "the call could not be sent");
    return rc;
  }
  LibraryError failure;
  sd_bus_message* answer = nullptr;
  const int result =
      sd_bus_call(m_state->bus, BusInternals::Of(call), LimitInMicroseconds(limitMs), failure.Get(), &answer);
  if (result >= 0) {
    reply = BusInternals::Reader(answer);
    sd_bus_message_unref(answer);
    error = {};
    return ERROR_SUCCESS;
  }
  const ErrorCode code = BusCode(result);
  if (!IsOpen()) {
    error = LocalError(ERROR_NOT_CONNECTED, "the connection to the bus is gone");
    return code == ERROR_CONNECTION_ABORTED ? code : ERROR_NOT_CONNECTED;
  }
  if (code == ERROR_TIMEOUT && failure.Has(SD_BUS_ERROR_TIMEOUT)) {
    error = LocalError(code, "no answer within the time limit");
    return code;
  }
  error = FromLibrary(failure.Get());
  if (!error.IsSet()) error = LocalError(code, "the call failed");
  return ERROR_REQUEST_REFUSED;
}

ErrorCode BusConnection::CallAsync(MessageWriter call, ReplyHandler handler, std::uint64_t limitMs) {
  if (const ErrorCode rc = CheckSend(call); rc != ERROR_SUCCESS) return rc;
  std::list<PendingCall> fresh(1);
  PendingCall& pending = fresh.front();
  pending.home = &m_state->pending;
  pending.place = fresh.begin();
  pending.handler = std::move(handler);
  const int result = sd_bus_call_async(m_state->bus, pending.slot.Out(), BusInternals::Of(call), OnReply, &pending,
                                       LimitInMicroseconds(limitMs));
  if (result >= 0) m_state->pending.splice(m_state->pending.end(), fresh);
  return BusCode(result);
}

ErrorCode BusConnection::Subscribe(std::string_view sender, std::string_view path, std::string_view interfaceName,
                                   std::string_view member, SignalHandler handler) {
  if (!IsOpen()) return ERROR_NOT_CONNECTED;
  std::list<Subscription> fresh(1);
  fresh.front().handler = std::move(handler);
  const std::string from(sender), at(path), of(interfaceName), named(member);
  const int result = sd_bus_match_signal(m_state->bus, fresh.front().slot.Out(), OrNull(from), OrNull(at), OrNull(of),
                                         OrNull(named), OnSignal, &fresh.front());
  if (result >= 0) m_state->subscriptions.splice(m_state->subscriptions.end(), fresh);
  return BusCode(result);
}

bool BusConnection::Process() {
  if (!m_state || m_state->working) return false;
  m_state->working = true;
  int result = sd_bus_process(m_state->bus, nullptr);
  // A lost connection answers its pending calls one by one; nobody would come back here for them.
  while (result > 0 && sd_bus_is_open(m_state->bus) <= 0) result = sd_bus_process(m_state->bus, nullptr);
  // Whatever ends the processing ends the connection: the library never mends one.
  if (result < 0) {
    sd_bus_close(m_state->bus);
    m_state->AnswerPending();
  }
  m_state->working = false;
  if (m_state->closeWanted) m_state.reset();
  return result > 0 && m_state;
}

int BusConnection::PollDescriptor() const { return IsOpen() ? sd_bus_get_fd(m_state->bus) : -1; }

short BusConnection::PollEvents() const {
  const int events = IsOpen() ? sd_bus_get_events(m_state->bus) : 0;
  return static_cast<short>(std::max(events, 0));
}

std::optional<std::uint32_t> BusConnection::PollLimit() const {
  std::uint64_t due = UINT64_MAX;
  if (!IsOpen() || sd_bus_get_timeout(m_state->bus, &due) < 0 || due == UINT64_MAX) return std::nullopt;
  // The library counts on CLOCK_MONOTONIC, which is what the steady clock reads.
  const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
  const auto present =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(sinceBoot).count());
  if (due <= present) return 0;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>((due - present + 999) / 1000, Apartment::kForever - 1));
}

bool BusConnection::WaitForWork(std::uint32_t limitMs) {
  if (!IsOpen()) return false;
  if (const auto limit = PollLimit()) limitMs = std::min(limitMs, *limit);
  pollfd descriptor = {PollDescriptor(), PollEvents(), 0};
  const int timeout =
      limitMs == Apartment::kForever ? -1 : static_cast<int>(std::min<std::uint32_t>(limitMs, INT32_MAX));
  if (poll(&descriptor, 1, timeout) > 0) return true;
  const auto limit = PollLimit();
  return limit && *limit == 0;
}

}  // namespace platform
