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
// Around the one point.
inline LaneBox CentroidBox(LaneBox box) { return Float8::Set(0.5f) * (box - SwapHalves(box)); }
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
inline constexpr std::uint64_t kOneInBytes = 0x0101010101010101U;
inline constexpr std::uint64_t kOneInByte[kBins] = {1U,          1U << 8U,    1U << 16U,   1U << 24U,
                                                    1ULL << 32U, 1ULL << 40U, 1ULL << 48U, 1ULL << 56U};

// Finds the bins of centroids that `centroids` bounds, as numbers whose fractions do not count.
struct BinScale {
  Float8 least, extent;  // twice each
  explicit BinScale(LaneBox centroids)
      : least(LowHalves(centroids, centroids)), extent(Join(Extent(centroids), Extent(centroids))) {}
  // Of two boxes, each in one half.
  Float8 Find(LaneBox a, LaneBox b) const {
    const Float8 centers = Float8::Set(0.5f) * (LowHalves(a, b) - HighHalves(a, b));
    return Float8::Set(kBins) * (centers - least) / extent;
  }
};

struct Bins {
  LaneBox box[3][kBins];
  Words8 upTo[3];  // records in a bin and in those before it

  Bins() {
    Clear(box);
    for (Words8& axis : upTo) axis = Words8::Set(0);
  }
  void Add(const Bins& other) {
    Join(other.box);
    for (int a = 0; a < 3; ++a) upTo[a] = upTo[a] + other.upTo[a];
  }
  // Each record by its centroid into one bin of each axis; `centroids` bounds them all.
  void Fill(const BuildRecord* records, std::uint32_t count, LaneBox centroids) {
    constexpr std::uint32_t kMany = 48;  // that are worth another set of bins
    const BinScale scale(centroids);
    const std::uint32_t many = count < kMany ? 0 : count / 8 * 8;
    if (many != 0) FillMany(records, many, scale);
    if (many != count) FillFew(records + many, count - many, scale);
  }

 private:
  static void Clear(LaneBox (&boxes)[3][kBins]) {
    for (auto& axis : boxes)
      for (LaneBox& one : axis) one = EmptyBox();
  }
  void Join(const LaneBox (&boxes)[3][kBins]) {
    for (int a = 0; a < 3; ++a)
      for (int k = 0; k < kBins; ++k) Grow(box[a][k], boxes[a][k]);
  }
  // `counts` has a byte a bin.
  void Count(const std::uint64_t (&counts)[3]) {
    for (int a = 0; a < 3; ++a) upTo[a] = upTo[a] + Words8::OfBytes(counts[a] * kOneInBytes);
  }

  // At most 255 records.
  void FillFew(const BuildRecord* records, std::uint32_t count, const BinScale& scale) {
    std::uint64_t counts[3] = {};
    for (std::uint32_t i = 0; i < count; i += 2) {
      const bool isPair = i + 1 < count;
      const LaneBox one = BoxOf(records[i]), other = isPair ? BoxOf(records[i + 1]) : EmptyBox();
      std::int32_t bin[8];
      TruncateTo(scale.Find(one, other), kBins - 1, bin);
      for (int a = 0; a < 3; ++a) {
        Grow(box[a][bin[a]], one);
        Grow(box[a][bin[4 + a]], other);
        counts[a] += kOneInByte[bin[a]] + (isPair ? kOneInByte[bin[4 + a]] : 0);
      }
    }
    Count(counts);
  }

  // A multiple of eight. Bins are found first, eight records at once. Every other record has boxes of its
  // own: neighbours would wait for one another's.
  void FillMany(const BuildRecord* records, std::uint32_t count, const BinScale& scale) {
    constexpr std::uint32_t kBatch = 128;  // a byte can count more
    LaneBox others[3][kBins];
    Clear(others);
    alignas(32) std::uint8_t bins[kBatch][4];
    for (std::uint32_t first = 0; first < count; first += kBatch) {
      const BuildRecord* const batch = records + first;
      const std::uint32_t size = count - first < kBatch ? count - first : kBatch;
      for (std::uint32_t i = 0; i < size; i += 8) {
        Float8 found[4];
        for (std::uint32_t k = 0; k < 4; ++k)
          found[k] = scale.Find(BoxOf(batch[i + k]), BoxOf(batch[i + k + 4]));
        TruncateToBytes(found, kBins - 1, bins[i]);
      }
      std::uint64_t counts[3] = {};
      for (std::uint32_t i = 0; i < size; i += 2) {
        const LaneBox one = BoxOf(batch[i]), other = BoxOf(batch[i + 1]);
        for (int a = 0; a < 3; ++a) {
          Grow(box[a][bins[i][a]], one);
          Grow(others[a][bins[i + 1][a]], other);
          counts[a] += kOneInByte[bins[i][a]] + kOneInByte[bins[i + 1][a]];
        }
      }
      Count(counts);
    }
    Join(others);
  }
};

struct Split {
  float cost = kFarthest;  // that of no split
  LaneBox left = EmptyBox(), right = EmptyBox();
};

// The cheapest of the seven splits on each axis; equal costs keep the earlier one.
struct CheapestSplit {
  float cost;
  int axis, last;  // bin on its left
  // Of the costs where bin i is the last on the left.
  CheapestSplit(Float8 (&costs)[3], LaneBox centroids) {
    alignas(16) float extent[4];
    Extent(centroids).Store(extent);
    const Float8 farthest = Float8::Set(kFarthest);
    // No split lies behind the last bin; what is no number is no split.
    for (int a = 0; a < 3; ++a)
      costs[a] = extent[a] != 0.0f ? Min(Select<0x80>(costs[a], farthest), farthest) : farthest;
    const Float8 least = Least(Min(Min(costs[0], costs[1]), costs[2]));
    const unsigned mask = MaskLessEqual(costs[0], least) | MaskLessEqual(costs[1], least) << 8U |
                          MaskLessEqual(costs[2], least) << 16U;
    const int best = std::countr_zero(mask);
    cost = least.First();
    axis = best / kBins;
    last = best % kBins;
  }
};

inline Split BestSplit(const Bins& bins, LaneBox centroids) {
  constexpr int kLast = kBins - 1;
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
    costs[a] =
        HalfAreas(left[a]) * ToFloat(bins.upTo[a]) + HalfAreas(right[a]) * ToFloat(total - bins.upTo[a]);
  }
  const CheapestSplit best(costs, centroids);
  return {best.cost, left[best.axis][best.last], right[best.axis][best.last]};
}

// The same of three records or four, without bins: each set of them has a box and a cost, and the sets are
// fewer than the bins.
inline Split BestSplitOfFew(const BuildRecord* records, std::uint32_t count, LaneBox centroids) {
  constexpr std::uint32_t kFew = 4;
  const BinScale scale(centroids);
  LaneBox one[kFew];
  std::uint64_t upTo[3] = {};  // a byte a bin: a bit for each record in it or in those before
  for (std::uint32_t i = 0; i < kFew; ++i) one[i] = i < count ? BoxOf(records[i]) : EmptyBox();
  for (std::uint32_t i = 0; i < count; i += 2) {
    std::int32_t bin[8];
    TruncateTo(scale.Find(one[i], one[i + 1]), kBins - 1, bin);
    for (int a = 0; a < 3; ++a) {
      upTo[a] |= (kOneInBytes << static_cast<unsigned>(8 * bin[a])) << i;
      if (i + 1 < count) upTo[a] |= (kOneInBytes << static_cast<unsigned>(8 * bin[4 + a])) << (i + 1);
    }
  }
  for (LaneBox& box : one) box = Min(box, EmptyBox());  // coordinates that are no numbers
  // By the bits of a set without the last record: its box, and that of all others.
  const LaneBox pair = Min(one[0], one[1]), rest = Min(one[2], one[3]);
  const LaneBox set[8] = {EmptyBox(),          one[0],           one[1], pair, one[2], Min(one[0], one[2]),
                          Min(one[1], one[2]), Min(pair, one[2])};
  const LaneBox others[8] = {Min(pair, rest),   Min(one[1], rest),   Min(one[0], rest),   rest,
                             Min(pair, one[3]), Min(one[1], one[3]), Min(one[0], one[3]), one[3]};
  alignas(32) static constexpr float kSizes[8] = {0, 1, 1, 2, 1, 2, 2, 3};
  const Float8 sizes = Float8::LoadAligned(kSizes);
  const Float8 cost =
      HalfAreas(set) * sizes + HalfAreas(others) * (Float8::Set(static_cast<float>(count)) - sizes);
  Float8 costs[3];
  for (int a = 0; a < 3; ++a) {
    const std::uint64_t withLast = upTo[a] >> 3U & kOneInBytes;
    costs[a] = Permute(cost, Words8::OfBytes(upTo[a] ^ withLast * 15U));
  }
  const CheapestSplit best(costs, centroids);
  const auto left = static_cast<unsigned>(upTo[best.axis] >> static_cast<unsigned>(8 * best.last)) & 15U;
  return left < 8 ? Split{best.cost, set[left], others[left]}
                  : Split{best.cost, others[15 - left], set[15 - left]};
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
  // 1 if it goes left, else 0. `isLarger` is rightIsLarger, for loops that know it.
  std::uint32_t IsLeft(LaneBox box, bool isLarger) const {
    const auto isIn = [box](LaneBox side) {
      return static_cast<std::uint32_t>((MaskLessEqual(side, box) & kBoxLanes) == kBoxLanes);
    };
    return isLarger ? isIn(left) : isIn(left) & (1 - isIn(right));
  }
};

}  // namespace zp
