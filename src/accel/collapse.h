// accel/collapse.h: the way from the binary tree to those that rays ask, in steps, so that arrays can be
// given up before the next ones come.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "accel/tree.h"

namespace zp {

// A number for each packed kind.
using KindCounts = std::array<std::uint32_t, kPackedKindCount>;
// Stands for what is of no packed kind, or of several.
inline constexpr std::uint8_t kMixed = kPackedKindCount;

// A subtree of the wide tree, or a node above subtrees. Pieces stand in the order of wide nodes: each before
// those below it, these in the order of its slots.
struct Piece {
  std::uint32_t binary, firstReference;
  int depth, deepest = 0;
  bool isSubtree = false;
  std::size_t end = 0;                        // piece behind all below
  std::uint32_t firstNode = 0, nodes = 0;     // wide ones
  std::uint32_t firstWalked = 0, walked = 0;  // packed ones
  std::uint32_t word = 0;                     // of the packed slot that leads to it
  KindCounts firstLane = {};                  // a whole number of blocks
  KindCounts lanes = {};                      // in it
};

struct CollapsedTree {
  std::vector<Piece> pieces;
  KindCounts lanes = {};
};

// object.compactReferences, object.wideNodes and the packed tree without its lanes, from object.nodes and
// object.references.
CollapsedTree CollapseTree(Object& object);
// The rest of the packed tree; the binary one is no longer needed.
void FillLanes(Object& object, const CollapsedTree& tree);

}  // namespace zp
