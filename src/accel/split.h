// accel/split.h: where the builder divides a node: eight bins on each of three axes, the cheapest of the
// seven splits between them, and the side of a primitive's box.

#pragma once

#include <bit>
#include <cstdint>
#include <utility>

#include "core/box.h"
#include "core/float8.h"

namespace zp {

// A primitive's box, with its PrimitiveRef in the fourth words: one record to move, and one minimum to join
// two of them, since the upper corner is negated.
struct alignas(32) BuildRecord {
  float min[3];
  std::uint32_t partAndKind;
  float negatedMax[3];
  std::uint32_t index;
};
static_assert(sizeof(BuildRecord) == 32);

// A box in the lanes of a record; the fourth and the eighth are 0 or more.
using LaneBox = Float8;
inline constexpr unsigned kBoxLanes = 0x77;  // that hold coordinates

inline LaneBox EmptyBox() { return Float8::Set(kFarthest); }
// Words that are read as numbers would be tiny ones, which are slow.
inline LaneBox BoxOf(const BuildRecord& record) {
  return Select<0x88>(Float8::LoadAligned(record.min), Float8::Set(0));
}
// A coordinate that is no number is passed over.
inline void Grow(LaneBox& box, LaneBox other) { box = Min(other, box); }
inline void Exchange(BuildRecord& a, BuildRecord& b) {
  const Float8 of = Float8::LoadAligned(a.min), other = Float8::LoadAligned(b.min);
  other.StoreAligned(a.min);
  of.StoreAligned(b.min);
}
inline Box ToBox(LaneBox box) {
  alignas(32) float lanes[8];
  box.StoreAligned(lanes);
  return {{lanes[0], lanes[1], lanes[2]}, {-lanes[4], -lanes[5], -lanes[6]}};
}
inline Float4 Extent(LaneBox box) { return Float4::Set(0) - (HighHalf(box) + LowHalf(box)); }
inline float HalfArea(LaneBox box) { return PairProducts(Max(Extent(box), Float4::Set(0))); }
inline Float4 CentroidOf(LaneBox box) { return Float4::Set(0.5f) * (LowHalf(box) - HighHalf(box)); }
inline LaneBox BoxAround(Float4 point) { return Join(point, Float4::Set(0) - point); }
// True if no axis has an extent.
inline bool IsFlat(LaneBox box) {
  return (MaskLessEqual(Float4::Set(0) - HighHalf(box), LowHalf(box)) & 7U) == 7U;
}

// The areas of eight boxes.
inline Float8 HalfAreas(const LaneBox (&boxes)[8]) {
  Float8 extents[4];  // of box i, and of box i + 4
  for (int i = 0; i < 4; ++i)
    extents[i] = LowHalves(boxes[i], boxes[i + 4]) + HighHalves(boxes[i], boxes[i + 4]);
  const auto [x, y, z] = FirstThreeRows(extents);
  const Float8 zero = Float8::Set(0);
  const Float8 dx = Max(zero - x, zero), dy = Max(zero - y, zero), dz = Max(zero - z, zero);
  return (dx + dy) * dz + dx * dy;
}

inline constexpr int kBins = 8;
inline constexpr std::uint64_t kOneInByte[kBins] = {1U,         1U << 8U,   1U << 16U,   1U << 24U,
                                                    1ULL << 32U, 1ULL << 40U, 1ULL << 48U, 1ULL << 56U};
struct Bins {
  LaneBox box[3][kBins];
  Words8 upTo[3];  // records in a bin and in those before it

  Bins() {
    for (auto& axis : box)
      for (LaneBox& one : axis) one = EmptyBox();
    for (Words8& axis : upTo) axis = Words8::Set(0);
  }
  void Add(const Bins& other) {
    for (int a = 0; a < 3; ++a) {
      for (int k = 0; k < kBins; ++k) Grow(box[a][k], other.box[a][k]);
      upTo[a] = upTo[a] + other.upTo[a];
    }
  }
  // Each record by its centroid into one bin of each axis; `centroids` bounds them all.
  void Fill(const BuildRecord* records, std::uint32_t count, LaneBox centroids) {
    constexpr std::uint32_t kMost = 255;  // that a byte can count
    const Float4 extent = Extent(centroids), least = LowHalf(centroids), eight = Float4::Set(kBins);
    for (std::uint32_t first = 0; first < count; first += kMost) {
      const std::uint32_t end = count - first < kMost ? count : first + kMost;
      std::uint64_t counts[3] = {};  // a byte a bin
      for (std::uint32_t i = first; i < end; ++i) {
        const LaneBox one = BoxOf(records[i]);
        std::int32_t bin[4];
        TruncateTo(eight * (CentroidOf(one) - least) / extent, kBins - 1, bin);
        for (int a = 0; a < 3; ++a) {
          Grow(box[a][bin[a]], one);
          counts[a] += kOneInByte[bin[a]];
        }
      }
      for (int a = 0; a < 3; ++a) upTo[a] = upTo[a] + Words8::OfBytes(counts[a] * 0x0101010101010101U);
    }
  }
};

struct Split {
  float cost = kFarthest;  // that of no split
  LaneBox left = EmptyBox(), right = EmptyBox();
};

// The cheapest of the seven splits on each axis; equal costs keep the earlier one.
inline Split BestSplit(const Bins& bins, LaneBox centroids) {
  constexpr int kLast = kBins - 1;
  alignas(16) float extent[4];
  Extent(centroids).Store(extent);
  const Float8 farthest = Float8::Set(kFarthest);
  LaneBox left[3][kBins], right[3][kBins];
  Float8 costs[3];
  for (int a = 0; a < 3; ++a) {
    left[a][0] = bins.box[a][0];
    right[a][kLast] = EmptyBox();
    for (int k = 0; k < kLast; ++k) {
      left[a][k + 1] = Min(bins.box[a][k + 1], left[a][k]);
      right[a][kLast - 1 - k] = Min(bins.box[a][kLast - k], right[a][kLast - k]);
    }
    const Words8 total = Words8::Set(bins.upTo[a].Last());
    const Float8 cost =
        HalfAreas(left[a]) * ToFloat(bins.upTo[a]) + HalfAreas(right[a]) * ToFloat(total - bins.upTo[a]);
    // No split lies behind the last bin; what is no number is no split.
    costs[a] = extent[a] != 0.0f ? Min(Select<0x80>(cost, farthest), farthest) : farthest;
  }
  const Float8 least = Least(Min(Min(costs[0], costs[1]), costs[2]));
  const unsigned mask = MaskLessEqual(costs[0], least) | MaskLessEqual(costs[1], least) << 8U |
                        MaskLessEqual(costs[2], least) << 16U;
  const int best = std::countr_zero(mask), axis = best / kBins, k = best % kBins;
  return {least.First(), left[axis][k], right[axis][k]};
}

// Of two records, which fill the first and the last bin of every axis they differ on: all splits are alike.
inline Split SplitPair(const BuildRecord* records, LaneBox centroids) {
  alignas(32) float low[8], c[4], extent[4];
  centroids.StoreAligned(low);
  Extent(centroids).Store(extent);
  Split split;
  split.left = BoxOf(records[0]);
  split.right = BoxOf(records[1]);
  CentroidOf(split.left).Store(c);
  for (int a = 0; a < 3; ++a) {
    if (!(extent[a] != 0.0f)) continue;
    if (c[a] != low[a]) std::swap(split.left, split.right);
    break;
  }
  const float cost = HalfArea(split.left) + HalfArea(split.right);
  if (split.cost > cost) split.cost = cost;
  return split;
}

// Sides by containment in the two boxes, touching faces included, not by bin: what lies in both goes to the
// smaller box, and what lies in neither, which takes a coordinate that is no number, goes right.
struct SideOf {
  LaneBox left, right;
  bool rightIsLarger;
  explicit SideOf(const Split& split)
      : left(split.left), right(split.right), rightIsLarger(HalfArea(split.right) > HalfArea(split.left)) {}
  // 1 if it goes left, else 0.
  std::uint32_t IsLeft(LaneBox box) const {
    const unsigned inLeft = MaskLessEqual(left, box) & kBoxLanes,
                   inRight = MaskLessEqual(right, box) & kBoxLanes;
    return static_cast<std::uint32_t>(inLeft == kBoxLanes) &
           (static_cast<std::uint32_t>(rightIsLarger) | static_cast<std::uint32_t>(inRight != kBoxLanes));
  }
};

}  // namespace zp
