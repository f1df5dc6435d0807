#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <type_traits>
#include <utility>
#include <variant>

#include "platform/bus_inside.h"
#include "platform/bus_message.h"

namespace platform {
namespace {

using detail::BusCode;

sd_bus_message* Message(void* message) { return static_cast<sd_bus_message*>(message); }

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

void MessageWriter::Count(std::size_t align, std::size_t size) {
  m_bytes = (m_bytes + align - 1) / align * align + size;
}

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

template <typename T>
void MessageWriter::AppendNumbers(char type, std::span<const T> values) {
  if (!Begin()) return;
  Note(sd_bus_message_append_array(Message(m_message), type, values.data(), values.size_bytes()));
  Count(4, 4);
  Count(sizeof(T), values.size_bytes());
}

void MessageWriter::AppendArray(std::span<const std::int16_t> values) { AppendNumbers(SD_BUS_TYPE_INT16, values); }
void MessageWriter::AppendArray(std::span<const std::int32_t> values) { AppendNumbers(SD_BUS_TYPE_INT32, values); }
void MessageWriter::AppendArray(std::span<const std::uint32_t> values) { AppendNumbers(SD_BUS_TYPE_UINT32, values); }

void MessageWriter::AppendText(char type, std::string_view value) {
  if (!Begin()) return;
  if (value.find('\0') != std::string_view::npos) {
    m_result = ERROR_NO_UNICODE_TRANSLATION;
    return;
  }
  m_scratch.assign(value);
  const int result = sd_bus_message_append_basic(Message(m_message), type, m_scratch.c_str());
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

void MessageWriter::AppendValid(std::string_view value) {
  if (!Begin()) return;
  char* space = nullptr;
  const int result = sd_bus_message_append_string_space(Message(m_message), value.size(), &space);
  if (result >= 0) std::copy(value.begin(), value.end(), space);
  Note(result);
  Count(4, 4 + value.size() + 1);
}

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

}  // namespace platform
