#include "client/cli_suggest.h"

#include <algorithm>

namespace qx {

std::size_t EditDistance(std::string_view a, std::string_view b) {
  // Rows of the table of distances between the beginnings of both; three are enough.
  std::vector<std::size_t> before, last(b.size() + 1), row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) last[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before = last;
    last.swap(row);
  }
  return last[b.size()];
}

std::string Suggest(std::string_view word, const std::vector<std::string>& known) {
  std::string nearest;
  const std::size_t most = word.size() < 3 ? 0 : word.size() < 4 ? 1 : 2;
  std::size_t fewest = most + 1;
  for (const std::string& candidate : known) {
    const std::size_t edits = EditDistance(word, candidate);
    if (edits >= fewest) continue;
    fewest = edits;
    nearest = candidate;
  }
  if (!nearest.empty() || word.empty()) return nearest;
  for (const std::string& candidate : known) {
    if (!candidate.starts_with(word)) continue;
    if (!nearest.empty()) return "";
    nearest = candidate;
  }
  return nearest;
}

}  // namespace qx
