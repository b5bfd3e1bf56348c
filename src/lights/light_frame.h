// lights/light_frame.h: directions around an axis, private to this folder.

#pragma once

#include "core/ray.h"
#include "core/vec.h"

namespace zp {

// Completes the unit vector z to a right-handed orthonormal frame.
inline void AxesAround(Vec3 z, Vec3& x, Vec3& y) {
  y = UnitPerpendicular(z);
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

// Where (a, b) in [0, 1)^2 lies on a face, uniform by area: barycentrics of a triangle; a tetragon takes the
// square as it is.
inline Vec3 Barycentric(std::uint8_t kind, float a, float b) {
  if (kind == kKindTetragon) return {b, a, 0};
  const float root = SafeSqrt(a);
  return {1 - root, root * (1 - b), root * b};
}

}  // namespace zp
