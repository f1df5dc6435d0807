// service/service_options.h: the words of the program's command line.
//
// Threads: every function may be called from any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace qx {

// The command line.
struct ServiceOptions {
  std::string root;         // --root DIR: the state directory; empty: the default one
  std::string busAddress;   // --bus ADDRESS: "session", "system" or an address; empty: system for root, else session
  std::string destdir;      // --destdir DIR: in front of the files of the host; without --root they alone are made
  bool registryOnly = false;  // --registry-only: the files of the host are a package's and stay as they are
  bool foreground = false;    // --foreground: stay until SIGTERM
  bool version = false;
  bool help = false;
  std::string words;  // all other words, joined by one blank
};

// Takes the program's own options, "--name VALUE" or "--name=VALUE", out of its arguments (without its name).
//   error    a sentence, when an option's value is missing
//   returns  false then; `options` is partly filled
[[nodiscard]] bool ParseServiceArguments(std::span<const char* const> arguments, ServiceOptions& options,
                                         std::string& error);

enum class CommandWord { kNone, kUnregServer, kRegServer, kService };

// The line is cut at each "-" or "/"; the first cut behind which the whole rest is one of the words, in any case of
// letters, wins. So a further argument behind a word makes it none.
[[nodiscard]] CommandWord FindCommandWord(std::string_view words);

// What --help prints, with its line ends.
extern const std::string_view kServiceHelp;

}  // namespace qx
