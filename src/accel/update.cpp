// Update: refits and rotates the binary tree, and collapses it into eight-wide nodes.

#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "accel/accel.h"
#include "accel/tree.h"
#include "core/release.h"
#include "core/threads.h"
#include "geometry/geometry.h"

namespace zp {
namespace {

constexpr int kTaskDepth = 10;  // subtrees above this depth are shared among threads

struct TreeRotator {
  Object& object;
  std::vector<BinaryNode>& nodes;

  void Refit(BinaryNode& n) {
    n.box = Box{};
    if (n.count == 0 && n.sum > 0) {
      const BinaryNode &l = nodes[n.first], &r = nodes[n.first + 1];
      n.box = Union(l.box, r.box);
      n.cost = HalfArea(n.box) + l.cost + r.cost;
      n.sum = l.sum + r.sum;
    } else {
      for (std::uint32_t i = n.first; i < n.first + n.count; ++i)
        Grow(n.box, PrimitiveBox(object, object.references[i]));
      n.cost = HalfArea(n.box) * static_cast<float>(n.count);
      n.sum = n.count;
    }
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

  // An Object without primitives has an empty leaf as its root; no other node has nothing below it.
  static bool IsLeaf(const BinaryNode& n) { return n.count != 0 || n.sum == 0; }

  // Refits the subtree of n and then rotates it from its leaves to n, each node once. The cost that a
  // rotation at n has to beat is the one before any rotation below n; the result says it for the parent.
  float Walk(std::uint32_t index, int depth) {
    BinaryNode& n = nodes[index];
    if (IsLeaf(n)) {
      Refit(n);
      return n.cost;
    }
    float left = 0, right = 0;
    const std::uint32_t first = n.first;
    if (depth < kTaskDepth && n.sum > 4096) {
#pragma omp task shared(left) firstprivate(first, depth)
      left = Walk(first, depth + 1);
      right = Walk(first + 1, depth + 1);
#pragma omp taskwait
    } else {
      left = Walk(first, depth + 1);
      right = Walk(first + 1, depth + 1);
    }
    n.box = Union(nodes[first].box, nodes[first + 1].box);
    n.cost = HalfArea(n.box) + left + right;
    const float cost = n.cost;
    Rotate(n);
    return cost;
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
    BinaryNode &a = nodes[l.first], &b = nodes[l.first + 1], &c = nodes[r.first], &d = nodes[r.first + 1];
    const Box ab = Union(a.box, b.box), ac = Union(a.box, c.box), ad = Union(a.box, d.box);
    const Box bc = Union(b.box, c.box), bd = Union(b.box, d.box), cd = Union(c.box, d.box);
    const Box abc = Union(ab, c.box), abd = Union(ab, d.box), acd = Union(cd, a.box), bcd = Union(cd, b.box);
    const float base = HalfArea(Union(ab, cd)) + a.cost + b.cost + c.cost + d.cost;
    const float sAb = HalfArea(ab), sAc = HalfArea(ac), sAd = HalfArea(ad), sBc = HalfArea(bc);
    const float sBd = HalfArea(bd), sCd = HalfArea(cd);
    const float sAbc = HalfArea(abc), sAbd = HalfArea(abd), sAcd = HalfArea(acd), sBcd = HalfArea(bcd);
    const float candidates[15] = {n.cost,
                                  base + (sAc + sBd),
                                  base + (sAd + sBc),
                                  base + (sCd + sBcd),
                                  base + (sBd + sBcd),
                                  base + (sBc + sBcd),
                                  base + (sCd + sAcd),
                                  base + (sAd + sAcd),
                                  base + (sAc + sAcd),
                                  base + (sBd + sAbd),
                                  base + (sAd + sAbd),
                                  base + (sAb + sAbd),
                                  base + (sBc + sAbc),
                                  base + (sAc + sAbc),
                                  base + (sAb + sAbc)};
    int code = 0;
    for (int i = 1; i < 15; ++i)
      if (candidates[i] < candidates[code]) code = i;
    if (code == 0) return;

    // Places: L and R below n, p0 p1 below L, q0 q1 below R. Records move whole, so pairs stay adjacent.
    // 1 and 2 exchange grandchildren. The others make one side a single grandchild (moved up into L or R) and
    // give the other side's pair places to a new inner node and its sibling; the inner node's own pair of
    // places is the one that the vanished side had.
    const BinaryNode A = a, B = b, C = c, D = d;
    const std::uint32_t lPair = l.first, rPair = r.first;
    const auto makeInner = [&](BinaryNode& at, std::uint32_t pair, const BinaryNode& x, const BinaryNode& y,
                               const Box& box) {
      nodes[pair] = x;
      nodes[pair + 1] = y;
      at = BinaryNode{};
      at.first = pair;
      at.box = box;
      at.sum = x.sum + y.sum;
      RecomputeCost(at);
    };
    // ((x, y), z) in the order `innerFirst` tells, below the side `below`; the other side becomes `alone`.
    const auto chain = [&](BinaryNode& below, std::uint32_t belowPair, BinaryNode& aloneAt,
                           std::uint32_t freePair, const BinaryNode& alone, const BinaryNode& x,
                           const BinaryNode& y, const Box& pairBox, const BinaryNode& z, const Box& tripleBox,
                           bool innerFirst) {
      BinaryNode& innerAt = nodes[innerFirst ? belowPair : belowPair + 1];
      BinaryNode& zAt = nodes[innerFirst ? belowPair + 1 : belowPair];
      aloneAt = alone;
      makeInner(innerAt, freePair, x, y, pairBox);
      zAt = z;
      below = BinaryNode{};
      below.first = belowPair;
      below.box = tripleBox;
      below.sum = innerAt.sum + z.sum;
      RecomputeCost(below);
    };
    switch (code) {
      case 1:
        makeInner(l, lPair, A, C, ac);
        makeInner(r, rPair, B, D, bd);
        break;
      case 2:
        makeInner(l, lPair, A, D, ad);
        makeInner(r, rPair, C, B, bc);
        break;
      case 3:
        chain(l, lPair, r, rPair, A, C, D, cd, B, bcd, true);
        break;
      case 4:
        chain(l, lPair, r, rPair, A, B, D, bd, C, bcd, true);
        break;
      case 5:
        chain(l, lPair, r, rPair, A, C, B, bc, D, bcd, true);
        break;
      case 6:
        chain(l, lPair, r, rPair, B, C, D, cd, A, acd, false);
        break;
      case 7:
        chain(l, lPair, r, rPair, B, A, D, ad, C, acd, false);
        break;
      case 8:
        chain(l, lPair, r, rPair, B, C, A, ac, D, acd, false);
        break;
      case 9:
        chain(r, rPair, l, lPair, C, D, B, bd, A, abd, true);
        break;
      case 10:
        chain(r, rPair, l, lPair, C, A, D, ad, B, abd, true);
        break;
      case 11:
        chain(r, rPair, l, lPair, C, A, B, ab, D, abd, true);
        break;
      case 12:
        chain(r, rPair, l, lPair, D, B, C, bc, A, abc, true);
        break;
      case 13:
        chain(r, rPair, l, lPair, D, A, C, ac, B, abc, true);
        break;
      default:
        chain(r, rPair, l, lPair, D, A, B, ab, C, abc, false);
        break;
    }
  }
};

WideNode BlankWideNode() {
  WideNode node;
  for (int row = 0; row < 6; ++row)
    for (float& plane : node.boxes[row]) plane = row < 3 ? kFarthest : -kFarthest;
  for (int i = 0; i < 8; ++i) {
    node.child[i] = kUnusedSlot;
    node.count[i] = 0;
    node.log[i] = 0;
  }
  return node;
}

struct Collapser {
  Object& object;

  void AppendLeaves(std::uint32_t index) {
    const BinaryNode& n = object.nodes[index];
    if (TreeRotator::IsLeaf(n)) {
      const auto begin = object.references.begin() + n.first;
      object.compactReferences.insert(object.compactReferences.end(), begin, begin + n.count);
    } else {
      AppendLeaves(n.first);
      AppendLeaves(n.first + 1);
    }
  }

  void Collapse(std::uint32_t binary, std::uint32_t wide, int depth) {
    const std::vector<BinaryNode>& nodes = object.nodes;
    if (depth > object.wideDepth) object.wideDepth = depth;
    std::uint32_t list[8] = {binary};
    float areas[8] = {OpenArea(binary)};
    int size = 1;
    while (size < 8) {
      int largest = -1;
      for (int i = 0; i < size; ++i)
        if (areas[i] > (largest < 0 ? -1.0f : areas[largest])) largest = i;
      if (largest < 0) break;
      const std::uint32_t first = nodes[list[largest]].first;
      list[largest] = first;
      areas[largest] = OpenArea(first);
      list[size] = first + 1;
      areas[size++] = OpenArea(first + 1);
    }
    for (int i = 0; i < size; ++i) {
      const BinaryNode& n = nodes[list[i]];
      {
        WideNode& node = object.wideNodes[wide];
        for (int axis = 0; axis < 3; ++axis) {
          node.boxes[axis][i] = n.box.min[axis];
          node.boxes[axis + 3][i] = n.box.max[axis];
        }
      }
      const bool flat = n.sum < 2 || n.cost > static_cast<float>(n.sum) * HalfArea(n.box);
      if (TreeRotator::IsLeaf(n) || (flat && n.sum <= 65535)) {
        if (n.sum == 0) continue;  // the root of an Object without primitives: the slot stays unused
        object.wideNodes[wide].child[i] = static_cast<std::uint32_t>(object.compactReferences.size());
        object.wideNodes[wide].count[i] = static_cast<std::uint16_t>(n.sum);
        AppendLeaves(list[i]);
      } else {
        const auto child = static_cast<std::uint32_t>(object.wideNodes.size());
        object.wideNodes[wide].child[i] = child;
        object.wideNodes.push_back(BlankWideNode());
        Collapse(list[i], child, depth + 1);
      }
    }
  }

  // The area by which inner nodes are opened; leaves are not.
  float OpenArea(std::uint32_t index) const {
    const BinaryNode& n = object.nodes[index];
    return TreeRotator::IsLeaf(n) ? -1.0f : HalfArea(n.box);
  }
};

void MoveVertices(Part& part, int passes) {
  if (!part.motion || passes < 1) return;
  for (const auto& set : part.vectorSets) {
    if (set.name != "motion" || set.values.size() != part.positions.size()) continue;
#pragma omp parallel for schedule(static) if (IsWorthThreads(part.positions.size(), 3))
    for (std::size_t i = 0; i < part.positions.size(); ++i)
      part.positions[i] += set.values[i] / static_cast<float>(passes);
  }
}

}  // namespace

void Update(Object& object, bool force, int passes) {
  if (!force && !object.deformable) return;
  // Right after Build nothing has moved yet: the first pass sees vertices where the files put them.
  if (!force) {
    for (Part& part : object.parts) MoveVertices(part, passes);
    for (Instance& instance : object.instances)
      if (instance.object >= 0)
        FinishInstance(instance, objectTable[static_cast<std::size_t>(instance.object)].bounds);
  }
  TreeRotator rotator{object, object.nodes};
#pragma omp parallel if (IsWorthThreads(object.nodes.size(), 100))
#pragma omp single
  rotator.Walk(0, 0);
  object.bounds = object.nodes[0].box;
  object.treeCost = static_cast<double>(object.nodes[0].cost);

  Release(object.compactReferences);
  Release(object.wideNodes);
  object.compactReferences.reserve(object.references.size());
  object.wideNodes.reserve(object.references.size() / 6 + 1);
  object.wideDepth = 0;
  object.wideNodes.push_back(BlankWideNode());
  Collapser{object}.Collapse(0, 0, 0);
  object.wideNodes.shrink_to_fit();
  PackTree(object);
}

namespace {

struct OccluderTotals {
  float cost = 0;
  std::uint64_t hits = 0;
};

OccluderTotals OrderNode(Object& object, std::uint32_t index) {
  WideNode& node = object.wideNodes[index];
  PackedNode& packed = object.packed->nodes[index];
  OccluderTotals slots[8];
  OccluderTotals total;
  for (int i = 0; i < 8; ++i) {
    if (node.child[i] == kUnusedSlot) continue;
    if (node.count[i] != 0)
      slots[i] = {static_cast<float>(node.count[i]), node.log[i]};
    else
      slots[i] = OrderNode(object, node.child[i]);
    total.hits += slots[i].hits;
  }
  if (total.hits == 0) return total;
  float probability[8], ratio[8];
  for (int i = 0; i < 8; ++i) {
    probability[i] = static_cast<float>(slots[i].hits) / static_cast<float>(total.hits);
    ratio[i] = slots[i].cost > 0 ? probability[i] / slots[i].cost : 0.0f;
  }
  for (int i = 1; i < 8; ++i) {
    if (node.child[i] == kUnusedSlot) continue;
    for (int j = i; j > 0; --j) {
      if (!(ratio[j] > ratio[j - 1])) continue;
      for (auto& row : node.boxes) std::swap(row[j], row[j - 1]);
      std::swap(node.child[j], node.child[j - 1]);
      std::swap(node.count[j], node.count[j - 1]);
      std::swap(node.log[j], node.log[j - 1]);
      for (auto& row : packed.boxes) std::swap(row[j], row[j - 1]);
      std::swap(packed.child[j], packed.child[j - 1]);
      std::swap(packed.word[j], packed.word[j - 1]);
      std::swap(probability[j], probability[j - 1]);
      std::swap(slots[j], slots[j - 1]);
      std::swap(ratio[j], ratio[j - 1]);
    }
  }
  double expected = 0, reach = 1;
  for (int i = 0; i < 8; ++i) {
    if (node.child[i] == kUnusedSlot) continue;
    node.log[i] = std::bit_cast<std::uint32_t>(ratio[i]);
    expected += reach * 0.8 * static_cast<double>(slots[i].cost);
    reach *= 1.0 - static_cast<double>(probability[i]);
  }
  total.cost = static_cast<float>(1.0 + expected);
  return total;
}

}  // namespace

void OrderOccluders(Object& object) {
  if (object.wideNodes.empty() || object.packed == nullptr) return;
  OrderNode(object, 0);
}

void ClearOccluderLogs() {
  for (Object& object : objectTable)
    for (WideNode& node : object.wideNodes) std::memset(node.log, 0, sizeof node.log);
}

}  // namespace zp
