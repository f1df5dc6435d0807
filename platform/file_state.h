// platform/file_state.h: small files read at once, and whether one still is what was read.
//
// For somebody who reads many files ahead of their use. Threads: any.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

namespace platform {

// Which file a name led to, and in which state. Two reads of equal states gave the same bytes.
struct FileState {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since 1970
  std::int64_t changed = 0;   // likewise: of the bytes, the name count or the mode

  friend bool operator==(const FileState&, const FileState&) = default;
};

inline constexpr std::int64_t kSmallFileBytes = 1 << 20;

// Reads a regular file of at most kSmallFileBytes. Asks Operation::kReadFile with the name.
//   name     the kernel's
//   bytes    replaced; undefined on failure
//   returns  false for any other file and where it can't be read
[[nodiscard]] bool ReadSmallFile(const std::string& name, std::string& bytes, FileState& state);

// Whether the name still leads to that file in that state.
[[nodiscard]] bool IsFileInState(const std::string& name, const FileState& state);

// Counts what this process has done to names by the calls of file.h: renames, replacements and deletions, each at its
// begin and at its end. While the number stays, no such call began or ended.
[[nodiscard]] std::uint64_t FileChanges();

namespace detail {
void CountFileChange();

// A file's time in nanoseconds since 1970. One behind the year 2262 wraps.
[[nodiscard]] inline std::int64_t NanosecondsOf(const timespec& time) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000u +
                                   static_cast<std::uint64_t>(time.tv_nsec));
}
}  // namespace detail

}  // namespace platform
