// tests/document.h: for tests: the examples of a document in Markdown, and what came of running them.
//
// Of a fenced block the first word behind the fence says what it is:
//   console     a transcript: lines that begin with "$ " are run in one shell for the whole document, lines that begin
//               with "> " go on with the command above; what else is there is their output on both streams
//   sh          commands without output, which succeed
//   toml, ...   with a file's name behind the word: written there, ahead of all commands
//   cron, ini, bat   with a name behind the word: another system's form of the file NAME.toml
// A comment "<!-- run", up to a line "-->", holds commands that the reader doesn't see; they succeed. A comment
// "<!-- not run: WHY -->" on the line above a fence leaves that block out; "<!-- differs -->" says of another system's
// form that it is near, and not the same.
//
// Output is what the document shows, except: an ID stands for any ID, always the same one; a time of day with seconds
// stands for any within its minute, with seconds other than 00 for any at all, and so does the time in a file's name;
// "..." stands for any text, alone on a line for any lines.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qx::testing {

struct Example {
  std::size_t line = 0;  // of the first line of its text, from 1
  std::string kind;      // "console", "sh", "toml"...; "run" for a hidden one; empty for a block without a word
  std::string file;      // the word behind
  std::string text;      // with its line ends
  std::string notRun;    // why it is left out
  bool differs = false;  // marked as something that isn't the same as what stands beside it
};
[[nodiscard]] std::vector<Example> ExamplesOf(const std::string& markdown);

// A command of a transcript.
struct Command {
  std::size_t line = 0;
  std::string text;
  std::string output;
};
// Empty for a block that begins with no command.
[[nodiscard]] std::vector<Command> CommandsOf(const Example& transcript);

// Compares outputs of one document, with what its IDs stand for.
class OutputMatcher {
 public:
  // Whether `came` is what the document shows.
  [[nodiscard]] bool Matches(const std::string& shown, const std::string& came);

 private:
  using Names = std::map<std::string, std::string>;
  static bool LineMatches(std::string_view shown, std::string_view came, Names& ids);
  static bool LinesMatch(const std::vector<std::string>& shown, std::size_t i, const std::vector<std::string>& came,
                         std::size_t k, Names& ids);
  Names m_ids;
};

}  // namespace qx::testing
