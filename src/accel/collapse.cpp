// Collapses a binary tree into eight-wide nodes: first threads find which binary nodes stand in the slots of
// the wide ones, subtree by subtree; once these are counted their places are known, and the wide nodes are
// written.

#include "accel/collapse.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "accel/update_steps.h"
#include "core/float8.h"
#include "core/settings.h"
#include "core/threads.h"

namespace zp {
namespace {

constexpr std::uint32_t kMostOfPiece = 4096;  // primitives
constexpr std::uint32_t kFewInstances = 64;   // below a wide node, see OpenRank

// A wide node before it has a place.
struct Cut {
  std::array<std::uint32_t, 8> slots;  // binary nodes
  std::uint32_t firstReference;        // of all below
  std::uint32_t below = 1;             // wide nodes from it to the last of its subtree, which follows it
  std::uint32_t walked = 0;            // nodes before it in its piece that are not merged
  // Lanes before those of its own leaves, and of the nodes merged into it, in its piece.
  KindCounts firstLane;
  std::array<std::uint8_t, 8> kinds;  // that all in a leaf slot are of; kMixed in an inner one
  std::uint8_t size = 0, leaves = 0;  // slots in use; bits of those that are leaves
  std::uint8_t merged = kMixed;       // the kind of all below if walks see them as one leaf
  std::uint8_t count = 0;             // of all below, if so
};

std::uint8_t PackedKindOf(const PrimitiveRef& reference) {
  std::uint8_t k = 0;
  while (k < kMixed && kPackedKinds[k].kind != reference.kind) ++k;
  return k;
}

struct Collapser {
  Object& object;
  bool isOfInstances = 2 * object.instances.size() >
                       object.nodes[BinaryNode::kRoot].Sum();  // more than of others

  // The inner node of which this is largest is opened next, by area or, of few Instances, the one that holds
  // the fewest: whole nodes of eight are left. By area there are many of two or three, half a node for each
  // Instance, which never share a leaf. Leaves are not opened.
  float OpenRank(std::uint32_t index, bool fewestFirst) const {
    const BinaryNode& n = object.nodes[index];
    if (n.IsLeaf()) {
      Prefetch(object.references.data() + n.FirstReference());
      return -1.0f;
    }
    Prefetch(object.nodes.data() + n.link);
    return fewestFirst ? 1.0f / static_cast<float>(n.Sum()) : HalfArea(n.box);
  }

  // Leaf references from left to right, to `next` and on. Returns the packed kind of all, given `kind`, that
  // of those before.
  std::uint8_t CopyLeaves(std::uint32_t index, PrimitiveRef*& next, std::uint8_t kind) const {
    const BinaryNode& n = object.nodes[index];
    if (!n.IsLeaf()) return CopyLeaves(n.link + 1, next, CopyLeaves(n.link, next, kind));
    const PrimitiveRef* const first = object.references.data() + n.FirstReference();
    for (const PrimitiveRef* from = first; from != first + n.Sum(); ++from) {
      if (kind != kMixed && kPackedKinds[kind].kind != from->kind) kind = kMixed;
      *next++ = *from;
    }
    return kind;
  }

  Cut OpenNodes(std::uint32_t binary, std::uint32_t firstReference) const {
    Cut cut;
    cut.firstReference = firstReference;
    cut.slots[0] = binary;
    const bool fewestFirst = isOfInstances && object.nodes[binary].Sum() <= kFewInstances;
    float ranks[8] = {OpenRank(binary, fewestFirst)};
    std::uint32_t size = 1;
    while (size < 8) {
      int largest = -1;
      for (int i = 0; i < static_cast<int>(size); ++i)
        if (ranks[i] > (largest < 0 ? -1.0f : ranks[largest])) largest = i;
      if (largest < 0) break;
      std::uint32_t& slot = cut.slots[static_cast<std::size_t>(largest)];
      slot = object.nodes[slot].link;
      cut.slots[size] = slot + 1;
      ranks[largest] = OpenRank(slot, fewestFirst);
      ranks[size] = OpenRank(slot + 1, fewestFirst);
      ++size;
    }
    cut.size = static_cast<std::uint8_t>(size);
    return cut;
  }

  // Calls `below` of the binary node and the first reference of each inner slot, and copies those of the
  // others. `below` and this return the packed kind of all.
  template <class Below>
  std::uint8_t FillSlots(Cut& cut, Below below) const {
    std::uint32_t reference = cut.firstReference;
    cut.firstLane = {};  // at first, lanes of its own leaves
    std::uint8_t all = kMixed;
    for (std::uint32_t i = 0; i < cut.size; ++i) {
      const BinaryNode& n = object.nodes[cut.slots[i]];
      const std::uint32_t sum = n.Sum();
      std::uint8_t kind = kMixed;
      cut.kinds[i] = kMixed;
      if (n.IsWideLeaf()) {
        cut.leaves = static_cast<std::uint8_t>(cut.leaves | 1U << i);
        PrimitiveRef* next = object.compactReferences.data() + reference;
        if (sum != 0) kind = CopyLeaves(cut.slots[i], next, FirstKind(cut.slots[i]));
        cut.kinds[i] = kind;
        if (kind != kMixed) cut.firstLane[kind] += sum;
      } else {
        kind = below(cut.slots[i], reference);
      }
      all = i == 0 || all == kind ? kind : kMixed;
      reference += sum;
    }
    return all;
  }

  // The packed kind of a node's first reference.
  std::uint8_t FirstKind(std::uint32_t index) const {
    while (!object.nodes[index].IsLeaf()) index = object.nodes[index].link;
    return PackedKindOf(object.references[object.nodes[index].FirstReference()]);
  }

  // Returns the packed kind of all below.
  std::uint8_t Collapse(std::uint32_t binary, std::uint32_t firstReference, int depth, int& deepest,
                        std::vector<Cut>& cuts) const {
    const std::size_t place = cuts.size();
    deepest = std::max(deepest, depth);
    Cut cut = OpenNodes(binary, firstReference);
    cuts.push_back(cut);
    const std::uint8_t kind = FillSlots(cut, [&](std::uint32_t slot, std::uint32_t reference) {
      return Collapse(slot, reference, depth + 1, deepest, cuts);
    });
    cut.below = static_cast<std::uint32_t>(cuts.size() - place);
    const std::uint32_t sum = object.nodes[binary].Sum();
    if (binary != BinaryNode::kRoot && kind != kMixed && sum <= kPackedKinds[kind].most) {
      cut.merged = kind;
      cut.count = static_cast<std::uint8_t>(sum);
    }
    cuts[place] = cut;
    return kind;
  }

  // Children stand behind their parents, each subtree in a row, so that a merged one's lanes are in a row
  // too.
  static void PlaceCuts(std::vector<Cut>& cuts, Piece& piece) {
    KindCounts& lanes = piece.lanes;
    KindCounts inside = {};  // first lane behind the merged subtree that a node is in
    for (Cut& cut : cuts) {
      cut.walked = piece.walked;
      piece.walked += cut.merged == kMixed;
      const std::uint8_t kind = cut.merged;
      if (kind != kMixed && lanes[kind] >= inside[kind]) {
        // It takes no more blocks than its count needs.
        const std::uint32_t blockLanes = kPackedKinds[kind].blockLanes, place = lanes[kind] % blockLanes;
        if (BlocksFor(kind, place + cut.count) > BlocksFor(kind, cut.count))
          lanes[kind] += blockLanes - place;
        inside[kind] = lanes[kind] + cut.count;
      }
      const KindCounts own = std::exchange(cut.firstLane, lanes);
      for (std::size_t k = 0; k < kPackedKindCount; ++k) lanes[k] += own[k];
    }
    piece.nodes = static_cast<std::uint32_t>(cuts.size());
  }
};

// A packed slot that leads to a wide node.
struct Link {
  std::uint32_t child, word;
  Link(const Piece& piece, const Cut& cut) : child(piece.firstWalked + cut.walked), word(0) {
    if (cut.merged == kMixed) return;
    child = piece.firstLane[cut.merged] + cut.firstLane[cut.merged];
    word = kLeaf | kPackedKinds[cut.merged].flag | cut.count;
  }
};

// Writes the nodes of a collapsed tree.
struct NodeWriter {
  Object& object;

  void WriteBoxes(const Cut& cut, PackedNode& node) const {
    static constexpr BinaryNode kBlank;
    Float8 boxes[8];  // with what follows them in their nodes
    for (std::uint32_t i = 0; i < 8; ++i)
      boxes[i] = Float8::Load(&(i < cut.size ? object.nodes[cut.slots[i]] : kBlank).box.min.x);
    Float8 low[4], high[4];
    for (int i = 0; i < 4; ++i) {
      low[i] = LowHalves(boxes[i], boxes[i + 4]);
      high[i] = HighHalves(boxes[i], boxes[i + 4]);
    }
    TransposeHalves(low[0], low[1], low[2], low[3]);
    TransposeHalves(high[0], high[1], high[2], high[3]);
    for (int i = 0; i < 4; ++i) low[i].StoreAligned(node.boxes[i]);
    for (int i = 0; i < 2; ++i) high[i].StoreAligned(node.boxes[4 + i]);
  }

  // `nextChild()` is the next wide node below.
  template <class NextChild>
  void WriteWide(const Cut& cut, std::uint32_t place, NextChild nextChild) const {
    WideNode& wide = object.wideNodes[place];
    std::uint32_t reference = cut.firstReference;
    for (std::uint32_t i = 0; i < 8; ++i) {
      const std::uint32_t sum = i < cut.size ? object.nodes[cut.slots[i]].Sum() : 0;
      const bool isLeaf = (cut.leaves >> i & 1U) != 0;
      wide.log[i] = 0;
      wide.count[i] = static_cast<std::uint16_t>(isLeaf ? sum : 0);
      wide.child[i] = sum == 0 ? kUnusedSlot : isLeaf ? reference : nextChild();
      reference += sum;
    }
  }

  // Needs the wide node. `linkTo(child)` is the Link to that one.
  template <class LinkTo>
  void WritePacked(const Piece& piece, const Cut& cut, std::uint32_t place, LinkTo linkTo) const {
    const WideNode& wide = object.wideNodes[place];
    PackedNode& node = object.packed->nodes[piece.firstWalked + cut.walked];
    object.packed->wide[piece.firstWalked + cut.walked] = place;
    WriteBoxes(cut, node);
    KindCounts lane;
    for (std::size_t k = 0; k < kPackedKindCount; ++k) lane[k] = piece.firstLane[k] + cut.firstLane[k];
    for (std::uint32_t i = 0; i < 8; ++i) {
      const std::uint32_t count = wide.count[i];
      if (wide.child[i] == kUnusedSlot) {  // an empty leaf: harmless even to a ray of no numbers
        node.child[i] = 0;
        node.word[i] = kLeaf;
      } else if (count == 0) {
        const Link link = linkTo(wide.child[i]);
        node.child[i] = link.child;
        node.word[i] = link.word;
      } else if (const std::uint8_t kind = cut.kinds[i]; kind != kMixed) {
        node.child[i] = std::exchange(lane[kind], lane[kind] + count);
        node.word[i] = kLeaf | kPackedKinds[kind].flag | count;
      } else {
        node.child[i] = wide.child[i];
        node.word[i] = kLeaf | count;
      }
    }
  }

  void WriteSubtree(const Piece& piece, const std::vector<Cut>& cuts) const {
    for (std::uint32_t i = 0; i < cuts.size(); ++i) {
      std::uint32_t below = i + 1;
      WriteWide(cuts[i], piece.firstNode + i,
                [&] { return piece.firstNode + std::exchange(below, below + cuts[below].below); });
      if (cuts[i].merged == kMixed)
        WritePacked(piece, cuts[i], piece.firstNode + i,
                    [&](std::uint32_t child) { return Link(piece, cuts[child - piece.firstNode]); });
    }
  }
};

// The pieces of a tree. Threads take what can be done next, and none waits for another: a piece whose cuts
// are counted before those in front of it is written later, by whoever finds it ready.
struct Pieces {
  Collapser collapser;
  std::vector<Piece> pieces = {};
  std::vector<Cut> tops = {};  // the first of each piece

  struct Job {
    std::size_t piece;
    bool isPlaced;  // its nodes are to be written; else it is to be collapsed
  };
  std::mutex mutex = {};   // of all that follows, but for a piece's own cuts while it is somebody's job
  std::size_t next = 0;    // that is to be collapsed
  std::size_t placed = 0;  // that have places
  std::uint32_t nodes = 0, walked = 0;  // in those
  KindCounts lanes = {};                // likewise
  std::vector<bool> isCounted = {};
  std::vector<std::size_t> ready = {};         // subtrees that are placed
  std::vector<std::vector<Cut>> cuts = {};     // of each piece, until it is written
  std::vector<std::vector<Cut>> buffers = {};  // of those that were written

  void Divide(std::uint32_t binary, std::uint32_t firstReference, int depth) {
    const std::size_t place = pieces.size();
    pieces.push_back({binary, firstReference, depth, depth});
    tops.emplace_back();
    if (collapser.object.nodes[binary].Sum() <= kMostOfPiece) {
      pieces[place].isSubtree = true;
    } else {
      Cut cut = collapser.OpenNodes(binary, firstReference);
      collapser.FillSlots(cut, [&](std::uint32_t slot, std::uint32_t reference) {
        Divide(slot, reference, depth + 1);
        return kMixed;
      });
      tops[place] = cut;
    }
    pieces[place].end = pieces.size();
  }

  // False if there is nothing left to do, but for what others are about to find ready.
  bool Take(Job& job) {
    const std::lock_guard lock(mutex);
    if (!ready.empty()) {
      job = {ready.back(), true};
      ready.pop_back();
      return true;
    }
    if (next == pieces.size()) return false;
    if (!buffers.empty()) {
      cuts[next] = std::move(buffers.back());
      buffers.pop_back();
    }
    job = {next++, false};
    return true;
  }

  void Collapse(std::size_t number) {
    Piece& piece = pieces[number];
    std::vector<Cut>& own = cuts[number];
    own.clear();
    if (piece.isSubtree)
      collapser.Collapse(piece.binary, piece.firstReference, piece.depth, piece.deepest, own);
    else
      own.push_back(tops[number]);
    Collapser::PlaceCuts(own, piece);
    tops[number] = own[0];
    piece.word = Link(piece, own[0]).word;
    const std::lock_guard lock(mutex);
    isCounted[number] = true;
    for (; placed < pieces.size() && isCounted[placed]; ++placed) Place(placed);
  }

  void Place(std::size_t number) {
    Piece& piece = pieces[number];
    piece.firstNode = nodes;
    nodes += piece.nodes;
    piece.firstWalked = walked;
    walked += piece.walked;
    piece.firstLane = lanes;
    for (std::size_t k = 0; k < kPackedKindCount; ++k)
      lanes[k] += BlocksFor(k, piece.lanes[k]) * kPackedKinds[k].blockLanes;
    if (piece.isSubtree) ready.push_back(number);
  }

  void Write(const NodeWriter& writer, std::size_t number) {
    writer.WriteSubtree(pieces[number], cuts[number]);
    const std::lock_guard lock(mutex);
    buffers.push_back(std::move(cuts[number]));
  }

  void WriteTop(const NodeWriter& writer, std::size_t number) const {
    std::vector<std::size_t> below;  // of the slots that lead to wide nodes
    for (std::size_t child = number + 1; child < pieces[number].end; child = pieces[child].end)
      below.push_back(child);
    const std::uint32_t place = pieces[number].firstNode;
    auto at = below.begin();
    writer.WriteWide(tops[number], place, [&] { return pieces[*at++].firstNode; });
    at = below.begin();
    writer.WritePacked(pieces[number], tops[number], place, [&](std::uint32_t) {
      const std::size_t child = *at++;
      return Link(pieces[child], tops[child]);
    });
  }
};

// Of all trees over so many primitives. A node with slots to spare has leaves alone, two at least.
std::size_t MostWideNodes(std::size_t primitives) { return primitives * 4 / 7 + 2; }

}  // namespace

CollapsedTree CollapseTree(Object& object) {
  const std::uint32_t total = object.nodes[BinaryNode::kRoot].Sum();
  if (object.packed == nullptr || object.packed.use_count() != 1)
    object.packed = std::make_shared<PackedTree>();
  object.compactReferences.resize(total);
  object.wideNodes.clear();  // nothing to copy where it grows
  object.wideNodes.resize(MostWideNodes(total));
  object.packed->nodes.Resize(MostWideNodes(total));
  object.packed->wide.Resize(MostWideNodes(total));
  Pieces work{{object}};
  work.Divide(BinaryNode::kRoot, 0, 0);
  work.isCounted.resize(work.pieces.size());
  work.cuts.resize(work.pieces.size());
  const NodeWriter writer{object};
#pragma omp parallel if (IsWorthThreads(total, 60))
  for (Pieces::Job job; work.Take(job);) {
    if (job.isPlaced)
      work.Write(writer, job.piece);
    else
      work.Collapse(job.piece);
  }
  object.wideDepth = 0;
  for (std::size_t i = 0; i < work.pieces.size(); ++i) {
    if (!work.pieces[i].isSubtree) work.WriteTop(writer, i);
    object.wideDepth = std::max(object.wideDepth, work.pieces[i].deepest);
  }
  object.wideNodes.resize(work.nodes);
  object.packed->nodes.Shrink(work.walked);
  object.packed->wide.Shrink(work.walked);
  return {std::move(work.pieces), work.lanes};
}

}  // namespace zp
