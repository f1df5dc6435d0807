#include "common/property_value.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "platform/memory.h"

namespace {

constexpr std::size_t kMaxElements = 65535;

}  // namespace

void PropertyValue::Reset(ZepTag tag) {
  Clear();
  m_tag = tag;
}

void PropertyValue::SetLow32(std::uint32_t number) {
  const auto high = static_cast<std::uint64_t>(m_number) & 0xFFFFFFFF00000000u;
  m_number = static_cast<std::int64_t>(high | number);
}

void PropertyValue::SetByte(std::uint8_t number) {
  const auto high = static_cast<std::uint64_t>(m_number) & ~std::uint64_t{0xFF};
  m_number = static_cast<std::int64_t>(high | number);
}

void PropertyValue::SetText(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  char* copy = static_cast<char*>(platform::Allocate(text.size() + 1, "PropertyValue text"));
  if (copy == nullptr) throw std::bad_alloc();
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  Reset(kTagText);
  m_text = copy;
}

std::vector<std::string> PropertyValue::Strings() const {
  std::vector<std::string> strings;
  if (m_tag != kTagStringMap || m_array == nullptr) return strings;
  const char* next = static_cast<const char*>(m_array->elements);
  for (std::size_t i = 0; i < m_array->elementCount; ++i) {
    strings.emplace_back(next);
    next += strings.back().size() + 1;
  }
  return strings;
}

void PropertyValue::SetDates(std::span<const std::int64_t> dates) {
  dates = dates.first(std::min(dates.size(), kMaxElements));
  SetArray(kTagDateArray, dates.size(), sizeof(std::int64_t), dates.data(), dates.size_bytes());
}

void PropertyValue::SetInt16s(std::span<const std::int16_t> numbers) {
  numbers = numbers.first(std::min(numbers.size(), kMaxElements));
  SetArray(kTagInt16Array, numbers.size(), sizeof(std::int16_t), numbers.data(), numbers.size_bytes());
}

void PropertyValue::SetBytes(std::span<const std::uint8_t> bytes) {
  bytes = bytes.first(std::min(bytes.size(), kMaxElements));
  SetArray(kTagCustom, bytes.size(), 1, bytes.data(), bytes.size_bytes());
}

void PropertyValue::SetStrings(std::span<const std::string> strings) {
  strings = strings.first(std::min(strings.size(), kMaxElements));
  std::string joined;
  for (const std::string& text : strings) joined.append(text.c_str()).push_back('\0');
  SetArray(kTagStringMap, strings.size(), 1, joined.data(), joined.size());
}

void PropertyValue::SetArray(ZepTag tag, std::size_t count, std::size_t elementSize, const void* bytes,
                             std::size_t size) {
  platform::NamedBuffer<char> elements;
  if (size != 0) {
    elements = platform::NamedBuffer<char>(size, "PropertyArray elements");
    if (!elements) throw std::bad_alloc();
    std::memcpy(elements.get(), bytes, size);
  }
  void* memory = platform::Allocate(sizeof(PropertyArray), "PropertyArray");
  if (memory == nullptr) throw std::bad_alloc();
  Reset(tag);
  m_array = new (memory) PropertyArray{static_cast<std::uint16_t>(count), static_cast<std::uint32_t>(elementSize),
                                       elements.release()};
}

void PropertyValue::Clear() {
  m_number = 0;
  platform::Free(std::exchange(m_text, nullptr));
  if (m_array != nullptr) platform::Free(m_array->elements);
  platform::Free(std::exchange(m_array, nullptr));
}

void PropertyValue::Swap(PropertyValue& other) noexcept {
  std::swap(m_tag, other.m_tag);
  std::swap(m_number, other.m_number);
  std::swap(m_text, other.m_text);
  std::swap(m_array, other.m_array);
}
