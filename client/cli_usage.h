// client/cli_usage.h: how qxsched helps: the form of its help texts, and what it says to a line that it can't read.
//
// Threads: those of the command line's reading.
#pragma once

#include <string>
#include <vector>

#include "client/cli_output.h"

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace qx {

// Gives the program and its commands, which are all there, their form of help.
void UseHelpForm(CLI::App& app);

// The help of the command that was read, or of the program. A command's ends with where the other options stand.
[[nodiscard]] std::string HelpText(const CLI::App& app);

// Tells what is wrong with the words that were read, with a hint: the word that was probably meant, else whose help
// to read.
//   error  why the reading ended
void TellMistake(CliContext& context, const CLI::App& app, const CLI::ParseError& error);
// The same for an option with an empty value, as a script's unset variable gives; false when there is none. An empty
// --destdir is the root. Asked ahead of the reading, for "--option=", and behind it.
//   words  the command line
[[nodiscard]] bool TellEmptyValue(CliContext& context, const CLI::App& app, const std::vector<const char*>& words);
// The same for a word that nobody took; false when every word was taken.
[[nodiscard]] bool TellUnknownWord(CliContext& context, const CLI::App& app);

}  // namespace qx
