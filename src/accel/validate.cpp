// The invariants of the three forms of a tree: binary, wide and packed.

#include "core/validate.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "accel/accel.h"
#include "accel/tree.h"
#include "accel/update_steps.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"

namespace zp {
namespace {

bool SameBits(Vec3 a, const float (&rows)[3][kBlockLanes], std::uint32_t lane) {
  const Vec3 b = {rows[0][lane], rows[1][lane], rows[2][lane]};
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Whether the lane holds the triangle as its Part does.
bool IsFaithful(const TriangleBlock& block, std::uint32_t lane, const Part& part) {
  const Triangle& triangle = part.triangles[block.primitive[lane]];
  const Vec3 p0 = part.positions[triangle.vertex[0]];
  return block.shader[lane] == triangle.shader && SameBits(p0, block.p0, lane) &&
         SameBits(part.positions[triangle.vertex[1]] - p0, block.e1, lane) &&
         SameBits(part.positions[triangle.vertex[2]] - p0, block.e2, lane);
}

bool ComesFirst(const PrimitiveRef& a, const PrimitiveRef& b) {
  if (a.part != b.part) return a.part < b.part;
  return a.kind != b.kind ? a.kind < b.kind : a.index < b.index;
}

struct TreeCheck {
  const Object& object;
  Fault fault = {};

  // Every primitive and Instance once.
  bool CheckReferences(RawVector<PrimitiveRef> references) {
    std::size_t total = object.instances.size();
    for (const Part& part : object.parts)
      for (std::uint16_t kind = kKindParticle; kind <= kKindTetragon; ++kind)
        total += PrimitiveCount(part, kind);
    if (!fault.Require(references.size() == total, "references' number", references.size())) return false;
    for (std::size_t i = 0; i < total; ++i)
      if (!fault.Require(Holds(object, references[i]), "reference", i)) return false;
    std::sort(references.begin(), references.end(), ComesFirst);
    const auto twice = std::adjacent_find(references.begin(), references.end());
    return fault.Require(twice == references.end(), "reference that stands twice",
                         twice == references.end() ? 0 : twice->index);
  }

  void CheckBinaryLeaf(std::size_t n) {
    const BinaryNode& node = object.nodes[n];
    const std::uint32_t first = node.FirstReference();
    if (!fault.Require(std::uint64_t{first} + node.Sum() <= object.references.size(),
                       "binary leaf's references", n))
      return;
    for (std::uint32_t i = first; i < first + node.Sum(); ++i)
      fault.Require(Contains(node.box, PrimitiveBox(object, object.references[i])), "binary leaf's box", n);
  }

  // Nodes that are released are sound.
  void CheckBinary() {
    if (object.nodes.empty() || !CheckReferences(object.references)) return;
    std::vector<bool> met(object.nodes.size());
    std::vector<std::uint32_t> open = {BinaryNode::kRoot};  // not every place of the array is in use
    while (!open.empty()) {
      const std::uint32_t n = open.back();
      open.pop_back();
      const BinaryNode& node = object.nodes[n];
      if (node.IsLeaf()) {
        CheckBinaryLeaf(n);
        continue;
      }
      if (!fault.Require(node.link + std::size_t{1} < object.nodes.size(), "binary node's children", n))
        return;
      const BinaryNode &left = object.nodes[node.link], &right = object.nodes[node.link + 1];
      fault.Require(Contains(node.box, left.box) && Contains(node.box, right.box), "binary node's box", n);
      fault.Require(node.Sum() == left.Sum() + right.Sum(), "binary node's sum", n);
      if (!fault.Require(!met[node.link], "binary node with two parents", node.link)) return;
      met[node.link] = true;
      open.insert(open.end(), {node.link, node.link + 1});
    }
    fault.Require(object.nodes[BinaryNode::kRoot].Sum() == object.references.size(), "binary root's sum");
  }

  // Marks the references of a leaf.
  bool CheckWideLeaf(const WideNode& node, int i, std::vector<bool>& met, std::size_t n) {
    const std::size_t first = node.child[i], end = first + node.count[i];
    if (!fault.Require(end <= object.compactReferences.size(), "wide leaf's references", n)) return false;
    for (std::size_t k = first; k < end; ++k) {
      fault.Require(!met[k], "reference in two wide leaves", k);
      met[k] = true;
    }
    return true;
  }

  // Children stand behind their only parent, so that nothing is walked twice or for ever.
  bool CheckWide() {
    if (!CheckReferences(object.compactReferences)) return false;
    if (!fault.Require(!object.wideNodes.empty(), "wide root")) return false;
    if (!fault.Require(object.packed != nullptr, "packed tree")) return false;
    std::vector<std::int32_t> depths(object.wideNodes.size(), -1);
    std::vector<bool> met(object.compactReferences.size());
    depths[0] = 0;
    std::int32_t deepest = 0;
    for (std::size_t n = 0; n < object.wideNodes.size(); ++n) {
      const WideNode& node = object.wideNodes[n];
      if (!fault.Require(depths[n] >= 0, "wide node without a parent", n)) return false;
      deepest = std::max(deepest, depths[n]);
      for (int i = 0; i < 8; ++i) {
        const std::size_t child = node.child[i];
        if (child == kUnusedSlot) continue;
        if (node.count[i] != 0) {
          if (!CheckWideLeaf(node, i, met, n)) return false;
          continue;
        }
        if (!fault.Require(child > n && child < depths.size() && depths[child] < 0, "wide node's child", n))
          return false;
        depths[child] = depths[n] + 1;
      }
    }
    const auto missed = std::find(met.begin(), met.end(), false);
    fault.Require(missed == met.end(), "reference in no wide leaf", missed - met.begin());
    return fault.Require(object.wideDepth == deepest, "wide tree's depth", deepest);
  }

  // What is below a slot that is in use.
  std::vector<PrimitiveRef> Below(std::uint32_t wide, int slot) const {
    const WideNode& node = object.wideNodes[wide];
    const std::uint32_t child = node.child[slot];
    if (node.count[slot] != 0) {
      const auto first = object.compactReferences.begin() + child;
      return {first, first + node.count[slot]};
    }
    std::vector<PrimitiveRef> all;
    for (int i = 0; i < 8; ++i) {
      if (object.wideNodes[child].child[i] == kUnusedSlot) continue;
      const std::vector<PrimitiveRef> some = Below(child, i);
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }

  // The lanes of a packed leaf hold what is below its slot in the wide tree, no more and no less.
  void CheckLanes(const PackedTree& tree, std::uint32_t n, int i, std::vector<PrimitiveRef> expected) {
    const std::uint32_t word = tree.nodes[n].word[i], first = tree.nodes[n].child[i];
    const std::uint32_t flag = word & kPackedLeaf;
    std::vector<PrimitiveRef> found;
    for (std::uint32_t lane = first; lane < first + (word & kLeafCount); ++lane) {
      found.push_back(LaneReference(tree, flag, lane));
      if (!fault.Require(Holds(object, found.back()), "packed lane", lane)) return;
      if (flag == kTriangleLeaf)
        fault.Require(
            IsFaithful(tree.blocks[lane / kBlockLanes], lane % kBlockLanes, object.parts[found.back().part]),
            "packed triangle", lane);
    }
    std::sort(expected.begin(), expected.end(), ComesFirst);
    std::sort(found.begin(), found.end(), ComesFirst);
    fault.Require(found == expected, "packed leaf", n);
  }

  // False if what is below cannot be looked at.
  bool CheckInner(const PackedTree& tree, std::uint32_t n, int i) {
    const std::uint32_t below = tree.nodes[n].child[i];
    const WideNode& wide = object.wideNodes[tree.wide[n]];
    if (!fault.Require(below > n && below < tree.nodes.size() && tree.wide[below] == wide.child[i],
                       "packed child", n))
      return false;
    for (int k = 0; k < 8; ++k)
      fault.Require(object.wideNodes[tree.wide[below]].child[k] == kUnusedSlot ||
                        Contains(SlotBox(tree.nodes[n], i), SlotBox(tree.nodes[below], k)),
                    "packed node's box", n);
    return true;
  }

  void CheckLeaf(const PackedTree& tree, std::uint32_t n, int i) {
    const WideNode& wide = object.wideNodes[tree.wide[n]];
    const std::vector<PrimitiveRef> below = Below(tree.wide[n], i);
    for (const PrimitiveRef& reference : below)
      fault.Require(Contains(SlotBox(tree.nodes[n], i), PrimitiveBox(object, reference)), "packed leaf's box",
                    n);
    if (tree.nodes[n].word[i] != (kLeaf | wide.count[i]))
      CheckLanes(tree, n, i, below);
    else
      fault.Require(tree.nodes[n].child[i] == wide.child[i], "packed leaf's references", n);
  }

  // Needs a sound wide tree.
  void CheckPacked() {
    const PackedTree& tree = *object.packed;
    fault.Require(tree.stackSize > 7 * (object.wideDepth + 1) && tree.stackSize <= kMostStackEntries,
                  "packed tree's stack", tree.stackSize);
    if (!fault.Require(tree.nodes.size() != 0 && tree.wide.size() == tree.nodes.size() && tree.wide[0] == 0,
                       "packed root", tree.nodes.size()))
      return;
    std::size_t links = 1;
    for (std::uint32_t n = 0; n < tree.nodes.size(); ++n)
      for (int i = 0; i < 8; ++i) {
        const std::uint32_t word = tree.nodes[n].word[i];
        if (object.wideNodes[tree.wide[n]].child[i] == kUnusedSlot) {
          fault.Require(word == kLeaf, "packed slot not in use", n);
        } else if (word != 0) {
          CheckLeaf(tree, n, i);
        } else {
          if (!CheckInner(tree, n, i)) return;
          ++links;
        }
      }
    fault.Require(links == tree.nodes.size(), "packed nodes without a parent", links);
  }
};

}  // namespace

std::string ValidateTree(const Object& object) {
  TreeCheck check{object};
  check.CheckBinary();
  if (check.CheckWide()) check.CheckPacked();
  return check.fault.text;
}

}  // namespace zp
