// tests/judges_memory.h: for tests: whether a program's resident memory tells of what it holds.
#pragma once

namespace qx::testing {

// A sanitizer keeps freed memory on purpose; threads and descriptors are judged all the same.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kJudgesMemory = false;
#else
inline constexpr bool kJudgesMemory = true;
#endif

}  // namespace qx::testing
