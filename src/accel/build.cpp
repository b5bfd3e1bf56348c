// Build: a binary tree by a binned surface-area heuristic, boxes, costs and rotations included. Large nodes
// are tasks whose passes are shared among threads; small subtrees are finished by the thread that meets them,
// while their boxes are in its cache. The tree is the same for every number of threads.

#include <algorithm>
#include <atomic>
#include <string_view>
#include <vector>

#include "accel/accel.h"
#include "accel/node_lanes.h"
#include "accel/split.h"
#include "accel/update_steps.h"
#include "core/console.h"
#include "core/release.h"
#include "core/stop.h"
#include "core/threads.h"
#include "geometry/geometry.h"

namespace zp {
namespace {

constexpr int kDepthLimit = 255;                 // a node this deep becomes a leaf
constexpr std::uint32_t kLargestLeaf = 65535;    // WideNode::count has 16 bits
constexpr std::uint32_t kSubtreeSize = 2048;     // finished by one thread, at least
constexpr std::uint32_t kSubtrees = 128;         // that large trees are shared out as, at least
constexpr std::uint32_t kSharedPasses = 65536;   // passes over so many records go to all threads
constexpr std::uint32_t kRecordsOfAPass = 4096;  // that a thread takes at once, at least
// At most, for their results are added up by one thread, and libgomp runs a loop's tasks at once, one behind
// another, when there are more than 64 a thread.
constexpr std::uint32_t kPartsOfAPass = 32;

// Records that a thread takes at once.
std::uint32_t PartOfAPass(std::uint32_t records) {
  return std::max(kRecordsOfAPass, records / kPartsOfAPass + 1);
}

// A node to be made, of the records from `first` on. The nodes below it have room from `below` on: two for
// each record but the first.
struct BuildTask {
  LaneBox centroids;
  std::uint32_t node, below, first, count;
  int depth;
};

// Records on either side of a split, and the boxes of their centroids.
struct Sides {
  std::uint32_t left = 0;
  LaneBox leftCentroids = EmptyBox(), rightCentroids = EmptyBox();
  void Add(const Sides& other) {
    left += other.left;
    Grow(leftCentroids, other.leftCentroids);
    Grow(rightCentroids, other.rightCentroids);
  }
};

LaneBox CentroidBox(const BuildRecord* records, std::uint32_t count) {
  LaneBox box = EmptyBox();
  for (std::uint32_t i = 0; i < count; ++i) Grow(box, CentroidBox(BoxOf(records[i])));
  return box;
}

// Sets all bits of the byte of each record that goes left, none of others.
template <bool kRightIsLarger>
Sides FindSides(const BuildRecord* records, std::uint32_t count, const SideOf& side, std::int8_t* isLeft) {
  const SideOf ours = side;  // what bytes are written to might be anything
  std::uint32_t lefts = 0;
  LaneBox leftCentroids = EmptyBox(), rightCentroids = EmptyBox();
  for (std::uint32_t i = 0; i < count; ++i) {
    const LaneBox box = BoxOf(records[i]);
    const std::uint32_t left = ours.IsLeft(box, kRightIsLarger);
    const LaneBox center = CentroidBox(box);
    const Float8 mask = MaskOf(left);
    Grow(leftCentroids, Choose(mask, center, EmptyBox()));
    Grow(rightCentroids, Choose(mask, EmptyBox(), center));
    isLeft[i] = static_cast<std::int8_t>(0 - left);
    lefts += left;
  }
  return {lefts, leftCentroids, rightCentroids};
}

// Those that go left in front. The order on both sides is that of a scan from the front which exchanges what
// goes right with what stands last; equal primitives end up in one leaf, and the first of them is hit. What
// goes left and lies in front already stays: only the back is walked, and each of its records exchanged with
// the one that waits in front to go right.
//   isLeft  all bits of the record's byte, or none
void MoveToSides(BuildRecord* records, std::uint32_t count, std::uint32_t lefts, const std::int8_t* isLeft) {
  constexpr std::uint32_t kMost = 255;
  std::uint32_t waiting[kMost + 1];  // places in front, then `lefts`, where those begin that stay behind
  std::uint32_t back = count, scanned = 0, size = 0;
  for (;;) {
    // No branches on sides: nobody could foresee them.
    for (; scanned < lefts && size <= kMost; ++scanned) {
      waiting[size] = scanned;
      size += static_cast<std::uint32_t>(1 + isLeft[scanned]);
    }
    const bool isLast = scanned == lefts && size <= kMost;
    if (isLast) waiting[size++] = lefts;
    for (std::uint32_t i = 0; i + 1 < size;) {
      --back;
      Exchange(records[waiting[i]], records[back]);
      i -= static_cast<std::uint32_t>(isLeft[back]);
    }
    if (isLast) break;
    waiting[0] = waiting[size - 1];
    size = 1;
  }
  if (back > lefts) std::rotate(records + lefts, records + lefts + 1, records + back);
}

struct Builder {
  BuildRecord* records;
  std::int8_t* isLeft;  // one a record
  PrimitiveRef* references;
  BinaryNode* nodes;
  std::uint32_t subtreeSize;  // of what one thread finishes, while the records are in its cache
  NodeCosts root = {};
  std::atomic<int> depth{0};

  void RaiseDepth(int reached) {
    int known = depth.load(std::memory_order_relaxed);
    while (known < reached && !depth.compare_exchange_weak(known, reached, std::memory_order_relaxed)) {
    }
  }

  // pass(first, count) over parts of the task's records, in any order, added up.
  template <class Result, class Pass>
  Result Shared(const BuildTask& task, Pass pass) {
    const std::uint32_t size = PartOfAPass(task.count), parts = (task.count + size - 1) / size;
    std::vector<Result> results(parts);
#pragma omp taskloop grainsize(1) default(shared)
    for (std::size_t i = 0; i < parts; ++i) {
      const auto first = static_cast<std::uint32_t>(i) * size;
      results[i] = pass(task.first + first, std::min(size, task.count - first));
    }
    for (std::uint32_t i = 1; i < parts; ++i) results[0].Add(results[i]);
    return results[0];
  }

  Split FindSplit(const BuildTask& task) {
    if (task.count == 2) return SplitPair(records + task.first, task.centroids);
    if (task.count <= 4) return BestSplitOfFew(records + task.first, task.count, task.centroids);
    const auto fill = [&](std::uint32_t first, std::uint32_t count) {
      Bins bins;
      bins.Fill(records + first, count, task.centroids);
      return bins;
    };
    return BestSplit(task.count < kSharedPasses ? fill(task.first, task.count) : Shared<Bins>(task, fill),
                     task.centroids);
  }

  Sides Partition(const BuildTask& task, const Split& split) {
    const SideOf side(split);
    const auto find = [&](std::uint32_t first, std::uint32_t count) {
      return (side.rightIsLarger ? FindSides<true> : FindSides<false>)(records + first, count, side,
                                                                       isLeft + first);
    };
    const Sides sides = task.count < kSharedPasses ? find(task.first, task.count) : Shared<Sides>(task, find);
    if (sides.left != task.count)
      MoveToSides(records + task.first, task.count, sides.left, isLeft + task.first);
    return sides;
  }

  // Returns the cost.
  float MakeLeaf(std::uint32_t index, std::uint32_t first, std::uint32_t count) {
    LaneBox box = EmptyBox();
    for (std::uint32_t i = first; i < first + count; ++i) {
      const BuildRecord& record = records[i];
      Grow(box, BoxOf(record));
      references[i] = {static_cast<std::uint16_t>(record.partAndKind & 0xFFFFU),
                       static_cast<std::uint16_t>(record.partAndKind >> 16U), record.index};
    }
    const NodeLanes node = ToNodeLanes(box);
    Store(nodes[index], WithWords(node, 2 * first + 1, count));
    return HalfAreaOf(node) * static_cast<float>(count);
  }

  // Splits the task in two, which still have no nodes; false if it became a leaf, of this cost.
  bool Divide(const BuildTask& task, BuildTask children[2], NodeCosts& costs) {
    Sides sides;
    const bool stops = Stopping();
    if (task.count >= 2 && task.depth < kDepthLimit && !stops && !IsFlat(task.centroids)) {
      const Split split = FindSplit(task);
      if (split.cost != kFarthest) sides = Partition(task, split);
    }
    if (sides.left == 0 || sides.left == task.count) {
      if (task.count <= kLargestLeaf || stops) {
        costs.unrotated = costs.cost = MakeLeaf(task.node, task.first, task.count);
        return false;
      }
      sides.left = task.count / 2;
      sides.leftCentroids = CentroidBox(records + task.first, sides.left);
      sides.rightCentroids = CentroidBox(records + task.first + sides.left, task.count - sides.left);
    }
    children[0] = {sides.leftCentroids, 0, 0, task.first, sides.left, task.depth + 1};
    children[1] = {sides.rightCentroids, 0, 0, task.first + sides.left, task.count - sides.left,
                   task.depth + 1};
    return true;
  }

  // The node of two finished children that stand at `pair`.
  NodeCosts Finish(std::uint32_t index, std::uint32_t pair, const NodeCosts (&costs)[2]) {
    return FinishNode(nodes, nodes[index], pair, costs[0], costs[1]);
  }

  // Two records as a leaf each, of these costs; false if they need what Divide does.
  bool MakePair(const BuildTask& task, std::uint32_t pair, NodeCosts (&costs)[2]) {
    if (task.depth >= kDepthLimit || IsFlat(task.centroids)) return false;
    BuildRecord* const two = records + task.first;
    const Split split = SplitPair(two, task.centroids);
    const SideOf side(split);
    const std::uint32_t left = side.IsLeft(BoxOf(two[0]), side.rightIsLarger);
    if (split.cost == kFarthest || left == side.IsLeft(BoxOf(two[1]), side.rightIsLarger)) return false;
    if (left == 0) Exchange(two[0], two[1]);
    for (std::uint32_t i = 0; i < 2; ++i)
      costs[i].unrotated = costs[i].cost = MakeLeaf(pair + i, task.first + i, 1);
    return true;
  }

  // Makes the task's node and all below, each pair of nodes before those below it, and rotates them.
  NodeCosts MakeSubtree(const BuildTask& task, std::uint32_t& next, int& deepest) {
    BuildTask children[2];
    NodeCosts costs[2];
    deepest = std::max(deepest, task.depth);
    const std::uint32_t pair = next;
    if (task.count == 2 && MakePair(task, pair, costs)) {
      next += 2;
      deepest = std::max(deepest, task.depth + 1);
      return Finish(task.node, pair, costs);
    }
    if (!Divide(task, children, costs[0])) return costs[0];
    next += 2;
    for (std::uint32_t i = 0; i < 2; ++i) {
      children[i].node = pair + i;
      costs[i] = MakeSubtree(children[i], next, deepest);
    }
    return Finish(task.node, pair, costs);
  }

  // The same by tasks.
  void MakeTree(const BuildTask& task, UnfinishedNode* parent, std::uint32_t side) {
    BuildTask children[2];
    NodeCosts costs;
    if (task.count <= subtreeSize) {
      std::uint32_t next = task.below;
      int deepest = 0;
      costs = MakeSubtree(task, next, deepest);
      RaiseDepth(deepest);
      return FinishUpwards(nodes, parent, side, costs, root);
    }
    RaiseDepth(task.depth);
    if (!Divide(task, children, costs)) return FinishUpwards(nodes, parent, side, costs, root);
    const std::uint32_t pair = task.below;
    children[0].node = pair;
    children[0].below = pair + 2;
    children[1].node = pair + 1;
    children[1].below = pair + 2 * children[0].count;
    auto* const unfinished = new UnfinishedNode{parent, side, task.node, pair, {}};
    const BuildTask first = children[0];
#pragma omp task default(none) firstprivate(first, unfinished)
    MakeTree(first, unfinished, 0);
    MakeTree(children[1], unfinished, 1);
  }
};

// The lists of an Object's primitives, one behind another.
struct PrimitiveList {
  std::size_t first;  // number of its first primitive
  std::uint32_t partAndKind;
};

// The last entry says where the lists end.
std::vector<PrimitiveList> PrimitiveLists(const Object& object) {
  std::vector<PrimitiveList> lists;
  std::size_t total = 0;
  const auto add = [&](std::size_t part, std::uint32_t kind, std::size_t count) {
    if (count == 0) return;
    lists.push_back({total, static_cast<std::uint32_t>(part) | kind << 16U});
    total += count;
  };
  for (std::size_t p = 0; p < object.parts.size(); ++p) {
    const Part& part = object.parts[p];
    add(p, kKindParticle, part.particles.size());
    add(p, kKindCylinder, part.cylinders.size());
    add(p, kKindTriangle, part.triangles.size());
    add(p, kKindTetragon, part.tetragons.size());
  }
  add(0, kKindInstance, object.instances.size());
  lists.push_back({total, 0});
  return lists;
}

BuildRecord MakeRecord(const Object& object, std::uint32_t partAndKind, std::uint32_t index) {
  const Box box = PrimitiveBox(object, {static_cast<std::uint16_t>(partAndKind & 0xFFFFU),
                                        static_cast<std::uint16_t>(partAndKind >> 16U), index});
  return {{box.min.x, box.min.y, box.min.z}, partAndKind, {-box.max.x, -box.max.y, -box.max.z}, index};
}

// The box of all centroids.
LaneBox FillRecords(const Object& object, const std::vector<PrimitiveList>& lists, BuildRecord* records) {
  const std::size_t total = lists.back().first, size = PartOfAPass(static_cast<std::uint32_t>(total)),
                    parts = (total + size - 1) / size;
  std::vector<LaneBox> boxes(parts + 1, EmptyBox());
#pragma omp taskloop grainsize(1) default(shared)
  for (std::size_t part = 0; part < parts; ++part) {
    const std::size_t first = part * size, end = std::min(first + size, total);
    const auto isBehind = [](std::size_t number, const PrimitiveList& list) { return number < list.first; };
    auto list = std::upper_bound(lists.begin(), lists.end(), first, isBehind) - 1;
    for (std::size_t i = first; i < end; ++i) {
      if (i == list[1].first) ++list;
      records[i] = MakeRecord(object, list->partAndKind, static_cast<std::uint32_t>(i - list->first));
    }
    boxes[part] = CentroidBox(records + first, static_cast<std::uint32_t>(end - first));
  }
  for (const LaneBox& box : boxes) Grow(boxes[0], box);
  return boxes[0];
}

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
  const std::string_view label = "tree construction wavefront";
  ReleaseTrees(object);
  if (Stopping()) return;

  PrintProgressRow(label, std::uint64_t{0}, "n/a");
  const std::vector<PrimitiveList> lists = PrimitiveLists(object);
  const std::size_t total = lists.back().first;
  RawVector<BuildRecord> records(total);
  RawVector<std::int8_t> isLeft(total);
  object.references.resize(total);
  object.nodes.resize(std::max<std::size_t>(2 * total, BinaryNode::kRoot + 1));
  Builder builder{records.data(), isLeft.data(), object.references.data(), object.nodes.data(),
                  std::max(kSubtreeSize, static_cast<std::uint32_t>(total) / kSubtrees)};
#pragma omp parallel if (IsWorthThreads(total, 300))
#pragma omp single
  {
    const LaneBox centroids = FillRecords(object, lists, records.data());
    builder.MakeTree(
        {centroids, BinaryNode::kRoot, BinaryNode::kRoot + 1, 0, static_cast<std::uint32_t>(total), 0},
        nullptr, 0);
  }
  if (Stopping()) return ReleaseTrees(object);
  object.bounds = object.nodes[BinaryNode::kRoot].box;
  object.treeCost = static_cast<double>(builder.root.cost);

  PrintIntegerRow(label, static_cast<std::uint64_t>(builder.depth), "n/a");
  PrintFloatRow("bbvh construction for " + object.name,
                static_cast<float>(ProcessorMilliseconds() - start) / 1000.0f, "seconds");
  PrintRule();
}

}  // namespace zp
