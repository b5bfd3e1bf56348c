// lights/seen_rectangle.h: a rectangle as it is seen from a point, and points of it that are uniform over its
// solid angle, private to this folder.
//
// Inlined where they are used, for a hit or two in three asks. Urena, Fajardo and King, "An Area-Preserving
// Parametrization for Spherical Rectangles", 2013.

#pragma once

#include <algorithm>
#include <cmath>

#include "core/angles.h"
#include "core/float8.h"
#include "core/vec.h"

namespace zp {

// A rectangle as it stands in the scene.
struct Rectangle {
  Vec3 corner;
  Vec3 x, y, normal;               // unit; x and y along the edges at the corner
  float length1 = 0, length2 = 0;  // of those edges; 0 of what is no rectangle
};
// A parallelogram by a corner and the edges there.
Rectangle MakeRectangle(Vec3 corner, Vec3 edge1, Vec3 edge2);

struct SeenRectangle {
  float x0 = 0, x1 = 0, y0 = 0, y1 = 0;  // its edges, along them, from below the point
  float plane = 0;                       // how far it lies along its normal
  float solidAngle = 0;                  // steradian; 0 where it is too small to know, or no rectangle
  float first = 0, last = 0, begin = 0;  // of the paper: b0, b1, and k less half a turn
};
struct RectangleView {
  Vec3 direction;          // unit
  float distance, cosine;  // cosine: that of the direction and the normal, without its sign
  float x, y;              // along the edges, from below the point
};
// Below it the solid angle would lose its digits, and points that are uniform by area do as well.
inline constexpr float kSmallestSolidAngle = 0.01f;

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

inline SeenRectangle SeeRectangle(const Rectangle& rectangle, Vec3 from) {
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
  seen.begin = -before;
  seen.solidAngle = angle[0] + angle[1] + before;
  if (seen.plane == 0 || !(seen.solidAngle > kSmallestSolidAngle)) seen.solidAngle = 0;
  return seen;
}

// What the point sees at (u, v) in [0, 1), uniform over the solid angle. In the paper's terms its direction
// is (x, y, z) / distance, and h = y / distance. Each step waits for the one before, which takes longer than
// the arithmetic: hence x by its square, and roots that are taken before they are asked for.
inline RectangleView DrawOnRectangle(const Rectangle& rectangle, const SeenRectangle& seen, float u,
                                     float v) {
  const auto [sine, cosine] = OfHalfTurn(u * seen.solidAngle + seen.begin);
  const float slope = cosine * seen.first + seen.last, height = seen.plane * sine;
  const float square = slope * slope + (seen.first * seen.first - 1) * (sine * sine);
  const float reach =
      MinOf(height * height / MaxOf(square, 1e-20f), MaxOf(seen.x0 * seen.x0, seen.x1 * seen.x1));
  const float x = std::clamp(std::copysign(std::sqrt(reach), slope * sine), seen.x0, seen.x1);
  const float across = reach + seen.plane * seen.plane, root = std::sqrt(across), inverseRoot = 1 / root;
  const auto rise = [&](float y) { return y / std::sqrt(across + y * y); };
  const float low = rise(seen.y0), h = low + v * (rise(seen.y1) - low);
  const float side = std::sqrt(MaxOf(1 - h * h, 1e-12f));
  const float inverse = side * inverseRoot, distance = root / side;
  const float z = seen.plane * inverse;
  return {(x * inverse) * rectangle.x + h * rectangle.y + z * rectangle.normal, distance, std::fabs(z), x,
          std::clamp(h * distance, seen.y0, seen.y1)};
}

}  // namespace zp
