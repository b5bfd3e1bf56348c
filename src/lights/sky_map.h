// lights/sky_map.h: pictures that surround the scene, as latitude-longitude maps, and the axes that they hang
// in.

#pragma once

#include <vector>

#include "imaging/imaging.h"
#include "lights/sky_model.h"

namespace zp {

// A copy of its own, since the texture table grows and is emptied at other times. One array is in use: a
// packed picture stays packed, at a third of the memory. Finite numbers only.
struct SkyMap {
  int width = 0;  // 0: no map
  int height = 0;
  std::vector<PackedPixel> packed;
  std::vector<Vec3> colors;
};
inline bool HasPixels(const SkyMap& map) { return map.width > 0; }

SkyMap MakeSkyMap(const ImageBuffer& image);  // of a loaded picture

// The sky's axes; an orthonormal triple, so that the inverse is the transposed matrix.
struct SkyFrame {
  Mat3 toSky = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};  // rows east, north, up
  Mat3 toWorld = toSky;
};
// From vectors of any length. False when they are parallel or no directions; then the defaults replace one or
// both.
bool MakeSkyFrame(Vec3 north, Vec3 zenith, SkyFrame& frame);

// Where a unit direction lies in a map: (0, 0) is the left end of the bottom row, the zenith is at v = 1.
Vec2 MapCoordinates(const SkyFrame& frame, Vec3 direction);
Vec3 MapDirection(const SkyFrame& frame, Vec2 uv);  // the inverse; unit

// Bilinear. Texel (x, y) stands at (x / width, y / height), as in every texture; u wraps around, v ends at
// the first and last row. The map has pixels.
Vec3 LookUp(const SkyMap& map, Vec2 uv);

// The analytic sky around a sun in direction `sun`, a unit vector in world space. Below the horizon lies the
// ground that the model presumes: a Lambertian plane of `albedo` under this sky.
SkyMap BakeSkyModel(const SkyModelState& state, const SkyFrame& frame, Vec3 sun, float albedo);

}  // namespace zp
