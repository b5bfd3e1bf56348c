// accel/update_steps.h: what Update is made of, in this order.

#pragma once

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
// Boxes and sums of object.nodes from the primitives as they stand, and the tree rotated, each node
// once, leaves first. Sets the Object's bounds and tree cost.
void RotateTree(Object& object);

}  // namespace zp
