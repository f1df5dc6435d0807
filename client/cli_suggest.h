// client/cli_suggest.h: what a word of the command line was probably meant to be.
//
// Threads: every function from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// How many letters have to be put in, left out, replaced or swapped with their neighbour to make one word the other.
// Words are compared byte by byte.
[[nodiscard]] std::size_t EditDistance(std::string_view a, std::string_view b);

// The known word that is nearest: the first of those with the fewest edits, of which a word of three letters may have
// one and a longer one two; else the only one that begins with `word`. Empty: none is near.
[[nodiscard]] std::string Suggest(std::string_view word, const std::vector<std::string>& known);

}  // namespace qx
