#include "lights/seen_rectangle.h"

#include <algorithm>
#include <cmath>

namespace zp {
namespace {

// Below it the solid angle would lose its digits, and points that are uniform by area do as well.
constexpr float kSmallestSolidAngle = 0.01f;

// By the power series, which the half angle's sine shortens above a half.
inline float ArcSine(float x) {
  const float size = std::fabs(x);
  const bool large = size > 0.5f;
  const float s = large ? 0.5f * std::max(1 - size, 0.0f) : size * size;
  const float root = large ? std::sqrt(s) : size;
  const auto next = [&](float sum, float coefficient) { return std::fma(sum, s, coefficient); };
  float sum = 6435.0f / 557056;
  for (const float coefficient :
       {143.0f / 10240, 231.0f / 13312, 63.0f / 2816, 35.0f / 1152, 5.0f / 112, 3.0f / 40, 1.0f / 6, 1.0f})
    sum = next(sum, coefficient);
  return std::copysign(large ? kPi / 2 - 2 * root * sum : root * sum, x);
}

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
  // Of the planes through the point and an edge, all upright on the rectangle's or along it: the heights of
  // the normals, whose products are the sines of what the corners' angles have over a right one.
  const auto rise = [&](float offset) {
    return offset / std::sqrt(std::max(offset * offset + seen.height * seen.height, 1e-30f));
  };
  const float n0 = -rise(seen.y0), n1 = rise(seen.x1), n2 = rise(seen.y1), n3 = -rise(seen.x0);
  const float before = ArcSine(n2 * n3) + ArcSine(n3 * n0);
  seen.first = n0, seen.last = n2;
  seen.turn = kPi - before;
  seen.solidAngle = ArcSine(n0 * n1) + ArcSine(n1 * n2) + before;
  if (!(seen.height > 0) || !(seen.solidAngle > kSmallestSolidAngle)) seen.solidAngle = 0;
  return seen;
}

Vec2 DrawOnRectangle(const SeenRectangle& seen, float u, float v) {
  const float angle = u * seen.solidAngle + seen.turn;
  const float sine = std::sin(angle), slope = std::cos(angle) * seen.first - seen.last;
  const float square = slope * slope + (seen.first * seen.first - 1) * sine * sine;
  const float side = (slope > 0) == (sine > 0) ? seen.height : -seen.height;
  const float x = std::clamp(side * std::fabs(sine) / std::sqrt(std::max(square, 1e-20f)), seen.x0, seen.x1);
  const float distance2 = x * x + seen.height * seen.height;
  const auto rise = [&](float y) { return y / std::sqrt(distance2 + y * y); };
  const float low = rise(seen.y0), h = low + v * (rise(seen.y1) - low);
  const float y = std::clamp(h * std::sqrt(distance2 / std::max(1 - h * h, 1e-12f)), seen.y0, seen.y1);
  return {(x - seen.x0) / (seen.x1 - seen.x0), (y - seen.y0) / (seen.y1 - seen.y0)};
}

}  // namespace zp
