// The walk of a single ray through the eight-wide trees, nearest boxes first.

#include <algorithm>
#include <bit>

#include "accel/accel.h"
#include "accel/primitive_tests.h"
#include "accel/tree.h"

namespace zp {
namespace {

// Of the Instances around each thread's best hit: level k - 1 holds the matrix at nesting depth k.
Mat3 matrixStacks[kMaxThreads][16];

struct StackEntry {
  std::uint32_t child;
  std::uint32_t word;  // as in PackedNode
  float near;
};

// What a walk keeps of its ray for box tests.
struct SlabRay {
  Float8 inverse[3], scaledOrigin[3];  // scaledOrigin = origin * inverse
  int nearRow[3], farRow[3];

  explicit SlabRay(const RayRecord& ray) {
    for (int a = 0; a < 3; ++a) {
      const int negative = ray.direction[a] < 0 ? 1 : 0;
      inverse[a] = Float8::Set(ray.inverseDirection[a]);
      scaledOrigin[a] = Float8::Set(ray.origin[a] * ray.inverseDirection[a]);
      nearRow[a] = a + 3 * negative;
      farRow[a] = a + 3 * (1 - negative);
    }
  }
};

// Which of a node's boxes the ray enters before `limit`, and where. A plane that gives no number (a ray
// within it) does not count, so that a box is never lost.
inline unsigned SlabTest(const PackedNode& node, const SlabRay& ray, float limit, Float8& near) {
  near = Float8::Set(1e-8f);
  Float8 far = Float8::Set(limit);
  for (int a = 0; a < 3; ++a) {
    near = Max(MulSub(Float8::LoadAligned(node.boxes[ray.nearRow[a]]), ray.inverse[a], ray.scaledOrigin[a]),
               near);
    far =
        Min(MulSub(Float8::LoadAligned(node.boxes[ray.farRow[a]]), ray.inverse[a], ray.scaledOrigin[a]), far);
  }
  return MaskLessEqual(near, far);
}

inline Vec3 Reciprocal(Vec3 v) { return {1.0f / v.x, 1.0f / v.y, 1.0f / v.z}; }

struct NearestWalk {
  const Object& object;
  RayRecord& ray;
  bool hit = false;

  bool IsParent(const Part& part, std::uint8_t kind, std::uint32_t index) const {
    return ray.parentKind == kind && ray.parentPrimitive == static_cast<std::int32_t>(index) &&
           ray.parentPart == &part;
  }

  void Store(const Part& part, std::uint8_t kind, std::uint32_t index, const PrimitiveHit& found) {
    ray.t = found.t;
    ray.part = &part;
    ray.shader = found.shader;
    ray.primitive = static_cast<std::int32_t>(index);
    ray.kind = kind;
    ray.frontFace = found.denominator < 0;
    ray.barycentric = found.barycentric;
    ray.hitMatrixDepth = ray.matrixDepth;
    ray.levelZeroHit = object.level == 0;
    hit = true;
  }

  // The triangles of lanes first to first + count - 1, a block at a time.
  void TestLanes(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    const Float4 zero = Float4::Set(0), one = Float4::Set(1), epsilon = Float4::Set(kHitEpsilon);
    const Lanes3<Float4> direction = {Float4::Set(ray.direction.x), Float4::Set(ray.direction.y),
                                      Float4::Set(ray.direction.z)};
    const Float4 ox = Float4::Set(ray.origin.x), oy = Float4::Set(ray.origin.y),
                 oz = Float4::Set(ray.origin.z);
    const std::uint32_t end = first + count;
    for (std::uint32_t b = first / kBlockLanes; b * kBlockLanes < end; ++b) {
      const TriangleBlock& block = tree.blocks[b];
      const auto load = [](const float(&rows)[3][kBlockLanes]) {
        return Lanes3<Float4>{Float4::LoadAligned(rows[0]), Float4::LoadAligned(rows[1]),
                              Float4::LoadAligned(rows[2])};
      };
      Lanes3<Float4> q = load(block.p0);
      q = {q.x - ox, q.y - oy, q.z - oz};
      TriangleHits<Float4> hits =
          TestTriangles(q, load(block.e1), load(block.e2), direction, Float4::Set(ray.t), zero, one, epsilon);
      if (hits.mask == 0) [[likely]]
        continue;
      // Lanes of the leaves before and behind do not count.
      if (b * kBlockLanes < first) hits.mask &= 0xFU << (first % kBlockLanes);
      if ((b + 1) * kBlockLanes > end) hits.mask &= (1U << (end % kBlockLanes)) - 1U;
      TakeHits(tree, block, hits);
    }
  }

  // In the order of the leaf, each against the limit that the one before has left.
  void TakeHits(const PackedTree& tree, const TriangleBlock& block, const TriangleHits<Float4>& hits) {
    alignas(16) float t[kBlockLanes], denominator[kBlockLanes], weight1[kBlockLanes], weight2[kBlockLanes];
    hits.t.Store(t);
    hits.denominator.Store(denominator);
    hits.weight1.Store(weight1);
    hits.weight2.Store(weight2);
    for (unsigned mask = hits.mask; mask != 0; mask &= mask - 1) {
      const int i = std::countr_zero(mask);
      if (!(t[i] <= ray.t - kHitEpsilon)) continue;
      const Part& part = object.parts[block.part[i]];
      if (IsParent(part, kKindTriangle, block.primitive[i])) continue;
      if (tree.filtersVisibility && !IsVisible(block.shader[i], ray)) continue;
      Store(part, kKindTriangle, block.primitive[i],
            {t[i],
             denominator[i],
             {(1.0f - weight1[i]) - weight2[i], weight1[i], weight2[i]},
             block.shader[i]});
    }
  }

  void TestReferences(std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t i = first; i < first + count; ++i) {
      const PrimitiveRef& reference = object.compactReferences[i];
      if (reference.kind == kKindInstance) {
        EnterInstance(object.instances[reference.index]);
        continue;
      }
      const Part& part = object.parts[reference.part];
      const auto kind = static_cast<std::uint8_t>(reference.kind);
      PrimitiveHit found;
      bool met = false;
      if (kind == kKindParticle) {
        const bool reflected =
            ray.event == kEventLambertian || ray.event == kEventGlossy || ray.event == kEventSpecular;
        met = !(reflected && IsParent(part, kind, reference.index)) &&
              TestParticle(part, reference.index, ray, found);
      } else if (!IsParent(part, kind, reference.index)) {
        if (kind == kKindTriangle) met = TestTriangle(part, reference.index, ray, found);
        if (kind == kKindTetragon) met = TestTetragon(part, reference.index, ray, found);
      }
      if (met) Store(part, kind, reference.index, found);
    }
  }

  void EnterInstance(const Instance& instance);

  void Run();
  template <int kStackSize>
  void RunWithStack(const PackedTree& tree);
};

template <int kStackSize>
void NearestWalk::RunWithStack(const PackedTree& tree) {
  const PackedNode* const nodes = tree.nodes.data();
  const SlabRay slab(ray);
  StackEntry stack[kStackSize];
  StackEntry* top = stack;
  StackEntry current = {0, 0, 0};
  for (;;) {
    while (current.word == 0) {
      const PackedNode& node = nodes[current.child];
      Float8 nearLanes;
      unsigned mask = SlabTest(node, slab, ray.t, nearLanes);
      if (mask == 0) goto pop;
      const int slot = std::countr_zero(mask);
      mask &= mask - 1;
      if (mask == 0) {
        current = {node.child[slot], node.word[slot], 0};
        continue;
      }
      alignas(32) float near[8];
      nearLanes.Store(near);
      const int second = std::countr_zero(mask);
      mask &= mask - 1;
      StackEntry a = {node.child[slot], node.word[slot], near[slot]};
      StackEntry b = {node.child[second], node.word[second], near[second]};
      if (b.near < a.near) std::swap(a, b);
      if (mask == 0) {
        *top++ = b;
        current = a;
        continue;
      }
      // Insertion from the far end: boxes come few, and mostly in order.
      StackEntry* const base = top;
      *top++ = b;
      *top++ = a;
      do {
        const int next = std::countr_zero(mask);
        mask &= mask - 1;
        const StackEntry entry = {node.child[next], node.word[next], near[next]};
        StackEntry* place = top++;
        for (; place != base && place[-1].near < entry.near; --place) *place = place[-1];
        *place = entry;
      } while (mask != 0);
      current = *--top;
    }
    if ((current.word & kTriangleLeaf) != 0)
      TestLanes(tree, current.child, current.word & kLeafCount);
    else
      TestReferences(current.child, current.word & kLeafCount);
  pop:
    do {
      if (top == stack) return;
      current = *--top;
    } while (current.near >= ray.t);
  }
}

void NearestWalk::Run() {
  const PackedTree* tree = object.packed.get();
  if (tree == nullptr || tree->nodes.size() == 0) return;
  ray.direction = SafeNormalize(ray.direction);
  if (tree->stackSize <= 128)
    RunWithStack<128>(*tree);
  else
    RunWithStack<2048>(*tree);  // no binary tree is deep enough to need more
}

void NearestWalk::EnterInstance(const Instance& instance) {
  if (instance.object < 0 || ray.matrixDepth >= 16) return;
  const Vec3 origin = ray.origin, direction = ray.direction, inverseDirection = ray.inverseDirection;
  ray.origin = TransformPoint(instance.inverse, origin);
  ray.direction = TransformDirection(instance.inverse, direction);
  ray.inverseDirection = Reciprocal(ray.direction);
  ++ray.matrixDepth;
  NearestWalk inner{objectTable[static_cast<std::size_t>(instance.object)], ray};
  inner.Run();
  if (inner.hit) {
    Mat3& matrix = matrixStacks[ray.thread][ray.matrixDepth - 1];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) matrix.m[i][j] = instance.normalMatrix.m[i][j];
    if (instance.shader != kNone) ray.shader = instance.shader;
    hit = true;
  }
  ray.origin = origin;
  ray.direction = direction;
  ray.inverseDirection = inverseDirection;
  --ray.matrixDepth;
}

}  // namespace

bool Trace(RayRecord& ray) {
  ++threadSlots[ray.thread].rays;
  ray.matrixDepth = 0;
  if (rootObject < 0 || static_cast<std::size_t>(rootObject) >= objectTable.size()) return false;
  if (!IsFinite(ray.origin) || !IsFinite(ray.direction) || ray.direction == kBlack) return false;
  ray.inverseDirection = Reciprocal(ray.direction);
  ray.t = kFarthest;
  NearestWalk walk{objectTable[static_cast<std::size_t>(rootObject)], ray};
  walk.Run();
  return walk.hit;
}

Mat3 HitNormalMatrix(const RayRecord& ray) {
  Mat3 product;
  for (int level = 0; level < ray.hitMatrixDepth; ++level) {
    const Mat3& matrix = matrixStacks[ray.thread][level];
    Mat3 next;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) {
        next.m[i][j] = 0;
        for (int k = 0; k < 3; ++k) next.m[i][j] += product.m[i][k] * matrix.m[k][j];
      }
    product = next;
  }
  return product;
}

}  // namespace zp
