// service/run_command.h: runs one command line and waits for its end, for a request of another node.
//
// A different path from the launch of a job: narrow text, and the caller's thread waits as long as the command takes.
// Threads: any, several at once.
#pragma once

#include <cstdint>
#include <string_view>

#include "interface/records.h"

namespace qx {

// Every step is logged at level 1. No lock is held.
//   command   in the system code page, split as every command line (platform/process.h), used up to a NUL
//   exitCode  null: nobody asks for it; else the process's status, 128 + N after signal N; untouched on a failure
//   returns   0 once the process has ended, whatever its exit code;
//             0x8007xxxx of the system call that failed: 0x80070002 for a program that doesn't exist
[[nodiscard]] Status RunCommand(std::string_view command, std::uint32_t* exitCode = nullptr);

}  // namespace qx
