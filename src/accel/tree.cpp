#include "accel/tree.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "accel/cut_outs.h"
#include "core/pages.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/threads.h"
#include "shading/shading.h"

namespace zp {

template <class T>
void PageArray<T>::Resize(std::size_t count) {
  static_assert(std::is_trivially_copyable_v<T>);
  size_ = count;
  if (count <= room_ && room_ / 2 <= count) return;
  data_.reset();
  room_ = 0;
  if (count == 0) return;
  data_.reset(static_cast<T*>(AllocatePages(count * sizeof(T))));
  room_ = count;
}

template <class T>
void PageArray<T>::Release::operator()(T* p) const {
  std::free(p);
}

template class PageArray<PackedNode>;
template class PageArray<TriangleBlock>;
template class PageArray<ParticleBlock>;
template class PageArray<CurveSegment>;
template class PageArray<TetragonBlock>;

namespace {

constexpr std::size_t kMixed = kPackedKindCount;

// The packed kind that a leaf's references all have; kMixed if there is none.
std::size_t LeafKind(const Object& object, std::uint32_t first, std::uint32_t count) {
  const std::uint16_t kind = object.compactReferences[first].kind;
  for (std::uint32_t i = 1; i < count; ++i)
    if (object.compactReferences[first + i].kind != kind) return kMixed;
  for (std::size_t k = 0; k < kPackedKindCount; ++k)
    if (kPackedKinds[k].kind == kind) return k;
  return kMixed;
}

void PutTriangle(TriangleBlock& block, std::uint32_t lane, Vec3 p0, Vec3 e1, Vec3 e2,
                 const PrimitiveRef& reference, std::int32_t shader) {
  for (int a = 0; a < 3; ++a) {
    block.p0[a][lane] = p0[a];
    block.e1[a][lane] = e1[a];
    block.e2[a][lane] = e2[a];
  }
  block.primitive[lane] = reference.index;
  block.shader[lane] = shader;
  block.part[lane] = reference.part;
}

void FillTriangle(TriangleBlock& block, std::uint32_t lane, const Object& object,
                  const PrimitiveRef& reference) {
  const Part& part = object.parts[reference.part];
  const Triangle& triangle = part.triangles[reference.index];
  const Vec3 p0 = part.positions[triangle.vertex[0]];
  const Vec3 e1 = part.positions[triangle.vertex[1]] - p0;
  const Vec3 e2 = part.positions[triangle.vertex[2]] - p0;
  PutTriangle(block, lane, p0, e1, e2, reference, triangle.shader);
}

void PutParticle(ParticleBlock& block, std::uint32_t lane, Vec3 center, float radius,
                 const PrimitiveRef& reference) {
  for (int a = 0; a < 3; ++a) block.center[a][lane] = center[a];
  block.radius[lane] = radius;
  block.primitive[lane] = reference.index;
  block.part[lane] = reference.part;
}

void FillParticle(ParticleBlock& block, std::uint32_t lane, const Object& object,
                  const PrimitiveRef& reference) {
  const Part& part = object.parts[reference.part];
  const std::uint32_t vertex = part.particles[reference.index];
  PutParticle(block, lane, part.positions[vertex], VertexRadius(part, vertex), reference);
}

void PutTetragon(TetragonBlock& block, std::uint32_t lane, const std::array<Vec3, 4>& corners,
                 const PrimitiveRef& reference, std::int32_t shader) {
  for (int i = 0; i < 4; ++i)
    for (int a = 0; a < 3; ++a) block.corner[i][a][lane] = At(corners, i)[a];
  block.primitive[lane] = reference.index;
  block.shader[lane] = shader;
  block.part[lane] = reference.part;
}

void FillTetragon(TetragonBlock& block, std::uint32_t lane, const Object& object,
                  const PrimitiveRef& reference) {
  const Part& part = object.parts[reference.part];
  const Tetragon& tetragon = part.tetragons[reference.index];
  const auto p = [&](int i) { return part.positions[tetragon.vertex[i]]; };
  PutTetragon(block, lane, {p(0), p(1), p(2), p(3)}, reference, tetragon.shader);
}

void FillLane(PackedTree& tree, std::uint32_t lane, const Object& object, const PrimitiveRef& reference) {
  switch (reference.kind) {
    case kKindTriangle:
      return FillTriangle(tree.blocks[lane / kBlockLanes], lane % kBlockLanes, object, reference);
    case kKindParticle:
      return FillParticle(tree.particles[lane / kParticleLanes], lane % kParticleLanes, object, reference);
    case kKindTetragon:
      return FillTetragon(tree.tetragons[lane / kTetragonLanes], lane % kTetragonLanes, object, reference);
    default:
      tree.segments[lane] = MakeCurveSegment(object.parts[reference.part], reference.index);
      tree.segments[lane].part = reference.part;
  }
}

}  // namespace

bool IsOpaque(std::int32_t shader) {
  if (!HasShader(shader)) return true;
  const Shader& s = ShaderAt(shader);
  return s.frontOpaque && s.backOpaque && !s.cutsOut;
}

namespace {

using KindCounts = std::array<std::uint32_t, kPackedKindCount>;

std::uint32_t BlocksFor(std::size_t kind, std::uint32_t lanes) {
  return (lanes + kPackedKinds[kind].blockLanes - 1) / kPackedKinds[kind].blockLanes;
}

// Where the packed primitives of a wide node and of the nodes merged into it lie.
struct NodeLanes {
  KindCounts first = {};
  KindCounts own = {};        // in its own leaves
  std::uint32_t count = 0;    // in all below; of merged nodes only
  std::size_t kind = kMixed;  // of all below; of merged nodes only
  bool merged = false;        // walks see all below as one leaf
  std::uint32_t unused = 0;   // lanes of that kind before it
};

constexpr std::uint32_t kMostMerged =
    std::max({kMergedTriangles, kMergedParticles, kMergedCylinders, kMergedTetragons});

// References of all below a wide node: they are in a row.
struct ReferenceRange {
  std::uint32_t first, end;
};
ReferenceRange RangeOf(const Object& object, std::size_t n) {
  const WideNode* node = &object.wideNodes[n];
  while (node->count[0] == 0) node = &object.wideNodes[node->child[0]];
  const std::uint32_t first = node->child[0];
  node = &object.wideNodes[n];
  for (;;) {
    int last = 7;
    while (node->child[last] == kUnusedSlot) --last;
    if (node->count[last] != 0) return {first, node->child[last] + node->count[last]};
    node = &object.wideNodes[node->child[last]];
  }
}

NodeLanes CountLanes(const Object& object, std::size_t n) {
  const WideNode& wide = object.wideNodes[n];
  NodeLanes lanes;
  for (int i = 0; i < 8; ++i) {
    if (wide.child[i] == kUnusedSlot || wide.count[i] == 0) continue;
    const std::size_t kind = LeafKind(object, wide.child[i], wide.count[i]);
    if (kind != kMixed) lanes.own[kind] += wide.count[i];
  }
  if (n == 0) return lanes;
  const auto [first, end] = RangeOf(object, n);
  if (end - first > kMostMerged) return lanes;
  lanes.count = end - first;
  lanes.kind = LeafKind(object, first, lanes.count);
  lanes.merged = lanes.kind != kMixed && lanes.count <= kPackedKinds[lanes.kind].most;
  return lanes;
}

// Children stand behind their parents, each subtree in a row, so that a merged one's lanes are in a row too.
RawVector<NodeLanes> PlaceLanes(const Object& object, KindCounts& laneCount) {
  const std::size_t nodeCount = object.wideNodes.size();
  RawVector<NodeLanes> lanes(nodeCount);
#pragma omp parallel for schedule(static) if (IsWorthThreads(nodeCount, 40))
  for (std::size_t n = 0; n < nodeCount; ++n) lanes[n] = CountLanes(object, n);
  laneCount = {};
  KindCounts inside = {};  // first lane behind the merged subtree that node n is in
  for (NodeLanes& node : lanes) {
    const std::size_t kind = node.kind;
    if (node.merged && laneCount[kind] >= inside[kind]) {
      // It takes no more blocks than its count needs.
      const std::uint32_t blockLanes = kPackedKinds[kind].blockLanes, place = laneCount[kind] % blockLanes;
      if (BlocksFor(kind, place + node.count) > BlocksFor(kind, node.count)) node.unused = blockLanes - place;
      laneCount[kind] += node.unused;
      inside[kind] = laneCount[kind] + node.count;
    }
    node.first = laneCount;
    for (std::size_t k = 0; k < kPackedKindCount; ++k) laneCount[k] += node.own[k];
  }
  return lanes;
}

// Lanes that no leaf holds.
void ClearLanes(PackedTree& tree, std::size_t kind, std::uint32_t first, std::uint32_t end) {
  for (std::uint32_t lane = first; lane < end; ++lane)
    if (kind == 0)
      PutTriangle(tree.blocks[lane / kBlockLanes], lane % kBlockLanes, {}, {}, {}, {}, 0);
    else if (kind == 1)
      PutParticle(tree.particles[lane / kParticleLanes], lane % kParticleLanes, {}, 0, {});
    else if (kind == 3)
      PutTetragon(tree.tetragons[lane / kTetragonLanes], lane % kTetragonLanes, {}, {}, 0);
}

void FillNode(const Object& object, const RawVector<NodeLanes>& lanes, std::size_t n, PackedTree& tree) {
  const WideNode& wide = object.wideNodes[n];
  PackedNode& node = tree.nodes[n];
  std::memcpy(node.boxes, wide.boxes, sizeof node.boxes);
  KindCounts lane = lanes[n].first;
  const std::size_t mergedKind = lanes[n].kind;
  if (lanes[n].unused != 0)
    ClearLanes(tree, mergedKind, lane[mergedKind] - lanes[n].unused, lane[mergedKind]);
  for (int i = 0; i < 8; ++i) {
    const std::uint32_t child = wide.child[i], count = wide.count[i];
    node.child[i] = child;
    node.word[i] = count == 0 ? 0 : kLeaf | count;
    if (child == kUnusedSlot) {  // an empty leaf: harmless even to a ray of no numbers
      node.child[i] = 0;
      node.word[i] = kLeaf;
    } else if (count == 0) {
      if (!lanes[child].merged) continue;
      const std::size_t kind = lanes[child].kind;
      node.child[i] = lanes[child].first[kind];
      node.word[i] = kLeaf | kPackedKinds[kind].flag | lanes[child].count;
    } else if (const std::size_t kind = LeafKind(object, child, count); kind != kMixed) {
      node.child[i] = lane[kind];
      node.word[i] |= kPackedKinds[kind].flag;
      for (std::uint32_t k = 0; k < count; ++k)
        FillLane(tree, lane[kind]++, object, object.compactReferences[child + k]);
    }
  }
}

// What primitives' Shaders ask of the walks through a tree.
enum Demand : std::uint8_t { kHides = 1, kLetsLightThrough = 2, kCutsOut = 4 };

std::uint8_t DemandsOf(std::int32_t shader) {
  const bool hides = HasShader(shader) && ShaderAt(shader).geometry.visibility != Visibility::kAll;
  return static_cast<std::uint8_t>((hides ? kHides : 0) | (IsOpaque(shader) ? 0 : kLetsLightThrough) |
                                   (CutsOut(shader) ? kCutsOut : 0));
}

// Those of all primitives.
std::uint8_t DemandsOf(const Object& object) {
  unsigned demands = 0;
  const auto add = [&demands](const auto& primitives) {
    unsigned sum = 0;
#pragma omp parallel for schedule(static) reduction(| : sum) if (IsWorthThreads(primitives.size(), 2))
    for (std::size_t i = 0; i < primitives.size(); ++i)
      if (i == 0 || primitives[i].shader != primitives[i - 1].shader) sum |= DemandsOf(primitives[i].shader);
    demands |= sum;
  };
  for (const Part& part : object.parts) {
    if (!part.particles.empty() || !part.cylinders.empty()) demands |= DemandsOf(part.shader);
    add(part.triangles);
    add(part.tetragons);
  }
  return static_cast<std::uint8_t>(demands);
}

}  // namespace

void PackTree(Object& object) {
  const std::size_t nodeCount = object.wideNodes.size();
  KindCounts laneCount;
  const RawVector<NodeLanes> lanes = PlaceLanes(object, laneCount);

  const bool isOurs = object.packed != nullptr && object.packed.use_count() == 1;
  const auto packed = isOurs ? std::move(object.packed) : std::make_shared<PackedTree>();
  packed->nodes.Resize(nodeCount);
  packed->blocks.Resize(BlocksFor(0, laneCount[0]));
  packed->particles.Resize(BlocksFor(1, laneCount[1]));
  packed->segments.Resize(BlocksFor(2, laneCount[2]));
  packed->tetragons.Resize(BlocksFor(3, laneCount[3]));
  packed->shadowRoots = settings.format >= 2;
  const std::uint8_t demands = DemandsOf(object);
  packed->filtersVisibility = (demands & kHides) != 0;
  packed->opaqueOnly = (demands & kLetsLightThrough) == 0;
  packed->cutsOut = (demands & kCutsOut) != 0;
  packed->stackSize = 7 * (object.wideDepth + 1) + 1;
#pragma omp parallel for schedule(static) if (IsWorthThreads(nodeCount, 400))
  for (std::size_t n = 0; n < nodeCount; ++n) FillNode(object, lanes, n, *packed);
  for (std::size_t kind = 0; kind < kPackedKindCount; ++kind)
    ClearLanes(*packed, kind, laneCount[kind],
               BlocksFor(kind, laneCount[kind]) * kPackedKinds[kind].blockLanes);
  object.packed = packed;
}

}  // namespace zp
