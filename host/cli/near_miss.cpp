// SPDX-License-Identifier: MIT
#include "host/cli/near_miss.h"

#include <algorithm>
#include <vector>

namespace ipplay {
namespace {

// Damerau's, where no letter is touched twice.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> cost(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        cost[i][j] = i + j;
        continue;
      }
      const std::size_t other = a[i - 1] == b[j - 1] ? 0 : 1;
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + other});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
      }
    }
  }
  return cost[a.size()][b.size()];
}

}  // namespace

std::string NearMiss(std::string_view word, std::span<const std::string> candidates) {
  constexpr std::size_t kLongest = 64;
  if (word.size() > kLongest) {
    return {};
  }
  std::string nearest;
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t distance = Distance(word, candidate);
    if (distance < least) {
      least = distance;
      nearest = candidate;
    }
  }
  return nearest;
}

}  // namespace ipplay
