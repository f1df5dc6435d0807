// platform/registry_call.h: what every call of the key store does first: the lock, the open store, the key's handle.
//
// For the files of the store alone. Threads: any, as each declaration says.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/mutex.h"
#include "platform/registry.h"
#include "platform/registry_handle.h"
#include "platform/registry_store.h"

namespace platform::registry {

extern Mutex g_lock;
// Null: none is open.
extern std::unique_ptr<Store> g_store QX_GUARDED_BY(g_lock);

// Asks the fault point about a call on a key, by the name that the key was opened with.
[[nodiscard]] ErrorCode AskFaultOf(const RegistryKey& key, Operation operation);

// The key's handle, when it can be worked with.
//   returns  ERROR_INVALID_HANDLE (6); ERROR_BADDB (1009): no store is open; ERROR_KEY_DELETED (1018)
[[nodiscard]] ErrorCode Enter(const RegistryKey& key, Handle*& out) QX_REQUIRES(g_lock);
// ERROR_ACCESS_DENIED (5) without the right.
[[nodiscard]] ErrorCode EnterToRead(const RegistryKey& key, std::uint32_t right, Handle*& out) QX_REQUIRES(g_lock);
// Ahead of each call that writes: waits while another thread's batch is open, or a commit here would keep what is half
// written there. Lets go of the lock meanwhile: handles and the store itself are looked at behind it.
//   returns  ERROR_BUSY (170): one batch stayed open for the longest turn (registry_hook.h); as Store::Settle()
[[nodiscard]] ErrorCode AwaitTurn(MutexLock& guard) QX_REQUIRES(g_lock);
// A handle whose batch was lost writes no more: what came after would stand without what came before.
[[nodiscard]] ErrorCode EnterToWrite(const RegistryKey& key, std::uint32_t right, Handle*& out) QX_REQUIRES(g_lock);
// A handle for one of the roots, for the time of a call.
[[nodiscard]] ErrorCode EnterRoot(Hive hive, Handle& out) QX_REQUIRES(g_lock);

}  // namespace platform::registry
