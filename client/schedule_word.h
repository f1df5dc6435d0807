// client/schedule_word.h: which schedule a word of the command line names: an ID, the beginning of its digits, or a
// name.
//
// Threads: a command runs on one thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "client/cli_output.h"

namespace qx {

// The digits of an ID or of its beginning, in upper case; empty for any other text.
[[nodiscard]] std::string IdDigits(std::string_view text);

struct NamedId {  // a schedule that may be meant
  std::string id;
  std::string name;  // empty where it has none, or none is known
};

// The only candidate that a word names: the beginning of its ID's digits (kFewestIdDigits or more), or its whole name.
// An empty word names none. What goes wrong is told on `err`: no candidate answers, or several do, which are listed.
//   none, hint  the sentence and the hint for a word that nobody answers to
//   at          set on success: the candidate's place
//   returns     kExitDone; kExitNotFound
[[nodiscard]] int FindByWord(CliContext& context, const std::string& word, const std::vector<NamedId>& candidates,
                             const std::string& none, const std::string& hint, std::size_t& at);

}  // namespace qx
