// client/cli_log.h: the service log, a ring of three text files, in the order of its lines.
//
// The files are read where they lie, in the state directory; no service is asked. A line is "DATE (PID:n, TID:n): TEXT"
// with the date in the form of asctime, on the local clock.
// Threads: a command runs on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/cli_output.h"

namespace qx {

// The lines of the ring's files, oldest first. Each file is in order within itself; a start goes on with the first file
// whatever the last one was, so the files are merged by the times of their lines.
//   files  the texts of SchedService0.log, 1 and 2; what stands behind the last line end is a line still to come
[[nodiscard]] std::vector<std::string> MergeLogFiles(const std::vector<std::string>& files);

struct LogArguments {
  std::optional<std::uint32_t> lines;  // the last ones; nothing: all, with `follow` ten
  bool follow = false;                 // goes on with new lines until an interrupt
  std::function<bool()> stop;          // tests: asked in each turn of following
};
// Shows the log. With --json a line is {"time":"2026-11-30 13:00:00","pid":n,"tid":n,"text":"..."}, each on its own
// line.
//   returns  kExitDone, also after an interrupt; kExitNotFound: no log; kExitPermission; kExitFailed
[[nodiscard]] int RunLog(CliContext& context, const LogArguments& arguments);

}  // namespace qx
