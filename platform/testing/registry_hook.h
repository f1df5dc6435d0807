// platform/testing/registry_hook.h: for tests: a store that runs full, a writer that takes too long.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/error_codes.h"

namespace platform {

// Lets the open store grow by at most `morePages` pages of its file, so that writes beyond fail as on a full disk.
// ERROR_BADDB (1009) when no store is open. Holds until the store is closed or called again. Threads: any.
[[nodiscard]] ErrorCode LimitRegistryGrowth(std::uint32_t morePages);

// How long a thread waits with a write for the end of another thread's batch: 5 seconds until set. Threads: any.
void LimitRegistryTurn(std::chrono::milliseconds longest);

}  // namespace platform
