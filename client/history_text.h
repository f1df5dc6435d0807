// client/history_text.h: what recorder and history show alike: entries as text, where the file lies, and its failures.
//
// Threads: every function from any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "client/cli_output.h"
#include "client/history_store.h"
#include "platform/clock.h"

namespace qx {

// The history's fact that names the zone of the service.
inline constexpr const char* kZoneFact = "zone";

// What a history can't know; ends with a line end.
inline constexpr const char* kLaunchesAreKnown =
    "Launches are known, results are not: \"launch\" says that the service came to the start of the job, neither that\n"
    "it started nor how it ended. Jobs that start through run_now raise no event and show as a change.\n";

// The file that --file names, else the one in the state directory.
[[nodiscard]] std::string HistoryFileOf(const std::string& given);

// The zone that a history was recorded in; the local one where that is unknown here.
[[nodiscard]] platform::Zone HistoryZoneOf(const std::string& zone);

// Tells why a history can't be used; the exit code.
int FailHistory(CliContext& context, const std::string& file, platform::ErrorCode code);

// An entry as a line without its end, in the colours of `context.out`.
[[nodiscard]] std::string HistoryLine(const CliContext& context, const HistoryEntry& entry, const platform::Zone& zone);
// An entry as an object: time, kind, id, name, window, next_window, reason; what there is none of is null.
[[nodiscard]] nlohmann::ordered_json HistoryJson(const HistoryEntry& entry);

}  // namespace qx
