// The number of differences is computed letter by letter: row i of the table has the differences between the first i
// letters of one word and each beginning of the other.

#include "values/similar.h"

#include <algorithm>
#include <cstddef>

namespace klctl {
namespace {

using Row = std::vector<std::size_t>;

std::size_t differences(const std::string& one, const std::string& other) {
  std::vector<Row> table(one.size() + 1, Row(other.size() + 1));
  for (std::size_t i = 0; i <= one.size(); ++i) {
    for (std::size_t k = 0; k <= other.size(); ++k) {
      if (i == 0 || k == 0) {
        table[i][k] = i + k;
        continue;
      }
      const std::size_t replaced = table[i - 1][k - 1] + (one[i - 1] == other[k - 1] ? 0 : 1);
      table[i][k] = std::min({replaced, table[i - 1][k] + 1, table[i][k - 1] + 1});
      if (i > 1 && k > 1 && one[i - 1] == other[k - 2] && one[i - 2] == other[k - 1])
        table[i][k] = std::min(table[i][k], table[i - 2][k - 2] + 1);
    }
  }
  return table.back().back();
}

}  // namespace

std::string closest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t least = std::max<std::size_t>(word.size() / 3, 1) + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t count = differences(word, candidate);
    if (count >= least) continue;
    least = count;
    best = candidate;
  }
  return best;
}

std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string candidate = closest(word, candidates);
  return candidate.empty() ? "" : "; did you mean '" + candidate + "'?";
}

}  // namespace klctl
