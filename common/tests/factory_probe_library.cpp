// A small library for the factory's tests, compiled once a name. Its life is written into the environment variable
// QX_PROBE_LOG: "+name " at Initialize, "-name " at Destroy.
#include <cstdlib>
#include <string>

#include "common/zep_factory.h"

#define PROBE_JOIN2(a, b) a##b
#define PROBE_JOIN(a, b) PROBE_JOIN2(a, b)
#define PROBE_TEXT2(a) #a
#define PROBE_TEXT(a) PROBE_TEXT2(a)
#define PROBE_ENTRY extern "C" __attribute__((visibility("default")))

namespace {

void Note(const char* sign) {
  const char* before = std::getenv("QX_PROBE_LOG");
  setenv("QX_PROBE_LOG", (std::string(before != nullptr ? before : "") + sign + PROBE_TEXT(PROBE_NAME) + " ").c_str(), 1);
}

#ifdef PROBE_NEEDS
constexpr LibraryTableEntry kDependents[] = {{PROBE_TEXT(PROBE_NEEDS), 1, nullptr}};
#endif

}  // namespace

PROBE_ENTRY ZRESULT PROBE_JOIN(PROBE_NAME, Initialize)(ZepClassFactoryFunction classFactory, std::uint32_t* version,
                                                       const LibraryTableEntry** dependents, std::uint32_t* count) {
#ifdef PROBE_FAILS
  return PROBE_FAILS;
#endif
  *version = 7;
  *dependents = nullptr;
  *count = 0;
#ifdef PROBE_NEEDS
  *dependents = kDependents;
  *count = 1;
#endif
  Note("+");
  return classFactory != nullptr ? ZEP_S_OK : ZEP_E_POINTER;
}

#ifndef PROBE_WITHOUT_FACTORY
// Serves the class whose first number is the library's version, with a result of its own.
PROBE_ENTRY ZRESULT PROBE_JOIN(PROBE_NAME, Factory)(const ZepGuid& classId, zepIUnknown*, std::uint32_t context,
                                                    const ZepGuid&, void** out) {
  *out = nullptr;
  if (classId.Data1 != PROBE_CLASS) return ZEP_E_CLASSNOTAVAILABLE;
  return static_cast<ZRESULT>(context);
}
#endif

PROBE_ENTRY void PROBE_JOIN(PROBE_NAME, Destroy)() { Note("-"); }
