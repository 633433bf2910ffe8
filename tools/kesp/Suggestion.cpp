#include "tools/kesp/Suggestion.h"

#include <algorithm>

namespace kesp::tool {

std::size_t Mistypings(std::string_view typed, std::string_view meant) {
  // Rows of the table of distances between beginnings: two letters of `typed` back, one back, and the present one.
  std::vector<std::size_t> before(meant.size() + 1);
  std::vector<std::size_t> last(meant.size() + 1);
  std::vector<std::size_t> row(meant.size() + 1);
  for (std::size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= typed.size(); ++i) {
    before.swap(last);
    last.swap(row);
    row[0] = i;
    for (std::size_t j = 1; j <= meant.size(); ++j) {
      const bool isSame = typed[i - 1] == meant[j - 1];
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (isSame ? 0 : 1)});
      const bool isSwapped = i > 1 && j > 1 && typed[i - 1] == meant[j - 2] && typed[i - 2] == meant[j - 1];
      if (isSwapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
  }
  return row.back();
}

std::optional<std::string> Closest(std::string_view typed, const std::vector<std::string>& candidates) {
  std::optional<std::string> closest;
  std::size_t fewest = std::max<std::size_t>(typed.size() / 3, 1) + 1;
  for (const std::string& candidate : candidates) {
    if (const std::size_t mistypings = Mistypings(typed, candidate); mistypings < fewest) {
      fewest = mistypings;
      closest = candidate;
    }
  }
  return closest;
}

}  // namespace kesp::tool
