// accel/primitive_tests.h: one ray test for each kind of primitive, in single precision, in the space of the
// Object. Tests do not shorten the ray; walks do.
//
// What `barycentric` means on a hit: triangle: the weights of its three vertices; tetragon: u, v, 0;
// particle: the hit point seen from the centre; cylinder: the axis's distance beside the ray in radii, 0, and
// the place along the curve, which is the middle of one of eight pieces.

#pragma once

#include "core/float8.h"
#include "geometry/object.h"
#include "shading/shading.h"

namespace zp {

inline constexpr float kHitEpsilon = 1e-6f;  // scene units, and by format 1 of nearest hits the Object's
inline constexpr float kNotParent = -1;

template <class F>
struct Lanes3 {
  F x, y, z;
};
template <class F>
Lanes3<F> Cross(const Lanes3<F>& a, const Lanes3<F>& b) {
  return {MulSub(a.y, b.z, a.z * b.y), MulSub(a.z, b.x, a.x * b.z), MulSub(a.x, b.y, a.y * b.x)};
}
template <class F>
F Dot(const Lanes3<F>& a, const Lanes3<F>& b) {
  return MulAdd(a.x, b.x, MulAdd(a.y, b.y, a.z * b.z));
}

template <class F>
struct TriangleHits {
  unsigned mask;  // bit i: lane i is a hit, as far as visibility and the ray's parent are left out
  F denominator;  // normal . direction: below 0 on the front
  F t;
  F weight1, weight2;
};

// A plane test and barycentric weights by triple products: with q = p0 - origin and n = e1 x e2, t = n.q /
// n.d, weight1 = -(d x q).e2 / n.d, weight2 = (d x q).e1 / n.d. Moeller and Trumbore, "Fast, Minimum Storage
// Ray/Triangle Intersection", 1997, kept to the order of a plane test so that limits come out first.
//   q, e1, e2  first vertex seen from the origin, and the edges from it
//   limit      the ray's t: hits at limit - epsilon and beyond do not count
// A degenerate triangle gives infinities or not-a-number, and no hit.
template <class F>
TriangleHits<F> TestTriangles(const Lanes3<F>& q, const Lanes3<F>& e1, const Lanes3<F>& e2,
                              const Lanes3<F>& direction, F limit, F zero, F one, F epsilon) {
  const Lanes3<F> n = Cross(e1, e2);
  const Lanes3<F> r = Cross(direction, q);
  TriangleHits<F> hits;
  hits.denominator = Dot(n, direction);
  const F scale = one / hits.denominator;
  hits.t = Dot(n, q) * scale;
  hits.weight1 = (zero - Dot(r, e2)) * scale;
  hits.weight2 = Dot(r, e1) * scale;
  const F weight0 = (one - hits.weight1) - hits.weight2;
  hits.mask = Bits(LessEqual(epsilon, hits.t) & LessEqual(hits.t, limit - epsilon) &
                   LessEqual(zero, hits.weight1) & LessEqual(zero, hits.weight2) & LessEqual(zero, weight0));
  return hits;
}

template <class F>
struct TetragonHits {
  unsigned mask;  // as of triangles
  F denominator;  // normal . direction: below 0 on the front
  F t;
  F side[4];  // triple products of the direction and the edges; numbers only where some lane is hit
};

// A plane test, and on which side of every edge the ray passes. Without fused products, as vectors are
// multiplied elsewhere.
//   a, b, c, d  corners seen from the origin
//   limit       as of triangles
template <class F>
TetragonHits<F> TestTetragons(const Lanes3<F>& a, const Lanes3<F>& b, const Lanes3<F>& c, const Lanes3<F>& d,
                              const Lanes3<F>& direction, F limit, F zero, F epsilon) {
  const auto cross = [](const Lanes3<F>& u, const Lanes3<F>& v) {
    return Lanes3<F>{u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x};
  };
  const auto dot = [](const Lanes3<F>& u, const Lanes3<F>& v) { return u.x * v.x + u.y * v.y + u.z * v.z; };
  const auto between = [](const Lanes3<F>& u, const Lanes3<F>& v) {
    return Lanes3<F>{u.x - v.x, u.y - v.y, u.z - v.z};
  };
  const Lanes3<F> n = cross(between(c, a), between(d, b));
  TetragonHits<F> hits = {0, dot(n, direction), zero, {zero, zero, zero, zero}};
  hits.t = dot(n, a) / hits.denominator;
  hits.mask = Bits(LessEqual(epsilon, hits.t) & LessEqual(hits.t, limit - epsilon));
  if (hits.mask == 0) return hits;
  hits.side[0] = dot(direction, cross(a, b));
  hits.side[1] = dot(direction, cross(b, c));
  hits.side[2] = dot(direction, cross(c, d));
  hits.side[3] = dot(direction, cross(d, a));
  unsigned below = 0, above = 0;
  for (const F& side : hits.side) {
    below |= MaskLess(side, zero);
    above |= MaskLess(zero, side);
  }
  hits.mask &= ~(MaskLess(zero, hits.denominator) & below) & ~(MaskLess(hits.denominator, zero) & above);
  return hits;
}

inline Lanes3<float> ToLanes(Vec3 v) { return {v.x, v.y, v.z}; }

// Fields that a test gives back to the walk.
struct PrimitiveHit {
  float t = 0;
  float denominator = 0;  // below 0 on the front; of a cylinder: minus the sine of ray and axis
  Vec3 barycentric;
  std::int32_t shader = kNone;
};

// One lane's hit of a tetragon.
inline PrimitiveHit TetragonHit(float t, float denominator, const float (&side)[4], std::int32_t shader) {
  return {t, denominator, {side[0] / (side[0] + side[2]), side[3] / (side[1] + side[3]), 0}, shader};
}

// Whether the ray may see surfaces of this Shader at all. An index outside the table is visible.
inline bool IsVisible(std::int32_t shader, const RayRecord& ray) {
  if (!HasShader(shader)) return true;
  switch (ShaderAt(shader).geometry.visibility) {
    case Visibility::kInvisible:
      return false;
    case Visibility::kNotLightPrimary:
      return !(ray.depth == 0 && ray.photonIndirect);
    case Visibility::kNotCameraPrimary:
      return !(ray.depth == 0 && !ray.photonIndirect);
    default:
      return true;
  }
}

// The radius of a vertex; 0 where the Part has none for it.
float VertexRadius(const Part& part, std::uint32_t vertex);

bool TestTriangle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit);
// Valid for planar rectangles; u and v are ratios of opposite edges.
bool TestTetragon(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit);
// A sphere. Intended: its limit lies epsilon beyond the ray's t, where a triangle's lies before it. A ray
// from within meets its back. `blur`: given where the ray left this very particle, so that it meets nothing
// but the far side, if it goes inwards by more than `blur`. `scaled`: as TakeScaledSphere.
bool TestParticle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit,
                  float blur = kNotParent, bool scaled = false);
// The same for shadow rays. `roots`: as TakeShadowSphere.
bool TestShadowParticle(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit,
                        bool roots = false);
// A segment of a strand: accel/curve_segment.h.
bool TestCylinder(const Part& part, std::uint32_t index, const RayRecord& ray, PrimitiveHit& hit);

template <class F>
struct SphereHits {
  unsigned mask;  // bit i: the line of the ray meets sphere i
  F b;            // where the line is nearest to the centre: in lengths of the direction
  F discriminant;
};

// The line of a ray against spheres. r^2 - |d - b direction|^2 is b^2 - d.d + r^2 without its cancellation.
//   d              centres seen from the origin
//   inverseSquare  1 / squared length of the direction
template <class F>
SphereHits<F> TestSpheres(const Lanes3<F>& d, F radius, const Lanes3<F>& direction, F inverseSquare, F zero) {
  SphereHits<F> hits;
  hits.b = Dot(d, direction) * inverseSquare;
  const Lanes3<F> beside = {MulSub(hits.b, direction.x, d.x), MulSub(hits.b, direction.y, d.y),
                            MulSub(hits.b, direction.z, d.z)};
  hits.discriminant = MulSub(radius, radius, Dot(beside, beside));
  hits.mask = MaskLessEqual(zero, hits.discriminant);
  return hits;
}

// The square of a direction that Instances have scaled is not 1.
inline float InverseSquare(const RayRecord& ray, bool scaled) {
  return scaled ? 1.0f / Dot(ray.direction, ray.direction) : 1.0f;
}

// Chooses the root; fills t, denominator and barycentric. d is the centre seen from the origin.
template <bool kShadow>
bool TakeSphere(Vec3 d, float b, float discriminant, const RayRecord& ray, float blur, PrimitiveHit& hit) {
  const auto within = [&](float t) { return t > kHitEpsilon && kHitEpsilon + ray.t > t; };
  const float s = kShadow ? discriminant : SafeSqrt(discriminant);
  hit.denominator = -1;
  hit.t = b - s;
  const bool isParent = blur != kNotParent;
  if (isParent && !(b > blur)) return false;
  if (isParent || !within(hit.t)) {
    hit.t = b + s;
    if (!within(hit.t)) return false;
    if (!kShadow) hit.denominator = 1;
  }
  hit.barycentric = hit.t * ray.direction - d;
  return true;
}

// The same where the direction need not be of unit length.
inline bool TakeScaledSphere(bool scaled, Vec3 d, float b, float discriminant, const RayRecord& ray,
                             float blur, PrimitiveHit& hit) {
  return TakeSphere<false>(d, b, discriminant * InverseSquare(ray, scaled), ray, blur, hit);
}

// Of a shadow ray, whose direction need not be of unit length. `roots`: as any other ray, and not by format
// 1, where the front is always met and the roots are b -+ the discriminant, without its square root.
inline bool TakeShadowSphere(bool roots, Vec3 d, float b, float discriminant, const RayRecord& ray,
                             PrimitiveHit& hit) {
  if (roots) return TakeScaledSphere(true, d, b, discriminant, ray, kNotParent, hit);
  return TakeSphere<true>(d, b, discriminant, ray, kNotParent, hit);
}

}  // namespace zp
