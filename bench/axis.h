// bench/axis.h: rays along the axes, and the same tilted by a thousandth, which should cost the same.

#pragma once

#include "rays.h"

namespace zp {

enum class AxisWork : std::uint8_t { kNearest, kShadow, kPhotons };

// Rays into the bounds from above and from two sides, a third each, spread evenly.
RaySet AxisRays(const Box& bounds, bool tilted);
// From each first hit of those on the entered mesh, back to where they came from.
RaySet AxisShadowRays(const RaySet& rays, const Box& bounds, int threads);
// Seconds to cast a million photons of a parallel light from above on the entered mesh.
double TimeAxisPhotons(bool tilted, int threads);
inline constexpr int kAxisPhotons = 1'000'000;

}  // namespace zp
