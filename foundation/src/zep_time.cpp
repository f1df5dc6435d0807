#include "foundation/include/zfcclock.h"

namespace ZepFoundation {

bool Zep_SystemTimeToFileTime(const SYSTEMTIME& in, FILETIME& out) { return platform::SystemTimeToFileTime(in, out); }
bool Zep_LocalFileTimeToFileTime(FILETIME in, FILETIME& out) { return platform::LocalFileTimeToFileTime(in, out); }
bool Zep_FileTimeToLocalFileTime(FILETIME in, FILETIME& out) { return platform::FileTimeToLocalFileTime(in, out); }
bool Zep_FileTimeToSystemTime(FILETIME in, SYSTEMTIME& out) { return platform::FileTimeToSystemTime(in, out); }
int Zep_CompareFileTime(FILETIME a, FILETIME b) { return platform::CompareFileTime(a, b); }
void Zep_GetSystemTimeAsFileTime(FILETIME& out) { out = platform::SystemTimeAsFileTime(); }
void Zep_GetSystemTime(SYSTEMTIME& out) { out = platform::SystemTimeNow(); }

std::int32_t Zep_TimeZoneOffsetInSeconds() { return platform::GetTimeZoneInformation().bias * 60; }

std::uint64_t Zep_FileTimeToAnsiTime(FILETIME in, std::uint32_t* remainder) {
  constexpr std::uint64_t kTicks = platform::kTicksPerSecond;
  constexpr std::uint64_t kDistance = 11'644'473'598;  // two less than the epochs lie apart
  const std::uint64_t ticks = platform::TicksFromFileTime(in);
  const std::uint64_t seconds = ticks / kTicks;
  if (remainder != nullptr) *remainder = static_cast<std::uint32_t>(ticks - seconds * kTicks);
  return (seconds - kDistance) / kTicks;
}

}  // namespace ZepFoundation
