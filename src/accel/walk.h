// accel/walk.h: what the walks of single rays share: box tests, lanes of triangles, the ray's parent, and the
// way into an Instance.

#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "accel/accel.h"
#include "accel/primitive_tests.h"
#include "accel/tree.h"
#include "core/float8.h"
#include "core/index.h"
#include "core/settings.h"

namespace zp {

// Lengths inside Instances that scale: nearest walks of format 1 measure in units of the Object, along a unit
// direction; format 2, shadow rays and probes in scene units, along the direction as the Instances leave it.
inline bool MeasuresInScene() { return settings.format >= 2; }

// Beyond this inverse of a direction's component, rounding of coordinates can be more than a distance.
inline constexpr float kSteep = 0x1p20f;

inline Float4 LanesOf(const Vec3& v) { return Float4::LoadThree(&v.x); }
inline bool AllAtMost(Float4 sizes, float limit) { return MaskLessEqual(sizes, Float4::Set(limit)) == 15U; }

// Whether the ray runs so nearly across some axis that its slabs need slack.
inline bool IsSteep(const RayRecord& ray) { return !AllAtMost(Abs(LanesOf(ray.inverseDirection)), kSteep); }

// What a walk keeps of its ray for box tests. Where a direction's component is zero or nearly so, the inverse
// is limited, since infinities of planes and origin would leave no number, and the slab is widened by what
// coordinates are rounded by: a ray within a plane of a box meets the box.
//   kSlack  false only of rays that are not steep: most, and they need half the numbers
template <bool kSlack>
struct SlabRay {
  Float8 inverse[3], origin[3];  // origin * inverse, of near planes with the slack
  Float8 farOrigin[kSlack ? 3 : 1];
  std::size_t nearRow[3], farRow[3];  // bytes behind the first row of boxes

  explicit SlabRay(const RayRecord& ray) {
    constexpr float kSteepest = 0x1p80f;  // the slack is still farther than any box, and no product overflows
    constexpr float kRounding = 0x1p-22f, kLeastRounding = 0x1p-30f;
    constexpr std::size_t kRow = sizeof PackedNode::boxes[0];
    for (std::size_t a = 0; a < 3; ++a) {
      const int axis = static_cast<int>(a);
      float steep = ray.inverseDirection[axis];
      const std::size_t negative = std::bit_cast<std::uint32_t>(steep) >> 31U;  // a zero has a sign, too
      if constexpr (kSlack) {
        float slack = 0;
        if (std::fabs(steep) > kSteep) {
          steep = std::copysign(MinOf(std::fabs(steep), kSteepest), steep);
          slack = std::fabs(steep) * (std::fabs(ray.origin[axis]) * kRounding + kLeastRounding);
        }
        origin[a] = Float8::Set(ray.origin[axis] * steep + slack);
        farOrigin[a] = Float8::Set(ray.origin[axis] * steep - slack);
      } else {
        origin[a] = Float8::Set(ray.origin[axis] * steep);
      }
      inverse[a] = Float8::Set(steep);
      nearRow[a] = kRow * (a + 3 * negative);
      farRow[a] = kRow * (a + 3 * (1 - negative));
    }
  }
};

// Which of a node's boxes the ray enters before `limit`, and where. A plane that gives no number (an origin
// beyond all bounds) does not count, so that a box is never lost.
template <bool kSlack>
inline unsigned SlabTest(const PackedNode& node, const SlabRay<kSlack>& ray, float limit, Float8& near) {
  near = Float8::Set(1e-8f);
  Float8 far = Float8::Set(limit);
  const auto row = [&](std::size_t bytes) {
    return Float8::LoadAligned(node.boxes[0] + bytes / sizeof(float));
  };
  for (int a = 0; a < 3; ++a) {
    near = Max(MulSub(row(ray.nearRow[a]), ray.inverse[a], ray.origin[a]), near);
    far = Min(MulSub(row(ray.farRow[a]), ray.inverse[a], kSlack ? ray.farOrigin[a] : ray.origin[a]), far);
  }
  return MaskLessEqual(near, far);
}

inline Vec3 Reciprocal(Vec3 v) { return {1.0f / v.x, 1.0f / v.y, 1.0f / v.z}; }

inline bool IsParent(const RayRecord& ray, const Part& part, std::uint8_t kind, std::uint32_t index) {
  return ray.parentKind == kind && ray.parentPrimitive == static_cast<std::int32_t>(index) &&
         ray.parentPart == &part && ray.parentPlace == ray.place;
}

template <class T>
[[gnu::always_inline]] inline void PrefetchWhole(const T& t) {
  for (std::size_t line = 0; line < sizeof t; line += 64) Prefetch(reinterpret_cast<const char*>(&t) + line);
}

// Asks for what waits on a walk's stack, so that it comes from memory while a leaf is tested.
[[gnu::always_inline]] inline void PrefetchWaiting(const PackedTree& tree, std::uint32_t child,
                                                   std::uint32_t word) {
  if (word == 0)
    PrefetchWhole(tree.nodes[child]);
  else if ((word & kTriangleLeaf) != 0)
    PrefetchWhole(tree.blocks[child / kBlockLanes]);
  else if ((word & kCylinderLeaf) != 0)
    PrefetchWhole(tree.segments[child]);
  else if ((word & kParticleLeaf) != 0)
    PrefetchWhole(tree.particles[child / kParticleLanes]);
}

// Which lanes of block number b, of `lanes` each, are among lanes first to end - 1 of the tree.
inline unsigned LanesWithin(std::uint32_t b, std::uint32_t lanes, std::uint32_t first, std::uint32_t end) {
  unsigned mask = (1U << lanes) - 1U;
  if (b * lanes < first) mask &= mask << (first % lanes);
  if ((b + 1) * lanes > end) mask &= (1U << (end % lanes)) - 1U;
  return mask;
}

// Tests the triangles of lanes first to first + count - 1, a block at a time, each block against the limit
// that the one before has left. `take` gets every block that is hit; true from it ends the test.
template <class Take>
inline bool TestLanes(const PackedTree& tree, std::uint32_t first, std::uint32_t count, const RayRecord& ray,
                      Take take) {
  const Float4 zero = Float4::Set(0), one = Float4::Set(1), epsilon = Float4::Set(kHitEpsilon);
  const Lanes3<Float4> direction = {Float4::Set(ray.direction.x), Float4::Set(ray.direction.y),
                                    Float4::Set(ray.direction.z)};
  const Float4 ox = Float4::Set(ray.origin.x), oy = Float4::Set(ray.origin.y), oz = Float4::Set(ray.origin.z);
  const std::uint32_t end = first + count;
  for (std::uint32_t b = first / kBlockLanes; b * kBlockLanes < end; ++b) {
    const TriangleBlock& block = tree.blocks[b];
    const auto load = [](const float(&rows)[3][kBlockLanes]) {
      return Lanes3<Float4>{Float4::LoadAligned(rows[0]), Float4::LoadAligned(rows[1]),
                            Float4::LoadAligned(rows[2])};
    };
    Lanes3<Float4> q = load(block.p0);
    q = {q.x - ox, q.y - oy, q.z - oz};
    TriangleHits<Float4> hits =
        TestTriangles(q, load(block.e1), load(block.e2), direction, Float4::Set(ray.t), zero, one, epsilon);
    if (hits.mask == 0) [[likely]]
      continue;
    hits.mask &= LanesWithin(b, kBlockLanes, first, end);
    if (hits.mask != 0 && take(block, hits)) return true;
  }
  return false;
}

// Tests the particles of lanes first to first + count - 1, eight at a time. take(block, i, d, b,
// discriminant) gets every lane that the ray's line meets, with the centre seen from the origin; true from it
// ends the test. `scaled`: the direction need not be of unit length.
template <class Take>
inline bool TestParticleLanes(const PackedTree& tree, std::uint32_t first, std::uint32_t count,
                              const RayRecord& ray, bool scaled, Take take) {
  const Float8 zero = Float8::Set(0), inverseSquare = Float8::Set(InverseSquare(ray, scaled));
  const Lanes3<Float8> direction = {Float8::Set(ray.direction.x), Float8::Set(ray.direction.y),
                                    Float8::Set(ray.direction.z)};
  const std::uint32_t end = first + count;
  for (std::uint32_t b = first / kParticleLanes; b * kParticleLanes < end; ++b) {
    const ParticleBlock& block = tree.particles[b];
    const Lanes3<Float8> d = {Float8::LoadAligned(block.center[0]) - Float8::Set(ray.origin.x),
                              Float8::LoadAligned(block.center[1]) - Float8::Set(ray.origin.y),
                              Float8::LoadAligned(block.center[2]) - Float8::Set(ray.origin.z)};
    SphereHits<Float8> hits =
        TestSpheres(d, Float8::LoadAligned(block.radius), direction, inverseSquare, zero);
    if (hits.mask == 0) [[likely]]
      continue;
    hits.mask &= LanesWithin(b, kParticleLanes, first, end);
    alignas(32) float nearest[kParticleLanes], discriminant[kParticleLanes];
    hits.b.Store(nearest);
    hits.discriminant.Store(discriminant);
    for (unsigned mask = hits.mask; mask != 0; mask &= mask - 1) {
      const int i = std::countr_zero(mask);
      const Vec3 center = {block.center[0][i], block.center[1][i], block.center[2][i]};
      if (take(block, i, center - ray.origin, nearest[i], discriminant[i])) return true;
    }
  }
  return false;
}

// Tests the tetragons of lanes first to first + count - 1, eight at a time. take(block, i, hit) gets every
// lane that is hit, against the limit that the block began with; true from it ends the test.
template <class Take>
inline bool TestTetragonLanes(const PackedTree& tree, std::uint32_t first, std::uint32_t count,
                              const RayRecord& ray, Take take) {
  const Float8 zero = Float8::Set(0), epsilon = Float8::Set(kHitEpsilon);
  const Lanes3<Float8> direction = {Float8::Set(ray.direction.x), Float8::Set(ray.direction.y),
                                    Float8::Set(ray.direction.z)};
  const Float8 ox = Float8::Set(ray.origin.x), oy = Float8::Set(ray.origin.y), oz = Float8::Set(ray.origin.z);
  const std::uint32_t end = first + count;
  for (std::uint32_t b = first / kTetragonLanes; b * kTetragonLanes < end; ++b) {
    const TetragonBlock& block = tree.tetragons[b];
    const auto corner = [&](int i) {
      return Lanes3<Float8>{Float8::LoadAligned(block.corner[i][0]) - ox,
                            Float8::LoadAligned(block.corner[i][1]) - oy,
                            Float8::LoadAligned(block.corner[i][2]) - oz};
    };
    TetragonHits<Float8> hits = TestTetragons<Float8>(corner(0), corner(1), corner(2), corner(3), direction,
                                                      Float8::Set(ray.t), zero, epsilon);
    hits.mask &= LanesWithin(b, kTetragonLanes, first, end);
    if (hits.mask == 0) continue;
    alignas(32) float t[kTetragonLanes], denominator[kTetragonLanes], side[4][kTetragonLanes];
    hits.t.Store(t);
    hits.denominator.Store(denominator);
    for (int k = 0; k < 4; ++k) hits.side[k].Store(side[k]);
    for (unsigned mask = hits.mask; mask != 0; mask &= mask - 1) {
      const int i = std::countr_zero(mask);
      const float sides[4] = {side[0][i], side[1][i], side[2][i], side[3][i]};
      if (take(block, i, TetragonHit(t[i], denominator[i], sides, block.shader[i]))) return true;
    }
  }
  return false;
}

// The hits of a block as plain numbers.
struct StoredHits {
  alignas(16) float t[kBlockLanes], denominator[kBlockLanes], weight1[kBlockLanes], weight2[kBlockLanes];

  explicit StoredHits(const TriangleHits<Float4>& hits) {
    hits.t.Store(t);
    hits.denominator.Store(denominator);
    hits.weight1.Store(weight1);
    hits.weight2.Store(weight2);
  }
  PrimitiveHit Lane(int i, std::int32_t shader) const {
    return {t[i], denominator[i], {(1.0f - weight1[i]) - weight2[i], weight1[i], weight2[i]}, shader};
  }
};

// Keeps a ray in the space of an Instance's Object for as long as it lives.
struct InsideInstance {
  RayRecord& ray;
  Vec3 origin, direction, inverseDirection;
  std::uint64_t place;

  InsideInstance(RayRecord& r, const Instance& instance)
      : ray(r),
        origin(r.origin),
        direction(r.direction),
        inverseDirection(r.inverseDirection),
        place(r.place) {
    ray.origin = ToObject(instance, origin);
    ray.direction = TransformDirection(instance.inverse, direction);
    ray.inverseDirection = Reciprocal(ray.direction);
    ray.place = PlaceInside(place, instance);
    ++ray.matrixDepth;
  }
  ~InsideInstance() {
    ray.origin = origin;
    ray.direction = direction;
    ray.inverseDirection = inverseDirection;
    ray.place = place;
    --ray.matrixDepth;
  }
  InsideInstance(const InsideInstance&) = delete;
  InsideInstance& operator=(const InsideInstance&) = delete;
};

// Whether a ray can be walked; fills what walks need.
inline bool PrepareRay(RayRecord& ray) {
  ray.matrixDepth = 0;
  ray.place = 0;
  if (!IsIndex(objectTable, rootObject)) return false;
  const Float4 origin = Abs(LanesOf(ray.origin)), direction = Abs(LanesOf(ray.direction));
  constexpr float kFinite = std::numeric_limits<float>::max();
  if (!AllAtMost(origin, kFinite) || !AllAtMost(direction, kFinite) || AllAtMost(direction, 0)) return false;
  ray.inverseDirection = Reciprocal(ray.direction);
  return true;
}

}  // namespace zp
