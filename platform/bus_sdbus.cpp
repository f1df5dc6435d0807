#include "platform/bus.h"

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>

#include "platform/fault_point.h"

namespace platform {
namespace {

sd_bus_message* Message(void* message) { return static_cast<sd_bus_message*>(message); }

// The code for a result of the library, a negative errno value.
ErrorCode BusCode(int result) {
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
  const std::string_view name = lost ? kBusErrorDisconnected : code == ERROR_TIMEOUT ? kBusErrorNoReply : kBusErrorFailed;
  return {std::string(name), std::move(text)};
}

std::uint64_t LimitInMicroseconds(std::uint64_t limitMs) {
  if (limitMs >= kNoCallLimit / 1000) return UINT64_MAX;
  return std::max<std::uint64_t>(limitMs * 1000, 1);  // 0 would be the library's own limit
}

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

std::string_view OrEmpty(const char* text) { return text == nullptr ? std::string_view() : text; }

// How a value of a type is aligned in a message.
std::size_t AlignmentOf(char type) {
  switch (type) {
    case 'y':
    case 'g':
    case 'v':
      return 1;
    case 'n':
    case 'q':
      return 2;
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{':
      return 8;
    default:
      return 4;
  }
}

}  // namespace

// --- values ---

BusValue BusValue::Variant(BusValue value) {
  std::vector<BusValue> inside;
  inside.push_back(std::move(value));
  return {"v", std::move(inside)};
}

BusValue BusValue::Array(std::string_view elementType, std::vector<BusValue> elements) {
  return {"a" + std::string(elementType), std::move(elements)};
}

BusValue BusValue::Dict(std::vector<std::pair<std::string, BusValue>> entries) {
  std::vector<BusValue> elements;
  for (auto& [key, value] : entries) {
    std::vector<BusValue> pair;
    pair.push_back(String(std::move(key)));
    pair.push_back(Variant(std::move(value)));
    elements.push_back({"{sv}", std::move(pair)});
  }
  return {"a{sv}", std::move(elements)};
}

BusValue BusValue::Struct(std::vector<BusValue> fields) {
  std::string type = "(";
  for (const BusValue& field : fields) type += field.type;
  return {type + ")", std::move(fields)};
}

// --- what only this file knows of the classes ---

struct BusInternals {
  // Takes a reference of its own.
  static MessageReader Reader(sd_bus_message* message) {
    MessageReader reader;
    reader.m_message = sd_bus_message_ref(message);
    return reader;
  }
  // Takes over the caller's reference.
  static MessageWriter Writer(sd_bus_message* message) {
    MessageWriter writer;
    writer.m_message = message;
    return writer;
  }
  static sd_bus_message* Of(const MessageWriter& writer) { return Message(writer.m_message); }
};

// --- reader ---

MessageReader::MessageReader(MessageReader&& other) noexcept
    : m_message(std::exchange(other.m_message, nullptr)), m_depth(std::exchange(other.m_depth, 0)) {}

MessageReader& MessageReader::operator=(MessageReader&& other) noexcept {
  if (this == &other) return *this;
  sd_bus_message_unref(Message(m_message));
  m_message = std::exchange(other.m_message, nullptr);
  m_depth = std::exchange(other.m_depth, 0);
  return *this;
}

MessageReader::~MessageReader() { sd_bus_message_unref(Message(m_message)); }

std::string_view MessageReader::Sender() const {
  return m_message == nullptr ? std::string_view() : OrEmpty(sd_bus_message_get_sender(Message(m_message)));
}
std::string_view MessageReader::Path() const {
  return m_message == nullptr ? std::string_view() : OrEmpty(sd_bus_message_get_path(Message(m_message)));
}
std::string_view MessageReader::Interface() const {
  return m_message == nullptr ? std::string_view() : OrEmpty(sd_bus_message_get_interface(Message(m_message)));
}
std::string_view MessageReader::Member() const {
  return m_message == nullptr ? std::string_view() : OrEmpty(sd_bus_message_get_member(Message(m_message)));
}
std::string_view MessageReader::Signature() const {
  return m_message == nullptr ? std::string_view() : OrEmpty(sd_bus_message_get_signature(Message(m_message), 1));
}

ErrorCode MessageReader::SenderUser(std::uint32_t& userId) const {
  if (m_message == nullptr) return ERROR_INVALID_HANDLE;
  sd_bus_creds* credentials = nullptr;
  int result = sd_bus_query_sender_creds(Message(m_message), SD_BUS_CREDS_EUID, &credentials);
  if (result < 0) return BusCode(result);
  uid_t user = 0;
  result = sd_bus_creds_get_euid(credentials, &user);
  sd_bus_creds_unref(credentials);
  if (result < 0) return BusCode(result);
  userId = user;
  return ERROR_SUCCESS;
}

MessageReader::Next MessageReader::PeekType() const {
  char type = 0;
  const char* contents = nullptr;
  if (m_message == nullptr || sd_bus_message_peek_type(Message(m_message), &type, &contents) <= 0) return {};
  return {static_cast<BusKind>(type), OrEmpty(contents)};
}

bool MessageReader::AtEnd() const { return PeekType().kind == BusKind::kEnd; }

// 1 from the library is success, 0 and "no such type" behind the last value mean the end.
ErrorCode MessageReader::Outcome(int result) const {
  if (result > 0) return ERROR_SUCCESS;
  if (result == 0 || AtEnd()) return ERROR_NO_MORE_ITEMS;
  return BusCode(result);
}

ErrorCode MessageReader::Enter(char type, std::string_view contents) {
  if (m_message == nullptr) return ERROR_NO_MORE_ITEMS;
  const ErrorCode rc = Outcome(sd_bus_message_enter_container(Message(m_message), type, std::string(contents).c_str()));
  if (rc == ERROR_SUCCESS) ++m_depth;
  return rc;
}

ErrorCode MessageReader::EnterArray(std::string_view elementType) { return Enter(SD_BUS_TYPE_ARRAY, elementType); }
ErrorCode MessageReader::EnterStruct(std::string_view contents) { return Enter(SD_BUS_TYPE_STRUCT, contents); }
ErrorCode MessageReader::EnterDictEntry(std::string_view contents) { return Enter(SD_BUS_TYPE_DICT_ENTRY, contents); }
ErrorCode MessageReader::EnterVariant(std::string_view contents) { return Enter(SD_BUS_TYPE_VARIANT, contents); }

ErrorCode MessageReader::Exit() {
  if (m_depth == 0) return ERROR_INVALID_FUNCTION;
  int result = sd_bus_message_exit_container(Message(m_message));
  if (result == -EBUSY) {  // something is left
    while (!AtEnd()) {
      if (const ErrorCode rc = Skip(); rc != ERROR_SUCCESS) return rc;
    }
    result = sd_bus_message_exit_container(Message(m_message));
  }
  if (result < 0) return BusCode(result);
  --m_depth;
  return ERROR_SUCCESS;
}

template <typename T>
ErrorCode MessageReader::ReadNumber(char type, T& value) {
  if (m_message == nullptr) return ERROR_NO_MORE_ITEMS;
  T read{};
  const ErrorCode rc = Outcome(sd_bus_message_read_basic(Message(m_message), type, &read));
  if (rc == ERROR_SUCCESS) value = read;
  return rc;
}

ErrorCode MessageReader::ReadBool(bool& value) {
  int read = 0;
  const ErrorCode rc = ReadNumber(SD_BUS_TYPE_BOOLEAN, read);
  if (rc == ERROR_SUCCESS) value = read != 0;
  return rc;
}
ErrorCode MessageReader::ReadInt16(std::int16_t& value) { return ReadNumber(SD_BUS_TYPE_INT16, value); }
ErrorCode MessageReader::ReadUint16(std::uint16_t& value) { return ReadNumber(SD_BUS_TYPE_UINT16, value); }
ErrorCode MessageReader::ReadInt32(std::int32_t& value) { return ReadNumber(SD_BUS_TYPE_INT32, value); }
ErrorCode MessageReader::ReadUint32(std::uint32_t& value) { return ReadNumber(SD_BUS_TYPE_UINT32, value); }
ErrorCode MessageReader::ReadInt64(std::int64_t& value) { return ReadNumber(SD_BUS_TYPE_INT64, value); }
ErrorCode MessageReader::ReadUint64(std::uint64_t& value) { return ReadNumber(SD_BUS_TYPE_UINT64, value); }

ErrorCode MessageReader::ReadString(std::string_view& value) {
  const char* text = nullptr;
  ErrorCode rc = ReadNumber(SD_BUS_TYPE_STRING, text);
  // Nearly always a string stands there: a look ahead would cost as much as the reading.
  if (rc == ERROR_INVALID_DATA && PeekType().kind == BusKind::kObjectPath) {
    rc = ReadNumber(SD_BUS_TYPE_OBJECT_PATH, text);
  }
  if (rc == ERROR_SUCCESS) value = text;
  return rc;
}

ErrorCode MessageReader::ReadValue(BusValue& value) {
  const Next next = PeekType();
  const char letter = static_cast<char>(next.kind);
  const auto number = [&]<typename Wire, typename Held>(Wire wire, Held) {
    const ErrorCode rc = ReadNumber(letter, wire);
    if (rc == ERROR_SUCCESS) value = {std::string(1, letter), static_cast<Held>(wire)};
    return rc;
  };
  switch (next.kind) {
    case BusKind::kEnd:
      return ERROR_NO_MORE_ITEMS;
    case BusKind::kBool:
      return number(int{}, bool{});
    case BusKind::kByte:
      return number(std::uint8_t{}, std::uint64_t{});
    case BusKind::kUint16:
      return number(std::uint16_t{}, std::uint64_t{});
    case BusKind::kUint32:
      return number(std::uint32_t{}, std::uint64_t{});
    case BusKind::kUint64:
      return number(std::uint64_t{}, std::uint64_t{});
    case BusKind::kInt16:
      return number(std::int16_t{}, std::int64_t{});
    case BusKind::kInt32:
      return number(std::int32_t{}, std::int64_t{});
    case BusKind::kInt64:
      return number(std::int64_t{}, std::int64_t{});
    case BusKind::kDouble:
      return number(double{}, double{});
    case BusKind::kString:
    case BusKind::kObjectPath:
    case BusKind::kSignature: {
      const char* text = nullptr;
      const ErrorCode rc = ReadNumber(letter, text);
      if (rc == ERROR_SUCCESS) value = {std::string(1, letter), std::string(text)};
      return rc;
    }
    case BusKind::kArray:
      return ReadContainer("a" + std::string(next.contents), next, value);
    case BusKind::kStruct:
      return ReadContainer("(" + std::string(next.contents) + ")", next, value);
    case BusKind::kDictEntry:
      return ReadContainer("{" + std::string(next.contents) + "}", next, value);
    case BusKind::kVariant:
      return ReadContainer("v", next, value);
  }
  return ERROR_INVALID_DATA;
}

ErrorCode MessageReader::ReadContainer(std::string type, Next next, BusValue& value) {
  if (const ErrorCode rc = Enter(static_cast<char>(next.kind), next.contents); rc != ERROR_SUCCESS) return rc;
  std::vector<BusValue> inside;
  while (!AtEnd()) {
    BusValue element;
    if (const ErrorCode rc = ReadValue(element); rc != ERROR_SUCCESS) return rc;
    inside.push_back(std::move(element));
  }
  if (const ErrorCode rc = Exit(); rc != ERROR_SUCCESS) return rc;
  value = {std::move(type), std::move(inside)};
  return ERROR_SUCCESS;
}

ErrorCode MessageReader::Skip() {
  if (AtEnd()) return ERROR_NO_MORE_ITEMS;
  return BusCode(sd_bus_message_skip(Message(m_message), nullptr));
}

void MessageReader::Rewind() {
  if (m_message != nullptr) (void)sd_bus_message_rewind(Message(m_message), 1);
  m_depth = 0;
}

// --- writer ---

MessageWriter::MessageWriter(MessageWriter&& other) noexcept
    : m_message(std::exchange(other.m_message, nullptr)),
      m_result(other.m_result),
      m_bytes(other.m_bytes),
      m_scratch(std::move(other.m_scratch)) {}

MessageWriter& MessageWriter::operator=(MessageWriter&& other) noexcept {
  if (this == &other) return *this;
  sd_bus_message_unref(Message(m_message));
  m_message = std::exchange(other.m_message, nullptr);
  m_result = other.m_result;
  m_bytes = other.m_bytes;
  m_scratch = std::move(other.m_scratch);
  return *this;
}

MessageWriter::~MessageWriter() { sd_bus_message_unref(Message(m_message)); }

bool MessageWriter::Begin() {
  if (m_message == nullptr && m_result == ERROR_SUCCESS) m_result = ERROR_INVALID_HANDLE;
  return m_result == ERROR_SUCCESS;
}

void MessageWriter::Note(int result) {
  if (result < 0 && m_result == ERROR_SUCCESS) m_result = BusCode(result);
}

void MessageWriter::Count(std::size_t align, std::size_t size) { m_bytes = (m_bytes + align - 1) / align * align + size; }

template <typename T>
void MessageWriter::AppendNumber(char type, T value) {
  if (!Begin()) return;
  Note(sd_bus_message_append_basic(Message(m_message), type, &value));
  Count(sizeof value, sizeof value);
}

void MessageWriter::AppendBool(bool value) { AppendNumber(SD_BUS_TYPE_BOOLEAN, int{value}); }
void MessageWriter::AppendInt16(std::int16_t value) { AppendNumber(SD_BUS_TYPE_INT16, value); }
void MessageWriter::AppendUint16(std::uint16_t value) { AppendNumber(SD_BUS_TYPE_UINT16, value); }
void MessageWriter::AppendInt32(std::int32_t value) { AppendNumber(SD_BUS_TYPE_INT32, value); }
void MessageWriter::AppendUint32(std::uint32_t value) { AppendNumber(SD_BUS_TYPE_UINT32, value); }
void MessageWriter::AppendInt64(std::int64_t value) { AppendNumber(SD_BUS_TYPE_INT64, value); }
void MessageWriter::AppendUint64(std::uint64_t value) { AppendNumber(SD_BUS_TYPE_UINT64, value); }

void MessageWriter::AppendText(char type, std::string_view value) {
  m_scratch.assign(value);
  AppendTerminated(type, m_scratch);
}

void MessageWriter::AppendTerminated(char type, std::string_view value) {
  if (!Begin()) return;
  if (value.find('\0') != std::string_view::npos) {
    m_result = ERROR_NO_UNICODE_TRANSLATION;
    return;
  }
  const int result = sd_bus_message_append_basic(Message(m_message), type, value.data());
  // The only thing a fresh string can be refused for is its text.
  if (result == -EINVAL) {
    m_result = ERROR_NO_UNICODE_TRANSLATION;
    return;
  }
  Note(result);
  if (type == SD_BUS_TYPE_SIGNATURE) {
    Count(1, 1 + value.size() + 1);
  } else {
    Count(4, 4 + value.size() + 1);
  }
}

void MessageWriter::AppendString(std::string_view value) { AppendText(SD_BUS_TYPE_STRING, value); }
void MessageWriter::AppendTerminated(std::string_view value) { AppendTerminated(SD_BUS_TYPE_STRING, value); }

void MessageWriter::Open(char type, std::string_view contents) {
  if (!Begin()) return;
  m_scratch.assign(contents);
  Note(sd_bus_message_open_container(Message(m_message), type, m_scratch.c_str()));
  switch (type) {
    case SD_BUS_TYPE_ARRAY:
      Count(4, 4);
      Count(contents.empty() ? 1 : AlignmentOf(contents.front()), 0);
      break;
    case SD_BUS_TYPE_VARIANT:
      Count(1, 1 + contents.size() + 1);
      break;
    default:
      Count(8, 0);
  }
}

void MessageWriter::OpenArray(std::string_view elementType) { Open(SD_BUS_TYPE_ARRAY, elementType); }
void MessageWriter::OpenStruct(std::string_view contents) { Open(SD_BUS_TYPE_STRUCT, contents); }
void MessageWriter::OpenDictEntry(std::string_view contents) { Open(SD_BUS_TYPE_DICT_ENTRY, contents); }
void MessageWriter::OpenVariant(std::string_view contents) { Open(SD_BUS_TYPE_VARIANT, contents); }

void MessageWriter::Close() {
  if (Begin()) Note(sd_bus_message_close_container(Message(m_message)));
}

void MessageWriter::AppendValue(const BusValue& value) {
  if (!Begin()) return;
  const char letter = value.type.empty() ? '\0' : value.type.front();
  const std::string_view type = value.type;
  const bool known = std::visit(
      [&]<typename T>(const T& data) {
        if constexpr (std::is_same_v<T, std::string>) {
          if (type != "s" && type != "o" && type != "g") return false;
          AppendText(letter, data);
          return true;
        } else if constexpr (std::is_same_v<T, std::vector<BusValue>>) {
          return AppendContainer(type, data);
        } else if constexpr (std::is_same_v<T, std::monostate>) {
          return false;
        } else {
          return type.size() == 1 && AppendHeldNumber(letter, data);
        }
      },
      value.data);
  if (!known && m_result == ERROR_SUCCESS) m_result = ERROR_INVALID_DATA;
}

// A number goes only where its type text can hold it.
template <typename Held>
bool MessageWriter::AppendHeldNumber(char letter, Held held) {
  const auto fits = [&]<typename Wire>(Wire) {
    const auto wire = static_cast<Wire>(held);
    if (static_cast<Held>(wire) != held) return false;
    AppendNumber(letter, wire);
    return true;
  };
  if constexpr (std::is_same_v<Held, bool>) {
    return letter == 'b' && fits(int{});
  } else if constexpr (std::is_same_v<Held, double>) {
    return letter == 'd' && fits(double{});
  } else if constexpr (std::is_same_v<Held, std::int64_t>) {
    return (letter == 'n' && fits(std::int16_t{})) || (letter == 'i' && fits(std::int32_t{})) ||
           (letter == 'x' && fits(std::int64_t{}));
  } else {
    return (letter == 'y' && fits(std::uint8_t{})) || (letter == 'q' && fits(std::uint16_t{})) ||
           (letter == 'u' && fits(std::uint32_t{})) || (letter == 't' && fits(std::uint64_t{}));
  }
}

bool MessageWriter::AppendContainer(std::string_view type, const std::vector<BusValue>& inside) {
  if (type.empty()) return false;
  switch (type.front()) {
    case 'a':
      OpenArray(type.substr(1));
      break;
    case '(':
      OpenStruct(type.substr(1, type.size() - 2));
      break;
    case '{':
      OpenDictEntry(type.substr(1, type.size() - 2));
      break;
    case 'v':
      if (inside.size() != 1) return false;
      OpenVariant(inside.front().type);
      break;
    default:
      return false;
  }
  for (const BusValue& value : inside) AppendValue(value);
  Close();
  return true;
}

void MessageWriter::AppendEntry(std::string_view key, const BusValue& value) {
  OpenDictEntry("sv");
  AppendString(key);
  OpenVariant(value.type);
  AppendValue(value);
  Close();
  Close();
}

// --- connection ---

namespace {

// A slot of the library, given up on destruction.
class Slot {
 public:
  Slot() = default;
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() { sd_bus_slot_unref(m_slot); }
  sd_bus_slot** Out() { return &m_slot; }

 private:
  sd_bus_slot* m_slot = nullptr;
};

// What a callback of the library is about: exactly one of the two is set.
struct ExportedMember {
  const BusMethod* method = nullptr;
  const BusProperty* property = nullptr;
  std::string result;  // the type text of a method's reply
};

// An interface as the library wants it: a table whose texts live here. Doesn't move once it is exported.
class ExportedInterface {
 public:
  explicit ExportedInterface(BusInterface served) : m_interface(std::move(served)) {}
  ErrorCode Add(sd_bus* bus, const std::string& path);

 private:
  sd_bus_vtable Entry(char type) {
    sd_bus_vtable entry;
    std::memset(&entry, 0, sizeof entry);  // the library reads fields of the union that we don't name
    entry.type = static_cast<std::uint8_t>(type);
    return entry;
  }
  const char* Keep(std::string text) { return m_texts.emplace_back(std::move(text)).c_str(); }
  static std::string Types(const std::vector<BusArgument>& arguments) {
    std::string types;
    for (const BusArgument& argument : arguments) types += argument.type;
    return types;
  }
  static void AddNames(const std::vector<BusArgument>& arguments, std::string& names) {
    for (const BusArgument& argument : arguments) names.append(argument.name).push_back('\0');
  }
  // The library adds an entry's offset to the address it was given with the table.
  std::size_t AddMember(ExportedMember member) {
    m_members.push_back(std::move(member));
    return (m_members.size() - 1) * sizeof(ExportedMember);
  }

  BusInterface m_interface;
  std::list<std::string> m_texts;
  std::vector<ExportedMember> m_members;
  std::vector<sd_bus_vtable> m_table;
  Slot m_slot;
};

// An error's name must be one of the protocol, which the library doesn't check: the caller's end would drop the whole
// message. Its text must be UTF-8, else the library sends nothing.
int ReplyError(sd_bus_message* call, const BusError& error) {
  const bool named = sd_bus_interface_name_is_valid(error.name.c_str()) > 0;  // the same rule
  const int result = named ? sd_bus_reply_method_errorf(call, error.name.c_str(), "%s", error.text.c_str()) : -EINVAL;
  if (result != -EINVAL) return result;
  return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "%s", "the error of this call has no valid text");
}

BusError HandleGuarded(const ExportedMember& member, sd_bus_message* call, MessageWriter& reply) {
  MessageReader reader = BusInternals::Reader(call);
  BusError error;
  if (!RunGuarded(member.method->name, [&] { error = member.method->handler(reader, reply); })) {
    return BusError::Failed("an internal error ended the call");
  }
  if (error.IsSet()) return error;
  if (reply.Result() == ERROR_NO_UNICODE_TRANSLATION) return BusError::Failed("a text of the reply is not valid UTF-8");
  if (reply.Result() != ERROR_SUCCESS) return BusError::Failed("the reply could not be built");
  if (OrEmpty(sd_bus_message_get_signature(BusInternals::Of(reply), 1)) != member.result) {
    return BusError::Failed("the reply is not of the declared type");
  }
  return {};
}

int OnMethod(sd_bus_message* call, void* userData, sd_bus_error*) noexcept {
  const auto& member = *static_cast<const ExportedMember*>(userData);
  sd_bus_message* raw = nullptr;
  if (const int result = sd_bus_message_new_method_return(call, &raw); result < 0) return result;
  MessageWriter reply = BusInternals::Writer(raw);
  const BusError error = HandleGuarded(member, call, reply);
  const int result = error.IsSet() ? ReplyError(call, error) : sd_bus_message_send(raw);
  // 1: handled. A reply that can't be sent has nobody to be told to; a lost connection shows in the loop.
  return result == -ENOTCONN || result >= 0 ? 1 : result;
}

int OnProperty(sd_bus*, const char*, const char*, const char* name, sd_bus_message* reply, void* userData,
               sd_bus_error* error) noexcept {
  const auto& member = *static_cast<const ExportedMember*>(userData);
  MessageWriter writer = BusInternals::Writer(sd_bus_message_ref(reply));
  const bool done = RunGuarded(name, [&] { member.property->get(writer); });
  if (done && writer.Result() == ERROR_SUCCESS) return 1;
  return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "the property could not be read");
}

ErrorCode ExportedInterface::Add(sd_bus* bus, const std::string& path) {
  m_members.reserve(m_interface.methods.size() + m_interface.properties.size());
  sd_bus_vtable start = Entry(_SD_BUS_VTABLE_START);
  start.x.start.element_size = sizeof(sd_bus_vtable);
  start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
  start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
  m_table.push_back(start);
  for (const BusMethod& method : m_interface.methods) {
    sd_bus_vtable entry = Entry(_SD_BUS_VTABLE_METHOD);
    entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;  // who may call is the bus policy's business
    std::string names;
    AddNames(method.in, names);
    AddNames(method.out, names);
    entry.x.method.member = method.name.c_str();
    entry.x.method.signature = Keep(Types(method.in));
    entry.x.method.result = Keep(Types(method.out));
    entry.x.method.handler = OnMethod;
    entry.x.method.offset = AddMember({&method, nullptr, Types(method.out)});
    entry.x.method.names = Keep(std::move(names));
    m_table.push_back(entry);
  }
  for (const BusSignal& signal : m_interface.signals) {
    sd_bus_vtable entry = Entry(_SD_BUS_VTABLE_SIGNAL);
    std::string names;
    AddNames(signal.arguments, names);
    entry.x.signal.member = signal.name.c_str();
    entry.x.signal.signature = Keep(Types(signal.arguments));
    entry.x.signal.names = Keep(std::move(names));
    m_table.push_back(entry);
  }
  for (const BusProperty& property : m_interface.properties) {
    sd_bus_vtable entry = Entry(_SD_BUS_VTABLE_PROPERTY);
    entry.x.property.member = property.name.c_str();
    entry.x.property.signature = property.type.c_str();
    entry.x.property.get = OnProperty;
    entry.x.property.offset = AddMember({nullptr, &property, {}});
    m_table.push_back(entry);
  }
  m_table.push_back(Entry(_SD_BUS_VTABLE_END));
  return BusCode(sd_bus_add_object_vtable(bus, m_slot.Out(), path.c_str(), m_interface.name.c_str(), m_table.data(),
                                          m_members.data()));
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
  // Starting succeeds before the daemon has answered; asking for the own name waits for its answer.
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
  const auto present = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(sinceBoot).count());
  if (due <= present) return 0;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>((due - present + 999) / 1000, Apartment::kForever - 1));
}

bool BusConnection::WaitForWork(std::uint32_t limitMs) {
  if (!IsOpen()) return false;
  if (const auto limit = PollLimit()) limitMs = std::min(limitMs, *limit);
  pollfd descriptor = {PollDescriptor(), PollEvents(), 0};
  const int timeout = limitMs == Apartment::kForever ? -1 : static_cast<int>(std::min<std::uint32_t>(limitMs, INT32_MAX));
  if (poll(&descriptor, 1, timeout) > 0) return true;
  const auto limit = PollLimit();
  return limit && *limit == 0;
}

// --- lasting presence ---

struct BusPresence::State : PollSource {
  explicit State(Apartment& served) : apartment(served) {}
  ~State() override { Stop(); }

  ErrorCode Attempt() {
    BusConnection fresh;
    ErrorCode rc = fresh.Open(options.address);
    if (rc == ERROR_SUCCESS && options.setUp) rc = options.setUp(fresh);
    if (rc != ERROR_SUCCESS) {
      Lose(rc);
      return rc;
    }
    connection = std::move(fresh);
    apartment.AddSource(this);
    connected = true;
    nextPauseMs = options.firstPauseMs;
    if (std::exchange(told, false) && options.restored) options.restored();
    return ERROR_SUCCESS;
  }

  void Disconnect() {
    if (std::exchange(connected, false)) apartment.RemoveSource(this);
    connection.Close();
  }

  void Lose(ErrorCode code) {
    Disconnect();
    const std::uint32_t pause = nextPauseMs;
    nextPauseMs = static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{pause} * 2, options.longestPauseMs));
    timer = apartment.StartTimer(pause, [this] { (void)Attempt(); });
    if (!std::exchange(told, true) && options.lost) options.lost(code);
  }

  void Stop() {
    apartment.StopTimer(timer);
    Disconnect();
  }

  bool Process() override {
    const bool more = connection.Process();
    if (connected && !connection.IsOpen()) {
      (void)RunGuarded("bus lost", [this] { Lose(ERROR_CONNECTION_ABORTED); });
      return false;
    }
    return more && connected;
  }
  int PollDescriptor() const override { return connection.PollDescriptor(); }
  short PollEvents() const override { return connection.PollEvents(); }
  std::optional<std::uint32_t> PollLimit() const override { return connection.PollLimit(); }

  Apartment& apartment;
  Options options;
  BusConnection connection;
  bool connected = false;
  bool told = false;  // `lost` was called and `restored` not yet
  std::uint32_t nextPauseMs = 0;
  Apartment::TimerId timer = 0;
};

BusPresence::BusPresence(Apartment& apartment) : m_state(std::make_unique<State>(apartment)) {}
BusPresence::~BusPresence() = default;

ErrorCode BusPresence::Start(Options options) {
  m_state->Stop();
  m_state->options = std::move(options);
  m_state->nextPauseMs = m_state->options.firstPauseMs;
  m_state->told = false;
  return m_state->Attempt();
}

void BusPresence::Stop() { m_state->Stop(); }

BusConnection* BusPresence::Connection() {
  return m_state->connected && m_state->connection.IsOpen() ? &m_state->connection : nullptr;
}

}  // namespace platform
