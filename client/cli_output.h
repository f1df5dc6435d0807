// client/cli_output.h: what every command of qxsched works with: its streams, the global options and the exit codes.
//
// Data goes to `out`, messages to `err`. Threads: a command runs on one thread.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "client/findings.h"
#include "interface/records.h"
#include "platform/terminal.h"

namespace qx {

enum ExitCode : int {
  kExitDone = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitNotFound = 3,  // or ambiguous
  kExitPermission = 4,
  kExitRulesRefused = 5,
  kExitUnreachable = 6,
  kExitSomeNodesFailed = 7,
};

struct GlobalOptions {
  std::string root;  // the state directory; empty: the default one
  std::string bus;   // the bus address; empty: the default one
  bool noPager = false;
  bool noLegend = false;
  bool quiet = false;  // no messages but errors
  bool json = false;
};

struct CliContext {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  GlobalOptions options;
  bool colourOut = false;  // `out` is a terminal and NO_COLOR isn't set
  bool colourErr = false;
  std::size_t columns = 0;  // of a line of `out`; 0: no limit
  bool zoneChosen = false;  // a command was told the zone to work in
  std::function<void()> startPager;  // sends what follows on `out` through a pager; empty: there is none
};

// A command calls it ahead of data that may be longer than a screen. Does nothing for --json, with --no-pager and where
// nobody looks.
void BeginPaged(CliContext& context);

enum class Colour { kPlain, kRed, kYellow, kGreen, kBold };
// The text in a colour, or as it stands where colours are off.
[[nodiscard]] std::string Paint(bool on, Colour colour, std::string_view text);

// "qxsched: TEXT" on `err`; control characters of the text are shown, not sent.
void PrintError(CliContext& context, std::string_view text);
// The same for what isn't a failure; nothing with --quiet.
void PrintNote(CliContext& context, std::string_view text);
// Has the output written; where that fails, tells the ID of what was made as an error, so that it isn't lost.
void KeepMadeId(CliContext& context, std::string_view id);
// "qxsched: hint: TEXT"; nothing for an empty text or with --quiet.
void PrintHint(CliContext& context, std::string_view text);
// "qxsched: FILE:LINE:COL: ..." on `err`; warnings not with --quiet.
void PrintFinding(CliContext& context, std::string_view file, const Finding& finding);

// The exit code that tells a status best: 0 done, 4 for access denied, 3 for an unknown ID, 5 for refused rules,
// else 1.
[[nodiscard]] int ExitCodeOf(Status status);

// Columns that a text in UTF-8 takes on a terminal.
[[nodiscard]] inline std::size_t TextWidth(std::string_view text) { return platform::FitText(text).columns; }

// Appends the text, or as much of it as leaves room for a last "…".
//   width    columns, 1 or more
//   returns  the columns that were taken; fewer than `width` also where a wide character didn't fit
std::size_t AppendShortened(std::string& out, std::string_view text, std::size_t width);

}  // namespace qx
