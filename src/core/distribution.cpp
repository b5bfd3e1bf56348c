#include "core/distribution.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "core/threads.h"
#include "core/validate.h"

namespace zp {

Distribution MakeDistribution(std::span<const float> weights) {
  Distribution result;
  for (const float weight : weights) result.total += static_cast<double>(weight);
  if (!(result.total > 0) || !std::isfinite(result.total)) {
    result.total = 0;
    return result;
  }
  const std::size_t count = weights.size();
  result.cumulative.resize(count + 1);
  result.weights.resize(count);
  result.lookup.resize(count + 1);
  double running = 0;
  for (std::size_t i = 0; i < count; ++i) {
    running += static_cast<double>(weights[i]);
    result.cumulative[i] = static_cast<float>(running / result.total);
    result.weights[i] = static_cast<float>(static_cast<double>(weights[i]) / result.total);
  }
  result.cumulative[count] = 1;
  const auto begin = result.cumulative.begin();
  const auto end = begin + static_cast<std::ptrdiff_t>(count) - 1;
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 30))
  for (std::size_t i = 0; i < count; ++i)
    result.lookup[i] = static_cast<std::int32_t>(
        std::upper_bound(begin, end, static_cast<float>(i) / static_cast<float>(count)) - begin);
  result.lookup[count] = static_cast<std::int32_t>(count) - 1;
  if (kValidates) RequireSound(ValidateDistribution(result));
  return result;
}

std::string ValidateDistribution(const Distribution& distribution) {
  constexpr float kRounding = 0x1p-21f;  // of two running sums
  Fault fault;
  const auto& [cumulative, weights, lookup, total] = distribution;
  const std::size_t count = weights.size(), entries = count == 0 ? 0 : count + 1;
  if (!fault.Require(cumulative.size() == entries && lookup.size() == entries, "distribution's entries",
                     count))
    return fault.text;
  fault.Require(count == 0 ? total == 0 : total > 0 && cumulative[count] == 1, "distribution's total");
  float below = 0;
  for (std::size_t i = 0; i < count; ++i) {
    fault.Require(cumulative[i] >= below && cumulative[i] <= 1, "distribution's sums", i);
    fault.Require(std::fabs(cumulative[i] - below - weights[i]) <= kRounding, "distribution's share", i);
    below = cumulative[i];
    const float u = static_cast<float>(i) / static_cast<float>(count);
    const auto found = static_cast<std::size_t>(lookup[i]);
    if (fault.Require(found < count, "distribution's look-up", i))
      fault.Require(
          (found == 0 || cumulative[found - 1] <= u) && (found + 1 == count || cumulative[found] > u),
          "distribution's search", i);
  }
  return fault.text;
}

std::int32_t UpperBound(const Distribution& distribution, float u) {
  const std::size_t count = distribution.weights.size();
  if (count == 0) return -1;
  assert(u >= 0 && u <= 1);
  const auto slot = std::min(static_cast<std::size_t>(u * static_cast<float>(count)), count - 1);
  // u lies in [slot, slot + 1) / count up to rounding, so the answer lies between the two lookup entries.
  auto i = static_cast<std::size_t>(distribution.lookup[slot]);
  while (i > 0 && distribution.cumulative[i - 1] > u) --i;
  while (i + 1 < count && !(distribution.cumulative[i] > u)) ++i;
  return static_cast<std::int32_t>(i);
}

}  // namespace zp
