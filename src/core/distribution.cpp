#include "core/distribution.h"

#include <algorithm>
#include <cmath>

#include "core/threads.h"

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
  return result;
}

std::int32_t UpperBound(const Distribution& distribution, float u) {
  const std::size_t count = distribution.weights.size();
  if (count == 0) return -1;
  const auto slot = std::min(static_cast<std::size_t>(u * static_cast<float>(count)), count - 1);
  // u lies in [slot, slot + 1) / count up to rounding, so the answer lies between the two lookup entries.
  auto i = static_cast<std::size_t>(distribution.lookup[slot]);
  while (i > 0 && distribution.cumulative[i - 1] > u) --i;
  while (i + 1 < count && !(distribution.cumulative[i] > u)) ++i;
  return static_cast<std::int32_t>(i);
}

}  // namespace zp
