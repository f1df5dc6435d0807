// platform/bus.h: the message bus: connections, served interfaces, calls and signals.
//
// A connection, its readers and its writers belong to one thread, the apartment's where it is served. No exception
// leaves a handler: one guard catches it and answers the caller with kBusErrorFailed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/apartment.h"
#include "platform/bus_address.h"
#include "platform/bus_message.h"
#include "platform/bus_value.h"
#include "platform/error_codes.h"

namespace platform {

// Handles one call: reads its arguments, writes the reply's. A returned error, or a writer that failed, is answered
// instead of the reply. Arguments of another type than declared never get here.
using BusMethodHandler = std::function<BusError(MessageReader& call, MessageWriter& reply)>;

struct BusArgument {
  std::string type;  // one complete type
  std::string name;
};
struct BusMethod {
  std::string name;
  std::vector<BusArgument> in;
  std::vector<BusArgument> out;
  BusMethodHandler handler;
};
struct BusSignal {
  std::string name;
  std::vector<BusArgument> arguments;
};
// A property that can be read only; the getter appends exactly one value of `type` for the unique name that reads it,
// which is empty on a connection without a bus.
struct BusProperty {
  std::string name;
  std::string type;
  std::function<void(std::string_view reader, MessageWriter&)> get;
};
// An interface as it is served and told in introspection, in this order.
struct BusInterface {
  std::string name;
  std::vector<BusMethod> methods;
  std::vector<BusSignal> signals;
  std::vector<BusProperty> properties;
};

// The limit of a call that may take as long as it likes.
inline constexpr std::uint64_t kNoCallLimit = UINT64_MAX;

// One connection. Move only; closed by default and after Close(). A connection that was lost stays lost.
class BusConnection : public PollSource {
 public:
  using SignalHandler = std::function<void(MessageReader& signal)>;
  // error.IsSet() tells a refused call; the reply is empty then.
  using ReplyHandler = std::function<void(MessageReader& reply, const BusError& error)>;

  BusConnection();
  BusConnection(BusConnection&&) noexcept;
  BusConnection& operator=(BusConnection&&) noexcept;
  ~BusConnection() override;

  // Connects and says hello to the daemon. Asks Operation::kBusConnect.
  //   returns  0; ERROR_FILE_NOT_FOUND (2), ERROR_CONNECTION_REFUSED (1225) and others: nobody there;
  //            ERROR_ACCESS_DENIED (5): not let in; ERROR_INVALID_PARAMETER (87): no address
  [[nodiscard]] ErrorCode Open(const BusAddress& address);
  // Two connected ends without a daemon: for tests, and within one thread only by asynchronous calls.
  [[nodiscard]] static ErrorCode OpenPair(BusConnection& server, BusConnection& client);
  // Drops the connection, what was exported on it and all subscriptions. Unsent messages are sent as far as possible.
  void Close();
  // False when never opened, closed or lost.
  [[nodiscard]] bool IsOpen() const;
  // The own unique name on the bus, empty without one.
  [[nodiscard]] std::string UniqueName() const;

  // --- serving ---

  // Serves an interface of an object, for the connection's life.
  //   returns  0; ERROR_ALREADY_EXISTS (183): served already; ERROR_INVALID_PARAMETER (87): a bad name or type text
  [[nodiscard]] ErrorCode Export(std::string_view path, BusInterface interface);
  // Asks for a well-known name, without queueing and without taking it from its owner. Asks
  // Operation::kBusRequestName.
  //   returns  0; ERROR_ALREADY_EXISTS (183): somebody else has it; ERROR_ACCESS_DENIED (5): policy
  [[nodiscard]] ErrorCode RequestName(std::string_view name);
  // Gives a name back; failures don't matter.
  void ReleaseName(std::string_view name);
  // Calls back with the unique name of each client that leaves the bus.
  [[nodiscard]] ErrorCode WatchDepartures(std::function<void(std::string_view uniqueName)> left);

  // --- messages ---

  // Starts a call or a signal. destination is empty on a connection without a bus.
  [[nodiscard]] ErrorCode NewCall(std::string_view destination, std::string_view path, std::string_view interface,
                                  std::string_view member, MessageWriter& call);
  [[nodiscard]] ErrorCode NewSignal(std::string_view path, std::string_view interface, std::string_view member,
                                    MessageWriter& signal);
  // Queues a built signal for everybody who listens; never waits for anybody. Asks Operation::kBusSend.
  //   returns  0; the writer's failure; ERROR_NOT_CONNECTED (2250)
  [[nodiscard]] ErrorCode Send(MessageWriter signal);
  // Calls and waits for the reply. Asks Operation::kBusSend. Not for a connection that serves its own callee.
  //   limitMs  milliseconds, kNoCallLimit for none
  //   returns  0 with `reply`; ERROR_REQUEST_REFUSED (4320): answered by an error; ERROR_TIMEOUT (1460);
  //            ERROR_NOT_CONNECTED (2250), ERROR_CONNECTION_ABORTED (1236): lost; the writer's failure.
  //            On any failure `error` is set, with a name of this file where no peer named one.
  [[nodiscard]] ErrorCode Call(MessageWriter call, MessageReader& reply, BusError& error,
                               std::uint64_t limitMs = kNoCallLimit);
  // Calls and returns; the handler runs in Process(), once.
  [[nodiscard]] ErrorCode CallAsync(MessageWriter call, ReplyHandler handler, std::uint64_t limitMs = kNoCallLimit);
  // Calls back for each signal that matches; empty texts match everything. Runs in Process().
  //   sender   a well-known or unique name
  [[nodiscard]] ErrorCode Subscribe(std::string_view sender, std::string_view path, std::string_view interface,
                                    std::string_view member, SignalHandler handler);

  // --- the loop ---

  // Works on one message; true when there may be more. A lost connection shows in IsOpen() afterwards.
  bool Process() override;
  int PollDescriptor() const override;
  short PollEvents() const override;
  std::optional<std::uint32_t> PollLimit() const override;
  // Waits until there is something to Process(), at most `limitMs` milliseconds; true when there is.
  bool WaitForWork(std::uint32_t limitMs);

 private:
  friend struct BusInternals;
  struct State;
  [[nodiscard]] ErrorCode CheckSend(const MessageWriter& writer) const;
  std::unique_ptr<State> m_state;
};

}  // namespace platform
