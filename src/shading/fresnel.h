// shading/fresnel.h: how much a smooth surface reflects. Private to the folder.

#pragma once

#include <cmath>

#include "shading/shading.h"

namespace zp {

// Reflectance in 0 to 1 of an index `ior` seen at `cosine` to the normal. An index of 1, or one that is no
// number, reflects nothing.
// Schlick, "An Inexpensive BRDF Model for Physically-based Rendering", 1994.
inline float FresnelReflectance(float ior, float cosine) {
  if (!std::isfinite(ior) || IsSameMedium(ior, 1)) return 0;
  const float ratio = ior == -1 ? 1.0f : (ior - 1) / (ior + 1);
  const float head = MinOf(ratio * ratio, 1.0f);
  const float m = MinOf(MaxOf(1 - cosine, 0.0f), 1.0f);
  return head + m * m * m * m * m * (1 - head);
}

// All inner reflections of a sheet with reflectance F on either side, F + (1 - F)^2 F / (1 - F^2), without
// its 0 / 0. What is left, (1 - F)^2 / (1 - F^2), passes.
inline float SheetReflectance(float f) { return 2 * f / (1 + f); }

}  // namespace zp
