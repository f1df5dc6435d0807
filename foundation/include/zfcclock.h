// foundation/include/zfcclock.h: the platform's time services under the names of this library.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstdint>

#include "foundation/include/zfcexport.h"
#include "platform/clock.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

using platform::FILETIME;
using platform::SYSTEMTIME;

// Conversions; false leaves `out` untouched. The two between local and UTC apply the offset in force now to any
// instant.
[[nodiscard]] bool Zep_SystemTimeToFileTime(const SYSTEMTIME& in, FILETIME& out);
[[nodiscard]] bool Zep_LocalFileTimeToFileTime(FILETIME in, FILETIME& out);
[[nodiscard]] bool Zep_FileTimeToLocalFileTime(FILETIME in, FILETIME& out);
[[nodiscard]] bool Zep_FileTimeToSystemTime(FILETIME in, SYSTEMTIME& out);
// -1, 0 or 1 as `a` is earlier, equal or later.
[[nodiscard]] int Zep_CompareFileTime(FILETIME a, FILETIME b);
void Zep_GetSystemTimeAsFileTime(FILETIME& out);
void Zep_GetSystemTime(SYSTEMTIME& out);

// UTC minus the standard local time of the present year, in seconds: positive west of Greenwich. Daylight saving has no
// part in it.
[[nodiscard]] std::int32_t Zep_TimeZoneOffsetInSeconds();

// Deliberate: the seconds of `in` less 11644473598 are divided by 10000000 once more; unsigned 64 bits throughout.
//   remainder  ticks below the second; may be null
[[nodiscard]] std::uint64_t Zep_FileTimeToAnsiTime(FILETIME in, std::uint32_t* remainder);

}  // namespace ZepFoundation
