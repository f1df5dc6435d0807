#include "platform/registry_call.h"

#include <chrono>
#include <functional>
#include <thread>
#include <utility>

#include "platform/testing/registry_hook.h"

namespace platform::registry {

Mutex g_lock;
std::unique_ptr<Store> g_store;

namespace {

std::chrono::milliseconds g_longestTurn QX_GUARDED_BY(g_lock){5000};
std::function<void()> g_turnListener QX_GUARDED_BY(g_lock);

}  // namespace

ErrorCode AwaitTurn(MutexLock& guard) {
  while (g_store) {
    if (const ErrorCode code = g_store->Settle(); code != ERROR_SUCCESS) return code;
    const std::shared_ptr<Batch> batch = g_store->OpenBatch();
    if (!batch || batch->thread == std::this_thread::get_id()) break;
    if (g_turnListener) g_turnListener();
    const auto end = std::chrono::steady_clock::now() + g_longestTurn;
    for (bool inTime = true; batch->isOpen; inTime = batch->ended.WaitUntil(guard, end)) {
      if (!inTime) return ERROR_BUSY;
    }
  }
  return ERROR_SUCCESS;
}

ErrorCode AskFaultOf(const RegistryKey& key, Operation operation) {
  const Handle* handle = Handle::Of(key);
  return AskFault(operation, handle != nullptr ? std::u16string_view(handle->name) : u"");
}

ErrorCode Enter(const RegistryKey& key, Handle*& out) {
  Handle* handle = Handle::Of(key);
  if (handle == nullptr) return ERROR_INVALID_HANDLE;
  if (!g_store) return ERROR_BADDB;
  if (const ErrorCode code = g_store->Settle(); code != ERROR_SUCCESS) return code;
  if (handle->storeNumber != g_store->Number()) return ERROR_INVALID_HANDLE;
  // Its number may have been given to another key since.
  if (handle->seen && handle->seen->isLost && handle->place.id > handle->seen->lastIdBefore) return ERROR_KEY_DELETED;
  out = handle;
  return ERROR_SUCCESS;
}

ErrorCode EnterToRead(const RegistryKey& key, std::uint32_t right, Handle*& out) {
  if (const ErrorCode code = Enter(key, out); code != ERROR_SUCCESS) return code;
  return (out->access & right) == right ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

ErrorCode EnterToWrite(const RegistryKey& key, std::uint32_t right, Handle*& out) {
  if (Handle* handle = Handle::Of(key); handle != nullptr && handle->wrote && handle->wrote->isLost) {
    return handle->wrote->code;
  }
  return EnterToRead(key, right, out);
}

ErrorCode EnterRoot(Hive hive, Handle& out) {
  if (!g_store) return ERROR_BADDB;
  if (const ErrorCode code = g_store->Settle(); code != ERROR_SUCCESS) return code;
  const Root* root = FindRoot(hive);
  if (root == nullptr) return ERROR_INVALID_HANDLE;
  out.storeNumber = g_store->Number();
  out.place = {root->id, 0};
  return ERROR_SUCCESS;
}

}  // namespace platform::registry

namespace platform {

void LimitRegistryTurn(std::chrono::milliseconds longest) {
  const MutexLock guard(registry::g_lock);
  registry::g_longestTurn = longest;
}

void ListenForRegistryTurns(std::function<void()> listener) {
  const MutexLock guard(registry::g_lock);
  registry::g_turnListener = std::move(listener);
}

}  // namespace platform
