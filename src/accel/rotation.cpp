// Refits a binary tree and makes it cheaper by local rotations.
//
// Kensler, "Tree Rotations for Improving Bounding Volume Hierarchies", 2008, with all arrangements of four
// grandchildren.

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>

#include "accel/node_lanes.h"
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

// A node and the cost of its subtree.
struct CostedNode {
  NodeLanes lanes;
  std::uint32_t sum;
  float cost;
};
using Grandchildren = std::array<CostedNode, 4>;

// The boxes of all groups, and behind them the one around all.
struct GroupBoxes {
  LaneBox of[2][8];

  LaneBox& Of(int group) { return of[group / 8][group % 8]; }
  const LaneBox& Of(int group) const { return of[group / 8][group % 8]; }

  explicit GroupBoxes(const Grandchildren& g) {
    const LaneBox boxA = ToLaneBox(g[a].lanes), boxB = ToLaneBox(g[b].lanes), boxC = ToLaneBox(g[c].lanes),
                  boxD = ToLaneBox(g[d].lanes);
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
  const Arrangement* Cheapest(const Grandchildren& g, float cost) const {
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

constexpr std::uint32_t kTaskSize = 2048;  // of subtrees that one thread refits

// An inner node with the box of `box`, above two children that stand at `pair`.
CostedNode MakeInner(std::uint32_t pair, NodeLanes box, std::uint32_t sum, float leftCost, float rightCost) {
  constexpr std::uint32_t kMostOfWideLeaf = 65535;  // WideNode::count has 16 bits
  const float area = HalfAreaOf(box), cost = area + leftCost + rightCost;
  const bool isCheapAsLeaf = cost > static_cast<float>(sum) * area && sum <= kMostOfWideLeaf;
  return {WithWords(box, pair, isCheapAsLeaf ? sum | BinaryNode::kCheapAsLeaf : sum), sum, cost};
}

// Rotates below a node whose children have these costs, and says what they cost then.
struct NodeRotator {
  BinaryNode* nodes;
  float unrotated;  // cost to beat
  const NodeCosts &left, &right;
  float leftCost = left.cost, rightCost = right.cost;

  // The children stand at `pair`.
  void Rotate(std::uint32_t pair) {
    BinaryNode &l = nodes[pair], &r = nodes[pair + 1];
    if (r.IsLeaf()) {
      RotateOneSide(l, left, leftCost, r, rightCost);
    } else if (l.IsLeaf()) {
      RotateOneSide(r, right, rightCost, l, leftCost);
    } else {
      RotateBothSides(l, r);
    }
  }

  // `inner` has children x, y; `leaf` changes places with one of them if that makes the subtree cheaper.
  void RotateOneSide(BinaryNode& inner, const NodeCosts& costs, float& innerCost, BinaryNode& leaf,
                     float& leafCost) const {
    const std::uint32_t pair = inner.link;
    BinaryNode &x = nodes[pair], &y = nodes[pair + 1];
    const NodeLanes xLanes = LanesOf(x), yLanes = LanesOf(y), leafLanes = LanesOf(leaf);
    const NodeLanes xLeaf = UnionOf(xLanes, leafLanes), yLeaf = UnionOf(yLanes, leafLanes);
    const float base = HalfAreaOf(UnionOf(xLeaf, yLanes)) + costs.left + costs.right + leafCost;
    const float xCost = base + HalfAreaOf(xLeaf), yCost = base + HalfAreaOf(yLeaf);
    const auto put = [&](NodeLanes box, float first, float second) {
      const CostedNode made = MakeInner(pair, box, x.Sum() + y.Sum(), first, second);
      Store(inner, made.lanes);
      innerCost = made.cost;
    };
    if (MinOf(yCost, unrotated) > xCost) {  // (x, leaf) below, y beside
      Store(y, leafLanes);
      Store(leaf, yLanes);
      put(xLeaf, costs.left, std::exchange(leafCost, costs.right));
    } else if (unrotated > yCost) {  // (leaf, y) below, x beside
      Store(x, leafLanes);
      Store(leaf, xLanes);
      put(yLeaf, std::exchange(leafCost, costs.left), costs.right);
    }
  }

  void RotateBothSides(BinaryNode& l, BinaryNode& r) {
    const auto take = [&](std::uint32_t index, float cost) {
      return CostedNode{LanesOf(nodes[index]), nodes[index].Sum(), cost};
    };
    const Grandchildren grandchildren = {take(l.link, left.left), take(l.link + 1, left.right),
                                         take(r.link, right.left), take(r.link + 1, right.right)};
    const GroupBoxes boxes(grandchildren);
    const Arrangement* const best = boxes.Cheapest(grandchildren, unrotated);
    if (best != nullptr) Arrange(*best, grandchildren, boxes, l, r);
  }

  // Records move whole, so that pairs stay adjacent. A side that becomes one grandchild gives its pair of
  // places to the new inner node of the other side.
  void Arrange(const Arrangement& arrangement, const Grandchildren& grandchildren, const GroupBoxes& boxes,
               BinaryNode& l, BinaryNode& r) {
    const auto at = [&](int place) -> const CostedNode& {
      return grandchildren[At(arrangement.place, place)];
    };
    const NodeLanes first = ToNodeLanes(boxes.Of(arrangement.First())),
                    second = ToNodeLanes(boxes.Of(arrangement.Second()));
    const auto put = [&](bool isRight, const CostedNode& side) {
      Store(isRight ? r : l, side.lanes);
      (isRight ? rightCost : leftCost) = side.cost;
    };
    const std::uint32_t lPair = l.link, rPair = r.link;
    if (arrangement.shape == Shape::kTwoPairs) {
      put(false, PutPair(lPair, at(0), at(1), first));
      put(true, PutPair(rPair, at(2), at(3), second));
      return;
    }
    const bool isRight = arrangement.AloneIsRight();
    put(isRight, at(3));
    const CostedNode pair = PutPair(isRight ? rPair : lPair, at(0), at(1), first);
    const bool pairFirst = arrangement.shape == Shape::kPairFirst;
    put(!isRight,
        PutPair(isRight ? lPair : rPair, pairFirst ? pair : at(2), pairFirst ? at(2) : pair, second));
  }

  // A node whose children come to lie at `pair`.
  CostedNode PutPair(std::uint32_t pair, const CostedNode& first, const CostedNode& second,
                     NodeLanes box) const {
    Store(nodes[pair], first.lanes);
    Store(nodes[pair + 1], second.lanes);
    return MakeInner(pair, box, first.sum + second.sum, first.cost, second.cost);
  }
};

// Returns the cost.
float RefitLeaf(const Object& object, BinaryNode& n) {
  Box box;
  const std::uint32_t first = n.FirstReference(), sum = n.Sum();
  for (std::uint32_t i = first; i < first + sum; ++i) Grow(box, PrimitiveBox(object, object.references[i]));
  Store(n, WithWords(ToNodeLanes(box), n.link, n.size));
  return HalfArea(box) * static_cast<float>(sum);
}

// Refits the subtree of a node and then rotates it from its leaves to the node, each node once.
NodeCosts RotateSubtree(Object& object, std::uint32_t index) {
  BinaryNode& n = object.nodes[index];
  if (Stopping()) return {};
  if (n.IsLeaf()) {
    const float cost = RefitLeaf(object, n);
    return {cost, cost};
  }
  const std::uint32_t pair = n.link;
  const NodeCosts left = RotateSubtree(object, pair), right = RotateSubtree(object, pair + 1);
  return FinishNode(object.nodes.data(), n, pair, left, right);
}

// The same by tasks.
struct TreeRotator {
  Object& object;
  NodeCosts root = {};

  void Rotate(std::uint32_t index, UnfinishedNode* parent, std::uint32_t side) {
    const BinaryNode& n = object.nodes[index];
    if (n.IsLeaf() || n.Sum() <= kTaskSize) {
      FinishUpwards(object.nodes.data(), parent, side, RotateSubtree(object, index), root);
      return;
    }
    const std::uint32_t pair = n.link;
    auto* const unfinished = new UnfinishedNode{parent, side, index, pair, {}};
#pragma omp task default(none) firstprivate(unfinished, pair)
    Rotate(pair, unfinished, 0);
    Rotate(pair + 1, unfinished, 1);
  }
};

}  // namespace

NodeCosts FinishNode(BinaryNode* nodes, BinaryNode& n, std::uint32_t pair, const NodeCosts& left,
                     const NodeCosts& right) {
  const BinaryNode &l = nodes[pair], &r = nodes[pair + 1];
  const NodeLanes box = UnionOf(LanesOf(l), LanesOf(r));
  const std::uint32_t sum = l.Sum() + r.Sum();
  if (l.IsLeaf() && r.IsLeaf()) {  // nothing below to exchange
    const CostedNode made = MakeInner(pair, box, sum, left.cost, right.cost);
    Store(n, made.lanes);
    return {made.cost, made.cost, left.cost, right.cost};
  }
  NodeRotator rotator{nodes, HalfAreaOf(box) + left.unrotated + right.unrotated, left, right};
  rotator.Rotate(pair);
  const CostedNode made =
      MakeInner(pair, UnionOf(LanesOf(l), LanesOf(r)), sum, rotator.leftCost, rotator.rightCost);
  Store(n, made.lanes);
  return {rotator.unrotated, made.cost, rotator.leftCost, rotator.rightCost};
}

void FinishUpwards(BinaryNode* nodes, UnfinishedNode* parent, std::uint32_t side, NodeCosts costs,
                   NodeCosts& root) {
  while (parent != nullptr) {
    parent->costs[side] = costs;
    if (parent->missing.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const std::unique_ptr<UnfinishedNode> done(parent);
    costs = FinishNode(nodes, nodes[done->node], done->pair, done->costs[0], done->costs[1]);
    parent = done->parent;
    side = done->side;
  }
  root = costs;
}

void RotateTree(Object& object) {
  TreeRotator rotator{object};
#pragma omp parallel if (IsWorthThreads(object.nodes.size(), 100))
#pragma omp single
  rotator.Rotate(BinaryNode::kRoot, nullptr, 0);
  if (Stopping()) return;
  object.bounds = object.nodes[BinaryNode::kRoot].box;
  object.treeCost = static_cast<double>(rotator.root.cost);
}

}  // namespace zp
