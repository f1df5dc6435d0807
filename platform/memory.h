// platform/memory.h: told allocations: memory that is asked for by name and may be refused.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace platform {

// `bytes` zeroed bytes, also for 0; null when memory is exhausted. Owned by the caller: freed with Free(), or with the
// runtime's free() where a buffer leaves the system.
//   name  what the memory is for; a test makes the allocation of that name fail
[[nodiscard]] void* Allocate(std::size_t bytes, std::string_view name);
// Null is nothing.
void Free(void* memory);

// An owned array of zeroed elements; empty by default.
template <class T>
class NamedBuffer {
  static_assert(std::is_trivially_copyable_v<T>, "elements are made of zero bytes and freed without a destructor");

 public:
  NamedBuffer() = default;
  // Ask operator bool whether it worked; a count whose bytes can't be counted is refused like exhausted memory.
  NamedBuffer(std::size_t count, std::string_view name)
      : m_data(count > SIZE_MAX / sizeof(T) ? nullptr : static_cast<T*>(Allocate(count * sizeof(T), name))),
        m_count(m_data == nullptr ? 0 : count) {}
  ~NamedBuffer() { Free(m_data); }
  NamedBuffer(NamedBuffer&& other) noexcept
      : m_data(std::exchange(other.m_data, nullptr)), m_count(std::exchange(other.m_count, 0)) {}
  NamedBuffer& operator=(NamedBuffer&& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_count, other.m_count);
    return *this;
  }
  NamedBuffer(const NamedBuffer&) = delete;
  NamedBuffer& operator=(const NamedBuffer&) = delete;

  explicit operator bool() const { return m_data != nullptr; }
  [[nodiscard]] T* get() { return m_data; }
  [[nodiscard]] const T* get() const { return m_data; }
  [[nodiscard]] std::size_t size() const { return m_count; }
  [[nodiscard]] T& operator[](std::size_t index) { return m_data[index]; }
  [[nodiscard]] const T& operator[](std::size_t index) const { return m_data[index]; }
  [[nodiscard]] std::span<T> span() { return {m_data, m_count}; }
  // Gives up ownership: the caller frees with Free().
  [[nodiscard]] T* release() {
    m_count = 0;
    return std::exchange(m_data, nullptr);
  }

 private:
  T* m_data = nullptr;
  std::size_t m_count = 0;
};

}  // namespace platform
