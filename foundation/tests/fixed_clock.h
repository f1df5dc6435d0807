// foundation/tests/fixed_clock.h: a clock that stands still.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace ZepFoundation {

// In the first hours of 4 January 1970, UTC.
class FixedClock final : public platform::ClockSource {
 public:
  static constexpr char kShown[] = "Sun Jan  4 01:01:01 1970";
  std::int64_t WallNanoseconds() override { return std::int64_t{86400 * 3 + 3661} * 1'000'000'000; }
  std::uint64_t SteadyMilliseconds() override { return 0; }
  bool ConsumeWait(std::uint64_t) override { return true; }
};

}  // namespace ZepFoundation
