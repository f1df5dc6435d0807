#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/bus_inside.h"
#include "platform/bus_message.h"

namespace platform {
namespace {

using detail::BusCode;
using detail::OrEmpty;

sd_bus_message* Message(void* message) { return static_cast<sd_bus_message*>(message); }

}  // namespace

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

template <typename T>
ErrorCode MessageReader::ReadNumbers(char type, std::span<T> values, std::size_t& count) {
  if (m_message == nullptr) return ERROR_NO_MORE_ITEMS;
  const void* bytes = nullptr;
  std::size_t size = 0;
  if (const int result = sd_bus_message_read_array(Message(m_message), type, &bytes, &size); result != -EOPNOTSUPP) {
    if (const ErrorCode rc = Outcome(result); rc != ERROR_SUCCESS) return rc;
    if (size % sizeof(T) != 0) return ERROR_INVALID_DATA;
    count = size / sizeof(T);
    if (const std::size_t taken = std::min(count, values.size()); taken != 0) {
      std::memcpy(values.data(), bytes, taken * sizeof(T));
    }
    return ERROR_SUCCESS;
  }
  // A sender of the other byte order: the library turns single numbers only.
  ErrorCode rc = Enter(SD_BUS_TYPE_ARRAY, std::string_view(&type, 1));
  if (rc != ERROR_SUCCESS) return rc;
  std::size_t found = 0;
  for (T element{}; (rc = ReadNumber(type, element)) == ERROR_SUCCESS; ++found) {
    if (found < values.size()) values[found] = element;
  }
  if (rc != ERROR_NO_MORE_ITEMS) return rc;
  count = found;
  return Exit();
}

ErrorCode MessageReader::ReadArray(std::span<std::int16_t> values, std::size_t& count) {
  return ReadNumbers(SD_BUS_TYPE_INT16, values, count);
}
ErrorCode MessageReader::ReadArray(std::span<std::int32_t> values, std::size_t& count) {
  return ReadNumbers(SD_BUS_TYPE_INT32, values, count);
}
ErrorCode MessageReader::ReadArray(std::span<std::uint32_t> values, std::size_t& count) {
  return ReadNumbers(SD_BUS_TYPE_UINT32, values, count);
}

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

}  // namespace platform
