// Build: a binary tree by a binned surface-area heuristic, eight bins on each of three axes.
// Large nodes go breadth-first, a wavefront of tasks for each depth; small subtrees are finished by the
// thread that meets them, while their boxes are in its cache. The tree is the same for every number of
// threads.

#include <omp.h>

#include <atomic>
#include <bit>
#include <limits>
#include <vector>

#include "accel/accel.h"
#include "core/float8.h"
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

// A primitive's box, with its PrimitiveRef in the fourth words: one record to move.
struct alignas(32) BuildRecord {
  float min[3];
  std::uint32_t partAndKind;
  float max[3];
  std::uint32_t index;
};
static_assert(sizeof(BuildRecord) == 32);

struct LaneBox {
  Float4 min = Float4::Set(kFarthest), max = Float4::Set(-kFarthest);
};
void Grow(LaneBox& box, Float4 min, Float4 max) {
  box.min = Min(box.min, min);
  box.max = Max(box.max, max);
}
void Grow(LaneBox& box, const LaneBox& other) { Grow(box, other.min, other.max); }
float HalfArea(const LaneBox& box) {
  alignas(16) float d[4];
  Max(box.max - box.min, Float4::Set(0)).Store(d);
  return (d[0] + d[1]) * d[2] + d[0] * d[1];
}
Float4 MinOf(const BuildRecord& record) { return Float4::LoadAligned(record.min); }
Float4 MaxOf(const BuildRecord& record) { return Float4::LoadAligned(record.max); }
Float4 Centroid(const BuildRecord& record) { return Float4::Set(0.5f) * (MinOf(record) + MaxOf(record)); }

// True if the record's box lies in `box`, touching faces included.
bool IsInside(const BuildRecord& record, const LaneBox& box) {
  return (MaskLessEqual(box.min, MinOf(record)) & MaskLessEqual(MaxOf(record), box.max) & 7U) == 7U;
}

struct Bins {
  LaneBox box[3][kBins];
  std::uint32_t count[3][kBins] = {};
};

struct Split {
  float cost = kFarthest;
  LaneBox left, right;
};

struct BuildTask {
  std::uint32_t node, first, count;
  int depth;
};

struct Builder {
  std::vector<BuildRecord>& records;
  std::vector<BinaryNode>& nodes;
  std::atomic<std::uint32_t> nodeCount{1};

  LaneBox CentroidBox(std::uint32_t first, std::uint32_t count) const {
    LaneBox box;
    for (std::uint32_t i = first; i < first + count; ++i) {
      const Float4 c = Centroid(records[i]);
      Grow(box, c, c);
    }
    return box;
  }

  void FillBins(Bins& bins, std::uint32_t first, std::uint32_t count, const LaneBox& centroids) const {
    const Float4 extent = centroids.max - centroids.min;
    const Float4 eight = Float4::Set(kBins);
    for (std::uint32_t i = first; i < first + count; ++i) {
      const BuildRecord& record = records[i];
      std::int32_t bin[4];
      TruncateTo(eight * (Centroid(record) - centroids.min) / extent, kBins - 1, bin);
      const Float4 min = MinOf(record), max = MaxOf(record);
      for (int a = 0; a < 3; ++a) {
        Grow(bins.box[a][bin[a]], min, max);
        ++bins.count[a][bin[a]];
      }
    }
  }

  // The same by all threads: minima, maxima and counts do not depend on the order.
  LaneBox CentroidBoxParallel(std::uint32_t first, std::uint32_t count) const {
    LaneBox box;
#pragma omp parallel
    {
      const auto [from, size] = Share(first, count);
      const LaneBox mine = CentroidBox(from, size);
#pragma omp critical(zp_build)
      Grow(box, mine);
    }
    return box;
  }

  void FillBinsParallel(Bins& bins, std::uint32_t first, std::uint32_t count,
                        const LaneBox& centroids) const {
#pragma omp parallel
    {
      const auto [from, size] = Share(first, count);
      Bins mine;
      FillBins(mine, from, size, centroids);
#pragma omp critical(zp_build)
      for (int a = 0; a < 3; ++a)
        for (int k = 0; k < kBins; ++k) {
          Grow(bins.box[a][k], mine.box[a][k]);
          bins.count[a][k] += mine.count[a][k];
        }
    }
  }

  struct Range {
    std::uint32_t first, count;
  };
  static Range Share(std::uint32_t first, std::uint32_t count) {
    const auto threads = static_cast<std::uint64_t>(omp_get_num_threads());
    const auto thread = static_cast<std::uint64_t>(omp_get_thread_num());
    const auto from = static_cast<std::uint32_t>(count * thread / threads);
    const auto to = static_cast<std::uint32_t>(count * (thread + 1) / threads);
    return {first + from, to - from};
  }

  // The cheapest of the seven splits on each axis; equal costs keep the earlier one.
  static Split BestSplit(const Bins& bins, const LaneBox& centroids) {
    alignas(16) float low[4], high[4];
    centroids.min.Store(low);
    centroids.max.Store(high);
    Split best;
    for (int a = 0; a < 3; ++a) {
      if (!(high[a] - low[a] != 0.0f)) continue;
      LaneBox right[kBins - 1];
      float rightCost[kBins - 1];
      LaneBox sweep;
      std::uint32_t count = 0;
      for (int k = kBins - 1; k > 0; --k) {
        Grow(sweep, bins.box[a][k]);
        count += bins.count[a][k];
        right[k - 1] = sweep;
        rightCost[k - 1] = HalfArea(sweep) * static_cast<float>(count);
      }
      sweep = LaneBox{};
      count = 0;
      for (int k = 0; k < kBins - 1; ++k) {
        Grow(sweep, bins.box[a][k]);
        count += bins.count[a][k];
        const float cost = HalfArea(sweep) * static_cast<float>(count) + rightCost[k];
        if (best.cost > cost) best = {cost, sweep, right[k]};
      }
    }
    return best;
  }

  // Two primitives fill the first and the last bin of every axis they differ on: all splits are alike.
  Split SplitPair(std::uint32_t first, const LaneBox& centroids) const {
    alignas(16) float low[4], high[4], c[4];
    centroids.min.Store(low);
    centroids.max.Store(high);
    Centroid(records[first]).Store(c);
    const BuildRecord *left = &records[first], *right = &records[first + 1];
    for (int a = 0; a < 3; ++a) {
      if (!(high[a] - low[a] != 0.0f)) continue;
      if (c[a] != low[a]) std::swap(left, right);
      break;
    }
    Split split;
    split.left = {MinOf(*left), MaxOf(*left)};
    split.right = {MinOf(*right), MaxOf(*right)};
    const float cost = HalfArea(split.left) + HalfArea(split.right);
    if (split.cost > cost) split.cost = cost;
    return split;
  }

  // Sides by containment in the two boxes, not by bin: what lies in both goes to the smaller box. Returns the
  // number of records on the left.
  std::uint32_t Partition(std::uint32_t first, std::uint32_t count, const Split& split) {
    const bool rightIsLarger = HalfArea(split.right) > HalfArea(split.left);
    std::uint32_t left = 0, right = 0;
    while (left + right < count) {
      BuildRecord& record = records[first + left];
      if (IsInside(record, split.left) && (rightIsLarger || !IsInside(record, split.right))) {
        ++left;
      } else {  // what lies in neither box, which takes a coordinate that is no number, goes right too
        ++right;
        std::swap(record, records[first + count - right]);
      }
    }
    return left;
  }

  void MakeLeaf(const BuildTask& task) {
    nodes[task.node].first = task.first;
    nodes[task.node].count = static_cast<std::uint16_t>(task.count);
    nodes[task.node].sum = task.count;
  }

  // Splits the task's node into two tasks; false if it became a leaf.
  bool Process(const BuildTask& task, BuildTask children[2], bool parallel) {
    std::uint32_t left = 0;
    if (Stopping()) return MakeLeaf(task), false;
    if (task.count >= 2 && task.depth < kDepthLimit) {
      const LaneBox centroids =
          parallel ? CentroidBoxParallel(task.first, task.count) : CentroidBox(task.first, task.count);
      if ((MaskLessEqual(centroids.max, centroids.min) & 7U) != 7U) {
        Split split;
        if (task.count == 2) {
          split = SplitPair(task.first, centroids);
        } else {
          Bins bins;
          if (parallel)
            FillBinsParallel(bins, task.first, task.count, centroids);
          else
            FillBins(bins, task.first, task.count, centroids);
          split = BestSplit(bins, centroids);
        }
        if (split.cost != kFarthest) left = Partition(task.first, task.count, split);
      }
    }
    if (left == 0 || left == task.count) {
      if (task.count <= kLargestLeaf) {
        MakeLeaf(task);
        return false;
      }
      left = task.count / 2;
    }
    const std::uint32_t pair = nodeCount.fetch_add(2, std::memory_order_relaxed);
    nodes[task.node].first = pair;
    nodes[task.node].count = 0;
    nodes[task.node].sum = task.count;
    children[0] = {pair, task.first, left, task.depth + 1};
    children[1] = {pair + 1, task.first + left, task.count - left, task.depth + 1};
    return true;
  }

  // Depth-first; returns the greatest depth reached.
  int FinishSubtree(BuildTask task) {
    int deepest = task.depth;
    std::vector<BuildTask> stack;
    for (;;) {
      BuildTask children[2];
      if (task.depth > deepest) deepest = task.depth;
      if (Process(task, children, false)) {
        stack.push_back(children[1]);
        task = children[0];
      } else {
        if (stack.empty()) return deepest;
        task = stack.back();
        stack.pop_back();
      }
    }
  }
};

std::vector<BuildRecord> CollectRecords(const Object& object) {
  std::vector<PrimitiveRef> references;
  const auto add = [&](std::size_t part, std::uint16_t kind, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      references.push_back({static_cast<std::uint16_t>(part), kind, static_cast<std::uint32_t>(i)});
  };
  std::size_t total = object.instances.size();
  for (const Part& part : object.parts)
    total += part.particles.size() + part.cylinders.size() + part.triangles.size() + part.tetragons.size();
  references.reserve(total);
  for (std::size_t p = 0; p < object.parts.size(); ++p) {
    const Part& part = object.parts[p];
    add(p, kKindParticle, part.particles.size());
    add(p, kKindCylinder, part.cylinders.size());
    add(p, kKindTriangle, part.triangles.size());
    add(p, kKindTetragon, part.tetragons.size());
  }
  add(0, kKindInstance, object.instances.size());

  std::vector<BuildRecord> records(references.size());
#pragma omp parallel for schedule(static) if (IsWorthThreads(references.size(), 30))
  for (std::size_t i = 0; i < references.size(); ++i) {
    const PrimitiveRef& reference = references[i];
    const Box box = PrimitiveBox(object, reference);
    records[i] = {{box.min.x, box.min.y, box.min.z},
                  static_cast<std::uint32_t>(reference.part) | static_cast<std::uint32_t>(reference.kind)
                                                                   << 16U,
                  {box.max.x, box.max.y, box.max.z},
                  reference.index};
  }
  return records;
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

  std::vector<BuildRecord> records = CollectRecords(object);
  const auto total = static_cast<std::uint32_t>(records.size());
  object.nodes.resize(std::max<std::size_t>(2 * records.size(), 1));
  Builder builder{records, object.nodes};

  std::vector<BuildTask> wavefront = {{0, 0, total, 0}};
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
  object.nodes.shrink_to_fit();
  object.references.resize(total);
  for (std::uint32_t i = 0; i < total; ++i)
    object.references[i] = {static_cast<std::uint16_t>(records[i].partAndKind & 0xFFFFU),
                            static_cast<std::uint16_t>(records[i].partAndKind >> 16U), records[i].index};
  PrintFloatRow("bbvh construction for " + object.name,
                static_cast<float>(ProcessorMilliseconds() - start) / 1000.0f, "seconds");
  PrintRule();
}

}  // namespace zp
