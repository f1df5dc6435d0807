#include "tests/document.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace qx::testing {
namespace {

constexpr std::string_view kRun = "<!-- run";
constexpr std::string_view kNotRun = "<!-- not run: ";
constexpr std::string_view kDiffers = "<!-- differs -->";
constexpr std::string_view kCommentEnd = "-->";
constexpr std::string_view kAny = "...";
constexpr std::string_view kIdShape = "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh";
constexpr std::string_view kTimeShape = "dd:dd:dd";
constexpr std::string_view kStampShape = "-dddddddd-dddddd";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// d: a digit, h: a capital hexadecimal digit, else itself.
bool HasShape(std::string_view text, std::string_view shape) {
  if (text.size() < shape.size()) return false;
  return std::equal(shape.begin(), shape.end(), text.begin(), [](char s, char c) {
    return s == 'd' ? IsDigit(c) : s == 'h' ? IsDigit(c) || (c >= 'A' && c <= 'F') : s == c;
  });
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(line);
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

}  // namespace

std::vector<Example> ExamplesOf(const std::string& markdown) {
  std::vector<Example> examples;
  std::istringstream in(markdown);
  std::string notRun;
  bool differs = false;
  std::size_t number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    const bool fence = line.starts_with("```");
    if (!fence && line != kRun) {
      const bool why = line.starts_with(kNotRun) && line.ends_with(kCommentEnd);
      notRun = why ? line.substr(kNotRun.size(), line.size() - kNotRun.size() - kCommentEnd.size()) : "";
      differs = line == kDiffers;
      continue;
    }
    Example example;
    example.line = number + 1;
    example.notRun = notRun;
    notRun.clear();
    example.differs = std::exchange(differs, false);
    if (fence) {
      std::istringstream words(line.substr(3));
      words >> example.kind >> example.file;
    } else {
      example.kind = "run";
    }
    const std::string_view end = fence ? "```" : kCommentEnd;
    while (std::getline(in, line) && ++number && line != end) example.text += line + "\n";
    examples.push_back(std::move(example));
  }
  return examples;
}

std::vector<Command> CommandsOf(const Example& transcript) {
  std::vector<Command> commands;
  std::istringstream in(transcript.text);
  std::size_t number = transcript.line;
  bool more = false;  // the command may go on
  for (std::string line; std::getline(in, line); ++number) {
    if (line.starts_with("$ ")) {
      commands.push_back({number, line.substr(2), ""});
      more = true;
    } else if (commands.empty()) {
      return {};
    } else if (more && line.starts_with("> ")) {
      commands.back().text += "\n" + line.substr(2);
    } else {
      more = false;
      commands.back().output += line + "\n";
    }
  }
  return commands;
}

bool OutputMatcher::Matches(const std::string& shown, const std::string& came) {
  Names ids = m_ids;
  if (!LinesMatch(LinesOf(shown), 0, LinesOf(came), 0, ids)) return false;
  m_ids = std::move(ids);
  return true;
}

bool OutputMatcher::LinesMatch(const std::vector<std::string>& shown, std::size_t i,
                               const std::vector<std::string>& came, std::size_t k, Names& ids) {
  for (; i < shown.size(); ++i, ++k) {
    if (shown[i] == kAny) {
      for (; k <= came.size(); ++k) {
        Names tried = ids;
        if (LinesMatch(shown, i + 1, came, k, tried)) {
          ids = std::move(tried);
          return true;
        }
      }
      return false;
    }
    if (k >= came.size() || !LineMatches(shown[i], came[k], ids)) return false;
  }
  return k == came.size();
}

bool OutputMatcher::LineMatches(std::string_view shown, std::string_view came, Names& ids) {
  while (!shown.empty()) {
    if (shown.starts_with(kAny)) {
      shown.remove_prefix(kAny.size());
      for (std::size_t at = 0; at <= came.size(); ++at) {
        Names tried = ids;
        if (LineMatches(shown, came.substr(at), tried)) {
          ids = std::move(tried);
          return true;
        }
      }
      return false;
    }
    std::size_t length = 1;
    if (HasShape(shown, kIdShape) && HasShape(came, kIdShape)) {
      length = kIdShape.size();
      const std::string id(shown.substr(0, length)), other(came.substr(0, length));
      const auto taken = std::find_if(ids.begin(), ids.end(), [&](const auto& pair) { return pair.second == other; });
      if (taken != ids.end() && taken->first != id) return false;
      if (ids.emplace(id, other).first->second != other) return false;
    } else if (HasShape(shown, kTimeShape) && HasShape(came, kTimeShape) &&
               (shown.substr(6, 2) != "00" || shown.substr(0, 6) == came.substr(0, 6))) {
      length = kTimeShape.size();
    } else if (HasShape(shown, kStampShape) && HasShape(came, kStampShape)) {
      length = kStampShape.size();
      // The second one of a second has a number behind.
      for (std::string_view* side : {&shown, &came}) {
        if (HasShape(side->substr(length), "-d.")) side->remove_prefix(2);
      }
    } else if (came.empty() || shown.front() != came.front()) {
      return false;
    }
    shown.remove_prefix(length);
    came.remove_prefix(length);
  }
  return came.empty();
}

}  // namespace qx::testing
