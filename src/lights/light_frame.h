// lights/light_frame.h: unit vectors and directions around an axis, private to this folder.

#pragma once

#include "core/vec.h"

namespace zp {

// A unit vector of any input but zero, tiny ones included: the safe length alone would leave the normals of
// triangles with edges below a thousandth short.
inline Vec3 UnitVector(Vec3 v) {
  const float largest = MaxOf(MaxOf(std::fabs(v.x), std::fabs(v.y)), std::fabs(v.z));
  return largest > 0 && std::isfinite(largest) ? SafeNormalize(v / largest) : v;
}

// Completes the unit vector z to a right-handed orthonormal frame.
inline void AxesAround(Vec3 z, Vec3& x, Vec3& y) {
  constexpr float kVanishing = 1e-6f;
  y = Perpendicular(z);
  // It vanishes along (1, 1, -1), where any axis will do.
  if (!(Dot(y, y) > kVanishing)) y = Cross(z, Vec3{1, 0, 0});
  y = UnitVector(y);
  x = Cross(y, z);
}

// Uniform on the sphere; turn and height in [0, 1).
inline Vec3 SphereDirection(float turn, float height) {
  const float radius = 2 * std::sqrt(height * (1 - height));
  const float phi = 2 * kPi * turn;
  return {radius * std::cos(phi), radius * std::sin(phi), 1 - 2 * height};
}

// Uniform in the cone of that cosine around z; turn and height in [0, 1).
inline Vec3 ConeDirection(Vec3 x, Vec3 y, Vec3 z, float cosine, float turn, float height) {
  const float w = height * (1 - cosine);
  const float sine = SafeSqrt(w * (2 - w));  // 1 - (1 - w)^2, which narrow cones would cancel away
  const float phi = 2 * kPi * turn;
  return sine * std::cos(phi) * x + sine * std::sin(phi) * y + (1 - w) * z;
}

}  // namespace zp
