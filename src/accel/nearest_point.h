// accel/nearest_point.h: what lies straight below a point, for the roots of strands.

#pragma once

#include "geometry/geometry.h"

namespace zp {

struct NearestPoint {
  float distance = kFarthest;  // kFarthest: the point does not project into the primitive
  Vec2 uv;
};

// The projection's distance in scene units. Points above an edge do not project.
NearestPoint NearestOnTriangle(const Part& part, std::uint32_t index, Vec3 query);
// Intended: its distance is the length of query - n (n . (p0 - query)) with n as long as the cross product of
// the diagonals: a rank among primitives, not a distance.
NearestPoint NearestOnTetragon(const Part& part, std::uint32_t index, Vec3 query);

}  // namespace zp
