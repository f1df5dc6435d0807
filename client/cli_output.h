// client/cli_output.h: what every command of qxsched works with: its streams, the global options and the exit codes.
//
// Data goes to `out`, messages to `err`. Threads: a command runs on one thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "client/findings.h"
#include "interface/records.h"

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
  std::size_t columns = 0;  // characters in a line of `out`; 0: no limit
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
// "qxsched: hint: TEXT"; nothing for an empty text or with --quiet.
void PrintHint(CliContext& context, std::string_view text);
// "qxsched: FILE:LINE:COL: ..." on `err`; warnings not with --quiet.
void PrintFinding(CliContext& context, std::string_view file, const Finding& finding);

// The exit code that tells a status best: 0 done, 4 for access denied, 3 for an unknown ID, 5 for refused rules,
// else 1.
[[nodiscard]] int ExitCodeOf(Status status);

// A byte of UTF-8 that goes on with the character before it.
[[nodiscard]] inline bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Characters of a text in UTF-8.
[[nodiscard]] inline std::size_t TextWidth(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuation(c); }));
}

}  // namespace qx
