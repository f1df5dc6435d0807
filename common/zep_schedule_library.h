// common/zep_schedule_library.h: the entries of the rules library, looked up by name.
//
// Exported from every program that has the library linked in, and from the library's own file.
// Threads: every entry may be called from any thread.
#pragma once

#include <cstdint>

#include "common/zepSchedIUnknown.h"
#include "common/zep_factory.h"

#define QX_ENTRY extern "C" __attribute__((visibility("default")))

inline constexpr std::uint32_t kZepScheduleVersion = 2;

// Keeps `classFactory` and tells the library's version; it needs no other library.
//   returns  0; ZEP_E_POINTER: an out pointer is null, nothing is kept
QX_ENTRY ZRESULT ZepScheduleInitialize(ZepClassFactoryFunction classFactory, std::uint32_t* version,
                                       const LibraryTableEntry** dependents, std::uint32_t* dependentCount);

// Makes a schedule object. `outer` and `context` have no effect.
//   out      the interface with one reference, null on failure
//   returns  0; ZEP_E_CLASSNOTAVAILABLE: another class; ZEP_E_OUTOFMEMORY; ZEP_E_NOINTERFACE; ZEP_E_POINTER: `out` null
QX_ENTRY ZRESULT ZepScheduleFactory(const ZepGuid& classId, zepIUnknown* outer, std::uint32_t context,
                                    const ZepGuid& interfaceId, void** out);
