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

void PackTree(Object& object) {
  const std::size_t nodeCount = object.wideNodes.size();
  // Lanes of node n begin at firstLane[n].
  std::vector<std::uint32_t> firstLane(nodeCount + 1, 0);
#pragma omp parallel for schedule(static)
  for (std::size_t n = 0; n < nodeCount; ++n) {
    const WideNode& wide = object.wideNodes[n];
    for (int i = 0; i < 8; ++i)
      if (wide.count[i] != 0 && IsTriangleLeaf(object, wide.child[i], wide.count[i]))
        firstLane[n + 1] += wide.count[i];
  }
  for (std::size_t n = 0; n < nodeCount; ++n) firstLane[n + 1] += firstLane[n];

  auto packed = std::make_shared<PackedTree>();
  packed->nodes = PageArray<PackedNode>(nodeCount);
  packed->blocks = PageArray<TriangleBlock>((firstLane[nodeCount] + kBlockLanes - 1) / kBlockLanes);
  packed->filtersVisibility = AnyPrimitive(object, IsHidden);
  packed->opaqueOnly = !AnyPrimitive(object, [](std::int32_t shader) { return !IsOpaque(shader); });
  packed->stackSize = 7 * (object.wideDepth + 1) + 1;
#pragma omp parallel for schedule(static)
  for (std::size_t n = 0; n < nodeCount; ++n) {
    const WideNode& wide = object.wideNodes[n];
    PackedNode& node = packed->nodes[n];
    std::memcpy(node.boxes, wide.boxes, sizeof node.boxes);
    std::uint32_t lane = firstLane[n];
    for (int i = 0; i < 8; ++i) {
      node.child[i] = wide.child[i];
      node.word[i] = wide.count[i] == 0 ? 0 : kLeaf | wide.count[i];
      if (wide.child[i] == kUnusedSlot) {  // an empty leaf: harmless even to a ray of no numbers
        node.child[i] = 0;
        node.word[i] = kLeaf;
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
