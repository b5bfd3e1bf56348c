// lights/seen_rectangle.h: a rectangle as it is seen from a point, and points of it that are uniform over its
// solid angle, private to this folder.
//
// Urena, Fajardo and King, "An Area-Preserving Parametrization for Spherical Rectangles", 2013.

#pragma once

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
  float first = 0, last = 0, turn = 0;   // of the paper: b0, b1, k
};
SeenRectangle SeeRectangle(const Rectangle& rectangle, Vec3 from);
// What the point sees at (u, v) in [0, 1), uniform over the solid angle.
struct RectangleView {
  Vec3 direction;          // unit
  float distance, cosine;  // cosine: that of the direction and the normal, without its sign
  float x, y;              // along the edges, from below the point
};
RectangleView DrawOnRectangle(const Rectangle& rectangle, const SeenRectangle& seen, float u, float v);

}  // namespace zp
