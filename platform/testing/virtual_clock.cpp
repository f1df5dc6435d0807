#include "platform/testing/virtual_clock.h"

#include <cstdlib>

namespace platform {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

std::int64_t Nanoseconds(std::int64_t seconds, std::uint32_t milliseconds) {
  return seconds * kNanosecondsPerSecond + std::int64_t{milliseconds} * kNanosecondsPerMillisecond;
}

void PutTz(const std::optional<std::string>& tz) {
  if (tz) {
    setenv("TZ", tz->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  (void)ReloadZone();
}

}  // namespace

VirtualClock::VirtualClock(std::int64_t wallSeconds, std::uint32_t wallMilliseconds, std::uint64_t steadyMilliseconds)
    : m_wallNanoseconds(Nanoseconds(wallSeconds, wallMilliseconds)),
      m_steadyMilliseconds(steadyMilliseconds),
      m_before(InstalledClockSource()) {
  InstallClockSource(this);
}

VirtualClock::~VirtualClock() { InstallClockSource(m_before); }

void VirtualClock::SetWall(std::int64_t seconds, std::uint32_t milliseconds) {
  m_wallNanoseconds = Nanoseconds(seconds, milliseconds);
}

void VirtualClock::Advance(std::uint64_t milliseconds) {
  m_wallNanoseconds += static_cast<std::int64_t>(milliseconds) * kNanosecondsPerMillisecond;
  m_steadyMilliseconds += milliseconds;
}

std::int64_t VirtualClock::WallNanoseconds() { return m_wallNanoseconds; }
std::uint64_t VirtualClock::SteadyMilliseconds() { return m_steadyMilliseconds; }

bool VirtualClock::ConsumeWait(std::uint64_t milliseconds) {
  Advance(milliseconds);
  return true;
}

ScopedZone::ScopedZone(const std::string& tz) {
  if (const char* before = std::getenv("TZ")) m_before = before;
  PutTz(tz);
}

ScopedZone::~ScopedZone() { PutTz(m_before); }

}  // namespace platform
