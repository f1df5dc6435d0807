// client/output_lock.h: keeps lines of qxsched whole that come from two threads.
//
// While a command waits for the service, a thread of its own tells that it takes long (Session::Wait()), and the waited
// call may write too. Standard error is tied to standard output: a line of the one writes the other out.
#pragma once

#include "platform/mutex.h"

namespace qx {

// Held for each line of standard error, and for what is written to standard output inside a waited call.
[[nodiscard]] platform::Mutex& OutputLock();

}  // namespace qx
