// platform/child_exits.h: that the exits of this process's children can be asked for.
//
// For the files that start children alone. Threads: any.
#pragma once

namespace platform::detail {

// Ahead of each start of a child: whoever started this program may have left SIGCHLD ignored, which a program inherits.
// The kernel then keeps no exit code, and a wait for one child lasts until all have ended (wait(2)).
void KeepChildExits();

}  // namespace platform::detail
