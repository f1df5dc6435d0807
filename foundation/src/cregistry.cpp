// foundation/src/cregistry.cpp
#include "foundation/include/zfcregistry.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <string>

#include "foundation/include/zfcsync.h"
#include "foundation/src/registry_path.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/registry_save.h"

namespace ZepFoundation {
namespace {

using platform::ERROR_BAD_PATHNAME;
using platform::ERROR_INVALID_DATA;
using platform::ERROR_MORE_DATA;
using platform::ERROR_NO_MORE_ITEMS;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::Hive;
using platform::RegistryKey;

constexpr ErrorCode kNotImplemented = 120;        // ERROR_CALL_NOT_IMPLEMENTED of winerror.h
constexpr std::uint32_t kTextBuffer = 255;        // bytes of the first attempt to read a text
constexpr std::uint32_t kRemoveAccess = 0xF003F;  // all rights
static_assert(RegValue::kNameSize > detail::kEnumSize && RegValue::kBytesSize == detail::kEnumSize);

struct RootName {
  const char16_t* name;
  Hive hive;
};
constexpr RootName kRootNames[] = {
    {u"HKEY_CLASSES_ROOT", Hive::kClassesRoot},
    {u"HKCR", Hive::kClassesRoot},
    {u"HKEY_CURRENT_USER", Hive::kCurrentUser},
    {u"HKCU", Hive::kCurrentUser},
    {u"HKEY_LOCAL_MACHINE", Hive::kLocalMachine},
    {u"HKLM", Hive::kLocalMachine},
    {u"HKEY_USERS", Hive::kUsers},
    {u"HKU", Hive::kUsers},
    {u"HKEY_PERFORMANCE_DATA", Hive::kPerformanceData},
    {u"HKEY_CURRENT_CONFIG", Hive::kCurrentConfig},
    {u"HKCC", Hive::kCurrentConfig},
    {u"HKEY_DYN_DATA", Hive::kDynData},
};

// What Instance() makes: the instance and the map from root names, neither of them ever destroyed.
std::atomic<CRegistry*> g_registry{nullptr};
std::map<wcstring, Hive>& RootMap() {
  static auto* const map = new std::map<wcstring, Hive>;
  return *map;
}
CCriticalSection& RegistryLock() {
  static auto* const section = new CCriticalSection;
  return *section;
}

OsError Outcome(ErrorCode code) {
  OsError error;
  error.m_code = code;
  return error;
}

ErrorCode ResolveRoot(const CPath& path, std::size_t behind, Hive& hive) {
  if (path.Count() <= behind || !path.Rooted()) return ERROR_BAD_PATHNAME;
  const auto found = RootMap().find(path[0].Text());
  if (found == RootMap().end()) return ERROR_BAD_PATHNAME;
  hive = found->second;
  return ERROR_SUCCESS;
}

// Walks from the root to the key, element by element; each step takes the place of the key before it.
template <class Step>
ErrorCode Walk(const CPath& path, std::size_t behind, RegistryKey& key, Step step) {
  Hive hive{};
  ErrorCode code = ResolveRoot(path, behind, hive);
  if (code == ERROR_SUCCESS) code = platform::OpenKey(hive, u"", detail::kPathAccess, key);
  for (std::size_t i = 1; i + behind < path.Count() && code == ERROR_SUCCESS; ++i) {
    RegistryKey next;
    code = step(key, path[i].Text().view(), next);
    // A key that made the next one commits it here.
    const ErrorCode closing = key.Close();
    if (code == ERROR_SUCCESS) code = closing;
    if (code == ERROR_SUCCESS) key = std::move(next);
  }
  return code;
}

ErrorCode CreatePath(const CPath& path, std::size_t behind, RegistryKey& key) {
  return Walk(path, behind, key, [](const RegistryKey& parent, std::u16string_view name, RegistryKey& next) {
    return platform::CreateKey(parent, name, detail::kPathAccess, next);
  });
}

// Closes a key that wrote: its code when all before went well.
ErrorCode CloseWritten(ErrorCode code, RegistryKey& key) {
  const ErrorCode closing = key.Close();
  return code == ERROR_SUCCESS ? closing : code;
}

OsError Store(const CPath& path, std::uint32_t type, const void* data, std::uint32_t size) {
  RegistryKey key;
  ErrorCode code = CreatePath(path, 1, key);
  if (code != ERROR_SUCCESS) return Outcome(code);
  code = platform::SetValue(key, detail::LastName(path), type, data, size);
  return Outcome(CloseWritten(code, key));
}

// Deletes the key `name` of `parent`. The keys below nest no deeper than the store allows.
ErrorCode Delete(const RegistryKey& parent, std::u16string_view name, bool recursive) {
  RegistryKey key;
  ErrorCode code = platform::OpenKey(parent, name, kRemoveAccess, key);
  if (code != ERROR_SUCCESS) return code;
  char16_t child[detail::kEnumSize];
  for (;;) {  // ends: each round deletes a child or is the last
    std::uint32_t length = detail::kEnumSize;
    const bool hasChild = platform::EnumKey(key, 0, child, &length) == ERROR_SUCCESS;
    if (!hasChild || !recursive) return CloseWritten(platform::DeleteKey(parent, name), key);
    code = Delete(key, std::u16string_view(child, length), true);
    if (code != ERROR_SUCCESS) return CloseWritten(code, key);
  }
}

}  // namespace

// --- what CConfigInfo shares ---

namespace detail {

ErrorCode OpenPath(const CPath& path, std::size_t behind, RegistryKey& key) {
  return Walk(path, behind, key, [](const RegistryKey& parent, std::u16string_view name, RegistryKey& next) {
    return platform::OpenKey(parent, name, kPathAccess, next);
  });
}

std::u16string LastName(const CPath& path) {
  return path.Empty() ? std::u16string() : path[path.Count() - 1].Text().str();
}

ErrorCode ReadNumber(const RegistryKey& key, std::u16string_view name, std::uint32_t& number) {
  std::uint32_t value = 0;
  std::uint32_t size = sizeof value;
  const ErrorCode code = platform::QueryValue(key, name, nullptr, &value, &size);
  if (code != ERROR_SUCCESS) return code;
  if (size != sizeof value) return ERROR_INVALID_DATA;
  number = value;
  return ERROR_SUCCESS;
}

ErrorCode ReadText(const RegistryKey& key, std::u16string_view name, wcstring& text) {
  std::string data(kTextBuffer, '\0');
  std::uint32_t type = 0;
  std::uint32_t size = kTextBuffer;
  ErrorCode code = platform::QueryValue(key, name, &type, data.data(), &size);
  if (code == ERROR_MORE_DATA) {  // once: a value that grows meanwhile is a failed read
    data.resize(size);
    code = platform::QueryValue(key, name, &type, data.data(), &size);
  }
  if (code != ERROR_SUCCESS) return code;
  const bool isText = type == platform::REG_SZ || type == platform::REG_EXPAND_SZ || type == platform::REG_MULTI_SZ;
  if (!isText || size % sizeof(char16_t) != 0) return ERROR_INVALID_DATA;
  std::u16string value(size / sizeof(char16_t), u'\0');
  std::memcpy(value.data(), data.data(), size);
  text = wcstring(std::u16string_view(value).substr(0, value.find(u'\0')));
  return ERROR_SUCCESS;
}

ErrorCode ReadSubKey(const RegistryKey& key, std::uint32_t index, KeyValue& record) {
  char16_t name[kEnumSize];
  std::uint32_t length = kEnumSize;
  ErrorCode code = platform::EnumKey(key, index, name, &length);
  if (code != ERROR_SUCCESS) return code;
  RegistryKey child;
  code = platform::OpenKey(key, std::u16string_view(name, length), platform::KEY_READ, child);
  if (code != ERROR_SUCCESS) return code;
  record = {wcstring(name, length), {}};
  (void)ReadText(child, u"", record.m_value);  // most keys have none
  return ERROR_SUCCESS;
}

ErrorCode ReadValue(const RegistryKey& key, std::uint32_t index, RegValue& record) {
  RegValue read;
  std::uint32_t length = kEnumSize;
  unsigned char data[kEnumSize] = {};
  std::uint32_t size = kEnumSize;
  const ErrorCode code = platform::EnumValue(key, index, read.m_name, &length, &read.m_type, data, &size);
  if (code != ERROR_SUCCESS) return code;
  if (read.m_type == platform::REG_SZ) {
    std::u16string text(size / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), data, text.size() * sizeof(char16_t));
    read.m_data = wcstring(std::u16string_view(text).substr(0, text.find(u'\0')));
  } else if (read.m_type == platform::REG_BINARY) {
    RegValue::Bytes bytes;
    bytes.m_length = static_cast<std::uint16_t>(size);
    std::copy(data, data + size, bytes.m_data);
    read.m_data = bytes;
  } else if (read.m_type == platform::REG_DWORD) {
    std::uint32_t number = 0;
    std::memcpy(&number, data, std::min<std::size_t>(size, sizeof number));
    read.m_data = number;
  }
  record = read;
  return ERROR_SUCCESS;
}

}  // namespace detail

// --- CRegistry ---

CRegistry& CRegistry::Instance() {
  if (CRegistry* const made = g_registry.load(std::memory_order_acquire)) return *made;
  const ScopedEntry entry(&RegistryLock());
  if (g_registry.load(std::memory_order_relaxed) == nullptr) {
    for (const RootName& root : kRootNames) RootMap().emplace(root.name, root.hive);
    g_registry.store(new CRegistry, std::memory_order_release);
  }
  return *g_registry.load(std::memory_order_relaxed);
}

OsError CRegistry::CreateKey(const CPath& path, const wcstring&) {
  RegistryKey key;
  const ErrorCode code = CreatePath(path, 0, key);
  return Outcome(code == ERROR_SUCCESS ? key.Close() : code);
}

OsError CRegistry::FetchKeyValue(const CPath& path, wcstring&) {
  Hive hive{};
  const ErrorCode code = ResolveRoot(path, 0, hive);
  return Outcome(code == ERROR_SUCCESS ? kNotImplemented : code);
}

OsError CRegistry::RemoveKey(const CPath& path, bool recursive) {
  RegistryKey parent;
  ErrorCode code = detail::OpenPath(path, 1, parent);
  if (code != ERROR_SUCCESS) return Outcome(code);
  const std::u16string name = detail::LastName(path);
  code = platform::QueryValue(parent, name, nullptr, nullptr, nullptr);
  if (code == ERROR_SUCCESS) {
    code = platform::DeleteValue(parent, name);
  } else if (code == platform::ERROR_FILE_NOT_FOUND && !name.empty()) {
    // No such value. Any other failure doesn't tell, and the key may not go in a value's place; the store takes an
    // empty name for the parent itself, which nobody named.
    code = Delete(parent, name, recursive);
  }
  return Outcome(CloseWritten(code, parent));
}

OsError CRegistry::RemoveValue(const CPath& path) {
  return RemoveKey(path, false);
}

OsError CRegistry::SetValue(const CPath& path, std::uint32_t value) {
  return Store(path, platform::REG_DWORD, &value, sizeof value);
}

OsError CRegistry::SetValue(const CPath& path, const wcstring& value) {
  const std::size_t bytes = (value.length() + 1) * sizeof(char16_t);
  if (bytes > UINT32_MAX) return Outcome(platform::ERROR_INVALID_PARAMETER);
  return Store(path, platform::REG_SZ, value.c_str(), static_cast<std::uint32_t>(bytes));
}

OsError CRegistry::SetValue(const CPath& path, const void* data, std::uint32_t size) {
  return Store(path, platform::REG_BINARY, data, size);
}

OsError CRegistry::FetchValue(const CPath& path, std::uint32_t& number) {
  RegistryKey key;
  const ErrorCode code = detail::OpenPath(path, 1, key);
  return Outcome(code == ERROR_SUCCESS ? detail::ReadNumber(key, detail::LastName(path), number) : code);
}

OsError CRegistry::FetchValue(const CPath& path, wcstring& text) {
  RegistryKey key;
  const ErrorCode code = detail::OpenPath(path, 1, key);
  return Outcome(code == ERROR_SUCCESS ? detail::ReadText(key, detail::LastName(path), text) : code);
}

OsError CRegistry::FetchValue(const CPath& path, void* data, std::uint32_t& size) {
  RegistryKey key;
  ErrorCode code = detail::OpenPath(path, 1, key);
  if (code == ERROR_SUCCESS) code = platform::QueryValue(key, detail::LastName(path), nullptr, data, &size);
  return Outcome(code);
}

OsError CRegistry::SaveKey(const CPath& path, const CAbsolutePath& file) {
  RegistryKey key;
  ErrorCode code = detail::OpenPath(path, 0, key);
  if (code == ERROR_SUCCESS) code = platform::SaveKey(key, platform::NativePath(file.Text().view()));
  return Outcome(code);
}

OsError CRegistry::EnumerateKeys(const CPath& path, std::vector<KeyValue>& keys) {
  RegistryKey key;
  ErrorCode code = detail::OpenPath(path, 0, key);
  KeyValue record;
  for (std::uint32_t i = 0; code == ERROR_SUCCESS; ++i) {
    code = detail::ReadSubKey(key, i, record);
    if (code == ERROR_SUCCESS) keys.push_back(record);
  }
  return Outcome(code == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : code);
}

OsError CRegistry::EnumerateValues(const CPath& path, std::vector<RegValue>& values) {
  RegistryKey key;
  ErrorCode code = detail::OpenPath(path, 0, key);
  RegValue record;
  for (std::uint32_t i = 0; code == ERROR_SUCCESS; ++i) {
    code = detail::ReadValue(key, i, record);
    if (code == ERROR_SUCCESS) values.push_back(record);
  }
  return Outcome(code == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : code);
}

}  // namespace ZepFoundation
