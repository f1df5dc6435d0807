// platform/bus_block.h: an array for the bus, put together in the layout in which it travels before the library gets
// it.
//
// The library appends value by value, takes copies of every container's type text and looks at every byte of a text: a
// list or a record of many small values costs a hundred times its bytes. Here the values are laid out side by side, and
// the library gets them as a whole, between a first text and what stands behind the last one.
// Layout: D-Bus specification, "Marshaling (Wire Format)", in the host's byte order.
// Included by bus_*.cpp alone. Threads: those of the writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

struct sd_bus_message;

namespace platform::detail {

// How a value of a type is aligned in a message: a power of 2.
[[nodiscard]] std::size_t AlignmentOf(char type);
[[nodiscard]] inline std::size_t Aligned(std::size_t at, std::size_t alignment) {
  return (at + alignment - 1) & ~(alignment - 1);
}

// The length of the one complete type that a text begins with; 0: it begins with none.
[[nodiscard]] std::size_t CompleteTypeLength(std::string_view types);

// Whether the library takes a text as a string: UTF-8 without NUL and without noncharacters (U+FFFE, U+FDD0).
[[nodiscard]] bool IsBusString(std::string_view text);
// The same of a text without NUL as a string (s), an object path (o) or a signature (g).
[[nodiscard]] bool IsBusText(char type, std::string_view text);

// One array; nothing by default. Every function that appends returns false, with nothing done, for a value that isn't
// of the type that stands next.
class BusBlock {
 public:
  // Whether the array was opened and not closed yet.
  [[nodiscard]] bool IsOpen() const { return !m_open.empty(); }

  // The first one opens the array, and forgets one that was closed.
  [[nodiscard]] bool OpenArray(std::string_view elementType);
  [[nodiscard]] bool OpenStruct(std::string_view contents) { return OpenFields('(', ')', contents); }
  [[nodiscard]] bool OpenDictEntry(std::string_view contents) { return OpenFields('{', '}', contents); }
  [[nodiscard]] bool OpenVariant(std::string_view contents);
  [[nodiscard]] bool Close();
  // A number of one of the fixed types, as wide as it travels.
  template <typename T>
  [[nodiscard]] bool AppendNumber(char type, T value) {
    if (!Begin(type, 1, sizeof value)) return false;
    std::memcpy(Room(sizeof value), &value, sizeof value);
    return true;
  }
  // A string, an object path or a signature; the caller has seen to it that it is one.
  [[nodiscard]] bool AppendText(char type, std::string_view text);

  // Appends the closed array to a message.
  //   returns  a result of the library, negative for a failure
  [[nodiscard]] int AppendTo(sd_bus_message* message);

 private:
  // A container that is open. Its types stand in one of the texts below; an array has one type again and again.
  struct Container {
    char kind;
    bool inBytes;  // the types stand in m_bytes, as those of a variant do
    std::size_t next;
    std::size_t end;
    std::size_t first;  // where an array's elements begin
    std::size_t array;  // its number
  };
  struct Array {
    std::size_t at;    // of its length
    std::size_t last;  // of its last struct or entry
  };
  class Handover;

  [[nodiscard]] const std::string& TypesOf(const Container& container) const {
    return container.inBytes ? m_bytes : m_types;
  }
  bool Begin(char type, std::size_t length, std::size_t alignment);
  void AppendTerminated(std::string_view text);
  bool OpenFields(char open, char close, std::string_view contents);
  // Makes bytes of the block and gives them out to be filled. Many of them are few: growing is kept out of here.
  char* Room(std::size_t count) {
    if (count > m_bytes.size() - m_size) Grow(count);
    m_size += count;
    return m_bytes.data() + m_size - count;
  }
  void Grow(std::size_t count);
  void Pad(std::size_t alignment) {
    for (std::size_t left = Aligned(m_size, alignment) - m_size; left != 0; --left) *Room(1) = '\0';
  }

  std::string m_bytes;  // only the first m_size of them count
  std::size_t m_size = 0;
  std::string m_types;  // of the whole array
  std::vector<Container> m_open;
  std::vector<Array> m_arrays;  // in the order in which they begin
};

// For tests: the library gets every value by itself, as it does where its messages aren't laid out as expected.
void AppendValueByValue(bool wanted);

}  // namespace platform::detail
