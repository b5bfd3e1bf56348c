// accel/update_steps.h: what Update is made of, in this order.

#pragma once

#include <atomic>
#include <cstdint>

#include "geometry/object.h"

namespace zp {

// Surface-area costs of a finished subtree. A parent needs them once, to rotate, and no node keeps them.
struct NodeCosts {
  float unrotated;  // before any rotation at its node or below, since that is what a rotation has to beat
  float cost;       // as it stands
  float left = 0, right = 0;  // of its children as they stand, if it is an inner node
};

// Makes the inner node of two finished children, which stand at `pair`, and rotates the tree around it.
NodeCosts FinishNode(BinaryNode* nodes, BinaryNode& n, std::uint32_t pair, const NodeCosts& left,
                     const NodeCosts& right);
// An inner node whose children are at work, each as a task. Whoever finishes the second of them finishes the
// node, and so on upwards: no thread waits, while there are other tasks, for one that another has taken.
struct UnfinishedNode {
  UnfinishedNode* parent;  // null above the root
  std::uint32_t side;      // of the parent that this is
  std::uint32_t node, pair;
  NodeCosts costs[2];  // of the children
  std::atomic<int> missing{2};
};
// Called once for each child of `parent`, as it is finished. Deletes those that are finished, and sets `root`
// with the root.
void FinishUpwards(BinaryNode* nodes, UnfinishedNode* parent, std::uint32_t side, NodeCosts costs,
                   NodeCosts& root);
// Boxes and sums of object.nodes from the primitives as they stand, and the tree rotated, each node
// once, leaves first. Sets the Object's bounds and tree cost.
void RotateTree(Object& object);

}  // namespace zp
