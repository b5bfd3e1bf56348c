// Refits a binary tree and makes it cheaper by local rotations.
//
// Kensler, "Tree Rotations for Improving Bounding Volume Hierarchies", 2008, with all arrangements of four
// grandchildren.

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <iterator>
#include <utility>

#include "accel/split.h"
#include "accel/update_steps.h"
#include "core/index.h"
#include "core/stop.h"
#include "core/threads.h"
#include "geometry/geometry.h"

namespace zp {
namespace {

// The four nodes below the two children of a node: a and b on the left, c and d on the right.
enum Grandchild : std::uint8_t { a, b, c, d };

// What may lie under one box: two or three of them.
enum Group : std::uint8_t { ab, ac, ad, bc, bd, cd, bcd, acd, abd, abc, kGroupCount };
constexpr Group kPairOf[4][4] = {{ab, ab, ac, ad}, {ab, ab, bc, bd}, {ac, bc, cd, cd}, {ad, bd, cd, cd}};
constexpr Group TripleWithout(Grandchild one) { return static_cast<Group>(int{bcd} + int{one}); }

enum class Shape : std::uint8_t {
  kTwoPairs,   // (place 0, place 1) left, (place 2, place 3) right
  kPairFirst,  // ((place 0, place 1), place 2) on one side, place 3 alone on the other
  kPairLast,   // (place 2, (place 0, place 1)), likewise
};

struct Arrangement {
  Shape shape;
  std::array<Grandchild, 4> place;

  constexpr Group First() const { return kPairOf[place[0]][place[1]]; }
  constexpr Group Second() const {
    return shape == Shape::kTwoPairs ? kPairOf[place[2]][place[3]] : TripleWithout(place[3]);
  }
  // The side that is left to one: its own child's place goes to it.
  constexpr bool AloneIsRight() const { return place[3] == a || place[3] == b; }
};

// Tried in this order: of equal costs the first counts.
constexpr Arrangement kArrangements[] = {
    {Shape::kTwoPairs, {a, c, b, d}},   // ((a, c), (b, d))
    {Shape::kTwoPairs, {a, d, c, b}},   // ((a, d), (c, b))
    {Shape::kPairFirst, {c, d, b, a}},  // (((c, d), b), a)
    {Shape::kPairFirst, {b, d, c, a}},  // (((b, d), c), a)
    {Shape::kPairFirst, {c, b, d, a}},  // (((c, b), d), a)
    {Shape::kPairLast, {c, d, a, b}},   // ((a, (c, d)), b)
    {Shape::kPairLast, {a, d, c, b}},   // ((c, (a, d)), b)
    {Shape::kPairLast, {c, a, d, b}},   // ((d, (c, a)), b)
    {Shape::kPairFirst, {d, b, a, c}},  // (c, ((d, b), a))
    {Shape::kPairFirst, {a, d, b, c}},  // (c, ((a, d), b))
    {Shape::kPairFirst, {a, b, d, c}},  // (c, ((a, b), d))
    {Shape::kPairFirst, {b, c, a, d}},  // (d, ((b, c), a))
    {Shape::kPairFirst, {a, c, b, d}},  // (d, ((a, c), b))
    {Shape::kPairLast, {a, b, c, d}},   // (d, (c, (a, b))). Intended: this one pair comes last
};

// The groups of all arrangements, in the lanes of two vectors.
struct ArrangementLanes {
  alignas(32) std::uint32_t group[2][2][8] = {};  // first and second; those of lanes not in use stay 0
  alignas(32) float isLate[2][2][8] = {};         // all bits where a group is none of the first eight
};
constexpr ArrangementLanes MakeArrangementLanes() {
  ArrangementLanes lanes;
  for (std::size_t i = 0; i < std::size(kArrangements); ++i) {
    const Group groups[2] = {kArrangements[i].First(), kArrangements[i].Second()};
    for (std::size_t k = 0; k < 2; ++k) {
      lanes.group[k][i / 8][i % 8] = groups[k];
      lanes.isLate[k][i / 8][i % 8] = std::bit_cast<float>(groups[k] < 8 ? 0 : ~0U);
    }
  }
  return lanes;
}
constexpr ArrangementLanes kArrangementLanes = MakeArrangementLanes();

LaneBox ToLanes(const BinaryNode& n) {
  alignas(32) static constexpr float kSigns[8] = {1, 1, 1, 0, -1, -1, -1, 0};
  alignas(32) static constexpr std::uint32_t kOrder[8] = {0, 1, 2, 0, 3, 4, 5, 0};
  return Permute(Float8::Load(&n.box.min.x), Words8::Load(kOrder)) * Float8::LoadAligned(kSigns);
}

// The boxes of all groups, and behind them the one around all.
struct GroupBoxes {
  LaneBox of[2][8];

  LaneBox& Of(int group) { return of[group / 8][group % 8]; }
  const LaneBox& Of(int group) const { return of[group / 8][group % 8]; }

  explicit GroupBoxes(const std::array<BinaryNode, 4>& g) {
    const LaneBox boxA = ToLanes(g[a]), boxB = ToLanes(g[b]), boxC = ToLanes(g[c]), boxD = ToLanes(g[d]);
    Of(ab) = Min(boxB, boxA);
    Of(ac) = Min(boxC, boxA);
    Of(ad) = Min(boxD, boxA);
    Of(bc) = Min(boxC, boxB);
    Of(bd) = Min(boxD, boxB);
    Of(cd) = Min(boxD, boxC);
    Of(bcd) = Min(boxB, Of(cd));
    Of(acd) = Min(boxA, Of(cd));
    Of(abd) = Min(boxD, Of(ab));
    Of(abc) = Min(boxC, Of(ab));
    Of(kGroupCount) = Min(Of(cd), Of(ab));
    for (int rest = kGroupCount + 1; rest < 16; ++rest) Of(rest) = EmptyBox();
  }

  // The first arrangement of the least cost below `cost`; null if there is none.
  const Arrangement* Cheapest(const std::array<BinaryNode, 4>& g, float cost) const {
    const Float8 areas = HalfAreas(of[0]), lateAreas = HalfAreas(of[1]);
    const float all = Permute(lateAreas, Words8::Set(kGroupCount)).First();
    const Float8 base = Float8::Set(all + g[a].cost + g[b].cost + g[c].cost + g[d].cost);
    Float8 costs[2];
    for (std::size_t half = 0; half < 2; ++half) {
      Float8 area[2];
      for (std::size_t k = 0; k < 2; ++k) {
        const Words8 group = Words8::Load(kArrangementLanes.group[k][half]);
        area[k] = Choose(Float8::LoadAligned(kArrangementLanes.isLate[k][half]), Permute(lateAreas, group),
                         Permute(areas, group));
      }
      costs[half] = base + (area[0] + area[1]);
    }
    constexpr unsigned kInUse = (1U << std::size(kArrangements)) - 1;
    const Float8 known = Float8::Set(cost);  // what is no number is not less
    costs[1] = Select<0xFF & ~(kInUse >> 8U)>(costs[1], known);
    const Float8 least = Least(Min(costs[1], Min(costs[0], known)));
    if (!(least.First() < cost)) return nullptr;
    const unsigned mask = MaskLessEqual(costs[0], least) | MaskLessEqual(costs[1], least) << 8U;
    return &kArrangements[std::countr_zero(mask)];
  }
};

constexpr int kTaskDepth = 10;  // subtrees above this depth are shared among threads

struct NodeRotator {
  BinaryNode* nodes;

  // Of an inner node.
  void Refit(BinaryNode& n) {
    const BinaryNode &l = nodes[n.first], &r = nodes[n.first + 1];
    n.box = Union(l.box, r.box);
    n.cost = HalfArea(n.box) + l.cost + r.cost;
    n.sum = l.sum + r.sum;
  }

  void RecomputeCost(BinaryNode& n) {
    if (IsLeaf(n)) {
      n.cost = static_cast<float>(n.count) * HalfArea(n.box);
    } else {
      const BinaryNode &l = nodes[n.first], &r = nodes[n.first + 1];
      n.cost = HalfArea(n.box) + l.cost + r.cost;
      n.sum = l.sum + r.sum;
    }
  }

  void Rotate(BinaryNode& n) {
    BinaryNode &l = nodes[n.first], &r = nodes[n.first + 1];
    if (IsLeaf(l) && IsLeaf(r)) {
      // nothing below to exchange
    } else if (IsLeaf(r)) {
      RotateOneSide(n, l, r);
    } else if (IsLeaf(l)) {
      RotateOneSide(n, r, l);
    } else {
      RotateBothSides(n, l, r);
    }
    Refit(n);
  }

  // `inner` has children x, y; `leaf` changes places with one of them if that makes the subtree cheaper.
  void RotateOneSide(const BinaryNode& n, BinaryNode& inner, BinaryNode& leaf) {
    BinaryNode &x = nodes[inner.first], &y = nodes[inner.first + 1];
    const Box xLeaf = Union(x.box, leaf.box), yLeaf = Union(y.box, leaf.box);
    const float base = HalfArea(Union(xLeaf, y.box)) + x.cost + y.cost + leaf.cost;
    const float xCost = base + HalfArea(xLeaf), yCost = base + HalfArea(yLeaf);
    if (MinOf(yCost, n.cost) > xCost) {  // (x, leaf) below, y beside
      std::swap(y, leaf);
      inner.box = xLeaf;
    } else if (n.cost > yCost) {  // (leaf, y) below, x beside
      std::swap(x, leaf);
      inner.box = yLeaf;
    } else {
      return;
    }
    RecomputeCost(leaf);
    RecomputeCost(inner);
  }

  void RotateBothSides(const BinaryNode& n, BinaryNode& l, BinaryNode& r) {
    const std::array<BinaryNode, 4> grandchildren = {nodes[l.first], nodes[l.first + 1], nodes[r.first],
                                                     nodes[r.first + 1]};
    const GroupBoxes boxes(grandchildren);
    const Arrangement* const best = boxes.Cheapest(grandchildren, n.cost);
    if (best != nullptr) Arrange(*best, grandchildren, boxes, l, r);
  }

  // Records move whole, so that pairs stay adjacent. A side that becomes one grandchild gives its pair of
  // places to the new inner node of the other side.
  void Arrange(const Arrangement& arrangement, const std::array<BinaryNode, 4>& grandchildren,
               const GroupBoxes& boxes, BinaryNode& l, BinaryNode& r) {
    const auto at = [&](int place) -> const BinaryNode& {
      return grandchildren[At(arrangement.place, place)];
    };
    const Box first = ToBox(boxes.Of(arrangement.First())), second = ToBox(boxes.Of(arrangement.Second()));
    const std::uint32_t lPair = l.first, rPair = r.first;
    if (arrangement.shape == Shape::kTwoPairs) {
      l = MakeInner(lPair, at(0), at(1), first);
      r = MakeInner(rPair, at(2), at(3), second);
      return;
    }
    const bool right = arrangement.AloneIsRight();
    (right ? r : l) = at(3);
    const BinaryNode pair = MakeInner(right ? rPair : lPair, at(0), at(1), first);
    const bool pairFirst = arrangement.shape == Shape::kPairFirst;
    (right ? l : r) =
        MakeInner(right ? lPair : rPair, pairFirst ? pair : at(2), pairFirst ? at(2) : pair, second);
  }

  // A node whose children come to lie at `pair`.
  BinaryNode MakeInner(std::uint32_t pair, const BinaryNode& left, const BinaryNode& right, const Box& box) {
    nodes[pair] = left;
    nodes[pair + 1] = right;
    BinaryNode node;
    node.first = pair;
    node.box = box;
    node.sum = left.sum + right.sum;
    RecomputeCost(node);
    return node;
  }
};

void RefitLeaf(const Object& object, BinaryNode& n) {
  n.box = Box{};
  for (std::uint32_t i = n.first; i < n.first + n.count; ++i)
    Grow(n.box, PrimitiveBox(object, object.references[i]));
  n.cost = HalfArea(n.box) * static_cast<float>(n.count);
  n.sum = n.count;
}

// Refits the subtree of a node and then rotates it from its leaves to the node, each node once. The result is
// that of FinishNode.
float RotateSubtree(Object& object, std::uint32_t index, int depth) {
  BinaryNode& n = object.nodes[index];
  if (Stopping()) return 0;
  if (IsLeaf(n)) {
    RefitLeaf(object, n);
    return n.cost;
  }
  float left = 0, right = 0;
  const std::uint32_t first = n.first;
  if (depth < kTaskDepth && n.sum > 4096) {
#pragma omp task default(shared)
    left = RotateSubtree(object, first, depth + 1);
    right = RotateSubtree(object, first + 1, depth + 1);
#pragma omp taskwait
  } else {
    left = RotateSubtree(object, first, depth + 1);
    right = RotateSubtree(object, first + 1, depth + 1);
  }
  return FinishNode(object.nodes.data(), n, left, right);
}

}  // namespace

float FinishNode(BinaryNode* nodes, BinaryNode& n, float leftCost, float rightCost) {
  n.box = Union(nodes[n.first].box, nodes[n.first + 1].box);
  n.cost = HalfArea(n.box) + leftCost + rightCost;
  const float cost = n.cost;
  NodeRotator{nodes}.Rotate(n);
  return cost;
}

void RotateTree(Object& object) {
#pragma omp parallel if (IsWorthThreads(object.nodes.size(), 100))
#pragma omp single
  RotateSubtree(object, 0, 0);
  if (Stopping()) return;
  object.bounds = object.nodes[0].box;
  object.treeCost = static_cast<double>(object.nodes[0].cost);
}

}  // namespace zp
