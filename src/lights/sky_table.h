// lights/sky_table.h: which directions of the sky are bright. A cube around the scene in world axes, six
// faces of 256 rows of 256 cells, each cell weighted by the light seen through it.

#pragma once

#include <vector>

#include "core/distribution.h"
#include "core/vec.h"
#include "lights/sky_map.h"

namespace zp {

inline constexpr int kSkyFaceSize = 256;  // cells along an edge
inline constexpr int kSkyRows = 6 * kSkyFaceSize;
inline constexpr float kSkyCells = 393216;  // 6 * 256 * 256

struct SkyTable {
  Distribution rows;                // kSkyRows entries: face by face
  std::vector<Distribution> cells;  // of each row; empty without a table
};

struct SkyCell {
  int row = 0;   // face * 256 + y
  int cell = 0;  // x
  friend bool operator==(const SkyCell&, const SkyCell&) = default;
};

// Parallel over the rows of a face.
SkyTable MakeSkyTable(const SkyMap& map, const SkyFrame& frame, Vec3 color);

// Unit direction of a place on a face, x and y in 0..256; whole numbers are the corners of cells.
Vec3 CellDirection(int face, float x, float y);
SkyCell FindCell(Vec3 direction);
std::size_t TableBytes(const SkyTable& table);

// A direction from u, v in [0, 1): two searches choose the cell, and what they leave of u and v the place in
// it. `density` is TableDensity of the direction. False without a table.
bool SampleTable(const SkyTable& table, float u, float v, Vec3& direction, float& density);
// Density of SampleTable per solid angle at a unit direction; 0 without a table.
float TableDensity(const SkyTable& table, Vec3 direction);

}  // namespace zp
