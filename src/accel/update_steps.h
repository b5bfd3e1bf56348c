// accel/update_steps.h: what Update is made of, in this order.

#pragma once

#include "geometry/object.h"

namespace zp {

// An Object without primitives has an empty leaf as its root; no other node has nothing below it.
inline bool IsLeaf(const BinaryNode& n) { return n.count != 0 || n.sum == 0; }

// The box and cost of an inner node whose children are finished, and the tree around it rotated. `leftCost`
// and `rightCost` are those of its children before any rotation at them or below, since that is what a
// rotation here has to beat in `n`; the result says it for the parent.
float FinishNode(BinaryNode* nodes, BinaryNode& n, float leftCost, float rightCost);
// Boxes, costs and sums of object.nodes from the primitives as they stand, and the tree rotated, each node
// once, leaves first. Sets the Object's bounds and tree cost.
void RotateTree(Object& object);

}  // namespace zp
