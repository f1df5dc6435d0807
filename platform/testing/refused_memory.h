// platform/testing/refused_memory.h: for tests: memory that C++ code asks for runs out at one allocation of a thread.
//
// The program that links this library gets operator new of its own; malloc() stays, so that what C libraries allocate
// is there. Threads: each has its own refusals; the count is of all.
#pragma once

#include "platform/testing/fault.h"

namespace platform {

// Refuses the calling thread the allocation behind `ahead` others.
//   mode  kFromThenOn: and all that come behind it, until AllowMemory() or the thread's end
void RefuseMemory(long ahead, FaultMode mode);
void AllowMemory();
// Allocations that were refused since the last call, on any thread.
long TakeRefusedCount();

}  // namespace platform
