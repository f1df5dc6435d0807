// platform/input_file.h: reading what a user names on a command line: a file, a pipe of the shell's `<(command)`, a
// terminal or another device.
//
// Threads: any.
#pragma once

#include <cstddef>
#include <string>

#include "platform/error_codes.h"

namespace platform {

// Reads from the beginning to the end, or to `most` bytes. Waits for whoever writes into a pipe.
//   contents  replaced on success, untouched on failure
//   returns   ERROR_SUCCESS; ERROR_FILE_NOT_FOUND (2) or ERROR_PATH_NOT_FOUND (3); ERROR_ACCESS_DENIED (5), also for
//             a socket; ERROR_DIRECTORY (267); the code of a failed read
[[nodiscard]] ErrorCode ReadInput(const std::string& name, std::size_t most, std::string& contents);

// Whether the name leads to a pipe, a terminal or another device, which may let a reader wait.
[[nodiscard]] bool IsStream(const std::string& name);

}  // namespace platform
