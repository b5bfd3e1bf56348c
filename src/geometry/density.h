// geometry/density.h: the density estimator. Every triangle and tetragon of the RootObject carries a grid of
// cells on each of its sides; photons are added where they land, and one array read answers for the light
// that leaves there. A cell holds radiance: photon power (flux over pi) by area, times the surface's colour.
// Part::density is a handle: photons write its cells through the const Part of their hit. Nothing reads them
// before the cast has ended.

#pragma once

#include <cstdint>
#include <vector>

#include "core/ray.h"
#include "core/vec.h"
#include "geometry/object.h"

namespace zp {

inline constexpr std::int32_t kMostCellLevels = 255;

// Of all primitives of one kind. Primitive i has level[i]^2 cells, from offset[i] on.
struct CellSides {
  std::vector<Vec3> face;  // seen from the side that the normal points to
  std::vector<Vec3> back;
};
struct CellGrid {
  std::vector<std::int32_t> offset;
  std::vector<std::int32_t> level;
  std::vector<Vec3> face, back;  // as CellSides
  std::vector<CellSides> slots;  // the same of each kind of light that is told apart; else empty
  std::vector<float> share;      // of the cell's area that is there; empty where no Shader cuts out
};

struct DensityCells {
  CellGrid triangles, tetragons;
};

// Whether the settings ask for cells at all, and whether rays take them: final gathering.
bool AsksForCells();
bool ChoosesFinalGathering();
// Cells along an edge of a primitive of `area` that receives photons.
std::int32_t CellLevel(float area);
inline constexpr std::int64_t kBytesPerCell = 24;
inline constexpr std::int64_t kMostCellBytes = 0x40000000;  // of one kind of primitive of a Part

// Gives the Part fresh black cells of about CellResolution() scene units squared; none where none are
// asked for. Prints the memory row. Ends the process with status 1 when one kind's cells take more than 1 GB.
void SetUpDensity(Part& part);

// Has the cells of the Part tell `slots` kinds of light apart while photons are cast, and as SetUpDensity
// ends the process when that takes too much; and sums them up behind the cast.
void SplitDensity(Part& part, std::size_t slots);
void SumDensity(Part& part);

// Index of the cell of a hit among the level^2 cells of its primitive; any weights give a cell inside.
std::int32_t TriangleCell(Vec3 weights, std::int32_t level);
std::int32_t TetragonCell(float u, float v, std::int32_t level);

enum class CellSide { kMet, kOther };  // of the hit: the one that the ray has met, or the one behind

// Adds photon power to the light that leaves the hit of `ray` on a side. Any thread. Instanced geometry, hair
// and particles have no cells, and in format 1 what is smaller than 1e-5 takes nothing: false.
//   slot  of the light, where kinds are told apart
bool AddDensity(const RayRecord& ray, CellSide side, Vec3 power, std::int32_t slot = 0);
// The light that leaves the hit towards the ray's origin, all or of one slot; black where there are no cells.
Vec3 ReadDensity(const RayRecord& ray, std::int32_t slot = kNone);

}  // namespace zp
