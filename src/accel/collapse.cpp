// Collapses a binary tree into eight-wide nodes.

#include "accel/update_steps.h"
#include "core/release.h"

namespace zp {
namespace {

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
    if (IsLeaf(n)) {
      const auto begin = object.references.begin() + n.first;
      object.compactReferences.insert(object.compactReferences.end(), begin, begin + n.count);
    } else {
      AppendLeaves(n.first);
      AppendLeaves(n.first + 1);
    }
  }

  void Collapse(std::uint32_t binary, std::uint32_t wide, int depth) {
    const RawVector<BinaryNode>& nodes = object.nodes;
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
      if (IsLeaf(n) || (flat && n.sum <= 65535)) {
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
    return IsLeaf(n) ? -1.0f : HalfArea(n.box);
  }
};

}  // namespace

void CollapseTree(Object& object) {
  Release(object.compactReferences);
  Release(object.wideNodes);
  object.compactReferences.reserve(object.references.size());
  object.wideNodes.reserve(object.references.size() / 6 + 1);
  object.wideDepth = 0;
  object.wideNodes.push_back(BlankWideNode());
  Collapser{object}.Collapse(0, 0, 0);
  object.wideNodes.shrink_to_fit();
}

}  // namespace zp
