// platform/testing/registry_hook.h: for tests: a store that runs full, a writer that takes too long.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "platform/error_codes.h"

namespace platform {

// Lets the open store grow by at most `morePages` pages of its file, so that writes beyond fail as on a full disk.
// ERROR_BADDB (1009) when no store is open. Holds until the store is closed or called again. Threads: any.
[[nodiscard]] ErrorCode LimitRegistryGrowth(std::uint32_t morePages);

// How long a thread waits with a write for the end of another thread's batch: 5 seconds until set. Threads: any.
void LimitRegistryTurn(std::chrono::milliseconds longest);

// Called by each thread that is about to wait for the end of another thread's batch; empty for none. It holds the
// store's lock: the listener calls nothing of the store. Threads: any.
void ListenForRegistryTurns(std::function<void()> listener);

}  // namespace platform
