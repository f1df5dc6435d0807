// platform/testing/judges_memory.h: for tests: what a program holds of memory.
//
// Threads: any.
#pragma once

#include <malloc.h>

#include <cstddef>

#include "platform/sanitizer.h"

#if QX_ADDRESS_SANITIZER || QX_THREAD_SANITIZER
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();  // of a header that gcc's package lacks
#endif

namespace platform {

// The bytes that this program has allocated and not freed. A sanitizer has an allocator of its own, which the C library
// knows nothing of; what that keeps of freed memory isn't counted.
[[nodiscard]] inline std::size_t HeldBytes() {
#if QX_ADDRESS_SANITIZER || QX_THREAD_SANITIZER
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
#endif
}

// Whether a sanitizer hands memory out.
#if QX_ADDRESS_SANITIZER || QX_THREAD_SANITIZER
inline constexpr bool kHasSanitizedMemory = true;
#else
inline constexpr bool kHasSanitizedMemory = false;
#endif

// Whether the resident memory of a process tells of what it holds: a sanitizer keeps freed memory on purpose.
inline constexpr bool kJudgesMemory = !kHasSanitizedMemory;

}  // namespace platform
