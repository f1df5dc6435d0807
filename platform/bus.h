// platform/bus.h: the message bus: connections, served interfaces, calls, signals, typed reading and writing.
//
// A connection, its readers and its writers belong to one thread, the apartment's where it is served. Strings on the
// bus are UTF-8 without NUL; views that a reader gives live as long as the reader's message. No exception leaves a
// handler: one guard catches it and answers the caller with kBusErrorFailed.
// Type texts are those of the D-Bus specification ("Type System"): y b n q i u x t d s o g, aT, (TT), {sT}, v.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/apartment.h"
#include "platform/bus_address.h"
#include "platform/error_codes.h"

namespace platform {

// What stands next in a message. The values are the type letters of the protocol; kStruct and kDictEntry are the
// library's 'r' and 'e'.
enum class BusKind : char {
  kEnd = 0,
  kByte = 'y',
  kBool = 'b',
  kInt16 = 'n',
  kUint16 = 'q',
  kInt32 = 'i',
  kUint32 = 'u',
  kInt64 = 'x',
  kUint64 = 't',
  kDouble = 'd',
  kString = 's',
  kObjectPath = 'o',
  kSignature = 'g',
  kArray = 'a',
  kStruct = 'r',
  kDictEntry = 'e',
  kVariant = 'v',
};

// Any value as a tree, for values whose type is only known at run time. Long arrays are better streamed.
struct BusValue {
  // One complete type text; says what `data` holds: b a bool; signed integers int64; unsigned ones uint64; d a double;
  // s, o and g a string; arrays their elements, structs and dictionary entries their fields, v its one value.
  std::string type;
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, std::vector<BusValue>> data;

  [[nodiscard]] static BusValue Bool(bool value) { return {"b", value}; }
  [[nodiscard]] static BusValue Int16(std::int16_t value) { return {"n", std::int64_t{value}}; }
  [[nodiscard]] static BusValue Uint16(std::uint16_t value) { return {"q", std::uint64_t{value}}; }
  [[nodiscard]] static BusValue Int32(std::int32_t value) { return {"i", std::int64_t{value}}; }
  [[nodiscard]] static BusValue Uint32(std::uint32_t value) { return {"u", std::uint64_t{value}}; }
  [[nodiscard]] static BusValue Int64(std::int64_t value) { return {"x", value}; }
  [[nodiscard]] static BusValue String(std::string value) { return {"s", std::move(value)}; }
  [[nodiscard]] static BusValue Variant(BusValue value);
  // elementType is one complete type; every element must be of it.
  [[nodiscard]] static BusValue Array(std::string_view elementType, std::vector<BusValue> elements);
  // a{sv}; the values are wrapped into variants here.
  [[nodiscard]] static BusValue Dict(std::vector<std::pair<std::string, BusValue>> entries);
  [[nodiscard]] static BusValue Struct(std::vector<BusValue> fields);

  friend bool operator==(const BusValue&, const BusValue&) = default;
};

// A message that came in: a call, a reply or a signal, with a cursor over its values. Move only; empty by default.
//
// Reading: each Read and Enter looks at the next value of the innermost entered container and moves behind it. One that
// meets another type returns ERROR_INVALID_DATA (13), or ERROR_NO_MORE_ITEMS (259) at the end, and moves nothing, so the
// caller can name what it was reading. On an empty reader everything is at its end.
//   for (rc = reader.EnterArray("{sv}"); rc == 0 && !reader.AtEnd();) { EnterDictEntry("sv") ... Exit(); }  Exit();
class MessageReader {
 public:
  MessageReader() = default;
  MessageReader(MessageReader&& other) noexcept;
  MessageReader& operator=(MessageReader&& other) noexcept;
  ~MessageReader();

  // The unique name of the sender; empty on a connection without a bus.
  [[nodiscard]] std::string_view Sender() const;
  [[nodiscard]] std::string_view Path() const;
  [[nodiscard]] std::string_view Interface() const;
  [[nodiscard]] std::string_view Member() const;
  // The type text of the whole body.
  [[nodiscard]] std::string_view Signature() const;
  // The effective user of the sender, as the bus daemon knows it (one call to it), or of the peer without a bus.
  [[nodiscard]] ErrorCode SenderUser(std::uint32_t& userId) const;

  struct Next {
    BusKind kind = BusKind::kEnd;
    std::string_view contents;  // of an array its element type, of struct, entry and variant the types inside
  };
  [[nodiscard]] Next PeekType() const;
  // Whether nothing is left in the innermost container.
  [[nodiscard]] bool AtEnd() const;

  [[nodiscard]] ErrorCode EnterArray(std::string_view elementType);
  [[nodiscard]] ErrorCode EnterStruct(std::string_view contents);
  [[nodiscard]] ErrorCode EnterDictEntry(std::string_view contents);
  [[nodiscard]] ErrorCode EnterVariant(std::string_view contents);
  // Leaves the innermost container; what was left of it is skipped.
  //   returns  0; ERROR_INVALID_FUNCTION (1) when no container was entered
  [[nodiscard]] ErrorCode Exit();

  [[nodiscard]] ErrorCode ReadBool(bool& value);
  [[nodiscard]] ErrorCode ReadInt16(std::int16_t& value);
  [[nodiscard]] ErrorCode ReadUint16(std::uint16_t& value);
  [[nodiscard]] ErrorCode ReadInt32(std::int32_t& value);
  [[nodiscard]] ErrorCode ReadUint32(std::uint32_t& value);
  [[nodiscard]] ErrorCode ReadInt64(std::int64_t& value);
  [[nodiscard]] ErrorCode ReadUint64(std::uint64_t& value);
  // A string or an object path; the view lives as long as this message.
  [[nodiscard]] ErrorCode ReadString(std::string_view& value);
  // Any one complete value.
  [[nodiscard]] ErrorCode ReadValue(BusValue& value);
  // Moves behind one complete value.
  [[nodiscard]] ErrorCode Skip();
  // Back to the first value, out of all containers.
  void Rewind();

 private:
  friend struct BusInternals;
  [[nodiscard]] ErrorCode Outcome(int result) const;
  [[nodiscard]] ErrorCode Enter(char type, std::string_view contents);
  template <typename T>
  [[nodiscard]] ErrorCode ReadNumber(char type, T& value);
  [[nodiscard]] ErrorCode ReadContainer(std::string type, Next next, BusValue& value);
  void* m_message = nullptr;  // one reference of the library's message
  int m_depth = 0;            // entered containers
};

// A message being built. Move only; empty by default, then every Append fails. The first failure sticks, later calls do
// nothing, and the message can't be sent: look at Result() at the end.
class MessageWriter {
 public:
  MessageWriter() = default;
  MessageWriter(MessageWriter&& other) noexcept;
  MessageWriter& operator=(MessageWriter&& other) noexcept;
  ~MessageWriter();

  void AppendBool(bool value);
  void AppendInt16(std::int16_t value);
  void AppendUint16(std::uint16_t value);
  void AppendInt32(std::int32_t value);
  void AppendUint32(std::uint32_t value);
  void AppendInt64(std::int64_t value);
  void AppendUint64(std::uint64_t value);
  // UTF-8 without NUL; anything else fails with ERROR_NO_UNICODE_TRANSLATION (1113).
  void AppendString(std::string_view value);
  // The same for a text with a NUL right behind it, which saves a copy.
  void AppendTerminated(std::string_view value);
  void AppendValue(const BusValue& value);

  void OpenArray(std::string_view elementType);
  void OpenStruct(std::string_view contents);
  void OpenDictEntry(std::string_view contents);
  void OpenVariant(std::string_view contents);
  void Close();  // the innermost open container

  // One entry of an open a{sv}.
  void AppendEntry(std::string_view key, const BusValue& value);

  // Bytes of the body so far as they will travel, padding included, the message header (a few hundred bytes) not.
  [[nodiscard]] std::size_t BytesSoFar() const { return m_bytes; }
  // 0, or the first failure.
  [[nodiscard]] ErrorCode Result() const { return m_result; }

 private:
  friend struct BusInternals;
  bool Begin();
  void Note(int result);
  void Count(std::size_t align, std::size_t size);
  template <typename T>
  void AppendNumber(char type, T value);
  template <typename Held>
  bool AppendHeldNumber(char letter, Held held);
  void AppendText(char type, std::string_view value);
  void AppendTerminated(char type, std::string_view value);
  bool AppendContainer(std::string_view type, const std::vector<BusValue>& inside);
  void Open(char type, std::string_view contents);
  void* m_message = nullptr;
  ErrorCode m_result = ERROR_SUCCESS;
  std::size_t m_bytes = 0;
  std::string m_scratch;
};

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
// A property that can be read only; the getter appends exactly one value of `type`.
struct BusProperty {
  std::string name;
  std::string type;
  std::function<void(MessageWriter&)> get;
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

// A lasting presence on a bus: connects, sets itself up, and after a loss connects again with growing pauses, on the
// apartment's thread. What isn't connected sends nothing; the caller goes on.
class BusPresence {
 public:
  struct Options {
    BusAddress address;
    // Called on each fresh connection, to export and to request names. A failure closes the connection again and counts
    // as a failed attempt.
    std::function<ErrorCode(BusConnection& connection)> setUp;
    // Called when the connection is lost or the first attempt failed, with the code; not for further failed attempts.
    std::function<void(ErrorCode code)> lost;
    // Called when it is there again after `lost`.
    std::function<void()> restored;
    std::uint32_t firstPauseMs = 1000;    // doubled after each failure,
    std::uint32_t longestPauseMs = 60000; // up to this one
  };

  // The apartment must outlive the presence. Made, used and destroyed on the apartment's thread.
  explicit BusPresence(Apartment& apartment);
  BusPresence(const BusPresence&) = delete;
  BusPresence& operator=(const BusPresence&) = delete;
  ~BusPresence();  // closes

  // Makes the first attempt; goes on trying in the background when it fails.
  //   returns  the code of the first attempt
  [[nodiscard]] ErrorCode Start(Options options);
  void Stop();
  // The connection, null while there is none. Don't keep it beyond the present task.
  [[nodiscard]] BusConnection* Connection();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform
