// platform/automation.h: arrays of records, and the descriptions of record types that arrays are made with.
//
// The calls keep the shape of the published array functions: create, access the data, end the access, destroy. Each
// can be told to fail by the name that it is given.
// Threads: one array is used by one thread at a time; GetRecordInfo by any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "platform/error_codes.h"

namespace platform {

// Results of the calls beyond the system codes (winerror.h).
inline constexpr std::uint32_t kArrayUnexpected = 0x8000FFFF;       // an end of access without an access
inline constexpr std::uint32_t kArrayLocked = 0x8002000D;           // destroyed while accessed
inline constexpr std::uint32_t kArrayInvalidArgument = 0x80070057;  // no array to work on

// Asks for the description of the record type `name`; descriptions are known to the compiler, so only a fault refuses.
[[nodiscard]] std::uint32_t GetRecordInfo(std::string_view name);

namespace detail {
// The questions to the fault seam, so that it stays out of this header.
[[nodiscard]] std::uint32_t AskArrayCreate(std::string_view name);
[[nodiscard]] std::uint32_t AskArrayAccess(std::string_view name);
[[nodiscard]] std::uint32_t AskArrayUnaccess(std::string_view name);
[[nodiscard]] std::uint32_t AskArrayDestroy(std::string_view name);
}  // namespace detail

// An owned array of value-initialised records. Empty by default; its end frees the records whatever the accesses.
// Every operation returns 0 or the 32-bit result of the failure and changes nothing then.
template <class T>
class RecordArray {
 public:
  RecordArray() = default;
  RecordArray(RecordArray&& other) noexcept { *this = std::move(other); }
  RecordArray& operator=(RecordArray&& other) noexcept {
    std::swap(m_records, other.m_records);
    std::swap(m_count, other.m_count);
    std::swap(m_accesses, other.m_accesses);
    return *this;
  }
  RecordArray(const RecordArray&) = delete;
  RecordArray& operator=(const RecordArray&) = delete;

  // Makes `count` records in place of what was there; 0 is an array without records.
  //   returns  0; ERROR_OUTOFMEMORY (14); kArrayLocked when the present records are accessed
  [[nodiscard]] std::uint32_t Create(std::size_t count, std::string_view name) {
    if (const std::uint32_t fault = detail::AskArrayCreate(name); fault != 0) return fault;
    if (m_accesses != 0) return kArrayLocked;
    if (count > static_cast<std::size_t>(PTRDIFF_MAX) / sizeof(T)) return ERROR_OUTOFMEMORY;
    std::unique_ptr<T[]> records(new (std::nothrow) T[count]());
    if (!records) return ERROR_OUTOFMEMORY;
    m_records = std::move(records);
    m_count = count;
    return 0;
  }

  // Gives the first record and counts an access.
  //   returns  0; kArrayInvalidArgument when nothing was created
  [[nodiscard]] std::uint32_t AccessData(T*& data, std::string_view name) {
    if (const std::uint32_t fault = detail::AskArrayAccess(name); fault != 0) return fault;
    if (!m_records) return kArrayInvalidArgument;
    ++m_accesses;
    data = m_records.get();
    return 0;
  }

  //   returns  0; kArrayUnexpected without an access
  [[nodiscard]] std::uint32_t UnaccessData(std::string_view name) {
    if (const std::uint32_t fault = detail::AskArrayUnaccess(name); fault != 0) return fault;
    if (m_accesses == 0) return kArrayUnexpected;
    --m_accesses;
    return 0;
  }

  // Frees the records; an empty object is one already.
  //   returns  0; kArrayLocked while accessed
  [[nodiscard]] std::uint32_t Destroy(std::string_view name) {
    if (const std::uint32_t fault = detail::AskArrayDestroy(name); fault != 0) return fault;
    if (m_accesses != 0) return kArrayLocked;
    m_records.reset();
    m_count = 0;
    return 0;
  }

  // Whether Create() made an array, if only one without records.
  explicit operator bool() const { return m_records != nullptr; }
  [[nodiscard]] std::size_t size() const { return m_count; }
  // The records outside the counted access, for code that reads a finished array.
  [[nodiscard]] std::span<const T> records() const { return {m_records.get(), m_count}; }

 private:
  std::unique_ptr<T[]> m_records;
  std::size_t m_count = 0;
  int m_accesses = 0;
};

}  // namespace platform
