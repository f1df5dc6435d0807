// platform/registry_log_room.h: room for the write-ahead log of the open key store, made before it is needed.
//
// A log that grows makes each commit wait for the file system too, which has to note the new size and blocks; in a log
// that has its room already a commit waits for its own bytes alone. Threads: any; the store's one lock is held.
#pragma once

#include "platform/error_codes.h"

namespace platform {

// Lets the log be as long at least as it becomes by itself until it is written from its beginning again. What it holds
// stays as it is. Nothing when it has that length. Asks Operation::kWriteFile, behind which it is a help that may fail:
// a part of the room may have been made then.
//   returns  ERROR_BADDB (1009): no store is open; ERROR_BUSY (170): somebody is writing into it;
//            ERROR_DISK_FULL (112) and others of the disk
[[nodiscard]] ErrorCode MakeRegistryLogRoom();

}  // namespace platform
