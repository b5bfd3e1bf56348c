#include "shading/directions.h"

#include <cmath>

namespace zp {

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

}  // namespace zp
