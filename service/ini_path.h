// service/ini_path.h: where a schedule's .ini file lies.
//
// Threads: any; pure functions over their arguments.
#pragma once

#include <string>
#include <string_view>

#include "interface/records.h"

namespace qx {

// Which characters separate a directory from a name: on a POSIX host both, on the described system the backslash alone.
inline constexpr std::u16string_view kHostSeparators = u"/\\";
inline constexpr std::u16string_view kBackslashOnly = u"\\";

// The directory of schedules whose XML path has none. It has no drive letter.
inline constexpr std::u16string_view kDefaultIniDirectory =
    u"\\Documents and Settings\\All Users\\Application Data\\KORVANE\\QxSnapExchangeBackup\\";

// The XML path up to and including its last separator; kDefaultIniDirectory when it has none.
[[nodiscard]] std::u16string IniDirectory(std::u16string_view xmlPath,
                                          std::u16string_view separators = kHostSeparators);

// Directory, braced upper-case ID, ".ini".
[[nodiscard]] std::u16string IniPath(const ScheduleGuid& id, std::u16string_view xmlPath,
                                     std::u16string_view separators = kHostSeparators);

// The path that a modification uses for the old file.
// Deliberate: when the XML path has a directory, one more backslash stands behind it.
[[nodiscard]] std::u16string OldIniPath(const ScheduleGuid& id, std::u16string_view xmlPath,
                                        std::u16string_view separators = kHostSeparators);

}  // namespace qx
