// client/calendar_text.h: a calendar as lines of a terminal.
//
// Weeks begin on Monday. Client texts are written as Printable() shows them. Threads: every function from any thread.
#pragma once

#include <cstddef>
#include <string>

#include "client/calendar.h"

namespace qx {

struct CalendarTextOptions {
  std::size_t columns = 80;  // characters in a line; fewer than 30 count as 30
  bool colour = false;
  bool legend = true;  // a heading and the key of the marks
};

// A month as a grid, each day with its number, marks and its first windows or their count; a year as small months whose
// days bear a sign of how full they are. Below stand the days that are out of the ordinary: set clocks, exclusions,
// last windows; a year's at most 40 of them. No line is longer than `columns`.
[[nodiscard]] std::string CalendarText(const Calendar& calendar, const CalendarTextOptions& options);

}  // namespace qx
