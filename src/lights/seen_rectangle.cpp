#include "lights/seen_rectangle.h"

#include <algorithm>
#include <cmath>

namespace zp {
namespace {

// Below it the solid angle would lose its digits, and points that are uniform by area do as well.
constexpr float kSmallestSolidAngle = 0.01f;

float AngleBetween(Vec3 a, Vec3 b) { return std::acos(std::clamp(-Dot(a, b), -1.0f, 1.0f)); }

bool AreUpright(Vec3 edge1, Vec3 edge2) {
  constexpr float kTolerance = 1e-8f;  // squared
  const float square1 = Dot(edge1, edge1), square2 = Dot(edge2, edge2), skew = Dot(edge1, edge2);
  return square1 > 0 && square2 > 0 && skew * skew <= kTolerance * square1 * square2;
}

}  // namespace

SeenRectangle SeeRectangle(Vec3 corner, Vec3 edge1, Vec3 edge2, Vec3 from) {
  SeenRectangle seen;
  if (!AreUpright(edge1, edge2)) return seen;
  const float length1 = std::sqrt(Dot(edge1, edge1)), length2 = std::sqrt(Dot(edge2, edge2));
  const Vec3 x = edge1 / length1, y = edge2 / length2, way = corner - from;
  seen.x0 = Dot(way, x), seen.x1 = seen.x0 + length1;
  seen.y0 = Dot(way, y), seen.y1 = seen.y0 + length2;
  seen.height = std::fabs(Dot(way, Cross(x, y)));
  // Normals of the planes through the point and an edge, and the angles that they make.
  const auto plane = [&](Vec3 a, Vec3 b) { return SafeNormalize(Cross(a, b)); };
  const float z = -seen.height;
  const Vec3 a = {seen.x0, seen.y0, z}, b = {seen.x1, seen.y0, z}, c = {seen.x1, seen.y1, z},
             d = {seen.x0, seen.y1, z};
  const Vec3 n0 = plane(a, b), n1 = plane(b, c), n2 = plane(c, d), n3 = plane(d, a);
  seen.first = n0.z, seen.last = n2.z;
  seen.turn = 2 * kPi - AngleBetween(n2, n3) - AngleBetween(n3, n0);
  seen.solidAngle = AngleBetween(n0, n1) + AngleBetween(n1, n2) - seen.turn;
  if (!(seen.height > 0) || !(seen.solidAngle > kSmallestSolidAngle)) seen.solidAngle = 0;
  return seen;
}

Vec2 DrawOnRectangle(const SeenRectangle& seen, float u, float v) {
  const float angle = u * seen.solidAngle + seen.turn;
  const float ratio = (std::cos(angle) * seen.first - seen.last) / std::sin(angle);
  const float cosine =
      (ratio > 0 ? 1.0f : -1.0f) / std::sqrt(std::max(ratio * ratio + seen.first * seen.first, 1e-20f));
  const float limited = std::clamp(cosine, -1.0f, 1.0f), height = seen.height;
  const float x =
      std::clamp(limited * height / std::sqrt(std::max(1 - limited * limited, 1e-12f)), seen.x0, seen.x1);
  const float distance = std::sqrt(x * x + height * height);
  const auto sine = [&](float y) { return y / std::sqrt(distance * distance + y * y); };
  const float h = sine(seen.y0) + v * (sine(seen.y1) - sine(seen.y0));
  const float y = std::clamp(h * distance / std::sqrt(std::max(1 - h * h, 1e-12f)), seen.y0, seen.y1);
  return {(x - seen.x0) / (seen.x1 - seen.x0), (y - seen.y0) / (seen.y1 - seen.y0)};
}

}  // namespace zp
