#include "client/schedule_word.h"

#include <ostream>

#include "client/cli_online.h"
#include "client/terminal_text.h"

namespace qx {
namespace {

constexpr std::size_t kMostShown = 10;

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

std::string IdDigits(std::string_view text) {
  std::string digits;
  for (const char c : text) {
    if (IsHexDigit(c)) {
      digits += c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
    } else if (c != '-' && c != '{' && c != '}') {
      return "";
    }
  }
  return digits;
}

int FindByWord(CliContext& context, const std::string& word, const std::vector<NamedId>& candidates,
               const std::string& none, const std::string& hint, std::size_t& at) {
  const std::string digits = IdDigits(word);
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const bool begins = digits.size() >= kFewestIdDigits && IdDigits(candidates[i].id).starts_with(digits);
    // A script's unset variable must not name the schedules without a name.
    if (begins || (!word.empty() && candidates[i].name == word)) found.push_back(i);
  }
  if (found.size() == 1) {
    at = found.front();
    return kExitDone;
  }
  const std::string shown = word.empty() ? "\"\"" : word;
  if (found.empty()) {
    PrintError(context, shown + ": " + none);
    const bool isShort = !digits.empty() && digits.size() < kFewestIdDigits;
    PrintHint(context, isShort ? "the beginning of an ID needs at least four digits" : hint);
    return kExitNotFound;
  }
  PrintError(context, shown + ": is ambiguous, " + std::to_string(found.size()) + " schedules answer to it:");
  for (std::size_t i = 0; i < found.size() && i < kMostShown; ++i) {
    const NamedId& candidate = candidates[found[i]];
    context.err << "  " << Printable(candidate.id) << "  " << Printable(candidate.name) << "\n";
  }
  if (found.size() > kMostShown) context.err << "  ...\n";
  PrintHint(context, "give more digits of the ID");
  return kExitNotFound;
}

}  // namespace qx
