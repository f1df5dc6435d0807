// common/zep_factory.h: makes objects of the rules library by class identifier.
//
// A library is a file or linked into the program; both go the same way: its entries <name>Initialize and <name>Factory
// are looked up, the first is called once, the second for each object. A library that is linked in is found through the
// program's exported entries and never unloaded.
// Threads: every function may be called from any thread; the factory works under one lock. An object that it made
// belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcsync.h"
#include "platform/library.h"

// Names a library: file "libqx", name, version and suffix.
struct LibraryTableEntry {
  const char* name;  // of the library, as "ZepSchedule"
  std::uint32_t version;  // a number in the file's name; from 0
  const char* suffix;  // may be null
};

// ZepClassFactory below, as a library is handed it.
using ZepClassFactoryFunction = ZRESULT (*)(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context,
                                            const ZepGuid& interfaceId, void** out);

// The entries of a library, behind its name: "Initialize" and "Factory" must be there, "Destroy" may.
//   classFactory     for the library's own use, valid as long as the library is loaded
//   version          set to the library's version
//   dependents       set to a table of the libraries that it needs, which lives as long as the library; null for none
//   dependentCount   entries of that table
//   returns          0; a negative result keeps the library from being used
using ZepLibraryInitializeFunction = ZRESULT (*)(ZepClassFactoryFunction classFactory, std::uint32_t* version,
                                                 const LibraryTableEntry** dependents, std::uint32_t* dependentCount);
using ZepLibraryDestroyFunction = void (*)();  // called before the library is unloaded

// Locks the factory for a scope.
class QX_SCOPED_CAPABILITY CGateKeeper {
 public:
  // Throws std::runtime_error "CGateKeeper() - Unable to lock mutex!" when Lock() doesn't return 1.
  explicit CGateKeeper(ZepFoundation::CZepOSCriticalSection& mutex) QX_ACQUIRE(mutex);
  ~CGateKeeper() QX_RELEASE();
  CGateKeeper(const CGateKeeper&) = delete;
  CGateKeeper& operator=(const CGateKeeper&) = delete;

 private:
  ZepFoundation::CZepOSCriticalSection& m_mutex;
};

// The factory. Programs use the one of Instance(), by the two functions below; tests make their own. The libraries stay
// loaded to the end of the object: objects that they made must be gone by then.
class zepFactory {
 public:
  // The characters at which lists of directories are cut.
  struct PathRules {
    char listSeparator = ';';         // in the caller's search path
    char environmentSeparator = ':';  // in the environment variable "PATH"; the described system has ';'
  };

  zepFactory() = default;
  explicit zepFactory(PathRules rules) : m_rules(rules) {}  // for tests of other systems' lists
  ~zepFactory();
  zepFactory(const zepFactory&) = delete;
  zepFactory& operator=(const zepFactory&) = delete;

  static zepFactory& Instance();  // the one of the process; made on the first call

  // The contracts of these two are those of the functions of the same names below.
  ZRESULT InitializeZEP(const char* searchPath, bool searchEnvPath, const LibraryTableEntry* table,
                        std::uint32_t libraryCount, std::uint32_t flag);
  ZRESULT ZepClassFactory(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context,
                          const ZepGuid& interfaceId, void** out);  // as the function below
  // Gives up what InitializeZEP() loaded: a library whose last holder is gone has its own dependents released, is told
  // by its Destroy entry, and is unloaded. The factory may be initialised again.
  void Terminate();

  [[nodiscard]] bool IsInitialized();  // by InitializeZEP(), and not terminated since
  [[nodiscard]] std::uint32_t Flag();  // as InitializeZEP() was given it
  // The directories in order, in the system code page, with "\\" as separator.
  [[nodiscard]] std::vector<std::string> SearchDirectories();
  // Holders of a loaded library; 0 when it isn't loaded.
  [[nodiscard]] std::uint32_t ReferenceCount(std::string_view library);
  // The version that a loaded library told; 0 when it isn't loaded.
  [[nodiscard]] std::uint32_t LibraryVersion(std::string_view library);

 private:
  struct LibraryRecord {
    std::string name;
    std::uint32_t version = 0;
    std::string suffix;
    platform::Library module;
    bool linkedIn = false;
    ZepClassFactoryFunction factory = nullptr;
    const LibraryTableEntry* dependents = nullptr;
    std::uint32_t dependentCount = 0;
    std::uint32_t referenceCount = 0;
  };
  using LibraryMap = std::map<std::string, LibraryRecord, std::less<>>;

  void AppendDirectories(std::string text, char separator) QX_REQUIRES(m_mutex);
  void BuildSearchList(const std::string& searchPath, bool searchEnvPath) QX_REQUIRES(m_mutex);
  void AddPending(const LibraryTableEntry& entry) QX_REQUIRES(m_mutex);
  ZRESULT LoadPending() QX_REQUIRES(m_mutex);
  ZRESULT Load(LibraryRecord record) QX_REQUIRES(m_mutex);
  [[nodiscard]] bool FindModule(LibraryRecord& record) const QX_REQUIRES(m_mutex);
  ZRESULT Bind(LibraryRecord& record);
  ZRESULT LoadDependents(const std::string& name) QX_REQUIRES(m_mutex);
  ZRESULT AskLibraries(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context, const ZepGuid& interfaceId,
                       void** out) QX_REQUIRES(m_mutex);
  void Release(std::string_view name) QX_REQUIRES(m_mutex);
  void TearDown() QX_REQUIRES(m_mutex);

  const PathRules m_rules{};
  ZepFoundation::CZepOSCriticalSection m_mutex;
  bool m_initialized QX_GUARDED_BY(m_mutex) = false;
  std::uint32_t m_flag QX_GUARDED_BY(m_mutex) = 0;
  LibraryMap m_loaded QX_GUARDED_BY(m_mutex);
  LibraryMap m_pending QX_GUARDED_BY(m_mutex);
  // Libraries that the factory itself holds, in order of loading.
  std::vector<std::string> m_held QX_GUARDED_BY(m_mutex);
  std::vector<std::string> m_directories QX_GUARDED_BY(m_mutex);
};

// Sets the factory up and loads the named libraries, what the program itself offers first.
//   searchPath     directories, cut at ";", UTF-8; null counts as empty
//   searchEnvPath  the directories of PATH are searched behind them
//   libraryCount   0 initialises without loading and without a search list
//   flag           kept
//   returns  0; ZEP_E_INVALIDARG: a count without a table, or a search path that can't be converted;
//            ZEP_E_OUTOFMEMORY; ZEP_E_ALREADYINITIALIZED: nothing changed, no failure;
//            ZEP_E_ENTRYNOTFOUND: a library isn't found, or lacks an entry; the negative result of a library's
//            Initialize. After any failure the factory is as it was before; but a library's Initialize that answers
//            ZEP_E_ALREADYINITIALIZED leaves it initialised, with the libraries that were loaded by then.
ZRESULT InitializeZEP(const char* searchPath, bool searchEnvPath, const LibraryTableEntry* table,
                      std::uint32_t libraryCount, std::uint32_t flag);

// Makes an object of a class and gives the wanted interface with one reference. The loaded libraries are asked in the
// order of their names; when none serves the class, the library that is known to serve it is loaded and asked.
//   returns  0; ZEP_E_CLASSNOTAVAILABLE: no library serves the class; ZEP_E_POINTER: `out` is null; the library's own
//            failure. `*out` is null then.
ZRESULT ZepClassFactory(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context, const ZepGuid& interfaceId,
                        void** out);

namespace qx {

// A new schedule object with one reference, by the factory, which is initialised on the first call.
//   out      null on failure
//   returns  0; what InitializeZEP or ZepClassFactory answered
ZRESULT CreateScheduleObject(zepISchedule2** out);

}  // namespace qx
