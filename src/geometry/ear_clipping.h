// geometry/ear_clipping.h: faces of any number of corners as triangles. Corners are given around the rim, in
// one plane or nearly so; they are seen along the mean normal of the rim.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/vec.h"

namespace zp {

// Whether the rim turns against itself at some corner, by more than rounding.
bool IsConcave(const std::vector<Vec3>& rim);
// The corners of count - 2 triangles that fill the rim, wound as it is. Where a rim crosses itself they
// overlap.
std::vector<std::array<std::uint32_t, 3>> ClipEars(const std::vector<Vec3>& rim);

}  // namespace zp
