// client/cli_app.h: the command line of qxsched: options, commands, exit codes.
//
// A command is a function of its own that takes a CliContext; here they are only given their names and arguments.
// Threads: one call at a time.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>

#include "client/cli_offline.h"
#include "client/cli_online.h"
#include "client/cli_output.h"

namespace CLI {
class App;
}

namespace qx {

// What the command line chose; filled while it is read, run afterwards.
struct CommandChoice {
  std::function<int()> run;        // the command that was named
  std::function<int()> byDefault;  // what runs without a command; may be empty
  RecordSource schedules;          // where `next` gets the schedules of the service from; may be empty
};

// Has the whole process live in a zone, for a command's option --zone. False when there is no such zone, which has been
// told on `err`.
[[nodiscard]] bool UseZone(CliContext& context, const std::string& zone);

// Give the commands their names and arguments. `context` and `choice` outlive `app`.
void AddOfflineCommands(CLI::App& app, CliContext& context, CommandChoice& choice);
void AddRegistryCommands(CLI::App& app, CliContext& context, CommandChoice& choice);
void AddConfigCommands(CLI::App& app, CliContext& context, CommandChoice& choice);
// Also makes `list` the default command and the service the source of `next`. `settings` outlives `app`.
void AddOnlineCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings);

void AddChangeCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings);
void AddLogCommand(CLI::App& app, CliContext& context, CommandChoice& choice);
void AddCompletionCommand(CLI::App& app, CliContext& context, CommandChoice& choice);

// Reads the command line and runs the command in it. Nothing is thrown. The streams may be anything; colours appear
// only where `out` or `err` is the process's own and a terminal. Sets the state directory, and with --zone the zone, of
// the process.
//   returns  an ExitCode
[[nodiscard]] int RunQxsched(int argc, const char* const* argv, std::istream& in, std::ostream& out, std::ostream& err,
                             const OnlineSettings& settings = {});

}  // namespace qx
