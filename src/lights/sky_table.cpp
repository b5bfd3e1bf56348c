#include "lights/sky_table.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/index.h"

namespace zp {
namespace {

constexpr float kHalf = 0.5f * kSkyFaceSize;
constexpr float kSixth = kPi / 6;
constexpr float kFloor = 1e-8f;  // of a weight: a black picture is sampled evenly
// Keeps samples off the edges of their cell by more than rounding, so that the direction finds its cell
// again.
constexpr float kMargin = 0x1p-12f;

// Evens out the cells of a face: maps -1..1 to itself, 0 and the ends to themselves.
float Warp(float v) {
  const float s = std::sin(v * kSixth);
  return s / SafeSqrt(0.5f - s * s);
}
float Unwarp(float w) { return std::asin(w / std::sqrt(2 + 2 * w * w)) / kSixth; }
// Derivative of Warp where it has the value w.
float WarpSlope(float w) { return kSixth * (1 + w * w) * std::sqrt(2 + w * w); }

// Place of a direction in its face's plane: the two warped coordinates, each in -1..1.
struct FacePoint {
  int face = 0;
  float a = 0, b = 0;  // a falls with x, b with y
};
FacePoint FindFace(Vec3 d) {
  const float x = std::abs(d.x), y = std::abs(d.y), z = std::abs(d.z);
  if (x >= y && x >= z) return d.x > 0 ? FacePoint{0, d.y / x, d.z / x} : FacePoint{2, d.y / x, -d.z / x};
  if (z >= y) return d.z > 0 ? FacePoint{1, d.y / z, -d.x / z} : FacePoint{3, d.y / z, d.x / z};
  return d.y > 0 ? FacePoint{4, d.z / y, d.x / y} : FacePoint{5, d.z / y, -d.x / y};
}

SkyCell CellOf(const FacePoint& p) {
  const auto index = [](float w) {
    const float position = kHalf * (1 - Unwarp(w));
    return position > 0 ? std::min(static_cast<int>(position), kSkyFaceSize - 1) : 0;
  };
  return {p.face * kSkyFaceSize + index(p.b), index(p.a)};
}

float CellBegin(const Distribution& d, int i) { return i > 0 ? At(d.cumulative, i - 1) : 0.0f; }
// Probability with which UpperBound picks an entry. The stored share differs in the last bits, which are all
// that the dark entries of a sky with a sun have.
float Probability(const Distribution& d, int i) { return At(d.cumulative, i) - CellBegin(d, i); }
// Where u lies in the entry that it picked, off both ends.
float PlaceInEntry(const Distribution& d, int i, float u) {
  return std::clamp((u - CellBegin(d, i)) / Probability(d, i), kMargin, 1 - kMargin);
}

float DensityAt(const SkyTable& table, SkyCell cell, const FacePoint& p) {
  const float square = 1 + p.a * p.a + p.b * p.b;
  // Solid angle of a unit of the face's (a, b) in -1..1, before the warp.
  const float solidAngle = WarpSlope(p.a) * WarpSlope(p.b) / (square * std::sqrt(square));
  return Probability(table.rows, cell.row) * Probability(At(table.cells, cell.row), cell.cell) * kHalf *
         kHalf / solidAngle;
}

float CellWeight(const SkyMap& map, const SkyFrame& frame, Vec3 color, int face, int x, int y) {
  Vec3 sum;
  for (int j = 0; j < 4; ++j)
    for (int i = 0; i < 4; ++i) {
      const Vec3 direction = CellDirection(face, static_cast<float>(x) + static_cast<float>(i) / 4,
                                           static_cast<float>(y) + static_cast<float>(j) / 4);
      sum += LookUp(map, MapCoordinates(frame, direction));
    }
  sum *= color;
  const float weight = Mean(sum) + kFloor;
  // Negative light and light that is no number have no share; the sum of all cells stays finite.
  return weight > kFloor ? std::min(weight, 1e30f) : kFloor;
}

}  // namespace

SkyTable MakeSkyTable(const SkyMap& map, const SkyFrame& frame, Vec3 color) {
  SkyTable table;
  table.cells.resize(kSkyRows);
  std::vector<float> rowWeights(kSkyRows);
  for (int face = 0; face < 6; ++face) {
#pragma omp parallel for schedule(static)
    for (int y = 0; y < kSkyFaceSize; ++y) {
      float weights[kSkyFaceSize];
      for (int x = 0; x < kSkyFaceSize; ++x) weights[x] = CellWeight(map, frame, color, face, x, y);
      const auto row = static_cast<std::size_t>(face * kSkyFaceSize + y);
      table.cells[row] = MakeDistribution(weights);
      rowWeights[row] = static_cast<float>(table.cells[row].total);
    }
  }
  table.rows = MakeDistribution(rowWeights);
  return table;
}

Vec3 CellDirection(int face, float x, float y) {
  const float a = Warp((kHalf - x) / kHalf), b = Warp((kHalf - y) / kHalf);
  switch (face) {
    case 0:
      return SafeNormalize({1, a, b});
    case 1:
      return SafeNormalize({-b, a, 1});
    case 2:
      return SafeNormalize({-1, a, -b});
    case 3:
      return SafeNormalize({b, a, -1});
    case 4:
      return SafeNormalize({b, 1, a});
    default:
      return SafeNormalize({-b, -1, a});
  }
}

SkyCell FindCell(Vec3 direction) { return CellOf(FindFace(direction)); }

std::size_t TableBytes(const SkyTable& table) {
  const auto bytes = [](const Distribution& d) {
    return d.cumulative.size() * sizeof(float) + d.weights.size() * sizeof(float) +
           d.lookup.size() * sizeof(std::int32_t);
  };
  std::size_t sum = bytes(table.rows);
  for (const Distribution& row : table.cells) sum += sizeof(Distribution) + bytes(row);
  return sum;
}

bool SampleTable(const SkyTable& table, float u, float v, Vec3& direction, float& density) {
  if (table.cells.empty()) return false;
  // The largest float below 1 stands for 1 and more.
  const auto limit = [](float x) { return x > 0 ? std::min(x, 0x1.fffffep-1f) : 0.0f; };
  u = limit(u);
  v = limit(v);
  const std::int32_t row = UpperBound(table.rows, u);
  const Distribution& cells = At(table.cells, row);
  const std::int32_t cell = UpperBound(cells, v);
  direction = CellDirection(row / kSkyFaceSize, static_cast<float>(cell) + PlaceInEntry(cells, cell, v),
                            static_cast<float>(row % kSkyFaceSize) + PlaceInEntry(table.rows, row, u));
  density = DensityAt(table, {row, cell}, FindFace(direction));
  return true;
}

float TableDensity(const SkyTable& table, Vec3 direction) {
  if (table.cells.empty() || !IsFinite(direction) || direction == kBlack) return 0;
  const FacePoint p = FindFace(direction);
  return DensityAt(table, CellOf(p), p);
}

}  // namespace zp
