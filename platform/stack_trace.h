// platform/stack_trace.h: the calling thread's stack, and what lies at an address of the process.
//
// Threads: any. Not for signal handlers: names are looked up under the loader's lock and memory is allocated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

struct StackFrame {
  std::uintptr_t address = 0;  // where the call goes on; at the return from a function, so one behind the call
  std::uintptr_t frame = 0;    // of the stack, when the function began
};

// The frames of the calling thread, innermost first, beginning with the caller of this function.
//   skip  this many of the caller's frames are left out
//   most  at most this many are given
[[nodiscard]] std::vector<StackFrame> CaptureStack(std::size_t skip = 0, std::size_t most = 64);

// Where an address lies: a loaded program or library and a part of it.
struct CodePlace {
  std::uint32_t section = 0;  // number of the module's loaded part, from 1; 0: in no module
  std::uintptr_t offset = 0;  // in that part; the address itself in no module
  std::string module;         // full name of its file; empty in no module
};
[[nodiscard]] CodePlace PlaceOf(std::uintptr_t address);

// The exported function that an address lies in.
struct CodeSymbol {
  std::string name;           // demangled
  std::uintptr_t offset = 0;  // from its beginning
};
//   out      untouched on failure
//   returns  ERROR_PROC_NOT_FOUND (127): no name is known
[[nodiscard]] ErrorCode SymbolOf(std::uintptr_t address, CodeSymbol& out);

}  // namespace platform
