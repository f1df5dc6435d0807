// client/cli_offline.h: the commands that need no service: next, next --batch, check.
//
// They ask the rules library that the service uses, in the zone of the process. Threads: a command runs on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/cli_output.h"
#include "interface/records.h"

namespace qx {

// Fetches the record of a schedule that the service knows, by ID, prefix or name. Returns an exit code; a failure has
// been told on `err`.
using RecordSource = std::function<int(CliContext& context, const std::string& schedule, SCHEDULE_OBJECT& record)>;

struct NextArguments {
  std::string source;  // a file, "-" for the input, or a schedule
  std::int64_t count = 10;
  std::string from = "now";
  bool why = false;
  bool allowRelativePaths = false;
};
inline constexpr std::int64_t kNextMostWindows = 100000;

// Prints the coming windows of a schedule file or, through `schedules` (may be empty), of a schedule of the service.
// A source with a separator, with the ending ".toml" or ".json", or that names an existing file is a file.
//   returns  kExitDone, also when no window follows; kExitUsage for a bad --from; kExitNotFound; kExitPermission;
//            kExitRulesRefused for a malformed file or refused rules
[[nodiscard]] int RunNext(CliContext& context, const NextArguments& arguments, const RecordSource& schedules);

// Answers the JSON Lines of the input. kExitDone, or kExitFailed when the output is closed.
[[nodiscard]] int RunNextBatch(CliContext& context);

struct CheckArguments {
  std::vector<std::string> files;
  bool allowRelativePaths = false;
  bool strict = false;  // warnings count as errors
};

// Tells all findings of schedule files, those of the service's own validation included.
//   returns  kExitDone; kExitRulesRefused when a file is malformed or its rules would be refused; else kExitNotFound,
//            kExitPermission or kExitFailed when a file can't be read
[[nodiscard]] int RunCheck(CliContext& context, const CheckArguments& arguments);

// Whether a word of the command line names a file: "-", with a separator, with the ending ".toml" or ".json", or that
// of a file that exists; a directory hides no schedule of its name.
[[nodiscard]] bool IsFileArgument(const std::string& source);

// Which rules give a run day, in the words of the schedule file: "every tue", "last day", "include", "every 14 days".
//   match  ZEP_RULE_... of the window
//   day    the window's; of a restart behind midnight the one on which its window opened
[[nodiscard]] std::vector<std::string> RuleNames(std::uint32_t match, std::int64_t day, const SCHEDULE_RULE& rules);

struct ComingWindow {
  std::int64_t start = 0;  // seconds
  std::int64_t end = 0;
  std::int64_t day = 0;  // since 1970-01-01: the local day on which the window opens
  bool last = false;     // no further one follows
};
// The windows of a record, and the restarts in them, behind the instant `from`, at most `count`, in the zone of the
// process.
//   status  0, or the refusal of the record's rules, then without a window
[[nodiscard]] std::vector<ComingWindow> ComingWindows(const SCHEDULE_OBJECT& record, std::int64_t from,
                                                      std::int64_t count, Status& status);

// A schedule read from a file, with everything found out about it without a service.
struct CheckedFile {
  SCHEDULE_OBJECT record;
  std::vector<Finding> findings;  // of the text, in order of place; then of the rules
  Status status = kStatusOk;      // what the service would answer: kStatusNoRunDay, ..., kStatusBackdated
  std::vector<Finding> advice;    // warnings for who looks for mistakes; other commands don't show them
};

// Checks the text of a schedule file: TOML, or the record as JSON when the text begins with "{".
[[nodiscard]] CheckedFile CheckText(const std::string& text, bool allowRelativePaths);

// Reads a schedule file ("-" for the input): as CheckText().
//   checked  filled when the file could be read
//   returns  kExitDone when the file could be read, whatever was found in it; else an exit code, told on `err`
[[nodiscard]] int ReadAndCheck(CliContext& context, const std::string& file, bool allowRelativePaths,
                               CheckedFile& checked);

}  // namespace qx
