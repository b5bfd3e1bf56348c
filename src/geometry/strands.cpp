// Strands: cylinders one behind the other, and what each vertex knows of its strand.

#include <algorithm>
#include <cmath>
#include <span>

#include "core/console.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
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
  if (dropped) PrintWarning("object - strands ask for more points than there are", {"strand-points"});
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

  part.tangents.assign(count, {});
  DeriveStrandTangents(part);
}

void DeriveStrandTangents(Part& part) {
  const std::size_t count = part.positions.size();
  std::vector<Vec3> sums(count);
  for (const std::uint32_t vertex : part.cylinders) {
    const Vec3 along = part.positions[vertex + 1] - part.positions[vertex];
    sums[vertex] += along;
    sums[vertex + 1] += along;
  }
  part.tangents.resize(count);
  // Twice, since once leaves a tiny vector short.
  for (const std::uint32_t vertex : part.cylinders)
    for (const std::uint32_t v : {vertex, vertex + 1})
      part.tangents[v] = Pack(SafeNormalize(SafeNormalize(sums[v])));
}

namespace {

// Moves the points of a strand along it, each to `factor` times its way from the root.
void Slide(std::span<Vec3> points, float factor) {
  constexpr std::size_t kPieces = 8;  // of a segment, as rays meet it
  const std::size_t segments = points.size() - 1;
  std::vector<Vec3> directions(points.size());
  for (std::size_t i = 0; i < segments; ++i)
    for (const std::size_t end : {i, i + 1}) directions[end] += points[i + 1] - points[i];
  for (Vec3& direction : directions) direction = SafeNormalize(SafeNormalize(direction));
  const std::vector<Vec3> old(points.begin(), points.end());
  const auto pointAt = [&](std::size_t segment, float t) {
    const Vec3 p0 = old[segment], p1 = old[segment + 1];
    const float length = StrandTangentLength(p1 - p0);
    return CurvePoint(p0, p1, length * directions[segment], length * directions[segment + 1], t);
  };
  std::vector<Vec3> corners;
  std::vector<float> way = {0};  // from the root to each corner
  for (std::size_t i = 0; i <= kPieces * segments; ++i) {
    const std::size_t segment = std::min(i / kPieces, segments - 1);
    corners.push_back(pointAt(segment, static_cast<float>(i - segment * kPieces) / kPieces));
    if (i > 0) way.push_back(way.back() + SafeLength(corners[i] - corners[i - 1]));
  }
  std::size_t piece = 0;
  for (std::size_t i = 1; i <= segments; ++i) {
    const float wanted = factor * way[i * kPieces];
    while (piece + 1 < kPieces * segments && way[piece + 1] < wanted) ++piece;
    const float share = (wanted - way[piece]) / std::max(way[piece + 1] - way[piece], 1e-20f);
    const float t = (static_cast<float>(piece % kPieces) + share) / kPieces;
    points[i] = share <= 1 ? pointAt(piece / kPieces, t)
                           : corners[piece] + share * (corners[piece + 1] - corners[piece]);
  }
}

// The product of the layers at a vertex.
float Factor(const std::vector<ImageSlot>& layers, const Part& part, std::uint32_t vertex) {
  float factor = 1;
  const SurfaceUv uv = CornerUv({{vertex, 0, 0, 0}, {1, 0, 0, 0}, 1}, part);
  for (const ImageSlot& layer : layers) factor *= Mean(LookUp(layer, uv));
  return std::isfinite(factor) ? std::max(factor, 0.0f) : 0.0f;
}

void ScaleRadius(Part& part, std::size_t vertex, float factor) {
  if (part.scalarSets.empty() || vertex >= part.scalarSets[0].values.size()) return;
  part.scalarSets[0].values[vertex] *= factor;
}

// Of the strand between two vertices. False if nothing is left of it.
bool ScaleStrand(Part& part, const GeometryShader& shader, std::uint32_t first, std::uint32_t last) {
  const float radius = Factor(shader.radius, part, first), length = Factor(shader.length, part, first);
  if (!(radius > 0) || !(length > 0)) return false;
  for (std::uint32_t v = first; v <= last; ++v) ScaleRadius(part, v, radius);
  if (length == 1) return true;
  std::vector<Vec3>* motion = MotionOf(part);
  const std::size_t count = last - first + std::size_t{1};
  std::vector<Vec3> end;
  for (std::size_t i = 0; motion != nullptr && i < count; ++i)
    end.push_back(part.positions[first + i] + (*motion)[first + i]);
  Slide({part.positions.data() + first, count}, length);
  if (motion == nullptr) return true;
  Slide(end, length);
  for (std::size_t i = 0; i < count; ++i) (*motion)[first + i] = end[i] - part.positions[first + i];
  return true;
}

// Drops the primitives of marked vertices, and their Shaders where the Part lists one for each.
void DropMarked(Part& part, std::vector<std::uint32_t>& list, const std::vector<bool>& marked) {
  const bool alone = list.size() == part.primitiveShaders.size();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (marked[list[i]]) continue;
    if (alone) part.primitiveShaders[kept] = part.primitiveShaders[i];
    list[kept++] = list[i];
  }
  list.resize(kept);
  if (alone) part.primitiveShaders.resize(kept);
}

}  // namespace

bool ScaleStrands(Part& part) {
  if (settings.format < 2 || !HasShader(part.shader)) return false;
  const GeometryShader& shader = ShaderAt(part.shader).geometry;
  if (shader.radius.empty() && shader.length.empty()) return false;
  if (part.cylinders.empty() && part.particles.empty()) return false;
  std::vector<bool> marked(part.positions.size());
  const auto sorted = [](std::vector<std::uint32_t> list) {
    std::sort(list.begin(), list.end());  // a host may list them in any order
    list.erase(std::unique(list.begin(), list.end()), list.end());
    return list;
  };
  const std::vector<std::uint32_t> segments = sorted(part.cylinders);
  for (std::size_t begin = 0, end = 0; begin < segments.size(); begin = end) {
    for (end = begin + 1; end < segments.size() && segments[end] == segments[end - 1] + 1;) ++end;
    if (!ScaleStrand(part, shader, segments[begin], segments[end - 1] + 1))
      std::fill(marked.begin() + segments[begin], marked.begin() + segments[end - 1] + 1, true);
  }
  DropMarked(part, part.cylinders, marked);
  std::fill(marked.begin(), marked.end(), false);
  for (const std::uint32_t vertex : sorted(part.particles)) {
    const float factor = Factor(shader.radius, part, vertex);
    ScaleRadius(part, vertex, factor);
    marked[vertex] = !(factor > 0);
  }
  DropMarked(part, part.particles, marked);
  if (!part.cylinders.empty()) DeriveStrandTangents(part);
  PrepareMotion(part);
  return true;
}

}  // namespace zp
