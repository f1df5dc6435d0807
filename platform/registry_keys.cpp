// The calls of keys (registry.h).
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/fault_point.h"
#include "platform/registry.h"
#include "platform/registry_call.h"
#include "platform/registry_names.h"

namespace platform {
namespace {

using registry::AskFault;
using registry::AskFaultOf;
using registry::AwaitTurn;
using registry::Batch;
using registry::Enter;
using registry::EnterRoot;
using registry::EnterToRead;
using registry::EnterToWrite;
using registry::g_lock;
using registry::g_store;
using registry::Handle;
using registry::SplitPath;

// Ahead of the work, as memory may run out for it. Its place is told when that is done.
std::unique_ptr<Handle> MakeHandle(const Handle& parent, std::uint32_t access,
                                   std::span<const std::u16string_view> elements) QX_REQUIRES(g_lock) {
  auto handle = std::make_unique<Handle>();
  handle->storeNumber = g_store->Number();
  handle->access = access;
  handle->name = elements.empty() ? parent.name : std::u16string(elements.back());
  return handle;
}

ErrorCode OpenBelow(const Handle& parent, std::u16string_view subKey, std::uint32_t access,
                    std::unique_ptr<Handle>& out) QX_REQUIRES(g_lock) {
  std::vector<std::u16string_view> elements;
  if (const ErrorCode code = SplitPath(subKey, elements); code != ERROR_SUCCESS) return code;
  auto handle = MakeHandle(parent, access, elements);
  const ErrorCode code = g_store->Locate(parent.place, elements, handle->place);
  if (code != ERROR_SUCCESS) return code;
  handle->seen = g_store->OpenBatch();
  out = std::move(handle);
  return ERROR_SUCCESS;
}

ErrorCode CreateBelow(const Handle& parent, std::u16string_view subKey, std::uint32_t access,
                      std::unique_ptr<Handle>& out, bool& created) QX_REQUIRES(g_lock) {
  std::vector<std::u16string_view> elements;
  if (const ErrorCode code = SplitPath(subKey, elements); code != ERROR_SUCCESS) return code;
  auto handle = MakeHandle(parent, access, elements);
  const ErrorCode code = g_store->Create(parent.place, elements, handle->place, created);
  if (code != ERROR_SUCCESS) return code;
  handle->seen = g_store->OpenBatch();
  if (created && !elements.empty()) g_store->Join(*handle);
  out = std::move(handle);
  return ERROR_SUCCESS;
}

ErrorCode DeleteBelow(Handle& parent, std::u16string_view subKey, bool withChildren) QX_REQUIRES(g_lock) {
  std::vector<std::u16string_view> elements;
  if (const ErrorCode code = SplitPath(subKey, elements); code != ERROR_SUCCESS) return code;
  return g_store->Delete(parent, elements, withChildren);
}

ErrorCode DeleteFromRoot(Hive hive, std::u16string_view subKey, bool withChildren) {
  if (const ErrorCode code = AskFault(Operation::kRegDeleteKey, subKey); code != ERROR_SUCCESS) return code;
  if (subKey.data() == nullptr) return ERROR_INVALID_PARAMETER;
  MutexLock guard(g_lock);
  if (const ErrorCode code = AwaitTurn(guard); code != ERROR_SUCCESS) return code;
  Handle root;
  if (const ErrorCode code = EnterRoot(hive, root); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = DeleteBelow(root, subKey, withChildren); code != ERROR_SUCCESS) return code;
  return g_store->Commit();
}

ErrorCode DeleteFromKey(const RegistryKey& parent, std::u16string_view subKey, bool withChildren) {
  if (const ErrorCode code = AskFault(Operation::kRegDeleteKey, subKey); code != ERROR_SUCCESS) return code;
  MutexLock guard(g_lock);
  if (const ErrorCode code = AwaitTurn(guard); code != ERROR_SUCCESS) return code;
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToWrite(parent, 0, handle); code != ERROR_SUCCESS) return code;
  if (subKey.data() == nullptr) return ERROR_INVALID_PARAMETER;
  return DeleteBelow(*handle, subKey, withChildren);
}

}  // namespace

// --- RegistryKey ---

RegistryKey::RegistryKey() noexcept = default;
RegistryKey::RegistryKey(RegistryKey&& other) noexcept = default;

RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept {
  if (this == &other) return *this;
  if (m_state) (void)Close();
  m_state = std::move(other.m_state);
  return *this;
}

RegistryKey::~RegistryKey() {
  if (m_state) (void)Close();
}

ErrorCode RegistryKey::Close() {
  const std::unique_ptr<Handle> state = std::move(m_state);
  if (!state) return ERROR_INVALID_HANDLE;
  const ErrorCode fault = AskFault(Operation::kRegCloseKey, state->name);
  const MutexLock guard(g_lock);
  if (g_store) (void)g_store->Settle();
  const std::shared_ptr<Batch>& wrote = state->wrote;
  if (wrote && wrote->isLost) return wrote->code;
  if (!g_store || state->storeNumber != g_store->Number()) return ERROR_INVALID_HANDLE;
  if (!wrote || !wrote->isOpen) return fault;
  if (fault == ERROR_SUCCESS) return g_store->Commit();
  g_store->Lose(fault);
  return fault;
}

// --- Keys ---

ErrorCode OpenKey(Hive parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out) {
  std::unique_ptr<Handle> opened;
  ErrorCode code = AskFault(Operation::kRegOpenKey, subKey);
  if (code == ERROR_SUCCESS) {
    const MutexLock guard(g_lock);
    Handle root;
    code = EnterRoot(parent, root);
    if (code == ERROR_SUCCESS) code = OpenBelow(root, subKey, access, opened);
  }
  Handle::Put(out, std::move(opened));
  return code;
}

ErrorCode OpenKey(const RegistryKey& parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out) {
  std::unique_ptr<Handle> opened;
  ErrorCode code = AskFault(Operation::kRegOpenKey, subKey);
  if (code == ERROR_SUCCESS) {
    const MutexLock guard(g_lock);
    Handle* handle = nullptr;
    code = Enter(parent, handle);
    if (code == ERROR_SUCCESS) code = OpenBelow(*handle, subKey, access, opened);
  }
  Handle::Put(out, std::move(opened));
  return code;
}

ErrorCode CreateKey(Hive parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out, bool* created) {
  std::unique_ptr<Handle> opened;
  bool isNew = false;
  ErrorCode code = AskFault(Operation::kRegCreateKey, subKey);
  if (code == ERROR_SUCCESS) {
    MutexLock guard(g_lock);
    Handle root;
    code = AwaitTurn(guard);
    if (code == ERROR_SUCCESS) code = EnterRoot(parent, root);
    if (code == ERROR_SUCCESS) code = CreateBelow(root, subKey, access, opened, isNew);
  }
  Handle::Put(out, std::move(opened));
  if (code == ERROR_SUCCESS && created != nullptr) *created = isNew;
  return code;
}

ErrorCode CreateKey(const RegistryKey& parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out,
                    bool* created) {
  std::unique_ptr<Handle> opened;
  bool isNew = false;
  ErrorCode code = AskFault(Operation::kRegCreateKey, subKey);
  if (code == ERROR_SUCCESS) {
    MutexLock guard(g_lock);
    Handle* handle = nullptr;
    code = AwaitTurn(guard);
    if (code == ERROR_SUCCESS) code = EnterToWrite(parent, 0, handle);
    if (code == ERROR_SUCCESS) code = CreateBelow(*handle, subKey, access, opened, isNew);
  }
  Handle::Put(out, std::move(opened));
  if (code == ERROR_SUCCESS && created != nullptr) *created = isNew;
  return code;
}

ErrorCode QueryInfoKey(const RegistryKey& key, KeyInfo& out) {
  if (const ErrorCode fault = AskFaultOf(key, Operation::kRegQueryInfoKey); fault != ERROR_SUCCESS) return fault;
  const MutexLock guard(g_lock);
  Handle* handle = nullptr;
  if (const ErrorCode code = EnterToRead(key, KEY_QUERY_VALUE, handle); code != ERROR_SUCCESS) return code;
  return g_store->Info(handle->place, out, handle->copies);
}

ErrorCode DeleteKey(Hive parent, std::u16string_view subKey) {
  return DeleteFromRoot(parent, subKey, false);
}
ErrorCode DeleteKey(const RegistryKey& parent, std::u16string_view subKey) {
  return DeleteFromKey(parent, subKey, false);
}
ErrorCode DeleteTree(Hive parent, std::u16string_view subKey) {
  return DeleteFromRoot(parent, subKey, true);
}
ErrorCode DeleteTree(const RegistryKey& parent, std::u16string_view subKey) {
  return DeleteFromKey(parent, subKey, true);
}

}  // namespace platform
