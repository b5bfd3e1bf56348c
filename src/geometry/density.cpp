#include "geometry/density.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>

#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
#include "core/shared_add.h"
#include "core/threads.h"
#include "core/validate.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
#include "shading/shading.h"

namespace zp {
namespace {

constexpr float kLeastResolution = 1e-8f;  // scene units squared

bool ReceivesPhotons(std::int32_t shader) {
  if (!HasShader(shader)) return false;
  const Shader& s = ShaderAt(shader);
  return s.frontLambertian || s.backLambertian || s.frontTransmissive || s.backTransmissive;
}

[[noreturn]] void EndForMemory() {
  PrintFatal("density estimator consumes more than 1GB memory.", {"density-memory"});
  PrintRule();
  std::exit(1);
}

// `area(i)` and `shader(i)` tell of primitive i.
template <class Area, class ShaderOf>
void SetUpGrid(CellGrid& grid, std::size_t count, const Area& area, const ShaderOf& shader) {
  grid.offset.resize(count);
  grid.level.resize(count);
  std::int64_t cells = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::int32_t level = ReceivesPhotons(shader(i)) ? CellLevel(area(i)) : 1;
    grid.offset[i] = static_cast<std::int32_t>(cells);
    grid.level[i] = level;
    cells += static_cast<std::int64_t>(level) * level;
    if (cells * kBytesPerCell > kMostCellBytes) EndForMemory();
  }
  grid.face.resize(static_cast<std::size_t>(cells));
  grid.back.resize(static_cast<std::size_t>(cells));
}

// What a cut-out leaves of each cell of primitive i, from points evenly over the primitive.
void MeasureShares(CellGrid& grid, const Part& part, std::uint8_t kind, std::size_t i, std::int32_t shader) {
  constexpr int kPointsAlongCell = 8;
  constexpr float kLeastShare = 1.0f / 64;  // points may miss what photons find
  const std::int32_t level = grid.level[i], steps = level * kPointsAlongCell;
  std::vector<float> sums(static_cast<std::size_t>(level) * level), counts(sums.size());
  for (std::int32_t k = 0; k < steps * steps; ++k) {
    const float a = (static_cast<float>(k / steps) + 0.5f) / static_cast<float>(steps);
    const float b = (static_cast<float>(k % steps) + 0.5f) / static_cast<float>(steps);
    const float root = std::sqrt(a);
    const bool triangle = kind == kKindTriangle;
    const Vec3 place = triangle ? Vec3{1 - root, root * (1 - b), root * b} : Vec3{a, b, 0};
    const Corners corners = HitCorners(part, kind, static_cast<std::uint32_t>(i), place);
    const std::int32_t cell = triangle ? TriangleCell(place, level) : TetragonCell(a, b, level);
    At(sums, cell) += Opacity(ShaderAt(shader), CornerUv(corners, part));
    ++At(counts, cell);
  }
  for (std::size_t cell = 0; cell < sums.size(); ++cell)
    if (counts[cell] > 0)
      grid.share[static_cast<std::size_t>(grid.offset[i]) + cell] =
          std::max(sums[cell] / counts[cell], kLeastShare);
}

template <class ShaderOf>
void SetUpShares(CellGrid& grid, const Part& part, std::uint8_t kind, const ShaderOf& shader) {
  const auto cutsOut = [&](std::size_t i) {
    return ReceivesPhotons(shader(i)) && ShaderAt(shader(i)).cutsOut;
  };
  const std::size_t count = grid.level.size();
  for (std::size_t i = 0; i < count && grid.share.empty(); ++i)
    if (cutsOut(i)) grid.share.assign(grid.face.size(), 1.0f);
  if (grid.share.empty()) return;
#pragma omp parallel for schedule(dynamic, 64) if (IsWorthThreads(count, 1000))
  for (std::size_t i = 0; i < count; ++i)
    if (cutsOut(i)) MeasureShares(grid, part, kind, i, shader(i));
}

// Intended: levels count as one byte each.
std::size_t ReportedBytes(const CellGrid& grid) {
  return grid.level.size() + 4 * grid.offset.size() + kBytesPerCell * grid.face.size();
}

// What a share in 0..1 of `level` steps falls into.
std::int32_t Step(float share, std::int32_t level) {
  const float x = share * static_cast<float>(level);
  return x > 0 ? static_cast<std::int32_t>(MinOf(x, static_cast<float>(level - 1))) : 0;
}

// Faces must be larger to take photons: none is too small in format 2.
float LeastFace() { return settings.format >= 2 ? 0.0f : 1e-5f; }

// Where a hit's light is kept. Null arrays: nowhere.
struct CellPlace {
  CellGrid* grid = nullptr;
  std::int32_t index = 0;
  std::int32_t level = 1;
};

CellPlace PlaceOf(const RayRecord& ray) {
  CellPlace place;
  if (!ray.levelZeroHit || ray.part == nullptr || ray.part->density == nullptr || ray.primitive < 0)
    return place;
  const bool triangle = ray.kind == kKindTriangle;
  if (!triangle && ray.kind != kKindTetragon) return place;
  CellGrid& grid = triangle ? ray.part->density->triangles : ray.part->density->tetragons;
  if (!IsIndex(grid.level, ray.primitive)) return place;
  place.level = At(grid.level, ray.primitive);
  const std::int32_t cell = triangle ? TriangleCell(ray.barycentric, place.level)
                                     : TetragonCell(ray.barycentric.x, ray.barycentric.y, place.level);
  place.index = At(grid.offset, ray.primitive) + cell;
  assert(cell >= 0 && cell < place.level * place.level && IsIndex(grid.face, place.index));
  place.grid = &grid;
  return place;
}

}  // namespace

bool AsksForCells() { return CellResolution() >= kLeastResolution; }

bool ChoosesFinalGathering() { return GatherDistance() > 0 && AsksForCells(); }

// The smallest level whose cells, of the resolution's area, cover more than `area`.
std::int32_t CellLevel(float area) {
  const float resolution = CellResolution();
  const auto covers = [&](std::int32_t n) {
    return static_cast<float>(n) * static_cast<float>(n) * resolution > area;
  };
  if (!covers(kMostCellLevels)) return kMostCellLevels;
  auto level = static_cast<std::int32_t>(std::sqrt(area / resolution));
  level = std::clamp(level, 1, kMostCellLevels);
  while (level > 1 && covers(level - 1)) --level;
  while (!covers(level)) ++level;
  return level;
}

void SetUpDensity(Part& part) {
  part.density.reset();
  if (!AsksForCells()) return;
  part.density = std::make_shared<DensityCells>();
  SetUpGrid(
      part.density->triangles, part.triangles.size(),
      [&](std::size_t i) { return TriangleArea(part, static_cast<std::uint32_t>(i)); },
      [&](std::size_t i) { return part.triangles[i].shader; });
  SetUpGrid(
      part.density->tetragons, part.tetragons.size(),
      [&](std::size_t i) { return TetragonArea(part, static_cast<std::uint32_t>(i)); },
      [&](std::size_t i) { return part.tetragons[i].shader; });
  SetUpShares(part.density->triangles, part, kKindTriangle,
              [&](std::size_t i) { return part.triangles[i].shader; });
  SetUpShares(part.density->tetragons, part, kKindTetragon,
              [&](std::size_t i) { return part.tetragons[i].shader; });
  if (kValidates) RequireSound(ValidateDensity(part));
  const std::size_t bytes = ReportedBytes(part.density->triangles) + ReportedBytes(part.density->tetragons);
  PrintFloatRow("density estimator buffer", static_cast<float>(bytes) * kMegabytesPerByte, "M bytes");
  PrintRule();
}

// Rows run from the first vertex to the opposite edge; row a has 2a + 1 cells, upright and inverted by turns.
std::int32_t TriangleCell(Vec3 weights, std::int32_t level) {
  const std::int32_t a = Step(1 - weights.x, level);
  const std::int32_t b = Step(weights.y, level);
  const std::int32_t c = Step(weights.z, level);
  // Rounding can put the three steps into rows that do not meet.
  return a * a + std::clamp(a + b - c, 0, 2 * a);
}

std::int32_t TetragonCell(float u, float v, std::int32_t level) {
  return Step(u, level) * level + Step(v, level);
}

void SplitDensity(Part& part, std::size_t slots) {
  if (part.density == nullptr) return;
  std::size_t bytes = 0;
  for (CellGrid* grid : {&part.density->triangles, &part.density->tetragons}) {
    const std::size_t more = slots * grid->face.size() * kBytesPerCell;
    if (more + grid->face.size() * kBytesPerCell > kMostCellBytes) EndForMemory();
    const CellSides black = {std::vector<Vec3>(grid->face.size()), std::vector<Vec3>(grid->back.size())};
    grid->slots.assign(slots, black);
    bytes += more;
  }
  PrintFloatRow("density of light groups", static_cast<float>(bytes) * kMegabytesPerByte, "M bytes");
}

void SumDensity(Part& part) {
  if (part.density == nullptr) return;
  for (CellGrid* grid : {&part.density->triangles, &part.density->tetragons})
    for (const CellSides& slot : grid->slots)
      for (std::size_t i = 0; i < grid->face.size(); ++i) {
        grid->face[i] += slot.face[i];
        grid->back[i] += slot.back[i];
      }
}

bool AddDensity(const RayRecord& ray, CellSide side, Vec3 power, std::int32_t slot) {
  const CellPlace place = PlaceOf(ray);
  if (place.grid == nullptr) return false;
  const auto primitive = static_cast<std::uint32_t>(ray.primitive);
  const float area =
      ray.kind == kKindTriangle ? TriangleArea(*ray.part, primitive) : TetragonArea(*ray.part, primitive);
  if (!(area > LeastFace())) return false;
  const bool face = ray.frontFace == (side == CellSide::kMet);
  auto cells = static_cast<float>(place.level * place.level);
  if (!place.grid->share.empty()) cells /= At(place.grid->share, place.index);
  const Vec3 light = power / area * cells;
  if (place.grid->slots.empty()) {
    AddShared(At(face ? place.grid->face : place.grid->back, place.index), light);
  } else {
    CellSides& sides = At(place.grid->slots, slot);
    AddShared(At(face ? sides.face : sides.back, place.index), light);
  }
  return true;
}

Vec3 ReadDensity(const RayRecord& ray, std::int32_t slot) {
  const CellPlace place = PlaceOf(ray);
  if (place.grid == nullptr) return kBlack;
  if (slot == kNone) return At(ray.frontFace ? place.grid->face : place.grid->back, place.index);
  const CellSides& sides = At(place.grid->slots, slot);
  return At(ray.frontFace ? sides.face : sides.back, place.index);
}

}  // namespace zp
