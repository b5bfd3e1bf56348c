// accel/curve_segment.h: the ray test of hair. A segment is a cubic Hermite curve between two vertices of a
// strand, walked as eight straight cylinders, one in each lane.

#pragma once

#include <array>
#include <bit>

#include "core/float8.h"
#include "accel/primitive_tests.h"

namespace zp {

// One cache line: all that a ray needs of a segment.
struct alignas(64) CurveSegment {
  Vec3 p0;     // first vertex
  Vec3 chord;  // first vertex minus second
  Vec3 tangent0, tangent1;
  float radius0, radius1;
  std::uint32_t primitive;  // in its Part's list
  std::uint16_t part;
};
static_assert(sizeof(CurveSegment) == 64);

// The segment as the Part holds it; `part` stays 0. Radii and tangents that are missing count as zero.
CurveSegment MakeCurveSegment(const Part& part, std::uint32_t index);

inline constexpr int kPieces = 8;

// Eight values for eight lanes: the Hermite weights where pieces begin, their change over a piece, and so on.
// All are exact in single precision but the ramp of the radius.
struct alignas(32) PieceTable {
  float v[kPieces];
};
template <class F>
constexpr PieceTable MakePieceTable(F value) {
  PieceTable table = {};
  for (int i = 0; i < kPieces; ++i) table.v[i] = value(i);
  return table;
}
constexpr float ChordWeight(float t) { return -(3 * t * t - 2 * t * t * t); }
constexpr float Tangent0Weight(float t) { return t * t * t - 2 * t * t + t; }
constexpr float Tangent1Weight(float t) { return t * t * t - t * t; }
constexpr float PieceStart(int i) { return static_cast<float>(i) * 0.125f; }

inline constexpr PieceTable kStart = MakePieceTable(PieceStart);
inline constexpr PieceTable kEnd = MakePieceTable([](int i) { return PieceStart(i + 1); });
inline constexpr std::array<PieceTable, 3> kStartWeights = {
    MakePieceTable([](int i) { return ChordWeight(PieceStart(i)); }),
    MakePieceTable([](int i) { return Tangent0Weight(PieceStart(i)); }),
    MakePieceTable([](int i) { return Tangent1Weight(PieceStart(i)); })};
inline constexpr std::array<PieceTable, 3> kAxisWeights = {
    MakePieceTable([](int i) { return ChordWeight(PieceStart(i + 1)) - ChordWeight(PieceStart(i)); }),
    MakePieceTable([](int i) { return Tangent0Weight(PieceStart(i + 1)) - Tangent0Weight(PieceStart(i)); }),
    MakePieceTable([](int i) { return Tangent1Weight(PieceStart(i + 1)) - Tangent1Weight(PieceStart(i)); })};
// Intended: sevenths, so that the last piece has the second vertex's radius.
inline constexpr PieceTable kRamp = MakePieceTable([](int i) { return static_cast<float>(i) / 7; });
inline constexpr PieceTable kFallingRamp =
    MakePieceTable([](int i) { return static_cast<float>(7 - i) / 7; });

// The nearest hit of the ray on the segment's eight pieces, without visibility and the ray's parent. The hit
// lies where the ray passes the axis of a piece: in the plane that holds the axis and is widest to the ray.
// Pieces end at planes across the blend of the two tangents.
//   limit  hits at limit - epsilon and beyond do not count
// With d the axis, n = direction x d and m = d x n, all unnormalised, m . direction is n . n, so that no lane
// needs a root: the distance to the axis is n . a / |n|, and the ray reaches it at m . a / n . n.
// Negative radii, and tangents of which neither has a length, are never hit.
template <class F>
bool TestCurveSegment(const CurveSegment& s, Vec3 origin, Vec3 direction, float limit, PrimitiveHit& hit) {
  const auto load = [](const PieceTable& table) { return F::LoadAligned(table.v); };
  const auto spread = [](Vec3 v) { return Lanes3<F>{F::Set(v.x), F::Set(v.y), F::Set(v.z)}; };
  const Lanes3<F> chord = spread(s.chord), t0 = spread(s.tangent0), t1 = spread(s.tangent1);
  const Lanes3<F> along = spread(direction);

  // Where pieces begin, seen from the ray's origin, and their axes.
  const F a0 = load(kAxisWeights[0]), a1 = load(kAxisWeights[1]), a2 = load(kAxisWeights[2]);
  const auto axisOf = [&](F c, F u, F v) { return MulAdd(c, a0, MulAdd(u, a1, v * a2)); };
  const Lanes3<F> d = {axisOf(chord.x, t0.x, t1.x), axisOf(chord.y, t0.y, t1.y), axisOf(chord.z, t0.z, t1.z)};
  const Lanes3<F> base = spread(s.p0 - origin);
  const F w0 = load(kStartWeights[0]), w1 = load(kStartWeights[1]), w2 = load(kStartWeights[2]);
  const auto startOf = [&](F p, F c, F u, F v) { return MulAdd(c, w0, MulAdd(u, w1, MulAdd(v, w2, p))); };
  const Lanes3<F> a = {startOf(base.x, chord.x, t0.x, t1.x), startOf(base.y, chord.y, t0.y, t1.y),
                       startOf(base.z, chord.z, t0.z, t1.z)};

  const F zero = F::Set(0), epsilon = F::Set(kHitEpsilon);
  const F radius = Max(MulAdd(F::Set(s.radius0), load(kFallingRamp), F::Set(s.radius1) * load(kRamp)), zero);
  const Lanes3<F> n = Cross(along, d);
  const F nn = Dot(n, n), beside = Dot(n, a);
  unsigned mask = MaskLess(beside * beside, radius * radius * nn);
  if (mask == 0) [[likely]]
    return false;

  const F t = Dot(Cross(d, n), a) / nn;
  mask &= MaskLess(epsilon, t) & MaskLess(t + epsilon, F::Set(limit));
  if (mask == 0) return false;

  const Lanes3<F> bend = spread(s.tangent1 - s.tangent0);
  const auto across = [&](const PieceTable& where, const Lanes3<F>& from) {
    const F place = load(where);
    const Lanes3<F> tangent = {MulAdd(bend.x, place, t0.x), MulAdd(bend.y, place, t0.y),
                               MulAdd(bend.z, place, t0.z)};
    const Lanes3<F> offset = {MulSub(along.x, t, from.x), MulSub(along.y, t, from.y),
                              MulSub(along.z, t, from.z)};
    return Dot(offset, tangent);
  };
  const Lanes3<F> b = {a.x + d.x, a.y + d.y, a.z + d.z};
  mask &= MaskLessEqual(zero, across(kStart, a)) & MaskLess(across(kEnd, b), zero);
  if (mask == 0) return false;

  alignas(32) float tOf[kPieces], besideOf[kPieces], nnOf[kPieces], ddOf[kPieces], radiusOf[kPieces];
  t.Store(tOf);
  int best = std::countr_zero(mask);
  for (mask &= mask - 1; mask != 0; mask &= mask - 1) {
    const int i = std::countr_zero(mask);
    if (tOf[i] < tOf[best]) best = i;
  }
  beside.Store(besideOf);
  nn.Store(nnOf);
  Dot(d, d).Store(ddOf);
  radius.Store(radiusOf);
  hit.t = tOf[best];
  hit.denominator = -std::sqrt(nnOf[best] / ddOf[best]);
  hit.barycentric = {besideOf[best] / (std::sqrt(nnOf[best]) * radiusOf[best]), 0,
                     (static_cast<float>(best) + 0.5f) * 0.125f};
  return true;
}

}  // namespace zp
