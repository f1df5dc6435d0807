// platform/testing/virtual_clock.h: for tests: a clock that stands until it is moved, and a zone for a scope.
//
// Threads: the clock may be read, moved and waited on from any thread; install and remove both on the test's thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/clock.h"

namespace platform {

// All of now for its lifetime. Waits consume its time and end at once.
class VirtualClock : public ClockSource {
 public:
  // Starts at the given wall time; the steady clock starts at `steadyMilliseconds`.
  explicit VirtualClock(std::int64_t wallSeconds = 0, std::uint32_t wallMilliseconds = 0,
                        std::uint64_t steadyMilliseconds = 0);
  // Gives the clock that was installed before back.
  ~VirtualClock() override;
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  // Steps the wall clock alone, as setting a computer's clock does.
  void SetWall(std::int64_t seconds, std::uint32_t milliseconds = 0);
  // Lets time pass: both clocks move.
  void Advance(std::uint64_t milliseconds);

  std::int64_t WallNanoseconds() override;
  std::uint64_t SteadyMilliseconds() override;
  // Lets all of the wait pass and takes it.
  bool ConsumeWait(std::uint64_t milliseconds) override;

 private:
  std::atomic<std::int64_t> m_wallNanoseconds;
  std::atomic<std::uint64_t> m_steadyMilliseconds;
  ClockSource* m_before;
};

// The process-wide zone for a scope: sets TZ, has the zone read, and puts the old one back.
class ScopedZone {
 public:
  explicit ScopedZone(const std::string& tz);
  ~ScopedZone();
  ScopedZone(const ScopedZone&) = delete;
  ScopedZone& operator=(const ScopedZone&) = delete;

 private:
  std::optional<std::string> m_before;
};

}  // namespace platform
