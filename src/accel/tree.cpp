#include "accel/tree.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "shading/shading.h"

namespace zp {

template <class T>
PageArray<T>::PageArray(std::size_t count) : size_(count) {
  static_assert(std::is_trivial_v<T>);
  if (count == 0) return;
  constexpr std::size_t kLargePage = std::size_t{2} << 20U;
  const std::size_t bytes = count * sizeof(T);
  const std::size_t alignment = bytes >= kLargePage ? kLargePage : std::size_t{4096};
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

namespace {

bool IsTriangleLeaf(const Object& object, std::uint32_t first, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i)
    if (object.compactReferences[first + i].kind != kKindTriangle) return false;
  return true;
}

void FillLane(TriangleBlock& block, int lane, const Object& object, const PrimitiveRef& reference) {
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

bool IsHidden(std::int32_t shader) {
  return shader >= 0 && static_cast<std::size_t>(shader) < shaders.size() &&
         shaders[static_cast<std::size_t>(shader)].geometry.visibility != Visibility::kAll;
}

// Whether some primitive's Shader is one of those that `test` names.
template <class F>
bool AnyPrimitive(const Object& object, F test) {
  for (const Part& part : object.parts) {
    if (!part.particles.empty() && test(part.shader)) return true;
    for (const Triangle& triangle : part.triangles)
      if (test(triangle.shader)) return true;
    for (const Tetragon& tetragon : part.tetragons)
      if (test(tetragon.shader)) return true;
  }
  return false;
}

}  // namespace

bool IsOpaque(std::int32_t shader) {
  if (shader < 0 || static_cast<std::size_t>(shader) >= shaders.size()) return true;
  const Shader& s = shaders[static_cast<std::size_t>(shader)];
  return s.frontOpaque && s.backOpaque;
}

namespace {

std::size_t BlocksFor(std::uint32_t lanes) { return (lanes + kBlockLanes - 1) / kBlockLanes; }

// Where the triangles of a wide node and of the nodes merged into it lie.
struct NodeLanes {
  std::uint32_t first = 0;
  std::uint32_t own = 0;    // in its own leaves
  std::uint32_t count = 0;  // in all below; of merged nodes only
  bool merged = false;      // walks see all below as one leaf
};

// Those of a node alone; merged if nothing but triangle leaves and inner nodes hang from it.
NodeLanes CountLanes(const Object& object, std::size_t n) {
  const WideNode& wide = object.wideNodes[n];
  NodeLanes lanes;
  lanes.merged = n != 0;
  for (int i = 0; i < 8; ++i) {
    if (wide.child[i] == kUnusedSlot || wide.count[i] == 0) continue;
    if (IsTriangleLeaf(object, wide.child[i], wide.count[i]))
      lanes.own += wide.count[i];
    else
      lanes.merged = false;
  }
  return lanes;
}

// Children stand behind their parents, each subtree in a row, so that a merged one's lanes are in a row too.
std::vector<NodeLanes> PlaceLanes(const Object& object, std::uint32_t& laneCount) {
  const std::size_t nodeCount = object.wideNodes.size();
  std::vector<NodeLanes> lanes(nodeCount);
#pragma omp parallel for schedule(static)
  for (std::size_t n = 0; n < nodeCount; ++n) lanes[n] = CountLanes(object, n);
  for (std::size_t n = nodeCount; n-- > 0;) {
    if (!lanes[n].merged) continue;
    const WideNode& wide = object.wideNodes[n];
    lanes[n].count = lanes[n].own;
    for (int i = 0; i < 8; ++i) {
      if (wide.child[i] == kUnusedSlot || wide.count[i] != 0) continue;
      lanes[n].merged = lanes[n].merged && lanes[wide.child[i]].merged;
      lanes[n].count += lanes[wide.child[i]].count;
    }
    lanes[n].merged = lanes[n].merged && lanes[n].count <= kMergedTriangles;
  }
  laneCount = 0;
  std::uint32_t inside = 0;  // first lane behind the merged subtree that node n is in
  for (std::size_t n = 0; n < nodeCount; ++n) {
    if (lanes[n].merged && laneCount >= inside) {
      // It takes no more blocks than its count needs.
      const std::uint32_t place = laneCount % kBlockLanes, count = lanes[n].count;
      if (BlocksFor(place + count) > BlocksFor(count)) laneCount += kBlockLanes - place;
      inside = laneCount + count;
    }
    lanes[n].first = laneCount;
    laneCount += lanes[n].own;
  }
  return lanes;
}

}  // namespace

void PackTree(Object& object) {
  const std::size_t nodeCount = object.wideNodes.size();
  std::uint32_t laneCount = 0;
  const std::vector<NodeLanes> lanes = PlaceLanes(object, laneCount);

  auto packed = std::make_shared<PackedTree>();
  packed->nodes = PageArray<PackedNode>(nodeCount);
  packed->blocks = PageArray<TriangleBlock>(BlocksFor(laneCount));
  packed->filtersVisibility = AnyPrimitive(object, IsHidden);
  packed->opaqueOnly = !AnyPrimitive(object, [](std::int32_t shader) { return !IsOpaque(shader); });
  packed->stackSize = 7 * (object.wideDepth + 1) + 1;
#pragma omp parallel for schedule(static)
  for (std::size_t n = 0; n < nodeCount; ++n) {
    const WideNode& wide = object.wideNodes[n];
    PackedNode& node = packed->nodes[n];
    std::memcpy(node.boxes, wide.boxes, sizeof node.boxes);
    std::uint32_t lane = lanes[n].first;
    for (int i = 0; i < 8; ++i) {
      node.child[i] = wide.child[i];
      node.word[i] = wide.count[i] == 0 ? 0 : kLeaf | wide.count[i];
      if (wide.child[i] == kUnusedSlot) {  // an empty leaf: harmless even to a ray of no numbers
        node.child[i] = 0;
        node.word[i] = kLeaf;
      } else if (wide.count[i] == 0 && lanes[wide.child[i]].merged) {
        node.child[i] = lanes[wide.child[i]].first;
        node.word[i] = kLeaf | kTriangleLeaf | lanes[wide.child[i]].count;
      } else if (wide.count[i] != 0 && IsTriangleLeaf(object, wide.child[i], wide.count[i])) {
        node.child[i] = lane;
        node.word[i] |= kTriangleLeaf;
        for (std::uint32_t k = 0; k < wide.count[i]; ++k, ++lane)
          FillLane(packed->blocks[lane / kBlockLanes], static_cast<int>(lane % kBlockLanes), object,
                   object.compactReferences[wide.child[i] + k]);
      }
    }
  }
  object.packed = std::move(packed);
}

}  // namespace zp
