// common/plain_schedule_file.h: schedule files in the form in which this system writes them, loaded from their bytes.
//
// A short way for somebody who loads very many: such a file has one meaning, and needs no search for sections and keys.
// Every other form, a changed order, comments, a damaged line, is left to CZEPScheduleObj::LoadScheduleFromFile, which
// knows each case and tells of it. Both load the same of a file that is plain.
// Threads: any, each with a schedule of its own.
#pragma once

#include <string_view>

#include "common/zepSchedIUnknown.h"

namespace qx {

// Whether lines are written of a schedule that loads well: those of the service log's detail, or of the rules' trace.
// The short way writes none of them, and isn't taken then.
[[nodiscard]] bool IsLoadingTold();

// Loads a schedule from the bytes of its file. Writes nothing to the service log.
//   returns  false: the file isn't plain; the schedule may have changed and is to be loaded anew
//   throws   std::bad_alloc
[[nodiscard]] bool LoadPlainSchedule(zepISchedule& schedule, std::string_view file);

}  // namespace qx
