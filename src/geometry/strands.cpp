// Strands: cylinders one behind the other, and what each vertex knows of its strand.

#include <algorithm>

#include "core/console.h"
#include "geometry/geometry.h"
#include "shading/shading.h"

namespace zp {
namespace {

// The first vertices of strands, ascending, and behind them the number of vertices. A new strand starts where
// a cylinder does not go on from the one before it.
std::vector<std::size_t> StrandStarts(const Part& part) {
  std::vector<std::size_t> starts = {0};
  for (std::size_t i = 1; i < part.cylinders.size(); ++i)
    if (part.cylinders[i] != part.cylinders[i - 1] + 1) starts.push_back(part.cylinders[i]);
  if (!part.cylinders.empty()) starts.push_back(part.cylinders.front());
  starts.push_back(part.positions.size());
  // Readers list strands in order; a host need not.
  std::sort(starts.begin(), starts.end());
  starts.erase(std::unique(starts.begin(), starts.end()), starts.end());
  return starts;
}

}  // namespace

bool StrandLayout::Add(std::uint64_t segments) {
  const std::uint64_t count = part.positions.size();
  if (base >= count) {
    dropped = true;
    return false;
  }
  const std::uint64_t kept = std::min(segments, count - base - 1);
  dropped |= kept < segments;
  for (std::uint64_t i = 0; i < kept; ++i) part.cylinders.push_back(static_cast<std::uint32_t>(base + i));
  part.strandLengths.push_back(static_cast<std::uint32_t>(kept));
  base += segments + 1;
  return true;
}

void StrandLayout::Finish() const {
  if (dropped) PrintWarning("object - strands ask for more points than there are");
}

void DeriveStrands(Part& part) {
  const std::size_t count = part.positions.size();
  if (HasShader(part.shader)) ShaderAt(part.shader).usedByHair = true;

  part.scalarSets.push_back({"parameter", {}});
  std::vector<float>& parameters = part.scalarSets.back().values;
  parameters.resize(count);
  const std::vector<std::size_t> starts = StrandStarts(part);
  for (std::size_t s = 0; s + 1 < starts.size(); ++s)
    for (std::size_t v = starts[s]; v < starts[s + 1]; ++v)
      parameters[v] = static_cast<float>(v - starts[s]) / static_cast<float>(starts[s + 1] - starts[s]);

  std::vector<Vec3> sums(count);
  for (const std::uint32_t vertex : part.cylinders) {
    const Vec3 along = part.positions[vertex + 1] - part.positions[vertex];
    sums[vertex] += along;
    sums[vertex + 1] += along;
  }
  part.tangents.resize(count);
  // Twice, since once leaves a tiny vector short.
  for (std::size_t v = 0; v < count; ++v) part.tangents[v] = Pack(SafeNormalize(SafeNormalize(sums[v])));
}

}  // namespace zp
