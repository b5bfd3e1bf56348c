#include "accel/tree.h"

#include <sys/mman.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "accel/cut_outs.h"
#include "core/settings.h"
#include "core/threads.h"
#include "shading/shading.h"

namespace zp {

template <class T>
PageArray<T>::PageArray(std::size_t count) : size_(count) {
  static_assert(std::is_trivially_copyable_v<T>);
  if (count == 0) return;
  constexpr std::size_t kLargePage = std::size_t{2} << 20U;
  const std::size_t bytes = count * sizeof(T);
  constexpr std::size_t kPage = 4096, kLine = 64;  // scenes may hold thousands of trees of a node or two
  const std::size_t alignment = bytes >= kLargePage ? kLargePage : bytes >= kPage ? kPage : kLine;
  const std::size_t whole = (bytes + alignment - 1) / alignment * alignment;
  void* memory = std::aligned_alloc(alignment, whole);
  if (memory == nullptr) throw std::bad_alloc();
  if (alignment == kLargePage) madvise(memory, whole, MADV_HUGEPAGE);  // a hint: refusal costs speed only
  std::memset(memory, 0, bytes);
  data_.reset(static_cast<T*>(memory));
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

void FillTriangle(TriangleBlock& block, std::uint32_t lane, const Object& object,
                  const PrimitiveRef& reference) {
  const Part& part = object.parts[reference.part];
  const Triangle& triangle = part.triangles[reference.index];
  const Vec3 p0 = part.positions[triangle.vertex[0]];
  const Vec3 e1 = part.positions[triangle.vertex[1]] - p0;
  const Vec3 e2 = part.positions[triangle.vertex[2]] - p0;
  for (int a = 0; a < 3; ++a) {
    block.p0[a][lane] = p0[a];
    block.e1[a][lane] = e1[a];
    block.e2[a][lane] = e2[a];
  }
  block.primitive[lane] = reference.index;
  block.shader[lane] = triangle.shader;
  block.part[lane] = reference.part;
}

void FillParticle(ParticleBlock& block, std::uint32_t lane, const Object& object,
                  const PrimitiveRef& reference) {
  const Part& part = object.parts[reference.part];
  const std::uint32_t vertex = part.particles[reference.index];
  for (int a = 0; a < 3; ++a) block.center[a][lane] = part.positions[vertex][a];
  block.radius[lane] = VertexRadius(part, vertex);
  block.primitive[lane] = reference.index;
  block.part[lane] = reference.part;
}

void FillTetragon(TetragonBlock& block, std::uint32_t lane, const Object& object,
                  const PrimitiveRef& reference) {
  const Part& part = object.parts[reference.part];
  const Tetragon& tetragon = part.tetragons[reference.index];
  for (int i = 0; i < 4; ++i)
    for (int a = 0; a < 3; ++a) block.corner[i][a][lane] = part.positions[tetragon.vertex[i]][a];
  block.primitive[lane] = reference.index;
  block.shader[lane] = tetragon.shader;
  block.part[lane] = reference.part;
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

bool IsHidden(std::int32_t shader) {
  return HasShader(shader) && ShaderAt(shader).geometry.visibility != Visibility::kAll;
}

// Whether some primitive's Shader is one of those that `test` names.
template <class F>
bool AnyPrimitive(const Object& object, F test) {
  for (const Part& part : object.parts) {
    if ((!part.particles.empty() || !part.cylinders.empty()) && test(part.shader)) return true;
    for (const Triangle& triangle : part.triangles)
      if (test(triangle.shader)) return true;
    for (const Tetragon& tetragon : part.tetragons)
      if (test(tetragon.shader)) return true;
  }
  return false;
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

  // Takes in something of this kind below the node.
  void Join(std::size_t other) {
    if (kind == kMixed) kind = other;
    merged = merged && other != kMixed && kind == other;
  }
};

// Those of a node alone; merged if nothing but leaves of one packed kind and inner nodes hang from it.
NodeLanes CountLanes(const Object& object, std::size_t n) {
  const WideNode& wide = object.wideNodes[n];
  NodeLanes lanes;
  lanes.merged = n != 0;
  for (int i = 0; i < 8; ++i) {
    if (wide.child[i] == kUnusedSlot || wide.count[i] == 0) continue;
    const std::size_t kind = LeafKind(object, wide.child[i], wide.count[i]);
    if (kind != kMixed) lanes.own[kind] += wide.count[i];
    lanes.Join(kind);
  }
  return lanes;
}

// Children stand behind their parents, each subtree in a row, so that a merged one's lanes are in a row too.
std::vector<NodeLanes> PlaceLanes(const Object& object, KindCounts& laneCount) {
  const std::size_t nodeCount = object.wideNodes.size();
  std::vector<NodeLanes> lanes(nodeCount);
#pragma omp parallel for schedule(static) if (IsWorthThreads(nodeCount, 40))
  for (std::size_t n = 0; n < nodeCount; ++n) lanes[n] = CountLanes(object, n);
  for (std::size_t n = nodeCount; n-- > 0;) {
    NodeLanes& node = lanes[n];
    if (!node.merged) continue;
    const WideNode& wide = object.wideNodes[n];
    for (int i = 0; i < 8; ++i) {
      if (wide.child[i] == kUnusedSlot || wide.count[i] != 0) continue;
      const NodeLanes& child = lanes[wide.child[i]];
      node.Join(child.merged ? child.kind : kMixed);
      node.count += child.count;
    }
    for (const std::uint32_t own : node.own) node.count += own;
    node.merged = node.merged && node.kind != kMixed && node.count <= kPackedKinds[node.kind].most;
  }
  laneCount = {};
  KindCounts inside = {};  // first lane behind the merged subtree that node n is in
  for (NodeLanes& node : lanes) {
    const std::size_t kind = node.kind;
    if (node.merged && laneCount[kind] >= inside[kind]) {
      // It takes no more blocks than its count needs.
      const std::uint32_t blockLanes = kPackedKinds[kind].blockLanes, place = laneCount[kind] % blockLanes;
      if (BlocksFor(kind, place + node.count) > BlocksFor(kind, node.count))
        laneCount[kind] += blockLanes - place;
      inside[kind] = laneCount[kind] + node.count;
    }
    node.first = laneCount;
    for (std::size_t k = 0; k < kPackedKindCount; ++k) laneCount[k] += node.own[k];
  }
  return lanes;
}

}  // namespace

void PackTree(Object& object) {
  const std::size_t nodeCount = object.wideNodes.size();
  KindCounts laneCount;
  const std::vector<NodeLanes> lanes = PlaceLanes(object, laneCount);

  auto packed = std::make_shared<PackedTree>();
  packed->nodes = PageArray<PackedNode>(nodeCount);
  packed->blocks = PageArray<TriangleBlock>(BlocksFor(0, laneCount[0]));
  packed->particles = PageArray<ParticleBlock>(BlocksFor(1, laneCount[1]));
  packed->segments = PageArray<CurveSegment>(BlocksFor(2, laneCount[2]));
  packed->tetragons = PageArray<TetragonBlock>(BlocksFor(3, laneCount[3]));
  packed->shadowRoots = settings.format >= 2;
  packed->filtersVisibility = AnyPrimitive(object, IsHidden);
  packed->opaqueOnly = !AnyPrimitive(object, [](std::int32_t shader) { return !IsOpaque(shader); });
  packed->cutsOut = AnyPrimitive(object, CutsOut);
  packed->stackSize = 7 * (object.wideDepth + 1) + 1;
#pragma omp parallel for schedule(static) if (IsWorthThreads(nodeCount, 400))
  for (std::size_t n = 0; n < nodeCount; ++n) {
    const WideNode& wide = object.wideNodes[n];
    PackedNode& node = packed->nodes[n];
    std::memcpy(node.boxes, wide.boxes, sizeof node.boxes);
    KindCounts lane = lanes[n].first;
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
          FillLane(*packed, lane[kind]++, object, object.compactReferences[child + k]);
      }
    }
  }
  object.packed = std::move(packed);
}

}  // namespace zp
