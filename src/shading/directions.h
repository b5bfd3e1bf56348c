// shading/directions.h: directions by two numbers in [0, 1), inlined into whoever draws them.

#pragma once

#include "core/angles.h"
#include "core/settings.h"
#include "core/vec.h"

namespace zp {

// A point of the square from -1 to 1 on the disc, as ConcentricDisk has it: in format 1.
Vec2 DiskByTurns(float a, float b);

// The same map without a branch: each half of the square has the larger coordinate as its signed radius, and
// an angle of at most an eighth of a turn.
inline Vec2 DiskBySeries(float a, float b) {
  const bool wide = std::fabs(a) > std::fabs(b);
  const float radius = Choose(wide, a, b), other = Choose(wide, b, a);
  const float angle = radius == 0 ? 0.0f : (kPi / 4) * (other / radius);
  const auto [sine, cosine] = OfSmallAngle(angle);
  return {radius * Choose(wide, cosine, sine), radius * Choose(wide, sine, cosine)};
}

// Shirley and Chiu, "A Low Distortion Map Between Disk and Square", 1997.
inline Vec2 ConcentricDisk(float u, float v) {
  const float a = 2 * u - 1, b = 2 * v - 1;
  return settings.format >= 2 ? DiskBySeries(a, b) : DiskByTurns(a, b);
}

// In a local frame, z up; of density z / pi.
inline Vec3 CosineDirection(float u, float v) {
  const Vec2 disk = ConcentricDisk(u, v);
  return {disk.x, disk.y, SafeSqrt(1 - disk.x * disk.x - disk.y * disk.y)};
}

}  // namespace zp
