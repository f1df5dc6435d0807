// common/ini_recovery.h: the copy of a schedule's file that lies aside while the schedule is modified.
//
// Threads: any; calls on one path must not overlap in time.
#pragma once

#include <string_view>

namespace qx {

// What is put behind a file's name while it lies aside.
inline constexpr std::u16string_view kOldIniSuffix = u".old";

// Where a schedule's file is missing and its copy is there, the copy is moved back, safe from a power cut: a
// modification was cut short before its new file was in place. One line in the service log tells of it, and one of a
// move that failed.
//   path     the schedule's .ini file, the client's text
//   returns  true when the copy was moved back
bool RestoreOldIniFile(std::u16string_view path);

}  // namespace qx
