#include "lights/seen_rectangle.h"

#include <cmath>

namespace zp {
namespace {

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

}  // namespace zp
