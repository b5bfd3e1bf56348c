// geometry/displace_patch.h: the lattice that a triangle is split into, and the smooth patch that carries it.
//
// Triangles are split one by one, with no knowledge of their neighbours; what two of them share is found
// again by exact equality of positions. So the points on an edge are functions of that edge alone, whichever
// triangle asks: the weights come from whole numbers, the third corner is left out, the two others are taken
// in an order that their data determine, and the arithmetic is one copy of machine code, in which products
// and sums may be contracted as the compiler likes.

#pragma once

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <type_traits>

#include "geometry/object.h"

namespace zp {

// Weights are truncated to a multiple of one over this.
inline constexpr int kWeightGrid = 22403;

struct PatchCorner {
  Vec3 position;
  Vec3 normal;  // unit length
};

// The corners that a lattice point depends on: one at a corner, two on an edge, three inside.
struct Blend {
  int count = 0;
  int corner[3] = {};  // 0..2 in the triangle
  float weight[3] = {};
};

constexpr std::uint64_t LatticePoints(std::uint64_t level) { return (level + 1) * (level + 2) / 2; }
constexpr std::uint64_t LatticeTriangles(std::uint64_t level) { return level * level; }

// The blend of the point with `share[i]` parts in `level` of corner i. `order` lists the corners in the order
// in which an edge takes them.
inline Blend MakeBlend(const int (&share)[3], int level, const int (&order)[3]) {
  Blend blend;
  const int zeros = (share[0] == 0) + (share[1] == 0) + (share[2] == 0);
  for (int i = 0; i < 3; ++i) {
    const int corner = zeros == 0 ? i : order[i];
    if (share[corner] == 0) continue;
    const auto steps = std::int64_t{kWeightGrid} * share[corner] / level;
    blend.corner[blend.count] = corner;
    blend.weight[blend.count++] = static_cast<float>(steps) / static_cast<float>(kWeightGrid);
  }
  return blend;
}

// The corners of a triangle by position, then normal and tangent: the same for both triangles of an edge,
// whatever their vertices are called. Corners that are alike in all of these keep their order.
inline void OrderCorners(const Part& part, const Triangle& triangle, int (&order)[3]) {
  const auto key = [&](int corner) {
    const std::uint32_t v = triangle.vertex[corner];
    const Vec3 p = part.positions[v];
    const PackedVector n = part.normals[v], t = part.tangents[v];
    return std::tuple(p.x, p.y, p.z, n.x, n.y, n.z, t.x, t.y, t.z, corner);
  };
  for (int i = 0; i < 3; ++i) order[i] = i;
  std::sort(order, order + 3, [&](int a, int b) { return key(a) < key(b); });
}

// A curve with given normals at both ends: a at t = 1, b at t = 0. A Hermite cubic over the chord, its height
// measured along the mean of the two normals; it leaves both ends perpendicular to their normals.
inline PatchCorner PatchCurve(float t, const PatchCorner& a, const PatchCorner& b) {
  const float rest = 1 - t;
  const Vec3 difference = a.position - b.position;
  const float u = Dot(difference, a.normal), v = Dot(difference, b.normal);
  const Vec3 middle = SafeNormalize(t * a.normal + rest * b.normal);
  const float height = (-t * u + rest * v) * -t * rest;
  const float slope = (1 + (3 * rest - 4) * rest) * u + (3 * rest - 2) * rest * v;
  const Vec3 tangent = SafeNormalize(slope * middle + height * (b.normal - a.normal) - difference);
  return {t * a.position + rest * b.position + height * middle, Cross(tangent, Cross(middle, tangent))};
}

// The network of curves from corner a: two to its neighbours, and one across between their ends.
inline Vec3 PatchNetwork(const PatchCorner& a, const PatchCorner& b, const PatchCorner& c, float weightA,
                         float weightB, float weightC) {
  const float across = weightB == 0 ? 0.0f : weightB / (weightB + weightC);
  return PatchCurve(across, PatchCurve(weightA, a, b), PatchCurve(weightA, a, c)).position;
}

// The patch at `blend`, three networks of curves mixed by a smooth step of the weights. On an edge the third
// network has no weight and the two others are the edge's own curve, seen from either end: they differ only
// because truncated weights do not add up to 1.
// Not inlined: see the head of this file.
[[gnu::noinline]] inline Vec3 PatchPoint(const PatchCorner (&corners)[3], const Blend& blend) {
  const auto step = [](float x) { return x * x * (3 - 2 * x); };
  const PatchCorner& p0 = corners[blend.corner[0]];
  if (blend.count < 2) return p0.position;
  const PatchCorner& p1 = corners[blend.corner[1]];
  const float b0 = blend.weight[0], b1 = blend.weight[1];
  if (blend.count < 3) {
    const float sum = step(b0) + step(b1);
    return (step(b0) / sum) * PatchCurve(b0, p0, p1).position +
           (step(b1) / sum) * PatchCurve(b1, p1, p0).position;
  }
  const PatchCorner& p2 = corners[blend.corner[2]];
  const float b2 = blend.weight[2];
  const float sum = step(b0) + step(b1) + step(b2);
  return (step(b0) / sum) * PatchNetwork(p0, p1, p2, b0, b1, b2) +
         (step(b1) / sum) * PatchNetwork(p1, p2, p0, b1, b2, b0) +
         (step(b2) / sum) * PatchNetwork(p2, p0, p1, b2, b0, b1);
}

// The weighted sum of the values at the corners. Not inlined: see the head of this file.
template <class T>
[[gnu::noinline]] T BlendValues(const T (&values)[3], const Blend& blend) {
  if constexpr (std::is_same_v<T, Vec2>) {
    Vec2 sum;
    for (int i = 0; i < blend.count; ++i) {
      sum.x += blend.weight[i] * values[blend.corner[i]].x;
      sum.y += blend.weight[i] * values[blend.corner[i]].y;
    }
    return sum;
  } else {
    T sum = {};
    for (int i = 0; i < blend.count; ++i) sum += blend.weight[i] * values[blend.corner[i]];
    return sum;
  }
}

// The triangles of a lattice whose points lie row by row from `first` on: those that point to the first
// corner, then those that point away.
inline void WriteLattice(std::uint32_t first, std::uint32_t level, std::int32_t shader, Triangle* triangles) {
  const auto rowStart = [first](std::uint32_t row) { return first + row * (row + 1) / 2; };
  for (std::uint32_t r = 0; r < level; ++r) {
    const std::uint32_t a = rowStart(r), b = rowStart(r + 1);
    for (std::uint32_t i = 0; i <= r; ++i) *triangles++ = {{a + i, b + i, b + i + 1}, shader};
  }
  for (std::uint32_t r = 1; r < level; ++r) {
    const std::uint32_t a = rowStart(r), b = rowStart(r + 1);
    for (std::uint32_t i = 0; i < r; ++i) *triangles++ = {{a + i, b + i + 1, a + i + 1}, shader};
  }
}

}  // namespace zp
