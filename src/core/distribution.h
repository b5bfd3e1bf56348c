// core/distribution.h: picks entries of a list in proportion to their weights.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace zp {

// Empty and unused when the weights add up to nothing.
struct Distribution {
  std::vector<float> cumulative;     // count + 1: running sums over the total, the last exactly 1
  std::vector<float> weights;        // count: shares of the total
  std::vector<std::int32_t> lookup;  // count + 1: where the search for i / count begins
  double total = 0;
};

Distribution MakeDistribution(std::span<const float> weights);
// Whether searches find what the weights promise; see core/validate.h.
std::string ValidateDistribution(const Distribution& distribution);

// The first entry whose cumulative value is above u in [0, 1); -1 in an empty distribution.
std::int32_t UpperBound(const Distribution& distribution, float u);

}  // namespace zp
