#include "common/zep_factory.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "foundation/include/zfctext.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/text.h"

namespace {

// The endings that a library's file may have: the described system's and this host's.
constexpr std::string_view kFileEndings[] = {".dll", ".so"};

// Which library serves a class, for the last search.
struct ClassServer {
  ZepGuid classId;
  LibraryTableEntry library;
};
constexpr ClassServer kClassServers[] = {{CLSID_CSchedule, {"ZepSchedule", 2, "U"}}};

constexpr LibraryTableEntry kScheduleLibraries[] = {kClassServers[0].library};
constexpr char kScheduleSearchPath[] = ".;lib;..\\lib";
constexpr std::uint32_t kContextInProcess = 1;

using OwnedText = ZepFoundation::ZepOwnedText<char>;

// UTF-8 to the system code page. An empty text is no failure.
ZRESULT MultibyteFromUtf8(const char* text, std::string& out) {
  if (text == nullptr || *text == '\0') return ZEP_S_OK;
  OwnedText converted;
  const int count = ZepFoundation::ZepUtf8ToMbs(converted.Out(), text);
  if (count < 0 || converted.Get() == nullptr) return count == -2 ? ZEP_E_OUTOFMEMORY : ZEP_E_INVALIDARG;
  out = converted.Get();
  return ZEP_S_OK;
}

// The environment's directories in the system code page; what can't be converted counts as unset.
std::string EnvironmentPath() {
  const std::optional<std::u16string> value = platform::EnvironmentVariable(u"PATH");
  if (!value) return {};
  OwnedText converted;
  if (ZepFoundation::ZepWcsToMbs(converted.Out(), value->c_str()) <= 0) return {};
  return converted.Get();
}

}  // namespace

void ZepStringFree(char16_t* text) { ZepFoundation::ZepFreeString(text); }

CGateKeeper::CGateKeeper(ZepFoundation::CZepOSCriticalSection& mutex) : m_mutex(mutex) {
  if (m_mutex.Lock() != 1) throw std::runtime_error("CGateKeeper() - Unable to lock mutex!");
}

CGateKeeper::~CGateKeeper() { m_mutex.Unlock(); }

zepFactory& zepFactory::Instance() {
  static zepFactory factory;
  return factory;
}

zepFactory::~zepFactory() { TearDown(); }

ZRESULT zepFactory::InitializeZEP(const char* searchPath, bool searchEnvPath, const LibraryTableEntry* table,
                                  std::uint32_t libraryCount, std::uint32_t flag) {
  std::string path;
  if (const ZRESULT converted = MultibyteFromUtf8(searchPath, path); ZepFailed(converted)) return converted;
  if (libraryCount >= 1 && table == nullptr) return ZEP_E_INVALIDARG;
  const CGateKeeper gate(m_mutex);
  if (m_initialized) return ZEP_E_ALREADYINITIALIZED;
  m_initialized = true;
  m_flag = flag;
  if (libraryCount == 0) return ZEP_S_OK;
  BuildSearchList(path, searchEnvPath);
  for (std::uint32_t i = 0; i < libraryCount; ++i) AddPending(table[i]);
  const ZRESULT result = LoadPending();
  if (ZepFailed(result) && result != ZEP_E_ALREADYINITIALIZED) TearDown();
  return result;
}

void zepFactory::AppendDirectories(std::string text, char separator) {
  std::replace(text.begin(), text.end(), '/', '\\');
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(separator, at), text.size());
    if (end > at) m_directories.push_back(text.substr(at, end - at));
    at = end + 1;
  }
}

void zepFactory::BuildSearchList(const std::string& searchPath, bool searchEnvPath) {
  AppendDirectories(searchPath, m_rules.listSeparator);
  if (searchEnvPath) AppendDirectories(EnvironmentPath(), m_rules.environmentSeparator);
}

void zepFactory::AddPending(const LibraryTableEntry& entry) {
  LibraryRecord record;
  record.name = entry.name != nullptr ? entry.name : "";
  record.version = entry.version;
  record.suffix = entry.suffix != nullptr ? entry.suffix : "";
  m_pending.try_emplace(record.name, std::move(record));
}

ZRESULT zepFactory::LoadPending() {
  while (!m_pending.empty()) {
    LibraryRecord record = std::move(m_pending.extract(m_pending.begin()).mapped());
    std::string name = record.name;
    if (const ZRESULT result = Load(std::move(record)); ZepFailed(result)) return result;
    m_held.push_back(std::move(name));
  }
  return ZEP_S_OK;
}

// Takes a reference on a library, loading it first where it isn't there yet.
ZRESULT zepFactory::Load(LibraryRecord record) {
  if (const auto found = m_loaded.find(record.name); found != m_loaded.end()) {
    ++found->second.referenceCount;
    return ZEP_S_OK;
  }
  if (!FindModule(record)) return ZEP_E_ENTRYNOTFOUND;
  if (const ZRESULT result = Bind(record); ZepFailed(result)) return result;
  record.referenceCount = 1;
  const std::string name = record.name;
  m_loaded.emplace(name, std::move(record));
  // It counts as loaded before its dependents are: two libraries that need each other find each other here.
  const ZRESULT result = LoadDependents(name);
  if (ZepFailed(result)) Release(name);
  return result;
}

bool zepFactory::FindModule(LibraryRecord& record) const {
  platform::Library program;
  void* entry = nullptr;
  if (platform::Library::OpenProgram(program) == platform::ERROR_SUCCESS &&
      program.Find(record.name + "Initialize", entry) == platform::ERROR_SUCCESS) {
    record.module = std::move(program);
    record.linkedIn = true;
    return true;
  }
  const std::string file = "libqx" + record.name + std::to_string(record.version) + record.suffix;
  for (const std::string& directory : m_directories) {
    for (const std::string_view ending : kFileEndings) {
      const std::u16string path = platform::WideFromSystem((directory + '\\' + file).append(ending));
      if (platform::FileExists(platform::NativePath(path)) &&
          platform::Library::Load(path, record.module) == platform::ERROR_SUCCESS) {
        return true;
      }
    }
  }
  return false;
}

ZRESULT zepFactory::Bind(LibraryRecord& record) {
  ZepLibraryInitializeFunction initialize = nullptr;
  if (record.module.FindFunction(record.name + "Initialize", initialize) != platform::ERROR_SUCCESS) {
    return ZEP_E_ENTRYNOTFOUND;
  }
  const ZRESULT result = initialize(&::ZepClassFactory, &record.version, &record.dependents, &record.dependentCount);
  if (ZepFailed(result)) return result;
  if (record.module.FindFunction(record.name + "Factory", record.factory) != platform::ERROR_SUCCESS) {
    return ZEP_E_ENTRYNOTFOUND;
  }
  return ZEP_S_OK;
}

// Loads what a loaded library needs, a reference each; those behind a failing one are no longer its dependents.
ZRESULT zepFactory::LoadDependents(const std::string& name) {
  LibraryRecord& record = m_loaded.find(name)->second;
  if (record.dependents == nullptr) record.dependentCount = 0;
  for (std::uint32_t i = 0; i < record.dependentCount; ++i) {
    const LibraryTableEntry& entry = record.dependents[i];
    LibraryRecord needed;
    needed.name = entry.name != nullptr ? entry.name : "";
    needed.version = entry.version;
    needed.suffix = entry.suffix != nullptr ? entry.suffix : "";
    if (const ZRESULT result = Load(std::move(needed)); ZepFailed(result)) {
      record.dependentCount = i;
      return result;
    }
  }
  return ZEP_S_OK;
}

void zepFactory::Release(std::string_view name) {
  const auto found = m_loaded.find(name);
  // A count of 0 is a library whose end is under way: libraries that need each other come by here.
  if (found == m_loaded.end() || found->second.referenceCount == 0) return;
  LibraryRecord& record = found->second;
  if (--record.referenceCount != 0) return;
  for (std::uint32_t i = 0; i < record.dependentCount; ++i) {
    if (record.dependents[i].name != nullptr) Release(record.dependents[i].name);
  }
  ZepLibraryDestroyFunction destroy = nullptr;
  if (!record.linkedIn &&
      record.module.FindFunction(record.name + "Destroy", destroy) == platform::ERROR_SUCCESS) {
    destroy();
  }
  m_loaded.erase(found);
}

void zepFactory::TearDown() {
  for (const std::string& name : m_held) Release(name);
  m_held.clear();
  // What is left holds each other.
  while (!m_loaded.empty()) {
    m_loaded.begin()->second.referenceCount = 1;
    Release(std::string(m_loaded.begin()->first));
  }
  m_pending.clear();
  m_directories.clear();
  m_flag = 0;
  m_initialized = false;
}

void zepFactory::Terminate() {
  const CGateKeeper gate(m_mutex);
  TearDown();
}

ZRESULT zepFactory::AskLibraries(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context,
                                 const ZepGuid& interfaceId, void** out) {
  for (const auto& [name, library] : m_loaded) {
    const ZRESULT result = library.factory(classId, outer, context, interfaceId, out);
    if (result != ZEP_E_CLASSNOTAVAILABLE) return result;
  }
  return ZEP_E_CLASSNOTAVAILABLE;
}

ZRESULT zepFactory::ZepClassFactory(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context,
                                    const ZepGuid& interfaceId, void** out) {
  if (out == nullptr) return ZEP_E_POINTER;
  *out = nullptr;
  const CGateKeeper gate(m_mutex);
  if (!m_initialized) return ZEP_E_CLASSNOTAVAILABLE;
  const ZRESULT result = AskLibraries(classId, outer, context, interfaceId, out);
  if (result != ZEP_E_CLASSNOTAVAILABLE) return result;
  for (const ClassServer& server : kClassServers) {
    if (!(server.classId == classId) || m_loaded.contains(server.library.name)) continue;
    AddPending(server.library);
    if (const ZRESULT loaded = LoadPending(); ZepFailed(loaded)) return ZEP_E_CLASSNOTAVAILABLE;
    return AskLibraries(classId, outer, context, interfaceId, out);
  }
  return ZEP_E_CLASSNOTAVAILABLE;
}

bool zepFactory::IsInitialized() {
  const CGateKeeper gate(m_mutex);
  return m_initialized;
}

std::uint32_t zepFactory::Flag() {
  const CGateKeeper gate(m_mutex);
  return m_flag;
}

std::vector<std::string> zepFactory::SearchDirectories() {
  const CGateKeeper gate(m_mutex);
  return m_directories;
}

std::uint32_t zepFactory::ReferenceCount(std::string_view library) {
  const CGateKeeper gate(m_mutex);
  const auto found = m_loaded.find(library);
  return found == m_loaded.end() ? 0 : found->second.referenceCount;
}

std::uint32_t zepFactory::LibraryVersion(std::string_view library) {
  const CGateKeeper gate(m_mutex);
  const auto found = m_loaded.find(library);
  return found == m_loaded.end() ? 0 : found->second.version;
}

ZRESULT InitializeZEP(const char* searchPath, bool searchEnvPath, const LibraryTableEntry* table,
                      std::uint32_t libraryCount, std::uint32_t flag) {
  return zepFactory::Instance().InitializeZEP(searchPath, searchEnvPath, table, libraryCount, flag);
}

ZRESULT ZepClassFactory(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context, const ZepGuid& interfaceId,
                        void** out) {
  return zepFactory::Instance().ZepClassFactory(classId, outer, context, interfaceId, out);
}

namespace qx {

ZRESULT CreateScheduleObject(zepISchedule2** out) {
  if (out == nullptr) return ZEP_E_POINTER;
  *out = nullptr;
  const ZRESULT initialized =
      InitializeZEP(kScheduleSearchPath, true, kScheduleLibraries, std::size(kScheduleLibraries), 0);
  if (ZepFailed(initialized) && initialized != ZEP_E_ALREADYINITIALIZED) return initialized;
  void* object = nullptr;
  const ZRESULT result = ZepClassFactory(CLSID_CSchedule, nullptr, kContextInProcess, IID_zepISchedule, &object);
  // Both schedule interfaces are one table: whoever has the first one has the second.
  if (!ZepFailed(result)) *out = static_cast<zepISchedule2*>(object);
  return result;
}

}  // namespace qx
