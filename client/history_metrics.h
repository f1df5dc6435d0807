// client/history_metrics.h: the recorder's counts in the text format that node exporters collect from files.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "client/history_recorder.h"

namespace qx {

// The text of the file: a "# HELP" and a "# TYPE" line ahead of each metric. Counters begin with the recorder.
//   begun  when the recorder began, seconds since 1970
//   bytes  in use in the history file
[[nodiscard]] std::string MetricsText(const HistoryRecorder& recorder, std::int64_t begun, std::uint64_t bytes);

}  // namespace qx
