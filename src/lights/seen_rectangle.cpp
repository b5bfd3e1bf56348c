#include "lights/seen_rectangle.h"

#include <algorithm>
#include <cmath>

#include "core/angles.h"
#include "core/float8.h"

namespace zp {
namespace {

// Below it the solid angle would lose its digits, and points that are uniform by area do as well.
constexpr float kSmallestSolidAngle = 0.01f;

// By the power series, which the half angle's sine shortens above a half.
inline Float4 ArcSine(Float4 x) {
  const Float4 size = Abs(x), half = Float4::Set(0.5f);
  const Where4 small = LessEqual(size, half);
  const Float4 s = Choose(small, size * size, half * Max(Float4::Set(1) - size, Float4::Set(0)));
  const Float4 root = Choose(small, size, Sqrt(s));
  // In pairs, so that few of the terms wait for others.
  const auto pair = [&](float a, float b, Float4 by) { return MulAdd(by, Float4::Set(b), Float4::Set(a)); };
  const Float4 s2 = s * s, s4 = s2 * s2;
  const Float4 low = MulAdd(pair(3.0f / 40, 5.0f / 112, s), s2, pair(1, 1.0f / 6, s));
  const Float4 high =
      MulAdd(pair(231.0f / 13312, 143.0f / 10240, s), s2, pair(35.0f / 1152, 63.0f / 2816, s));
  const Float4 sum = MulAdd(MulAdd(s4, Float4::Set(6435.0f / 557056), high), s4, low);
  const Float4 angle = root * sum;
  return WithSignOf(Choose(small, angle, Float4::Set(kPi / 2) - Float4::Set(2) * angle), x);
}

bool AreUpright(Vec3 edge1, Vec3 edge2) {
  constexpr float kTolerance = 1e-8f;  // squared
  const float square1 = Dot(edge1, edge1), square2 = Dot(edge2, edge2), skew = Dot(edge1, edge2);
  return square1 > 0 && square2 > 0 && skew * skew <= kTolerance * square1 * square2;
}

}  // namespace

Rectangle MakeRectangle(Vec3 corner, Vec3 edge1, Vec3 edge2) {
  Rectangle rectangle;
  if (!AreUpright(edge1, edge2)) return rectangle;
  rectangle.corner = corner;
  rectangle.length1 = std::sqrt(Dot(edge1, edge1));
  rectangle.length2 = std::sqrt(Dot(edge2, edge2));
  rectangle.x = edge1 / rectangle.length1;
  rectangle.y = edge2 / rectangle.length2;
  rectangle.normal = Cross(rectangle.x, rectangle.y);
  return rectangle;
}

SeenRectangle SeeRectangle(const Rectangle& rectangle, Vec3 from) {
  SeenRectangle seen;
  const Vec3 way = rectangle.corner - from;
  seen.x0 = Dot(way, rectangle.x), seen.x1 = seen.x0 + rectangle.length1;
  seen.y0 = Dot(way, rectangle.y), seen.y1 = seen.y0 + rectangle.length2;
  seen.plane = Dot(way, rectangle.normal);
  // Of the planes through the point and an edge, all upright on the rectangle's or along it: the heights of
  // the normals, whose products are the sines of what the corners' angles have over a right one.
  const Float4 offset = Float4::Of(-seen.y0, seen.x1, seen.y1, -seen.x0), plane = Float4::Set(seen.plane);
  const Float4 rise = offset / Sqrt(Max(offset * offset + plane * plane, Float4::Set(1e-30f)));
  float n[4], angle[4];
  rise.Store(n);
  ArcSine(rise * NextLanes(rise)).Store(angle);
  const float before = angle[2] + angle[3];
  seen.first = n[0], seen.last = n[2];
  seen.turn = kPi - before;
  seen.solidAngle = angle[0] + angle[1] + before;
  if (seen.plane == 0 || !(seen.solidAngle > kSmallestSolidAngle)) seen.solidAngle = 0;
  return seen;
}

// In the paper's terms the point's direction is (x, y, z) / distance, and h = y / distance.
RectangleView DrawOnRectangle(const Rectangle& rectangle, const SeenRectangle& seen, float u, float v) {
  const auto [sine, cosine] = OfAngle(u * seen.solidAngle + seen.turn);
  const float slope = cosine * seen.first - seen.last;
  const float square = slope * slope + (seen.first * seen.first - 1) * sine * sine;
  const float reach = std::copysign(seen.plane * sine, slope * sine);
  const float x = std::clamp(reach / std::sqrt(std::max(square, 1e-20f)), seen.x0, seen.x1);
  const float across = x * x + seen.plane * seen.plane;
  const auto rise = [&](float y) { return y / std::sqrt(across + y * y); };
  const float low = rise(seen.y0), h = low + v * (rise(seen.y1) - low);
  const float rest = std::max(1 - h * h, 1e-12f);
  const float inverse = std::sqrt(rest / across), distance = std::sqrt(across / rest);
  const float z = seen.plane * inverse;
  return {(x * inverse) * rectangle.x + h * rectangle.y + z * rectangle.normal, distance, std::fabs(z), x,
          std::clamp(h * distance, seen.y0, seen.y1)};
}

}  // namespace zp
