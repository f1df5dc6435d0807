// platform/testing/judges_memory.h: for tests: whether what a program has allocated tells of what it holds.
#pragma once

namespace platform {

// A sanitizer keeps freed memory on purpose, in an allocator of its own that the C library's counters don't show.
// Threads and descriptors are judged all the same.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kJudgesMemory = false;
#else
inline constexpr bool kJudgesMemory = true;
#endif

// What a test says at its end, by GTEST_SKIP(), that has judged all but memory.
inline constexpr char kAllButMemory[] = "all but the memory was judged: a sanitizer keeps what is freed";

}  // namespace platform
