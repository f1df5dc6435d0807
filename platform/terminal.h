// platform/terminal.h: whether somebody looks at what a program writes, and how much room it takes there.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstddef>
#include <limits>
#include <string_view>

namespace platform {

enum class StandardStream { kInput, kOutput, kError };

// Whether a standard stream of the process is a terminal.
[[nodiscard]] bool IsTerminal(StandardStream stream);
// Characters in a line of the terminal that a standard stream is; 0 where it is none or doesn't say.
[[nodiscard]] std::size_t TerminalColumns(StandardStream stream);

struct TextFit {
  std::size_t bytes = 0;    // of whole characters
  std::size_t columns = 0;  // that they take
};
// The longest beginning of a text in UTF-8 that takes at most so many columns, by the host's table (wcwidth(3)): a wide
// character takes two, one that is set over the character before it none. What the table doesn't know takes one, and so
// does each byte that isn't of UTF-8.
[[nodiscard]] TextFit FitText(std::string_view text, std::size_t columns = std::numeric_limits<std::size_t>::max());

}  // namespace platform
