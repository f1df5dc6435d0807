// client/cli_completion.h: what a shell offers behind the words that are typed.
//
// The scripts are thin: they hand the words to `qxsched __complete`, so that they never fall behind the commands.
// Threads: a command runs on one thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "client/cli_online.h"

namespace CLI {
class App;
}

namespace qx {

inline constexpr std::string_view kCompleteWord = "__complete";

// Writes what may stand in the place of the last word, a line each: the text, and behind a tab what it is. The line
// ":files" leaves the word to the shell's own completion of file names. What goes wrong gives nothing.
//   words  those behind the program's name up to the cursor, the last one being completed
//   returns  kExitDone
int RunComplete(CliContext& context, const CLI::App& app, const OnlineSettings& settings,
                const std::vector<std::string>& words);

// Writes the script of a shell: "bash", "zsh" or "fish"; kExitUsage for any other.
[[nodiscard]] int RunCompletion(CliContext& context, const std::string& shell);

}  // namespace qx
