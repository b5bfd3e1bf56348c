#include "core/words.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zp {
namespace {

constexpr std::size_t kLongestWord = 64;  // bytes; nobody mistypes longer ones by a letter

constexpr char Fold(char c) {
  if (c >= 'A' && c <= 'Z') return static_cast<char>(c - 'A' + 'a');
  return c == '-' ? '_' : c;
}

}  // namespace

std::size_t EditDistance(std::string_view a, std::string_view b, std::size_t limit) {
  const std::size_t difference = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
  if (difference > limit || std::max(a.size(), b.size()) > kLongestWord) return limit + 1;
  // Three rows of the table: row i holds the distances of the first i bytes of a to the beginnings of b.
  std::array<std::array<std::size_t, kLongestWord + 1>, 3> rows = {};
  auto* before = &rows[0];
  auto* last = &rows[1];
  auto* row = &rows[2];
  for (std::size_t j = 0; j <= b.size(); ++j) (*last)[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    // Cells further off the diagonal than the limit are beyond it.
    const std::size_t begin = i > limit ? i - limit : 1, end = std::min(i + limit, b.size());
    (*row)[begin - 1] = begin == 1 ? i : limit + 1;
    if (end < b.size()) (*row)[end + 1] = limit + 1;
    std::size_t least = (*row)[begin - 1];
    for (std::size_t j = begin; j <= end; ++j) {
      const bool same = Fold(a[i - 1]) == Fold(b[j - 1]);
      std::size_t cost = std::min({(*last)[j] + 1, (*row)[j - 1] + 1, (*last)[j - 1] + (same ? 0 : 1)});
      if (i > 1 && j > 1 && Fold(a[i - 1]) == Fold(b[j - 2]) && Fold(a[i - 2]) == Fold(b[j - 1]))
        cost = std::min(cost, (*before)[j - 2] + 1);
      (*row)[j] = cost;
      least = std::min(least, cost);
    }
    if (least > limit) return limit + 1;
    std::swap(before, last);
    std::swap(last, row);
  }
  return std::min((*last)[b.size()], limit + 1);
}

std::string_view NearestWord(std::string_view word, const std::vector<std::string_view>& words) {
  std::string_view nearest;
  std::size_t limit = std::min<std::size_t>(word.size() / 3, 3);
  for (const std::string_view candidate : words) {
    if (candidate == word) return {};
    const std::size_t distance = EditDistance(word, candidate, limit);
    if (distance > limit || (!nearest.empty() && distance == limit)) continue;
    nearest = candidate;
    limit = distance;
  }
  return nearest;
}

}  // namespace zp
