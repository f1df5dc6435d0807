// platform/registry_call.h: what every call of the key store does first: the lock, the open store, the key's handle.
//
// For the files of the store alone. Threads: any, as each declaration says.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/registry.h"
#include "platform/registry_handle.h"
#include "platform/registry_store.h"
#include "platform/thread_annotations.h"

namespace platform::registry {

class QX_CAPABILITY("mutex") Mutex {
 public:
  void Lock() QX_ACQUIRE() { m_mutex.lock(); }
  void Unlock() QX_RELEASE() { m_mutex.unlock(); }

 private:
  std::mutex m_mutex;
};

class QX_SCOPED_CAPABILITY Guard {
 public:
  explicit Guard(Mutex& mutex) QX_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~Guard() QX_RELEASE() { m_mutex.Unlock(); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  Mutex& m_mutex;
};

extern Mutex g_lock;
// Null: none is open.
extern std::unique_ptr<Store> g_store QX_GUARDED_BY(g_lock);

// The key's handle, when it can be worked with.
//   returns  ERROR_INVALID_HANDLE (6); ERROR_BADDB (1009): no store is open; ERROR_KEY_DELETED (1018)
[[nodiscard]] ErrorCode Enter(const RegistryKey& key, Handle*& out) QX_REQUIRES(g_lock);
// ERROR_ACCESS_DENIED (5) without the right.
[[nodiscard]] ErrorCode EnterToRead(const RegistryKey& key, std::uint32_t right, Handle*& out) QX_REQUIRES(g_lock);
// A handle whose batch was lost writes no more: what came after would stand without what came before.
[[nodiscard]] ErrorCode EnterToWrite(const RegistryKey& key, std::uint32_t right, Handle*& out) QX_REQUIRES(g_lock);
// A handle for one of the roots, for the time of a call.
[[nodiscard]] ErrorCode EnterRoot(Hive hive, Handle& out) QX_REQUIRES(g_lock);

}  // namespace platform::registry
