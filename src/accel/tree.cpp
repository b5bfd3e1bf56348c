#include "accel/tree.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <type_traits>

#include "accel/collapse.h"
#include "accel/cut_outs.h"
#include "core/float8.h"
#include "core/pages.h"
#include "core/settings.h"
#include "core/threads.h"
#include "shading/shading.h"

namespace zp {

template <class T>
void PageArray<T>::Resize(std::size_t count) {
  static_assert(std::is_trivially_copyable_v<T>);
  size_ = count;
  if (count <= room_ && room_ / 2 <= count) return;
  // What moves asks for a little more, or less, each time.
  const std::size_t room = data_ == nullptr ? count : count + count / 16;
  data_.reset();
  room_ = 0;
  if (count == 0) return;
  data_.reset(static_cast<T*>(AllocatePages(room * sizeof(T))));
  room_ = room;
}

template <class T>
void PageArray<T>::Release::operator()(T* p) const {
  std::free(p);
}

template class PageArray<PackedNode>;
template class PageArray<std::uint32_t>;
template class PageArray<TriangleBlock>;
template class PageArray<ParticleBlock>;
template class PageArray<CurveSegment>;
template class PageArray<TetragonBlock>;

namespace {

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

bool IsOpaque(std::int32_t shader) {
  if (!HasShader(shader)) return true;
  const Shader& s = ShaderAt(shader);
  return s.frontOpaque && s.backOpaque && !s.cutsOut;
}

namespace {

// Of a slot's word.
std::size_t PackedKindOf(std::uint32_t word) {
  std::size_t kind = 0;
  while (kind < kPackedKindCount && (word & kPackedKinds[kind].flag) == 0) ++kind;
  return kind;
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

// What a lane is made of is fetched in two steps that follow one another some primitives apart, so that
// neither waits for memory: a primitive, and its corners.
void FetchPrimitive(const Object& object, const PrimitiveRef& reference) {
  if (reference.kind == kKindInstance) return;
  const Part& part = object.parts[reference.part];
  if (reference.kind == kKindTriangle) Prefetch(&part.triangles[reference.index]);
  if (reference.kind == kKindTetragon) Prefetch(&part.tetragons[reference.index]);
  if (reference.kind == kKindParticle) Prefetch(&part.particles[reference.index]);
  if (reference.kind == kKindCylinder) Prefetch(&part.cylinders[reference.index]);
}
void FetchCorners(const Object& object, const PrimitiveRef& reference) {
  if (reference.kind == kKindInstance) return;
  const Part& part = object.parts[reference.part];
  const auto fetch = [&](const auto& vertices) {
    for (const std::uint32_t vertex : vertices) Prefetch(&part.positions[vertex]);
  };
  const auto fetchRound = [&](std::uint32_t vertex) {
    Prefetch(&part.positions[vertex]);
    if (!part.scalarSets.empty()) Prefetch(part.scalarSets[0].values.data() + vertex);
  };
  if (reference.kind == kKindTriangle) fetch(part.triangles[reference.index].vertex);
  if (reference.kind == kKindTetragon) fetch(part.tetragons[reference.index].vertex);
  if (reference.kind == kKindParticle) fetchRound(part.particles[reference.index]);
  if (reference.kind == kKindCylinder) fetchRound(part.cylinders[reference.index]);
}

// A lane of its kind, and the reference that goes there.
struct LaneEntry {
  std::uint32_t lane, reference;
};

// Lists the lanes of a piece's leaves in the order of their nodes, and clears those between them.
struct LaneLister {
  const Object& object;
  PackedTree& tree;
  const Piece& piece;
  std::vector<LaneEntry>& list;
  std::size_t size = 0;                 // of the list
  KindCounts filled = piece.firstLane;  // lanes lie in the order of nodes

  static constexpr std::uint32_t kAtOnce = 4;  // that are written whether a leaf has them or not

  // Leaves of a kind take the next lanes, from `lane` to `end`.
  void Begin(std::size_t kind, std::uint32_t lane, std::uint32_t end) {
    if (filled[kind] != lane) ClearLanes(tree, kind, filled[kind], lane);
    filled[kind] = end;
    const std::size_t most = size + (end - lane) + kAtOnce;
    if (list.size() < most) list.resize(2 * most);
  }
  void ListLeaf(std::uint32_t lane, std::uint32_t reference, std::uint32_t count) {
    for (std::uint32_t k = 0; k < count; k += kAtOnce)
      for (std::uint32_t j = k; j < k + kAtOnce; ++j) list[size + j] = {lane + j, reference + j};
    size += count;
  }

  // The wide nodes from `n` on as one leaf.
  void ListMerged(std::uint32_t n, std::uint32_t word, std::uint32_t lane) {
    constexpr std::uint32_t kNodesAhead = 8;
    const std::uint32_t end = lane + (word & kLeafCount);
    Begin(PackedKindOf(word), lane, end);
    for (; lane < end; ++n) {
      if (n + kNodesAhead < object.wideNodes.size()) Prefetch(&object.wideNodes[n + kNodesAhead]);
      const WideNode& wide = object.wideNodes[n];
      for (int i = 0; i < 8; ++i) {
        ListLeaf(lane, wide.child[i], wide.count[i]);
        lane += wide.count[i];
      }
    }
  }

  void ListNode(std::uint32_t n, const PackedNode& node) {
    const WideNode& wide = object.wideNodes[n];
    for (int i = 0; i < 8; ++i) {
      const std::size_t kind = PackedKindOf(node.word[i]);
      if (wide.count[i] == 0 || kind == kMixed) continue;
      Begin(kind, node.child[i], node.child[i] + wide.count[i]);
      ListLeaf(node.child[i], wide.child[i], wide.count[i]);
    }
    if (!piece.isSubtree) return;  // the next nodes are other pieces
    for (int i = 0; i < 8; ++i) {
      if (node.word[i] == 0)
        ListNode(wide.child[i], tree.nodes[node.child[i]]);
      else if (wide.count[i] == 0 && wide.child[i] != kUnusedSlot)
        ListMerged(wide.child[i], node.word[i], node.child[i]);
    }
  }

  void List() {
    if (piece.word == 0)
      ListNode(piece.firstNode, tree.nodes[piece.firstWalked]);
    else
      ListMerged(piece.firstNode, piece.word, piece.firstLane[PackedKindOf(piece.word)]);
    for (std::size_t kind = 0; kind < kPackedKindCount; ++kind) {
      const std::uint32_t end = piece.firstLane[kind] + piece.lanes[kind];
      ClearLanes(tree, kind, filled[kind], BlocksFor(kind, end) * kPackedKinds[kind].blockLanes);
    }
  }
};

void FillLanes(const Object& object, const Piece& piece, PackedTree& tree, std::vector<LaneEntry>& list) {
  constexpr std::size_t kPrimitives = 64, kCorners = 32;  // are fetched as many lanes ahead
  LaneLister lister{object, tree, piece, list};
  lister.List();
  const std::size_t size = lister.size;
  const auto reference = [&](std::size_t i) -> const PrimitiveRef& {
    return object.compactReferences[list[i].reference];
  };
  for (std::size_t i = 0; i < std::min(kPrimitives, size); ++i) FetchPrimitive(object, reference(i));
  for (std::size_t i = 0; i < std::min(kCorners, size); ++i) FetchCorners(object, reference(i));
  for (std::size_t i = 0; i < size; ++i) {
    if (i + kPrimitives < size) FetchPrimitive(object, reference(i + kPrimitives));
    if (i + kCorners < size) FetchCorners(object, reference(i + kCorners));
    FillLane(tree, list[i].lane, object, reference(i));
  }
}

// What primitives' Shaders ask of the walks through a tree.
enum Demand : std::uint8_t { kHides = 1, kLetsLightThrough = 2, kCutsOut = 4 };

std::uint8_t DemandsOf(std::int32_t shader) {
  const bool hides = HasShader(shader) && ShaderAt(shader).geometry.visibility != Visibility::kAll;
  return static_cast<std::uint8_t>((hides ? kHides : 0) | (IsOpaque(shader) ? 0 : kLetsLightThrough) |
                                   (CutsOut(shader) ? kCutsOut : 0));
}

// Those of a share of all primitives, if the threads of a parallel region call this together.
unsigned ShareOfDemands(const Object& object) {
  unsigned demands = 0;
  const auto add = [&demands](const auto& primitives) {
#pragma omp for schedule(static) nowait
    for (std::size_t i = 0; i < primitives.size(); ++i)
      if (i == 0 || primitives[i].shader != primitives[i - 1].shader)
        demands |= DemandsOf(primitives[i].shader);
  };
  for (const Part& part : object.parts) {
    if (!part.particles.empty() || !part.cylinders.empty()) demands |= DemandsOf(part.shader);
    add(part.triangles);
    add(part.tetragons);
  }
  return demands;
}

}  // namespace

void FillLanes(Object& object, const CollapsedTree& tree) {
  PackedTree& packed = *object.packed;
  packed.blocks.Resize(BlocksFor(0, tree.lanes[0]));
  packed.particles.Resize(BlocksFor(1, tree.lanes[1]));
  packed.segments.Resize(BlocksFor(2, tree.lanes[2]));
  packed.tetragons.Resize(BlocksFor(3, tree.lanes[3]));
  packed.shadowRoots = settings.format >= 2;
  packed.stackSize = 7 * (object.wideDepth + 1) + 1;
  // Pieces that follow one another go to one thread, large trees being divided by more than large pages: two
  // threads that write the same fresh page would clear it twice, and take its lines from one another.
  const std::size_t run = std::max<std::size_t>(tree.pieces.size() / 32, 1);
  unsigned demands = 0;
#pragma omp parallel reduction(| : demands) if (IsWorthThreads(object.wideNodes.size(), 300))
  {
    demands |= ShareOfDemands(object);
    std::vector<LaneEntry> list;
#pragma omp for schedule(dynamic, run)
    for (std::size_t i = 0; i < tree.pieces.size(); ++i) FillLanes(object, tree.pieces[i], packed, list);
  }
  packed.filtersVisibility = (demands & kHides) != 0;
  packed.opaqueOnly = (demands & kLetsLightThrough) == 0;
  packed.cutsOut = (demands & kCutsOut) != 0;
}

}  // namespace zp
