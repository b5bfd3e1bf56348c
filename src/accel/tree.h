// accel/tree.h: the wide tree as rays walk it: the boxes of the Object's wide nodes, and what is in them, in
// whole cache lines and with the vertices of triangles beside the nodes. Update makes it anew whenever
// something moves.

#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>

#include "accel/curve_segment.h"
#include "geometry/object.h"

namespace zp {

// Storage of AllocatePages: elements have no value until they are written.
template <class T>
class PageArray {
 public:
  // Keeps the storage, though not the elements, if it is large enough and not much too large.
  void Resize(std::size_t count);
  void Shrink(std::size_t count) { size_ = count; }  // keeps the storage
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  T* data() const { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  struct Release {
    void operator()(T* p) const;
  };
  std::unique_ptr<T[], Release> data_;
  std::size_t size_ = 0, room_ = 0;
};

// Four cache lines. A leaf's word is kLeaf, the flag of its kind if it holds one packed kind alone, and its
// count. A packed leaf's child is its first lane among all of its kind.
struct alignas(64) PackedNode {
  float boxes[6][8];
  std::uint32_t child[8];  // a PackedNode, the first lane of a packed leaf, or another's first reference
  std::uint32_t word[8];   // 0: an inner node
};
static_assert(sizeof(PackedNode) == 256);
inline Box SlotBox(const PackedNode& node, int i) {
  return {{node.boxes[0][i], node.boxes[1][i], node.boxes[2][i]},
          {node.boxes[3][i], node.boxes[4][i], node.boxes[5][i]}};
}
inline constexpr std::uint32_t kLeaf = 1U << 31U;
inline constexpr std::uint32_t kTriangleLeaf = 1U << 30U;
inline constexpr std::uint32_t kParticleLeaf = 1U << 29U;
inline constexpr std::uint32_t kCylinderLeaf = 1U << 28U;
inline constexpr std::uint32_t kTetragonLeaf = 1U << 27U;
inline constexpr std::uint32_t kPackedLeaf = kTriangleLeaf | kParticleLeaf | kCylinderLeaf | kTetragonLeaf;
inline constexpr std::uint32_t kLeafCount = 0xFFFF;

inline constexpr int kBlockLanes = 4;
inline constexpr int kParticleLanes = 8;
inline constexpr int kTetragonLanes = 8;

// Four triangles. Lane number i of a tree is lane i % 4 of block i / 4: the leaves of a node follow one
// another without gaps, so that a leaf may begin and end within a block. Lanes before a merged subtree and at
// the end of a piece (accel/collapse.h) may be unused: no leaf holds those.
struct alignas(64) TriangleBlock {
  float p0[3][kBlockLanes], e1[3][kBlockLanes], e2[3][kBlockLanes];
  std::uint32_t primitive[kBlockLanes];
  std::int32_t shader[kBlockLanes];
  std::uint16_t part[kBlockLanes];
};
static_assert(sizeof(TriangleBlock) == 192);

// Eight particles, in lanes as of triangles.
struct alignas(64) ParticleBlock {
  float center[3][kParticleLanes], radius[kParticleLanes];
  std::uint32_t primitive[kParticleLanes];
  std::uint16_t part[kParticleLanes];
};
static_assert(sizeof(ParticleBlock) == 192);

// Eight tetragons, in lanes as of triangles.
struct alignas(64) TetragonBlock {
  float corner[4][3][kTetragonLanes];
  std::uint32_t primitive[kTetragonLanes];
  std::int32_t shader[kTetragonLanes];
  std::uint16_t part[kTetragonLanes];
};
static_assert(sizeof(TetragonBlock) == 512);

// The kinds that trees keep beside their nodes. A subtree of one such kind alone, with this many primitives
// at most, is one leaf to walks: its slot in the node above holds all its lanes. A block costs the same
// whether one of its lanes is in use or all are, and a few blocks cost less than a node and the leaves that
// it leads to. Wide nodes inside such a leaf, six of seven on a mesh, have no packed ones.
inline constexpr std::uint32_t kMergedTriangles = 16, kMergedParticles = 16, kMergedCylinders = 2,
                               kMergedTetragons = 4;
struct PackedKind {
  std::uint16_t kind;
  std::uint32_t flag;
  std::uint32_t blockLanes;
  std::uint32_t most;
};
inline constexpr PackedKind kPackedKinds[] = {
    {kKindTriangle, kTriangleLeaf, kBlockLanes, kMergedTriangles},
    {kKindParticle, kParticleLeaf, kParticleLanes, kMergedParticles},
    {kKindCylinder, kCylinderLeaf, 1, kMergedCylinders},
    {kKindTetragon, kTetragonLeaf, kTetragonLanes, kMergedTetragons}};
inline constexpr std::size_t kPackedKindCount = std::size(kPackedKinds);
constexpr std::uint32_t BlocksFor(std::size_t kind, std::uint32_t lanes) {
  return (lanes + kPackedKinds[kind].blockLanes - 1) / kPackedKinds[kind].blockLanes;
}

// Entries of a walk's stack: what nearly all trees do with, and more than any can need.
inline constexpr int kFewStackEntries = 128, kMostStackEntries = 2048;

struct PackedTree {
  PageArray<PackedNode> nodes;
  PageArray<std::uint32_t> wide;  // of each packed node: the wide node that it is
  PageArray<TriangleBlock> blocks;
  PageArray<ParticleBlock> particles;
  PageArray<CurveSegment> segments;
  PageArray<TetragonBlock> tetragons;
  bool filtersVisibility = false;  // some primitive is hidden from some ray
  bool shadowRoots = false;        // of particles: TakeShadowSphere
  bool opaqueOnly = false;         // no primitive lets any shadow ray through
  bool cutsOut = false;            // hits on some primitive count by chance
  int stackSize = 0;               // entries that a walk can need
};

// What a lane of a packed leaf with that flag holds; no kind if there is no such lane.
PrimitiveRef LaneReference(const PackedTree& tree, std::uint32_t flag, std::uint32_t lane);

// Whether no side of the Shader lets a shadow ray through, at any hit. An index outside the table counts as
// opaque.
bool IsOpaque(std::int32_t shader);

}  // namespace zp
