// client/schedule_weekdays.h: the words of weekdays and weeks in a schedule file, and where the record keeps them.
//
// Threads: constants.
#pragma once

#include <array>
#include <cstdint>

#include "interface/records.h"

namespace qx {

// By their number in the record: 0 is Sunday.
inline constexpr const char* kWeekdayNames[kDaysOfWeekCount] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};

// The weeks of a month, keys of the table "days", and their lists.
using WeekDays = std::array<std::uint32_t, kDaysOfWeekCount> SCHEDULE_RULE::*;
inline constexpr WeekDays kWeekFields[] = {&SCHEDULE_RULE::dwDaysOfWeek0, &SCHEDULE_RULE::dwDaysOfWeek1,
                                           &SCHEDULE_RULE::dwDaysOfWeek2, &SCHEDULE_RULE::dwDaysOfWeek3,
                                           &SCHEDULE_RULE::dwDaysOfWeek4};
inline constexpr const char* kWeekKeys[] = {"first", "second", "third", "fourth", "last"};

}  // namespace qx
