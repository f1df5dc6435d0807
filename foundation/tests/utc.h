// foundation/tests/utc.h: Unix time of a moment told as in a calendar.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace ZepFoundation {

// In UTC, seconds.
inline std::int64_t Utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  return platform::DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
}

}  // namespace ZepFoundation
