// platform/debug_output.h: text for a developer who watches the program.
//
// Goes to standard error in development builds (QX_FAULT_SEAM) and nowhere in others, unless a sink is set.
// Threads: any.
#pragma once

#include <string_view>

namespace platform {

void DebugOutput(std::string_view text);

// Where the text goes from now on; null for the default. Gives the sink that was set before.
using DebugSink = void (*)(std::string_view text);
DebugSink SetDebugSink(DebugSink sink);

}  // namespace platform
