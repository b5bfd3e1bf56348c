// Collapses a binary tree into eight-wide nodes, in two steps: first threads find which binary nodes stand in
// the slots of the wide ones, subtree by subtree; once these are counted their places are known, and the wide
// nodes are written.

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "accel/update_steps.h"
#include "core/threads.h"

namespace zp {
namespace {

constexpr std::uint32_t kLeastPiece = 4096;  // primitives that are worth a list of their own
constexpr std::uint32_t kPieces = 64;        // or more, where the tree is large
constexpr std::uint32_t kFewInstances = 64;  // below a wide node, see OpenRank

// A wide node before it has a place.
struct Cut {
  std::array<std::uint32_t, 8> slots;  // binary nodes
  std::uint32_t firstReference;        // of all below
  std::uint32_t below = 1;             // wide nodes from it to the last of its subtree, which follows it
  std::uint8_t size = 0, leaves = 0;   // slots in use; bits of those that are leaves
};

// A subtree of the wide tree, or a node above subtrees. Pieces stand in the order of wide nodes: each before
// those below it, these in the order of its slots.
struct Piece {
  std::uint32_t binary, firstReference;
  int depth, deepest = 0;
  bool isSubtree = false;
  std::size_t end = 0;      // piece behind all below
  std::uint32_t place = 0;  // of its first wide node
  std::vector<Cut> cuts = {};
};

struct Collapser {
  Object& object;
  bool isOfInstances = 2 * object.instances.size() > object.nodes[0].sum;  // more than of others
  std::vector<Piece> pieces = {};

  // The inner node of which this is largest is opened next, by area or, of few Instances, the one that holds
  // the fewest: whole nodes of eight are left. By area there are many of two or three, half a node for each
  // Instance, which never share a leaf. Leaves are not opened.
  float OpenRank(std::uint32_t index, bool fewestFirst) const {
    const BinaryNode& n = object.nodes[index];
    if (IsLeaf(n)) return -1.0f;
    return fewestFirst ? 1.0f / static_cast<float>(n.sum) : HalfArea(n.box);
  }

  // Leaf references from left to right, to `next` and on.
  void CopyLeaves(std::uint32_t index, PrimitiveRef*& next) const {
    const BinaryNode& n = object.nodes[index];
    if (IsLeaf(n)) {
      next = std::copy_n(object.references.data() + n.first, n.count, next);
    } else {
      CopyLeaves(n.first, next);
      CopyLeaves(n.first + 1, next);
    }
  }

  Cut OpenNodes(std::uint32_t binary, std::uint32_t firstReference) const {
    Cut cut;
    cut.firstReference = firstReference;
    cut.slots[0] = binary;
    const bool fewestFirst = isOfInstances && object.nodes[binary].sum <= kFewInstances;
    float ranks[8] = {OpenRank(binary, fewestFirst)};
    std::uint32_t size = 1;
    while (size < 8) {
      int largest = -1;
      for (int i = 0; i < static_cast<int>(size); ++i)
        if (ranks[i] > (largest < 0 ? -1.0f : ranks[largest])) largest = i;
      if (largest < 0) break;
      std::uint32_t& slot = cut.slots[static_cast<std::size_t>(largest)];
      slot = object.nodes[slot].first;
      cut.slots[size] = slot + 1;
      ranks[largest] = OpenRank(slot, fewestFirst);
      ranks[size] = OpenRank(slot + 1, fewestFirst);
      ++size;
    }
    cut.size = static_cast<std::uint8_t>(size);
    return cut;
  }

  static bool IsWideLeaf(const BinaryNode& n) {
    const bool flat = n.sum < 2 || n.cost > static_cast<float>(n.sum) * HalfArea(n.box);
    return IsLeaf(n) || (flat && n.sum <= 65535);
  }

  // Calls `below` of the binary node and the first reference of each inner slot, and copies those of the
  // others.
  template <class Below>
  std::uint8_t FillSlots(const Cut& cut, Below below) const {
    std::uint8_t leaves = 0;
    std::uint32_t reference = cut.firstReference;
    for (std::uint32_t i = 0; i < cut.size; ++i) {
      const BinaryNode& n = object.nodes[cut.slots[i]];
      if (IsWideLeaf(n)) {
        leaves = static_cast<std::uint8_t>(leaves | 1U << i);
        PrimitiveRef* next = object.compactReferences.data() + reference;
        CopyLeaves(cut.slots[i], next);
      } else {
        below(cut.slots[i], reference);
      }
      reference += n.sum;
    }
    return leaves;
  }

  // The pieces of a binary node's subtree, of at most so many primitives each.
  void Divide(std::uint32_t binary, std::uint32_t firstReference, int depth, std::uint32_t most) {
    const std::size_t place = pieces.size();
    pieces.push_back({binary, firstReference, depth, depth});
    if (object.nodes[binary].sum <= most) {
      pieces[place].isSubtree = true;
    } else {
      Cut cut = OpenNodes(binary, firstReference);
      cut.leaves = FillSlots(cut, [&](std::uint32_t slot, std::uint32_t reference) {
        Divide(slot, reference, depth + 1, most);
      });
      pieces[place].cuts = {cut};
    }
    pieces[place].end = pieces.size();
  }

  void Collapse(Piece& piece, std::uint32_t binary, std::uint32_t firstReference, int depth) const {
    const std::size_t place = piece.cuts.size();
    piece.deepest = std::max(piece.deepest, depth);
    const Cut cut = OpenNodes(binary, firstReference);
    piece.cuts.push_back(cut);
    const std::uint8_t leaves = FillSlots(cut, [&](std::uint32_t slot, std::uint32_t reference) {
      Collapse(piece, slot, reference, depth + 1);
    });
    piece.cuts[place].leaves = leaves;
    piece.cuts[place].below = static_cast<std::uint32_t>(piece.cuts.size() - place);
  }

  // `nextChild()` is the place of the next wide node below.
  template <class NextChild>
  void WriteNode(const Cut& cut, WideNode& node, NextChild nextChild) const {
    std::uint32_t reference = cut.firstReference;
    for (std::uint32_t i = 0; i < 8; ++i) {
      const BinaryNode blank;
      const BinaryNode& n = i < cut.size ? object.nodes[cut.slots[i]] : blank;
      for (int axis = 0; axis < 3; ++axis) {
        node.boxes[axis][i] = n.box.min[axis];
        node.boxes[axis + 3][i] = n.box.max[axis];
      }
      const bool leaf = (cut.leaves >> i & 1U) != 0;
      node.count[i] = static_cast<std::uint16_t>(leaf ? n.sum : 0);
      node.child[i] = n.sum == 0 ? kUnusedSlot : leaf ? reference : nextChild();
      node.log[i] = 0;
      reference += n.sum;
    }
  }

  void Write(const Piece& piece, std::size_t number) const {
    std::size_t pieceBelow = number + 1;
    const auto nextPiece = [&] { return pieces[std::exchange(pieceBelow, pieces[pieceBelow].end)].place; };
    for (std::uint32_t i = 0; i < piece.cuts.size(); ++i) {
      std::uint32_t below = i + 1;
      const auto nextCut = [&] {
        return piece.place + std::exchange(below, below + piece.cuts[below].below);
      };
      WideNode& node = object.wideNodes[piece.place + i];
      if (piece.isSubtree)
        WriteNode(piece.cuts[i], node, nextCut);
      else
        WriteNode(piece.cuts[i], node, nextPiece);
    }
  }
};

}  // namespace

void CollapseTree(Object& object) {
  const std::uint32_t total = object.nodes[0].sum;
  object.compactReferences.resize(total);
  Collapser collapser{object};
  std::vector<Piece>& pieces = collapser.pieces;
  collapser.Divide(0, 0, 0, std::max(kLeastPiece, total / kPieces));
#pragma omp parallel for schedule(dynamic, 1) if (IsWorthThreads(total, 20))
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    Piece& piece = pieces[i];
    if (piece.isSubtree) collapser.Collapse(piece, piece.binary, piece.firstReference, piece.depth);
  }
  std::uint32_t places = 0;
  object.wideDepth = 0;
  for (Piece& piece : pieces) {
    piece.place = places;
    places += static_cast<std::uint32_t>(piece.cuts.size());
    object.wideDepth = std::max(object.wideDepth, piece.deepest);
  }
  object.wideNodes.clear();  // nothing to copy where it grows
  object.wideNodes.resize(places);
#pragma omp parallel for schedule(dynamic, 1) if (IsWorthThreads(total, 20))
  for (std::size_t i = 0; i < pieces.size(); ++i) collapser.Write(pieces[i], i);
}

}  // namespace zp
