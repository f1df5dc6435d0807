#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "platform/bus_block.h"
#include "platform/text.h"

namespace platform::detail {
namespace {

// The protocol's limits: of an array's bytes, of a type text's, and of containers within one another.
constexpr std::size_t kLongestArray = std::size_t{64} << 20;
constexpr std::size_t kLongestTypes = 255;
constexpr std::size_t kDeepest = 64;

constexpr std::size_t kLengthBytes = 4;  // ahead of a text and of an array
constexpr std::size_t kFirstBytes = 2048;

// Fixed in size, and any pattern of bits is a value: arrays of them travel as they lie in memory.
bool IsTrivial(char type) {
  return std::string_view("ynqiuxtd").find(type) != std::string_view::npos;
}
bool IsBasic(char type) {
  return std::string_view("ybnqiuxtdsogh").find(type) != std::string_view::npos;
}

std::size_t TypeLength(std::string_view types, bool inArray, std::size_t depth) {
  if (types.empty() || depth == 0) return 0;
  const char type = types.front();
  if (IsBasic(type) || type == 'v') return 1;
  if (type == 'a') {
    const std::size_t element = TypeLength(types.substr(1), true, depth - 1);
    return element == 0 ? 0 : 1 + element;
  }
  if (type != '(' && (type != '{' || !inArray)) return 0;
  const char close = type == '(' ? ')' : '}';
  std::size_t at = 1;
  std::size_t count = 0;
  while (at < types.size() && types[at] != close) {
    const std::size_t field = TypeLength(types.substr(at), false, depth - 1);
    if (field == 0) return 0;
    at += field;
    ++count;
  }
  const bool isWhole = at < types.size() && (type == '(' ? count > 0 : count == 2 && IsBasic(types[1]));
  return isWhole ? at + 1 : 0;
}

// --- the library's layout ---

enum class Layout { kUnknown, kAsItTravels, kOther };
std::atomic<Layout> g_layout{Layout::kUnknown};
std::atomic<bool> g_valueByValue{false};

bool HasLengthAhead(const char* space, std::size_t size) {
  const auto length = static_cast<std::uint32_t>(size);
  return std::memcmp(space - kLengthBytes, &length, kLengthBytes) == 0;
}

// Whether the library keeps a text's length right ahead of its space, looked at in a message that isn't sent.
Layout LookAtLayout(sd_bus_message* message) {
  constexpr std::size_t kAny = 3;
  sd_bus_message* probe = nullptr;
  char* space = nullptr;
  const bool made = sd_bus_message_new(sd_bus_message_get_bus(message), &probe, SD_BUS_MESSAGE_SIGNAL) >= 0 &&
                    sd_bus_message_open_container(probe, SD_BUS_TYPE_ARRAY, "(s)") >= 0 &&
                    sd_bus_message_open_container(probe, SD_BUS_TYPE_STRUCT, "s") >= 0 &&
                    sd_bus_message_append_string_space(probe, kAny, &space) >= 0;
  const Layout layout = made && HasLengthAhead(space, kAny) ? Layout::kAsItTravels : Layout::kOther;
  sd_bus_message_unref(probe);
  return layout;
}

bool IsLaidOutAsItTravels(sd_bus_message* message) {
  if (g_valueByValue) return false;
  if (g_layout == Layout::kUnknown) g_layout = LookAtLayout(message);
  return g_layout == Layout::kAsItTravels;
}

}  // namespace

void AppendValueByValue(bool wanted) {
  g_valueByValue = wanted;
}

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

std::size_t CompleteTypeLength(std::string_view types) {
  if (types.size() == 1) return IsBasic(types.front()) || types.front() == 'v' ? 1 : 0;
  return TypeLength(types, false, kDeepest);
}

bool IsBusText(char type, std::string_view text) {
  if (type == 'o') return sd_bus_object_path_is_valid(std::string(text).c_str()) > 0;
  if (type == 'g') {
    while (!text.empty()) {
      const std::size_t length = CompleteTypeLength(text);
      if (length == 0) return false;
      text.remove_prefix(length);
    }
    return true;
  }
  return IsBusString(text);
}

bool IsBusString(std::string_view text) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  std::size_t at = 0;
  for (; at + sizeof kOnes <= text.size(); at += sizeof kOnes) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, sizeof word);
    if (((word | (word - kOnes)) & kHighBits) != 0) break;  // beyond ASCII, or a NUL
  }
  while (at < text.size() && static_cast<signed char>(text[at]) > 0) ++at;
  if (at == text.size()) return true;
  if (text.find('\0', at) != std::string_view::npos || !IsValidUtf8(text)) return false;
  for (; at < text.size(); ++at) {
    // By its last three bytes; four have the same ones, but for the plane.
    const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    if (byte(at) == 0xEF && byte(at + 1) == 0xB7 && byte(at + 2) >= 0x90 && byte(at + 2) <= 0xAF) return false;
    const bool endsPlane = byte(at) == 0xEF || (byte(at) >= 0xF0 && (byte(at + 1) & 0x0F) == 0x0F);
    const std::size_t tail = byte(at) == 0xEF ? at + 1 : at + 2;
    if (endsPlane && byte(tail) == 0xBF && byte(tail + 1) >= 0xBE) return false;
  }
  return true;
}

// --- putting it together ---

void BusBlock::Grow(std::size_t count) {
  m_bytes.resize(std::max({kFirstBytes, 2 * m_bytes.size(), m_size + count}));
}

// Sees to it that a value of the type may stand here, and aligns the place for it.
bool BusBlock::Begin(char type, std::size_t length, std::size_t alignment) {
  if (m_open.empty()) return false;
  Container& container = m_open.back();
  if (container.next == container.end || TypesOf(container)[container.next] != type) return false;
  if (container.kind != 'a') container.next += length;
  Pad(alignment);
  return true;
}

bool BusBlock::OpenArray(std::string_view elementType) {
  if (m_open.size() >= kDeepest) return false;
  Container array = {'a', false, 0, 0, 0, m_arrays.size()};
  if (m_open.empty()) {
    m_size = 0;
    m_arrays.clear();
    m_types = "a";
    m_types += elementType;
    if (m_types.size() > kLongestTypes || CompleteTypeLength(m_types) != m_types.size()) return false;
    array.array = 0;
    array.next = 1;
  } else {
    const Container& outer = m_open.back();
    const std::string_view types = std::string_view(TypesOf(outer)).substr(outer.next, outer.end - outer.next);
    const std::size_t length = types.empty() || types.front() != 'a' ? 0 : TypeLength(types, false, kDeepest);
    if (length != 1 + elementType.size() || types.substr(1, elementType.size()) != elementType) return false;
    array.inBytes = outer.inBytes;
    array.next = outer.next + 1;
    if (!Begin('a', 1 + elementType.size(), kLengthBytes)) return false;
  }
  array.end = array.next + elementType.size();
  m_arrays.push_back({m_size, 0});
  (void)Room(kLengthBytes);  // filled when it is closed
  Pad(AlignmentOf(elementType.front()));
  array.first = m_size;
  m_open.push_back(array);
  return true;
}

bool BusBlock::OpenFields(char open, char close, std::string_view contents) {
  if (m_open.empty() || m_open.size() >= kDeepest) return false;
  const Container outer = m_open.back();
  const std::string_view types = std::string_view(TypesOf(outer)).substr(outer.next, outer.end - outer.next);
  const std::size_t length = contents.size() + 2;
  const bool isArray = outer.kind == 'a';  // whose types are this struct's and nothing else
  if (types.size() < length || types.substr(1, contents.size()) != contents || types[length - 1] != close ||
      (isArray ? types.size() : CompleteTypeLength(types)) != length || !Begin(open, length, AlignmentOf(open))) {
    return false;
  }
  if (isArray) m_arrays[outer.array].last = m_size;
  m_open.push_back({open, outer.inBytes, outer.next + 1, outer.next + 1 + contents.size(), 0, 0});
  return true;
}

bool BusBlock::OpenVariant(std::string_view contents) {
  if (m_open.size() >= kDeepest || contents.size() > kLongestTypes || contents.empty() ||
      CompleteTypeLength(contents) != contents.size() || !Begin('v', 1, 1)) {
    return false;
  }
  *Room(1) = static_cast<char>(contents.size());
  const std::size_t types = m_size;
  AppendTerminated(contents);
  m_open.push_back({'v', true, types, types + contents.size(), 0, 0});
  return true;
}

bool BusBlock::Close() {
  if (m_open.empty()) return false;
  const Container& container = m_open.back();
  if (container.kind != 'a') {
    if (container.next != container.end) return false;  // a field is missing
  } else {
    const auto length = static_cast<std::uint32_t>(m_size - container.first);
    std::memcpy(m_bytes.data() + m_arrays[container.array].at, &length, sizeof length);
  }
  m_open.pop_back();
  return true;
}

void BusBlock::AppendTerminated(std::string_view text) {
  char* const room = Room(text.size() + 1);
  room[text.copy(room, text.size())] = '\0';
}

bool BusBlock::AppendText(char type, std::string_view text) {
  const bool isSignature = type == 'g';
  if ((isSignature && text.size() > kLongestTypes) || !Begin(type, 1, AlignmentOf(type))) return false;
  if (isSignature) {
    *Room(1) = static_cast<char>(text.size());
  } else {
    const auto length = static_cast<std::uint32_t>(text.size());
    std::memcpy(Room(kLengthBytes), &length, kLengthBytes);
  }
  AppendTerminated(text);
  return true;
}

// --- giving it to the library ---

// Reads what was put together from front to end and appends it.
class BusBlock::Handover {
 public:
  Handover(const BusBlock& block, sd_bus_message* message)
      : m_block(block), m_message(message), m_whole(IsLaidOutAsItTravels(message)) {}

  int Value(std::string_view type) {
    const char letter = type.front();
    m_at = Aligned(m_at, AlignmentOf(letter));
    switch (letter) {
      case 'a':
        return ArrayOf(type.substr(1));
      case '(':
      case '{':
        return Inside(letter, type.substr(1, type.size() - 2),
                      [&](std::string_view contents) { return Values(contents); });
      case 'v': {
        const std::string_view contents = Bytes().substr(m_at + 1, static_cast<unsigned char>(Bytes()[m_at]));
        m_at += 1 + contents.size() + 1;
        return Inside(letter, contents, [&](std::string_view inside) { return Value(inside); });
      }
      case 's':
      case 'o':
      case 'g': {
        const std::size_t lengthBytes = letter == 'g' ? 1 : kLengthBytes;
        const char* const text = Bytes().data() + m_at + lengthBytes;
        m_at += lengthBytes + std::strlen(text) + 1;
        return sd_bus_message_append_basic(m_message, letter, text);
      }
      default: {
        std::uint64_t number = 0;
        const std::size_t size = AlignmentOf(letter);  // the fixed types are as long as they are aligned
        std::memcpy(&number, Bytes().data() + m_at, size);
        m_at += size;
        return sd_bus_message_append_basic(m_message, letter, &number);
      }
    }
  }

 private:
  [[nodiscard]] std::string_view Bytes() const { return m_block.m_bytes; }
  [[nodiscard]] std::uint32_t LengthAt(std::size_t at) const {
    std::uint32_t length = 0;
    std::memcpy(&length, Bytes().data() + at, sizeof length);
    return length;
  }

  template <typename Body>
  int Inside(char kind, std::string_view contents, const Body& body) {
    const char named = kind == '(' ? char{SD_BUS_TYPE_STRUCT} : kind == '{' ? char{SD_BUS_TYPE_DICT_ENTRY} : kind;
    int result = sd_bus_message_open_container(m_message, named, std::string(contents).c_str());
    if (result >= 0) result = body(contents);
    return result < 0 ? result : sd_bus_message_close_container(m_message);
  }

  int Values(std::string_view types) {
    int result = 0;
    while (!types.empty() && result >= 0) {
      const std::size_t length = CompleteTypeLength(types);
      result = Value(types.substr(0, length));
      types.remove_prefix(length);
    }
    return result;
  }

  int ArrayOf(std::string_view elementType) {
    while (m_block.m_arrays[m_array].at != m_at) ++m_array;  // past those in what went as a whole
    const std::size_t last = m_block.m_arrays[m_array].last;
    const std::size_t bytes = LengthAt(m_at);
    if (bytes > kLongestArray) return -EMSGSIZE;
    m_at = Aligned(m_at + kLengthBytes, AlignmentOf(elementType.front()));
    const std::size_t end = m_at + bytes;
    if (elementType.size() == 1 && IsTrivial(elementType.front())) {
      const char* const elements = Bytes().data() + m_at;
      m_at = end;
      return sd_bus_message_append_array(m_message, elementType.front(), elements, bytes);
    }
    return Inside('a', elementType, [&](std::string_view) {
      const bool beginsWithText = elementType.starts_with("(s") || elementType.starts_with("{s");
      if (m_whole && bytes > 0 && beginsWithText) return Whole(elementType, last);
      int result = 0;
      while (m_at < end && result >= 0) result = Value(elementType);
      return result;
    });
  }

  // All elements of an array whose first field is a text, here at the first of them. The library is asked for the space
  // of a text that reaches from the first one's to the end of the last one's; all that is between stands in it as it
  // travels, with the first one's length ahead. So only the rest of the last element is left for the library.
  int Whole(std::string_view elementType, std::size_t last) {
    return Inside(elementType.front(), elementType.substr(1, elementType.size() - 2), [&](std::string_view fields) {
      const std::size_t first = m_at + kLengthBytes;
      const std::size_t end = last + kLengthBytes + LengthAt(last);
      char* space = nullptr;
      const int result = sd_bus_message_append_string_space(m_message, end - first, &space);
      if (result < 0) return result;
      if (!HasLengthAhead(space, end - first)) return -EPROTO;
      std::memcpy(space - kLengthBytes, Bytes().data() + m_at, kLengthBytes + end - first);
      m_at = end + 1;
      return Values(fields.substr(1));
    });
  }

  const BusBlock& m_block;
  sd_bus_message* m_message;
  bool m_whole;
  std::size_t m_at = 0;
  std::size_t m_array = 0;
};

int BusBlock::AppendTo(sd_bus_message* message) {
  return Handover(*this, message).Value(m_types);
}

}  // namespace platform::detail
