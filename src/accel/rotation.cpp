// Refits a binary tree and makes it cheaper by local rotations.
//
// Kensler, "Tree Rotations for Improving Bounding Volume Hierarchies", 2008, with all arrangements of four
// grandchildren.

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

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

// The boxes of all groups.
struct GroupBoxes {
  Box of[kGroupCount];

  GroupBoxes(const Box& boxA, const Box& boxB, const Box& boxC, const Box& boxD)
      : of{Union(boxA, boxB),
           Union(boxA, boxC),
           Union(boxA, boxD),
           Union(boxB, boxC),
           Union(boxB, boxD),
           Union(boxC, boxD),
           {},
           {},
           {},
           {}} {
    of[bcd] = Union(of[cd], boxB);
    of[acd] = Union(of[cd], boxA);
    of[abd] = Union(of[ab], boxD);
    of[abc] = Union(of[ab], boxC);
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
    const auto& g = grandchildren;
    const GroupBoxes boxes(g[a].box, g[b].box, g[c].box, g[d].box);
    float areas[kGroupCount];
    for (int i = 0; i < kGroupCount; ++i) areas[i] = HalfArea(boxes.of[i]);
    const float base =
        HalfArea(Union(boxes.of[ab], boxes.of[cd])) + g[a].cost + g[b].cost + g[c].cost + g[d].cost;
    float least = n.cost;
    const Arrangement* best = nullptr;
    for (const Arrangement& arrangement : kArrangements) {
      const float cost = base + (areas[arrangement.First()] + areas[arrangement.Second()]);
      if (!(cost < least)) continue;
      least = cost;
      best = &arrangement;
    }
    if (best != nullptr) Arrange(*best, grandchildren, boxes, l, r);
  }

  // Records move whole, so that pairs stay adjacent. A side that becomes one grandchild gives its pair of
  // places to the new inner node of the other side.
  void Arrange(const Arrangement& arrangement, const std::array<BinaryNode, 4>& grandchildren,
               const GroupBoxes& boxes, BinaryNode& l, BinaryNode& r) {
    const auto at = [&](int place) -> const BinaryNode& {
      return grandchildren[At(arrangement.place, place)];
    };
    const Box &first = boxes.of[arrangement.First()], &second = boxes.of[arrangement.Second()];
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
