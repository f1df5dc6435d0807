// platform/host.h: what the host says about itself and the process: names, files, environment, error texts.
//
// Text of the host is taken as UTF-8; what isn't well-formed reads as U+FFFD.
// Threads: every function may be called from any thread, as long as nobody changes the environment meanwhile.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// The system's version number as the described system packs it: its top bit is clear for the family with the security
// model, which is what every POSIX host counts as.
[[nodiscard]] std::uint32_t SystemVersion();

// Name of the account that the process runs under.
//   out      untouched on failure
//   returns  0; ERROR_FILE_NOT_FOUND (2) for an account without a name; the code of a failed call
[[nodiscard]] ErrorCode UserName(std::u16string& out);

// Whether the process may do everything on this host.
[[nodiscard]] bool RunsAsRoot();

// Name of the machine, without its domain.
[[nodiscard]] ErrorCode MachineName(std::u16string& out);

// Full path of the program's file, also when it was moved or deleted since the start.
[[nodiscard]] ErrorCode ProgramFilePath(std::u16string& out);

// The value of an environment variable; nothing when it isn't set. A name with a NUL or "=" is never set.
[[nodiscard]] std::optional<std::u16string> EnvironmentVariable(std::u16string_view name);

// A line for a debugger. Goes nowhere, except in development builds with QX_DEBUG_OUTPUT set in the environment when it
// is first called: then to standard error as it is, without a line end of its own.
void DebuggerOutput(std::u16string_view text);

// Writes a text to standard output, all of it at once: no rest waits for the process's end. Dropped where a pipe's or
// socket's reader has left it full, since the write would wait for him. Threads: any.
void TellOnStandardOutput(const std::string& text);

// The system's sentence for a code of error_codes.h, without a line end; empty for a code that it has no text for.
[[nodiscard]] std::u16string SystemErrorText(ErrorCode code);

}  // namespace platform
