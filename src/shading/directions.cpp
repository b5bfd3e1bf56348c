#include <cmath>

#include "core/angles.h"
#include "core/settings.h"
#include "core/vec.h"
#include "shading/shading.h"

namespace zp {
namespace {

Vec2 DiskByTurns(float a, float b) {
  const auto ratio = [](float numerator, float divisor) { return divisor == 0 ? 0.0f : numerator / divisor; };
  // The four triangles between the diagonals: a signed radius, and the angle in eighths of a turn.
  float radius = 0, eighths = 0;
  if (a > -b) {
    if (a > b) {
      radius = a;
      eighths = ratio(b, a);
    } else {
      radius = b;
      eighths = b == 0 ? 0.0f : 2 - a / b;
    }
  } else if (a < b) {
    radius = -a;
    eighths = 4 + ratio(b, a);
  } else {
    radius = -b;
    eighths = b == 0 ? 0.0f : 6 - a / b;
  }
  const float angle = eighths * (kPi / 4);
  return {radius * std::cos(angle), radius * std::sin(angle)};
}

// The same map without a branch: each half of the square has the larger coordinate as its signed radius, and
// an angle of at most an eighth of a turn.
Vec2 DiskBySeries(float a, float b) {
  const bool wide = std::fabs(a) > std::fabs(b);
  const float radius = Choose(wide, a, b), other = Choose(wide, b, a);
  const float angle = radius == 0 ? 0.0f : (kPi / 4) * (other / radius);
  const auto [sine, cosine] = OfSmallAngle(angle);
  return {radius * Choose(wide, cosine, sine), radius * Choose(wide, sine, cosine)};
}

}  // namespace

Vec2 ConcentricDisk(float u, float v) {
  const float a = 2 * u - 1, b = 2 * v - 1;
  return settings.format >= 2 ? DiskBySeries(a, b) : DiskByTurns(a, b);
}

Vec3 CosineDirection(float u, float v) {
  const Vec2 disk = ConcentricDisk(u, v);
  return {disk.x, disk.y, SafeSqrt(1 - disk.x * disk.x - disk.y * disk.y)};
}

}  // namespace zp
