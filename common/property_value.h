// common/property_value.h: the tagged value that goes through a property bag.
//
// A value is a tag and one slot of 64 bits; the tag says which part of the slot is meant. Tags and widths are those of
// the saved schedule forms. A value owns what its slot points to and frees it with its life.
// Threads: one value is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The tags. Signed and unsigned twins share a width.
using ZepTag = std::uint16_t;
inline constexpr ZepTag kTagDate = 2;      // 64-bit seconds
inline constexpr ZepTag kTagTime = 3;      // 64-bit seconds
inline constexpr ZepTag kTagTimeSpan = 4;  // 32-bit unsigned, whole seconds
inline constexpr ZepTag kTagInt8 = 6;
inline constexpr ZepTag kTagUInt8 = 7;
inline constexpr ZepTag kTagBool = 8;  // one byte, true is 1
inline constexpr ZepTag kTagInt16 = 9;
inline constexpr ZepTag kTagUInt16 = 10;
inline constexpr ZepTag kTagInt32 = 11;
inline constexpr ZepTag kTagUInt32 = 12;
inline constexpr ZepTag kTagInt32Twin = 13;
inline constexpr ZepTag kTagUInt32Twin = 14;
inline constexpr ZepTag kTagText = 15;       // owned NUL-terminated narrow text
inline constexpr ZepTag kTagDateArray = 18;  // owned array of 64-bit seconds
inline constexpr ZepTag kTagBits32 = 22;
inline constexpr ZepTag kTagInt16Array = 25;  // owned array of 16-bit integers
inline constexpr ZepTag kTagStringMap = 31;   // owned array: narrow strings end to end, key, value, key, value
inline constexpr ZepTag kTagCustom = 99;      // owned array of bytes

// What the slot of an array tag points to. The count is 16 bits wide: no more than 65535 elements travel in one value.
struct PropertyArray {
  std::uint16_t elementCount = 0;  // of a string map: the number of strings, twice that of its pairs
  std::uint32_t elementSize = 0;   // 1, 2 or 8 bytes; 1 for a string map
  void* elements = nullptr;        // null for an empty array
};

struct PropertyValue {  // a value of a property bag, with its type
  PropertyValue() = default;
  // An empty slot under a tag: 0, a null text, no array. What a reader starts from.
  explicit PropertyValue(ZepTag tag) : m_tag(tag) {}
  // A number under a tag whose slot holds one; the slot takes the low bits.
  PropertyValue(ZepTag tag, std::int64_t number) : m_tag(tag), m_number(number) {}
  PropertyValue(PropertyValue&& other) noexcept { Swap(other); }
  PropertyValue& operator=(PropertyValue&& other) noexcept {
    Swap(other);
    return *this;
  }
  PropertyValue(const PropertyValue&) = delete;
  PropertyValue& operator=(const PropertyValue&) = delete;
  ~PropertyValue() { Clear(); }

  [[nodiscard]] ZepTag Tag() const { return m_tag; }  // kTag...; 0 for a new value
  // Empties the slot and changes the tag.
  void Reset(ZepTag tag);

  // The slot of a number tag, cut to the width that is asked for.
  [[nodiscard]] std::int64_t Wide() const { return m_number; }
  [[nodiscard]] std::int32_t Int32() const { return static_cast<std::int32_t>(m_number); }     // the low 32 bits
  [[nodiscard]] std::uint32_t UInt32() const { return static_cast<std::uint32_t>(m_number); }  // the low 32 bits
  [[nodiscard]] std::int16_t Int16() const { return static_cast<std::int16_t>(m_number); }     // the low 16 bits
  [[nodiscard]] std::uint16_t UInt16() const { return static_cast<std::uint16_t>(m_number); }  // the low 16 bits
  [[nodiscard]] std::int8_t Int8() const { return static_cast<std::int8_t>(m_number); }        // the low byte
  [[nodiscard]] std::uint8_t Byte() const { return static_cast<std::uint8_t>(m_number); }      // the low byte
  void SetWide(std::int64_t number) { m_number = number; }  // the whole slot; the tag stays
  // Only the low 32 bits, or the low byte, change.
  void SetLow32(std::uint32_t number);
  void SetByte(std::uint8_t number);  // the tag stays

  // The text, null when there is none. Throws std::bad_alloc in the setter.
  [[nodiscard]] const char* Text() const { return m_text; }
  // The view without a NUL; the tag becomes kTagText.
  void SetText(std::string_view text);

  // The array, null when there is none.
  [[nodiscard]] const PropertyArray* Array() const { return m_array; }
  // The elements of the array where its element size fits the type, else none.
  [[nodiscard]] std::span<const std::int64_t> Dates() const { return Elements<std::int64_t>(); }
  [[nodiscard]] std::span<const std::int16_t> Int16s() const { return Elements<std::int16_t>(); }  // of kTagInt16Array
  [[nodiscard]] std::span<const std::uint8_t> Bytes() const { return Elements<std::uint8_t>(); }   // of kTagCustom
  // The strings of a string map, in order.
  [[nodiscard]] std::vector<std::string> Strings() const;

  // Each makes a new array and sets the tag (kTagDateArray, kTagInt16Array, kTagCustom, kTagStringMap). Elements behind
  // the 65535th are left out; a string ends at its first NUL. Throws std::bad_alloc, with the value unchanged.
  void SetDates(std::span<const std::int64_t> dates);
  void SetInt16s(std::span<const std::int16_t> numbers);  // kTagInt16Array
  void SetBytes(std::span<const std::uint8_t> bytes);     // kTagCustom
  void SetStrings(std::span<const std::string> strings);  // kTagStringMap: key, value, key, value

 private:
  template <class T>
  [[nodiscard]] std::span<const T> Elements() const {
    if (m_array == nullptr || m_array->elementSize != sizeof(T) || m_array->elements == nullptr) return {};
    return {static_cast<const T*>(m_array->elements), m_array->elementCount};
  }
  void SetArray(ZepTag tag, std::size_t count, std::size_t elementSize, const void* bytes, std::size_t size);
  void Clear();
  void Swap(PropertyValue& other) noexcept;

  ZepTag m_tag = 0;
  std::int64_t m_number = 0;         // the slot of a number tag
  char* m_text = nullptr;            // the slot of kTagText; freed with the runtime's free
  PropertyArray* m_array = nullptr;  // the slot of an array tag; it and its elements likewise
};
