// core/words.h: words that people mistype.

#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace zp {

// The number of bytes to insert, drop, replace or swap with a neighbour that turns one word into the other,
// or `limit` + 1 where there are more than `limit`. Upper and lower case are equal, and so are '-' and '_'.
// Wagner and Fischer, "The String-to-String Correction Problem", 1974, with the swaps of Lowrance and Wagner.
std::size_t EditDistance(std::string_view a, std::string_view b, std::size_t limit);

// The word that was probably meant: the first of the nearest, at most a third of the letters away. Empty if
// none is, or if `word` is among them as it is.
std::string_view NearestWord(std::string_view word, const std::vector<std::string_view>& words);

}  // namespace zp
