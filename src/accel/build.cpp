// Build: a binary tree by a binned surface-area heuristic, eight bins on each of three axes.
// Large nodes go breadth-first, a wavefront of tasks for each depth; small subtrees are finished by the
// thread that meets them, while their boxes are in its cache. The tree is the same for every number of
// threads.

#include <omp.h>

#include <atomic>
#include <bit>
#include <memory>
#include <vector>

#include "accel/accel.h"
#include "accel/float8.h"
#include "core/console.h"
#include "core/release.h"
#include "core/stop.h"
#include "core/threads.h"
#include "geometry/geometry.h"

namespace zp {
namespace {

constexpr int kBins = 8;
constexpr int kDepthLimit = 255;                   // a node this deep becomes a leaf
constexpr std::uint32_t kLargestLeaf = 65535;      // BinaryNode::count has 16 bits
constexpr std::uint32_t kSubtreeSize = 4096;       // finished depth-first
constexpr std::uint32_t kParallelBinning = 65536;  // binned by all threads at once

// A primitive's box, with its PrimitiveRef in the fourth words: one record to move, and one minimum to join
// two of them, since the upper corner is negated.
struct alignas(32) BuildRecord {
  float min[3];
  std::uint32_t partAndKind;
  float negatedMax[3];
  std::uint32_t index;
};
static_assert(sizeof(BuildRecord) == 32);
constexpr unsigned kBoxLanes = 0x77;  // that hold coordinates

// A box in the lanes of a record.
using LaneBox = Float8;
LaneBox EmptyBox() { return Float8::Set(kFarthest); }
LaneBox BoxOf(const BuildRecord& record) { return Float8::LoadAligned(record.min); }
// `other` counts where a lane of `box` is no number.
void Grow(LaneBox& box, LaneBox other) { box = Min(box, other); }
Float4 Extent(LaneBox box) { return Float4::Set(0) - (HighHalf(box) + LowHalf(box)); }
float HalfArea(LaneBox box) { return PairProducts(Max(Extent(box), Float4::Set(0))); }
// Half the sum of both corners. Doubled by the sign that the upper one has, it is the box of one point.
LaneBox CentroidOf(LaneBox box) {
  const Float4 center = Float4::Set(0.5f) * (LowHalf(box) - HighHalf(box));
  return Join(center, Float4::Set(0) - center);
}
// True if `inner` lies in `box`, touching faces included.
bool IsInside(LaneBox inner, LaneBox box) { return (MaskLessEqual(box, inner) & kBoxLanes) == kBoxLanes; }

struct Bins {
  LaneBox box[3][kBins];
  std::uint32_t count[3][kBins] = {};

  Bins() {
    for (auto& axis : box)
      for (LaneBox& one : axis) one = EmptyBox();
  }
  void Add(const Bins& other) {
    for (int a = 0; a < 3; ++a)
      for (int k = 0; k < kBins; ++k) {
        Grow(box[a][k], other.box[a][k]);
        count[a][k] += other.count[a][k];
      }
  }
};

struct Split {
  float cost = kFarthest;
  LaneBox left = EmptyBox(), right = EmptyBox();
};

// Records on either side of a split, and the boxes of their centroids.
struct Sides {
  std::uint32_t left = 0;
  LaneBox centroids[2] = {EmptyBox(), EmptyBox()};  // right, left
};

struct BuildTask {
  LaneBox centroids;
  std::uint32_t node, first, count;
  int depth;
};

struct Range {
  std::uint32_t first, count;
};
// Of the thread that asks, in a parallel region.
Range ShareOf(std::uint32_t first, std::uint32_t count) {
  const auto threads = static_cast<std::uint64_t>(omp_get_num_threads());
  const auto thread = static_cast<std::uint64_t>(omp_get_thread_num());
  const auto from = static_cast<std::uint32_t>(count * thread / threads);
  const auto to = static_cast<std::uint32_t>(count * (thread + 1) / threads);
  return {first + from, to - from};
}

struct Builder {
  BuildRecord* records;
  BuildRecord* scratch;  // as many
  BinaryNode* nodes;
  std::atomic<std::uint32_t> nodeCount{1};

  LaneBox CentroidBox(Range range) const {
    LaneBox box = EmptyBox();
    for (std::uint32_t i = range.first; i < range.first + range.count; ++i)
      Grow(box, CentroidOf(BoxOf(records[i])));
    return box;
  }

  void FillBins(Bins& bins, Range range, LaneBox centroids) const {
    const Float4 extent = Extent(centroids), least = LowHalf(centroids);
    const Float4 eight = Float4::Set(kBins), half = Float4::Set(0.5f);
    for (std::uint32_t i = range.first; i < range.first + range.count; ++i) {
      const LaneBox box = BoxOf(records[i]);
      const Float4 center = half * (LowHalf(box) - HighHalf(box));
      std::int32_t bin[4];
      TruncateTo(eight * (center - least) / extent, kBins - 1, bin);
      for (int a = 0; a < 3; ++a) {
        Grow(bins.box[a][bin[a]], box);
        ++bins.count[a][bin[a]];
      }
    }
  }

  // The same by all threads: minima and counts do not depend on the order.
  LaneBox CentroidBoxParallel(Range range) const {
    LaneBox box = EmptyBox();
#pragma omp parallel if (range.count >= kParallelBinning)
    {
      const LaneBox mine = CentroidBox(ShareOf(range.first, range.count));
#pragma omp critical(zp_build)
      Grow(box, mine);
    }
    return box;
  }

  void FillBinsParallel(Bins& bins, Range range, LaneBox centroids) const {
#pragma omp parallel
    {
      Bins mine;
      FillBins(mine, ShareOf(range.first, range.count), centroids);
#pragma omp critical(zp_build)
      bins.Add(mine);
    }
  }

  // The cheapest of the seven splits on each axis; equal costs keep the earlier one. An empty bin's split is
  // that of the bin before it.
  static Split BestSplit(const Bins& bins, LaneBox centroids) {
    alignas(16) float extent[4];
    Extent(centroids).Store(extent);
    Split best;
    for (int a = 0; a < 3; ++a) {
      if (!(extent[a] != 0.0f)) continue;
      int used[kBins], size = 0;
      for (int k = 0; k < kBins; ++k) {
        used[size] = k;
        size += bins.count[a][k] != 0 ? 1 : 0;
      }
      LaneBox right[kBins];
      float rightCost[kBins];
      LaneBox sweep = EmptyBox();
      std::uint32_t count = 0;
      for (int k = size - 1; k > 0; --k) {
        Grow(sweep, bins.box[a][used[k]]);
        count += bins.count[a][used[k]];
        right[k - 1] = sweep;
        rightCost[k - 1] = HalfArea(sweep) * static_cast<float>(count);
      }
      sweep = EmptyBox();
      count = 0;
      for (int k = 0; k < size - 1; ++k) {
        Grow(sweep, bins.box[a][used[k]]);
        count += bins.count[a][used[k]];
        const float cost = HalfArea(sweep) * static_cast<float>(count) + rightCost[k];
        if (best.cost > cost) best = {cost, sweep, right[k]};
      }
    }
    return best;
  }

  // Two primitives fill the first and the last bin of every axis they differ on: all splits are alike.
  Split SplitPair(std::uint32_t first, LaneBox centroids) const {
    alignas(32) float low[8], c[8], extent[4];
    centroids.Store(low);
    Extent(centroids).Store(extent);
    CentroidOf(BoxOf(records[first])).Store(c);
    Split split;
    split.left = BoxOf(records[first]);
    split.right = BoxOf(records[first + 1]);
    for (int a = 0; a < 3; ++a) {
      if (!(extent[a] != 0.0f)) continue;
      if (c[a] != low[a]) std::swap(split.left, split.right);
      break;
    }
    const float cost = HalfArea(split.left) + HalfArea(split.right);
    if (split.cost > cost) split.cost = cost;
    return split;
  }

  // Sides by containment in the two boxes, not by bin: what lies in both goes to the smaller box, and what
  // lies in neither, which takes a coordinate that is no number, goes right.
  struct IsLeft {
    LaneBox left, right;
    bool rightIsLarger;
    explicit IsLeft(const Split& split)
        : left(split.left), right(split.right), rightIsLarger(HalfArea(split.right) > HalfArea(split.left)) {}
    bool operator()(LaneBox box) const {
      return static_cast<int>(IsInside(box, left)) &
             (static_cast<int>(rightIsLarger) | static_cast<int>(!IsInside(box, right)));
    }
  };

  // Both sides keep the order of their records.
  Sides Partition(Range range, const Split& split) {
    const IsLeft isLeft(split);
    Sides sides;
    BuildRecord *const from = records + range.first, *const aside = scratch + range.first;
    std::uint32_t left = 0, right = 0;
    for (std::uint32_t i = 0; i < range.count; ++i) {
      const LaneBox record = BoxOf(from[i]);
      const bool goesLeft = isLeft(record);
      record.StoreAligned(from[left].min);
      record.StoreAligned(aside[right].min);
      Grow(sides.centroids[goesLeft ? 1 : 0], CentroidOf(record));
      left += goesLeft ? 1 : 0;
      right += goesLeft ? 0 : 1;
    }
    std::copy(aside, aside + right, from + left);
    sides.left = left;
    return sides;
  }

  // The same by all threads.
  Sides PartitionParallel(Range range, const Split& split) {
    const IsLeft isLeft(split);
    Sides sides;
    std::vector<std::uint32_t> lefts(static_cast<std::size_t>(omp_get_max_threads()) + 1);
#pragma omp parallel
    {
      const Range share = ShareOf(range.first, range.count);
      const auto thread = static_cast<std::size_t>(omp_get_thread_num());
      Sides mine;
      for (std::uint32_t i = share.first; i < share.first + share.count; ++i) {
        const LaneBox record = BoxOf(records[i]);
        const bool goesLeft = isLeft(record);
        Grow(mine.centroids[goesLeft ? 1 : 0], CentroidOf(record));
        mine.left += goesLeft ? 1 : 0;
      }
      lefts[thread + 1] = mine.left;
#pragma omp critical(zp_build)
      for (int side = 0; side < 2; ++side) Grow(sides.centroids[side], mine.centroids[side]);
#pragma omp barrier
#pragma omp single
      {
        for (std::size_t t = 1; t < lefts.size(); ++t) lefts[t] += lefts[t - 1];
        sides.left = lefts.back();
      }
      std::uint32_t left = range.first + lefts[thread];
      std::uint32_t right = range.first + sides.left + (share.first - range.first - lefts[thread]);
      for (std::uint32_t i = share.first; i < share.first + share.count; ++i) {
        const LaneBox record = BoxOf(records[i]);
        record.StoreAligned(scratch[isLeft(record) ? left++ : right++].min);
      }
#pragma omp barrier
      std::copy(scratch + share.first, scratch + share.first + share.count, records + share.first);
    }
    return sides;
  }

  void MakeLeaf(const BuildTask& task) {
    BinaryNode& node = nodes[task.node];
    node = {};
    node.first = task.first;
    node.count = static_cast<std::uint16_t>(task.count);
    node.sum = task.count;
    LaneBox box = EmptyBox();
    for (std::uint32_t i = task.first; i < task.first + task.count; ++i) Grow(box, BoxOf(records[i]));
    if (task.count == 0) return;
    alignas(32) float lanes[8];
    box.Store(lanes);
    node.box = {{lanes[0], lanes[1], lanes[2]}, {-lanes[4], -lanes[5], -lanes[6]}};
  }

  // Splits the task's node into two tasks; false if it became a leaf.
  bool Process(const BuildTask& task, BuildTask children[2], bool parallel) {
    const Range range = {task.first, task.count};
    Sides sides;
    if (Stopping()) return MakeLeaf(task), false;
    if (task.count >= 2 && task.depth < kDepthLimit) {
      const auto flat = MaskLessEqual(Extent(task.centroids), Float4::Set(0));
      if ((flat & 7U) != 7U) {
        Split split;
        if (task.count == 2) {
          split = SplitPair(task.first, task.centroids);
        } else {
          Bins bins;
          if (parallel)
            FillBinsParallel(bins, range, task.centroids);
          else
            FillBins(bins, range, task.centroids);
          split = BestSplit(bins, task.centroids);
        }
        if (split.cost != kFarthest)
          sides = parallel ? PartitionParallel(range, split) : Partition(range, split);
      }
    }
    if (sides.left == 0 || sides.left == task.count) {
      if (task.count <= kLargestLeaf) {
        MakeLeaf(task);
        return false;
      }
      sides.left = task.count / 2;
      sides.centroids[1] = CentroidBox({task.first, sides.left});
      sides.centroids[0] = CentroidBox({task.first + sides.left, task.count - sides.left});
    }
    const std::uint32_t pair = nodeCount.fetch_add(2, std::memory_order_relaxed);
    BinaryNode& node = nodes[task.node];
    node = {};
    node.first = pair;
    node.sum = task.count;
    children[0] = {sides.centroids[1], pair, task.first, sides.left, task.depth + 1};
    children[1] = {sides.centroids[0], pair + 1, task.first + sides.left, task.count - sides.left,
                   task.depth + 1};
    return true;
  }

  // Depth-first; returns the greatest depth reached.
  int FinishSubtree(BuildTask task) {
    int deepest = task.depth;
    BuildTask stack[kDepthLimit + 1];
    BuildTask* top = stack;
    for (;;) {
      BuildTask children[2];
      if (task.depth > deepest) deepest = task.depth;
      if (Process(task, children, false)) {
        *top++ = children[1];
        task = children[0];
      } else {
        if (top == stack) return deepest;
        task = *--top;
      }
    }
  }
};

// All primitives of the Object, in the order of its lists.
void CollectReferences(Object& object) {
  std::size_t total = object.instances.size();
  for (const Part& part : object.parts)
    total += part.particles.size() + part.cylinders.size() + part.triangles.size() + part.tetragons.size();
  object.references.resize(total);
  PrimitiveRef* next = object.references.data();
  const auto add = [&](std::size_t part, std::uint16_t kind, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      *next++ = {static_cast<std::uint16_t>(part), kind, static_cast<std::uint32_t>(i)};
  };
  for (std::size_t p = 0; p < object.parts.size(); ++p) {
    const Part& part = object.parts[p];
    add(p, kKindParticle, part.particles.size());
    add(p, kKindCylinder, part.cylinders.size());
    add(p, kKindTriangle, part.triangles.size());
    add(p, kKindTetragon, part.tetragons.size());
  }
  add(0, kKindInstance, object.instances.size());
}

void FillRecords(const Object& object, BuildRecord* records) {
#pragma omp parallel for schedule(static) if (IsWorthThreads(object.references.size(), 30))
  for (std::size_t i = 0; i < object.references.size(); ++i) {
    const PrimitiveRef& reference = object.references[i];
    const Box box = PrimitiveBox(object, reference);
    records[i] = {{box.min.x, box.min.y, box.min.z},
                  static_cast<std::uint32_t>(reference.part) | static_cast<std::uint32_t>(reference.kind)
                                                                   << 16U,
                  {-box.max.x, -box.max.y, -box.max.z},
                  reference.index};
  }
}

void TakeReferences(Object& object, const BuildRecord* records) {
#pragma omp parallel for schedule(static) if (IsWorthThreads(object.references.size(), 5))
  for (std::size_t i = 0; i < object.references.size(); ++i)
    object.references[i] = {static_cast<std::uint16_t>(records[i].partAndKind & 0xFFFFU),
                            static_cast<std::uint16_t>(records[i].partAndKind >> 16U), records[i].index};
}

}  // namespace

namespace {

void ReleaseTrees(Object& object) {
  Release(object.nodes);
  Release(object.references);
  Release(object.wideNodes);
  Release(object.compactReferences);
  object.packed.reset();
}

}  // namespace

void Build(Object& object) {
  const std::int64_t start = ProcessorMilliseconds();
  ReleaseTrees(object);
  if (Stopping()) return;

  CollectReferences(object);
  const auto total = static_cast<std::uint32_t>(object.references.size());
  // Not zeroed: the threads that write them have their pages near.
  const auto records = std::make_unique_for_overwrite<BuildRecord[]>(total);
  const auto scratch = std::make_unique_for_overwrite<BuildRecord[]>(total);
  FillRecords(object, records.get());
  object.nodes.resize(std::max<std::size_t>(2 * std::size_t{total}, 1));
  Builder builder{records.get(), scratch.get(), object.nodes.data()};

  std::vector<BuildTask> wavefront = {{builder.CentroidBoxParallel({0, total}), 0, 0, total, 0}};
  const std::string_view label = "tree construction wavefront";
  int depth = 0;
  while (!wavefront.empty()) {
    PrintProgressRow(label, static_cast<std::uint64_t>(wavefront.front().depth), "n/a");
    std::vector<BuildTask> next;
    std::size_t shared = 0;                    // primitives of the tasks that go to a thread each
    for (const BuildTask& task : wavefront) {  // the few large ones, each by all threads
      if (task.count < kParallelBinning) {
        shared += task.count;
        continue;
      }
      BuildTask children[2];
      if (builder.Process(task, children, true)) next.insert(next.end(), children, children + 2);
    }
#pragma omp parallel if (IsWorthThreads(shared, 200))
    {
      std::vector<BuildTask> mine;
      int deepest = 0;
#pragma omp for schedule(dynamic, 1)
      for (std::size_t i = 0; i < wavefront.size(); ++i) {
        const BuildTask& task = wavefront[i];
        if (task.count >= kParallelBinning) continue;
        BuildTask children[2];
        if (task.count <= kSubtreeSize)
          deepest = std::max(deepest, builder.FinishSubtree(task));
        else if (builder.Process(task, children, false))
          mine.insert(mine.end(), children, children + 2);
      }
#pragma omp critical(zp_build)
      {
        next.insert(next.end(), mine.begin(), mine.end());
        depth = std::max(depth, deepest);
      }
    }
    wavefront = std::move(next);
  }
  if (Stopping()) return Release(object.nodes);
  PrintIntegerRow(label, static_cast<std::uint64_t>(depth), "n/a");

  object.nodes.resize(builder.nodeCount);
  TakeReferences(object, records.get());
  PrintFloatRow("bbvh construction for " + object.name,
                static_cast<float>(ProcessorMilliseconds() - start) / 1000.0f, "seconds");
  PrintRule();
}

}  // namespace zp
