// foundation/src/cconfig_info.cpp
#include "foundation/include/zfcconfig.h"

#include <atomic>
#include <ostream>

#include "foundation/include/zfcsync.h"
#include "foundation/src/registry_path.h"

namespace ZepFoundation {
namespace {

using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::RegistryKey;

constexpr char16_t kProductPath[] = u"\\Software\\Korvane";
constexpr char16_t kUserRoot[] = u"\\HKCU";
constexpr char16_t kSystemRoot[] = u"\\HKLM";

std::atomic<CConfigInfo*> g_config{nullptr};
CCriticalSection& ConfigLock() {
  static auto* const section = new CCriticalSection;
  return *section;
}

const CPath& ProductPath(const char16_t* root) {
  static const CPath user = CPath(kUserRoot) + CPath(kProductPath);
  static const CPath system = CPath(kSystemRoot) + CPath(kProductPath);
  return root == kUserRoot ? user : system;
}

CPath Combine(const char16_t* root, const CPath& base, const CPath& path) {
  if (path.Rooted()) return CPath(root) + path;
  if (base.Rooted()) return CPath(root) + base + path;
  return ProductPath(root) + base + path;
}

CConfigInfo::ValueType KindOf(std::uint32_t type) {
  switch (type) {
    case platform::REG_SZ:
      return CConfigInfo::kString;
    case platform::REG_BINARY:
      return CConfigInfo::kBinary;
    case platform::REG_DWORD:
      return CConfigInfo::kNumber;
    default:
      return CConfigInfo::kNone;
  }
}

}  // namespace

CConfigInfo& CConfigInfo::Instance() {
  if (CConfigInfo* const made = g_config.load(std::memory_order_acquire)) return *made;
  (void)CRegistry::Instance();
  const ScopedEntry entry(&ConfigLock());
  if (g_config.load(std::memory_order_relaxed) == nullptr) g_config.store(new CConfigInfo, std::memory_order_release);
  return *g_config.load(std::memory_order_relaxed);
}

CPath CConfigInfo::UserPath(const CPath& path) const {
  return Combine(kUserRoot, m_basePath, path);
}
CPath CConfigInfo::SystemPath(const CPath& path) const {
  return Combine(kSystemRoot, m_basePath, path);
}

unsigned char CConfigInfo::Done(ErrorCode code) {
  m_lastError = code;
  return code == ERROR_SUCCESS ? 1 : 0;
}

unsigned char CConfigInfo::Print(std::ostream& stream) const {
  stream << ProductPath(kUserRoot) << '\n'
         << ProductPath(kSystemRoot) << '\n'
         << m_basePath << '\n'
         << m_lastError << '\n';
  return stream.good() ? 1 : 0;
}

// --- values ---

unsigned char CConfigInfo::GetUserValue(const CPath& path, std::uint32_t& value) {
  return Done(CRegistry::Instance().FetchValue(UserPath(path), value));
}
unsigned char CConfigInfo::GetUserValue(const CPath& path, wcstring& value) {
  return Done(CRegistry::Instance().FetchValue(UserPath(path), value));
}
unsigned char CConfigInfo::GetUserValue(const CPath& path, void* data, std::uint32_t& size) {
  return Done(CRegistry::Instance().FetchValue(UserPath(path), data, size));
}
unsigned char CConfigInfo::GetSystemValue(const CPath& path, std::uint32_t& value) {
  return Done(CRegistry::Instance().FetchValue(SystemPath(path), value));
}
unsigned char CConfigInfo::GetSystemValue(const CPath& path, wcstring& value) {
  return Done(CRegistry::Instance().FetchValue(SystemPath(path), value));
}
unsigned char CConfigInfo::GetSystemValue(const CPath& path, void* data, std::uint32_t& size) {
  return Done(CRegistry::Instance().FetchValue(SystemPath(path), data, size));
}
unsigned char CConfigInfo::SetUserValue(const CPath& path, std::uint32_t value) {
  return Done(CRegistry::Instance().SetValue(UserPath(path), value));
}
unsigned char CConfigInfo::SetUserValue(const CPath& path, const wcstring& value) {
  return Done(CRegistry::Instance().SetValue(UserPath(path), value));
}
unsigned char CConfigInfo::SetUserValue(const CPath& path, const void* data, std::uint32_t size) {
  return Done(CRegistry::Instance().SetValue(UserPath(path), data, size));
}
unsigned char CConfigInfo::SetSystemValue(const CPath& path, std::uint32_t value) {
  return Done(CRegistry::Instance().SetValue(SystemPath(path), value));
}
unsigned char CConfigInfo::SetSystemValue(const CPath& path, const wcstring& value) {
  return Done(CRegistry::Instance().SetValue(SystemPath(path), value));
}
unsigned char CConfigInfo::SetSystemValue(const CPath& path, const void* data, std::uint32_t size) {
  return Done(CRegistry::Instance().SetValue(SystemPath(path), data, size));
}

// --- keys ---

unsigned char CConfigInfo::CreateUserKey(const CPath& path) {
  return Done(CRegistry::Instance().CreateKey(UserPath(path), wcstring()));
}
unsigned char CConfigInfo::CreateSystemKey(const CPath& path) {
  return Done(CRegistry::Instance().CreateKey(SystemPath(path), wcstring()));
}

unsigned char CConfigInfo::FetchKeyData(const CPath& whole, wcstring& value) {
  RegistryKey key;
  const ErrorCode code = detail::OpenPath(whole, 0, key);
  return Done(code == ERROR_SUCCESS ? detail::ReadText(key, u"", value) : code);
}
unsigned char CConfigInfo::FetchUserKeyData(const CPath& path, wcstring& value) {
  return FetchKeyData(UserPath(path), value);
}
unsigned char CConfigInfo::FetchSystemKeyData(const CPath& path, wcstring& value) {
  return FetchKeyData(SystemPath(path), value);
}

unsigned char CConfigInfo::RemoveUser(const CPath& path, bool recursive) {
  return Done(CRegistry::Instance().RemoveKey(UserPath(path), recursive));
}
unsigned char CConfigInfo::RemoveSystem(const CPath& path, bool recursive) {
  return Done(CRegistry::Instance().RemoveKey(SystemPath(path), recursive));
}
unsigned char CConfigInfo::EnumerateUserKeys(const CPath& path, std::vector<KeyValue>& keys) {
  return Done(CRegistry::Instance().EnumerateKeys(UserPath(path), keys));
}
unsigned char CConfigInfo::EnumerateSystemKeys(const CPath& path, std::vector<KeyValue>& keys) {
  return Done(CRegistry::Instance().EnumerateKeys(SystemPath(path), keys));
}

// --- steps ---

unsigned char CConfigInfo::BeginSteps(const CPath& base, const CPath& whole) {
  m_stepKey = RegistryKey();
  const ErrorCode code = detail::OpenPath(whole, 0, m_stepKey);
  m_stepPath = base;
  m_stepIndex = 0;
  return Done(code);
}

unsigned char CConfigInfo::NextKey(wcstring& name) {
  char16_t text[detail::kEnumSize];
  std::uint32_t length = detail::kEnumSize;
  const ErrorCode code = platform::EnumKey(m_stepKey, m_stepIndex, text, &length);
  if (code != ERROR_SUCCESS) return Done(code);
  ++m_stepIndex;
  name = wcstring(text, length);
  return Done(code);
}

unsigned char CConfigInfo::NextValue(wcstring& name, ValueType& type) {
  char16_t text[detail::kEnumSize];
  std::uint32_t length = detail::kEnumSize;
  std::uint32_t valueType = 0;
  const ErrorCode code = platform::EnumValue(m_stepKey, m_stepIndex, text, &length, &valueType, nullptr, nullptr);
  if (code != ERROR_SUCCESS) return Done(code);
  ++m_stepIndex;
  name = wcstring(text, length);
  type = KindOf(valueType);
  return Done(code);
}

unsigned char CConfigInfo::StepUserKey(const CPath& base, wcstring& name) {
  return BeginSteps(base, UserPath(base)) != 0 ? NextKey(name) : 0;
}
unsigned char CConfigInfo::StepUserKey(wcstring& name) {
  return NextKey(name);
}
unsigned char CConfigInfo::StepSystemKey(const CPath& base, wcstring& name) {
  return BeginSteps(base, SystemPath(base)) != 0 ? NextKey(name) : 0;
}
unsigned char CConfigInfo::StepSystemKey(wcstring& name) {
  return NextKey(name);
}
unsigned char CConfigInfo::StepUserValue(const CPath& base, wcstring& name, ValueType& type) {
  return BeginSteps(base, UserPath(base)) != 0 ? NextValue(name, type) : 0;
}
unsigned char CConfigInfo::StepUserValue(wcstring& name, ValueType& type) {
  return NextValue(name, type);
}
unsigned char CConfigInfo::StepSystemValue(const CPath& base, wcstring& name, ValueType& type) {
  return BeginSteps(base, SystemPath(base)) != 0 ? NextValue(name, type) : 0;
}
unsigned char CConfigInfo::StepSystemValue(wcstring& name, ValueType& type) {
  return NextValue(name, type);
}

}  // namespace ZepFoundation
