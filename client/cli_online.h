// client/cli_online.h: the commands that ask a running service: show, status, add, rm, monitor, refresh.
//
// A SCHEDULE argument is a full ID (with or without braces), the beginning of its digits, at least four, or an exact
// name. What several schedules answer to is ambiguous. Times are read and shown in the zone of the service, which
// becomes the zone of the process. Every command returns an ExitCode; a failure has been told on `err`.
// Threads: a command runs on one thread; a notice about a long wait is written by a second one meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/cli_output.h"
#include "client/service_link.h"

namespace qx {

// Digits that the beginning of an ID needs to be taken for one.
inline constexpr std::size_t kFewestIdDigits = 4;

// What the commands work with; tests give their own.
struct OnlineSettings {
  ServiceConnector connect = ConnectOverBus;
  std::uint32_t noticeAfterMs = 2000;  // when to say what is waited for
  std::optional<bool> confirm;         // whether to ask before a deletion; nothing: on a terminal
  std::optional<std::size_t> columns;  // width of the output, 0 for no limit; nothing: that of the terminal
};

// One record with its next windows.
[[nodiscard]] int RunShow(CliContext& context, const OnlineSettings& settings, const std::string& schedule);

// What the service says about itself.
[[nodiscard]] int RunStatus(CliContext& context, const OnlineSettings& settings);

// Checks a schedule file and creates a schedule from it; nothing is sent when the file has errors.
[[nodiscard]] int RunAdd(CliContext& context, const OnlineSettings& settings, const std::string& file,
                         bool allowRelativePaths);

struct RemoveArguments {
  std::vector<std::string> schedules;
  bool yes = false;       // don't ask
  bool noBackup = false;  // delete without writing the schedules to files first
};
// Deletes schedules: all of them are found, asked about and written to backup files before the first one goes.
[[nodiscard]] int RunRemove(CliContext& context, const OnlineSettings& settings, const RemoveArguments& arguments);

// Shows the service's events until an interrupt (then kExitDone) or the loss of the bus.
[[nodiscard]] int RunMonitor(CliContext& context, const OnlineSettings& settings);

// Has the service read its store again.
[[nodiscard]] int RunRefresh(CliContext& context, const OnlineSettings& settings);

// Fetches a schedule's record, for commands that work on one; the source of `next`.
//   keepZone  the zone of the process stays
[[nodiscard]] int FetchSchedule(CliContext& context, const OnlineSettings& settings, const std::string& schedule,
                                bool keepZone, SCHEDULE_OBJECT& record);

}  // namespace qx
