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

Box SlotBox(const PackedNode& node, int i) {
  return {{node.boxes[0][i], node.boxes[1][i], node.boxes[2][i]},
          {node.boxes[3][i], node.boxes[4][i], node.boxes[5][i]}};
}

// What a packed lane says that it holds; no kind if there is no such lane.
PrimitiveRef LaneReference(const PackedTree& tree, std::uint32_t flag, std::uint32_t lane) {
  if (flag == kTriangleLeaf && lane / kBlockLanes < tree.blocks.size()) {
    const TriangleBlock& block = tree.blocks[lane / kBlockLanes];
    return {block.part[lane % kBlockLanes], kKindTriangle, block.primitive[lane % kBlockLanes]};
  }
  if (flag == kParticleLeaf && lane / kParticleLanes < tree.particles.size()) {
    const ParticleBlock& block = tree.particles[lane / kParticleLanes];
    return {block.part[lane % kParticleLanes], kKindParticle, block.primitive[lane % kParticleLanes]};
  }
  if (flag == kTetragonLeaf && lane / kTetragonLanes < tree.tetragons.size()) {
    const TetragonBlock& block = tree.tetragons[lane / kTetragonLanes];
    return {block.part[lane % kTetragonLanes], kKindTetragon, block.primitive[lane % kTetragonLanes]};
  }
  if (flag == kCylinderLeaf && lane < tree.segments.size())
    return {tree.segments[lane].part, kKindCylinder, tree.segments[lane].primitive};
  return {};
}

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
      fault.Require(
          Contains(SlotBox(object.packed->nodes[n], i), PrimitiveBox(object, object.compactReferences[k])),
          "wide leaf's box", n);
    }
    return true;
  }

  // Children stand behind their only parent, so that nothing is walked twice or for ever.
  bool CheckWide() {
    if (!CheckReferences(object.compactReferences)) return false;
    if (!fault.Require(!object.wideNodes.empty(), "wide root")) return false;
    if (!fault.Require(object.packed != nullptr, "packed tree")) return false;
    const std::size_t boxes = object.packed->nodes.size();
    if (!fault.Require(boxes == object.wideNodes.size(), "packed nodes", boxes)) return false;
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
        for (int k = 0; k < 8; ++k)
          fault.Require(
              object.wideNodes[child].child[k] == kUnusedSlot ||
                  Contains(SlotBox(object.packed->nodes[n], i), SlotBox(object.packed->nodes[child], k)),
              "wide node's box", n);
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
  void CheckLanes(const PackedTree& tree, std::uint32_t n, int i) {
    const std::uint32_t word = tree.nodes[n].word[i], first = tree.nodes[n].child[i];
    const std::uint32_t flag = word & kPackedLeaf;
    std::vector<PrimitiveRef> expected = Below(n, i), found;
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

  void CheckSlot(const PackedTree& tree, std::uint32_t n, int i) {
    const WideNode& wide = object.wideNodes[n];
    const std::uint32_t word = tree.nodes[n].word[i];
    if (wide.child[i] == kUnusedSlot)
      fault.Require(word == kLeaf, "packed slot not in use", n);
    else if ((word & kLeaf) != 0 && word != (kLeaf | wide.count[i]))
      CheckLanes(tree, n, i);
    else
      fault.Require((word != 0) == (wide.count[i] != 0) && tree.nodes[n].child[i] == wide.child[i],
                    "packed child", n);
  }

  // Needs a sound wide tree.
  void CheckPacked() {
    const PackedTree& tree = *object.packed;
    fault.Require(tree.stackSize > 7 * (object.wideDepth + 1) && tree.stackSize <= kMostStackEntries,
                  "packed tree's stack", tree.stackSize);
    for (std::uint32_t n = 0; n < tree.nodes.size(); ++n)
      for (int i = 0; i < 8; ++i) CheckSlot(tree, n, i);
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
