// platform/terminal.h: whether somebody looks at what a program writes.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstddef>

namespace platform {

enum class StandardStream { kInput, kOutput, kError };

// Whether a standard stream of the process is a terminal.
[[nodiscard]] bool IsTerminal(StandardStream stream);
// Characters in a line of the terminal that a standard stream is; 0 where it is none or doesn't say.
[[nodiscard]] std::size_t TerminalColumns(StandardStream stream);

}  // namespace platform
