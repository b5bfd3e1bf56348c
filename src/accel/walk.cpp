// The walks for the nearest hit of a single ray: nearest boxes first.

#include "accel/walk.h"

#include <algorithm>
#include <bit>
#include <cassert>

#include "accel/accel.h"
#include "accel/cut_outs.h"
#include "core/index.h"
#include "geometry/validate.h"

namespace zp {
namespace {

// Of the Instances around each thread's best hit: level k - 1 holds the matrix at nesting depth k.
Mat3 matrixStacks[kMaxThreads][kMostInstanceLevels];
const Instance* instanceStacks[kMaxThreads][kMostInstanceLevels];  // and the Instance itself

struct StackEntry {
  std::uint32_t child;
  std::uint32_t word;  // as in PackedNode
  float near;
};

// Of two boxes the nearer one first, of equal ones `a`. Without a branch, since nobody could foresee it.
inline void NearestFirst(StackEntry& a, StackEntry& b) {
  const auto bitsA = std::bit_cast<std::uint32_t>(a.near), bitsB = std::bit_cast<std::uint32_t>(b.near);
  const std::uint32_t exchange = 0U - static_cast<std::uint32_t>(bitsB < bitsA);  // as numbers above 0
  const std::uint32_t child = (a.child ^ b.child) & exchange, word = (a.word ^ b.word) & exchange,
                      near = (bitsA ^ bitsB) & exchange;
  a = {a.child ^ child, a.word ^ word, std::bit_cast<float>(bitsA ^ near)};
  b = {b.child ^ child, b.word ^ word, std::bit_cast<float>(bitsB ^ near)};
}

// Goes down from the node `current`: the nearest child next, the others onto the stack, nearest on top. True
// at a leaf; false where the ray meets no box.
template <bool kSlack>
[[gnu::always_inline]] inline bool Descend(const PackedNode* nodes, const SlabRay<kSlack>& slab, float limit,
                                           StackEntry& current, StackEntry*& top) {
  do {
    const PackedNode& node = nodes[current.child];
    Prefetch(node.child);
    Float8 nearLanes;
    unsigned mask = SlabTest(node, slab, limit, nearLanes);
    if (mask == 0) return false;
    const int only = std::countr_zero(mask);
    mask &= mask - 1;
    if (mask == 0) {
      current = {node.child[only], node.word[only], 0};
      continue;
    }
    alignas(32) float near[8];
    nearLanes.Store(near);
    const auto entry = [&](int slot) { return StackEntry{node.child[slot], node.word[slot], near[slot]}; };
    StackEntry a = entry(only), b = entry(std::countr_zero(mask));
    NearestFirst(a, b);
    mask &= mask - 1;
    if (b.word == 0) PrefetchWhole(nodes[b.child]);
    if (mask == 0) {
      *top++ = b;
      current = a;
      continue;
    }
    StackEntry c = entry(std::countr_zero(mask));
    NearestFirst(c, a);
    NearestFirst(a, b);
    StackEntry* const base = top;
    *top++ = b;
    *top++ = a;
    *top++ = c;
    // Few boxes are left, if any: insertion from the far end.
    while ((mask &= mask - 1) != 0) {
      const StackEntry next = entry(std::countr_zero(mask));
      StackEntry* place = top++;
      for (; place != base && place[-1].near < next.near; --place) *place = place[-1];
      *place = next;
    }
    current = *--top;
  } while (current.word == 0);
  return true;
}

// Nearest hit among all kinds, or among surfaces alone for rays that probe below a surface.
enum class Seek : std::uint8_t { kAll, kSurfaces };

float Reach(Vec3 p) { return std::fabs(p.x) + std::fabs(p.y) + std::fabs(p.z); }

template <Seek kSeek>
struct NearestWalk {
  const Object& object;
  RayRecord& ray;
  const InsideInstance* outermost = nullptr;  // of the Instances around; null at the root
  bool cutsOut = false;                       // some hits do not count
  std::int32_t shader = kNone;  // for these: of the outermost Instance that has one; it stands for all below
  std::uint64_t key = 0;        // and of the ray in this Object
  bool hit = false;

  void Store(const Part& part, std::uint8_t kind, std::uint32_t index, const PrimitiveHit& found) {
    assert(index < PrimitiveCount(part, kind));
    ray.t = found.t;
    ray.part = &part;
    ray.shader = found.shader;
    ray.primitive = static_cast<std::int32_t>(index);
    ray.kind = kind;
    ray.frontFace = found.denominator < 0;
    ray.barycentric = found.barycentric;
    ray.product = kBlack;
    ray.hitMatrixDepth = ray.matrixDepth;
    ray.hitPlace = ray.place;
    ray.levelZeroHit = object.level == 0;
    hit = true;
  }

  void MindCutOuts(std::uint64_t rayKey, std::int32_t outermostShader) {
    key = rayKey;
    shader = outermostShader;
    const PackedTree* tree = object.packed.get();
    cutsOut = shader == kNone ? tree != nullptr && tree->cutsOut : CutsOut(shader);
  }

  // Whether a hit that is nearer than all before counts.
  bool Counts(const Part& part, std::uint8_t kind, std::uint32_t index, const PrimitiveHit& found) const {
    if (!cutsOut) [[likely]]
      return true;
    const std::int32_t shown = shader == kNone ? found.shader : shader;
    return !CutsOut(shown) || CountsByChance(key, object, part, kind, index, found.barycentric, shown);
  }

  // In the order of the leaf, each against the limit that the one before has left.
  void TakeHits(const PackedTree& tree, const TriangleBlock& block, const TriangleHits<Float4>& hits) {
    const StoredHits stored(hits);
    for (unsigned mask = hits.mask; mask != 0; mask &= mask - 1) {
      const int i = std::countr_zero(mask);
      if (!(stored.t[i] <= ray.t - kHitEpsilon)) continue;
      const Part& part = object.parts[block.part[i]];
      if (SkipsTriangle(part, block.primitive[i])) continue;
      if (tree.filtersVisibility && !IsVisible(block.shader[i], ray)) continue;
      const PrimitiveHit found = stored.Lane(i, block.shader[i]);
      if (!Counts(part, kKindTriangle, block.primitive[i], found)) continue;
      Store(part, kKindTriangle, block.primitive[i], found);
      const auto edge = [i](const float(&rows)[3][kBlockLanes]) {
        return Vec3{rows[0][i], rows[1][i], rows[2][i]};
      };
      ray.product = Cross(edge(block.e1), edge(block.e2));
      Prefetch(&part.triangles[block.primitive[i]]);  // of which the hit's surface may be made
    }
  }

  // Intended: a probe may hit the triangle that it left, though not the tetragon.
  bool SkipsTriangle(const Part& part, std::uint32_t index) const {
    return kSeek == Seek::kAll && IsParent(ray, part, kKindTriangle, index);
  }

  // How far the origin may lie beside a sphere that the ray has left, by the rounding of its coordinates.
  float ParentBlur(const Part& part, std::uint32_t index) const {
    if (!IsParent(ray, part, kKindParticle, index)) return kNotParent;
    const Vec3 o = ray.origin;
    if (ray.matrixDepth == 0 || !MeasuresInScene())
      return kHitEpsilon * (1.0f + std::fabs(o.x) + std::fabs(o.y) + std::fabs(o.z));
    return kHitEpsilon * (1.0f + Reach(outermost->origin) + Reach(o) * std::sqrt(InverseSquare(ray, true)));
  }

  // Probes below a surface know no particles and no strands.
  void TestParticles(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    if (kSeek == Seek::kSurfaces) return;
    const bool scaled = MeasuresInScene();
    TestParticleLanes(tree, first, count, ray, scaled,
                      [&](const ParticleBlock& block, int i, Vec3 d, float nearest, float discriminant) {
                        const Part& part = object.parts[block.part[i]];
                        const float blur = ParentBlur(part, block.primitive[i]);
                        PrimitiveHit found;
                        found.shader = part.shader;
                        if ((!tree.filtersVisibility || IsVisible(part.shader, ray)) &&
                            TakeScaledSphere(scaled, d, nearest, discriminant, ray, blur, found) &&
                            Counts(part, kKindParticle, block.primitive[i], found))
                          Store(part, kKindParticle, block.primitive[i], found);
                        return false;
                      });
  }

  void TestCylinders(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    if (kSeek == Seek::kSurfaces) return;
    for (std::uint32_t i = first; i < first + count; ++i) {
      const CurveSegment& segment = tree.segments[i];
      PrimitiveHit found;
      if (!TestCurveSegment<Float8>(segment, ray.origin, ray.direction, ray.t, found)) continue;
      const Part& part = object.parts[segment.part];
      if (IsParent(ray, part, kKindCylinder, segment.primitive)) continue;
      if (tree.filtersVisibility && !IsVisible(part.shader, ray)) continue;
      found.shader = part.shader;
      if (Counts(part, kKindCylinder, segment.primitive, found))
        Store(part, kKindCylinder, segment.primitive, found);
    }
  }

  void TestTetragonLeaf(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    TestTetragonLanes(
        tree, first, count, ray, [&](const TetragonBlock& block, int i, const PrimitiveHit& found) {
          const Part& part = object.parts[block.part[i]];
          if (found.t <= ray.t - kHitEpsilon && !IsParent(ray, part, kKindTetragon, block.primitive[i]) &&
              (!tree.filtersVisibility || IsVisible(found.shader, ray)) &&
              Counts(part, kKindTetragon, block.primitive[i], found))
            Store(part, kKindTetragon, block.primitive[i], found);
          return false;
        });
  }

  void TestReferences(std::uint32_t first, std::uint32_t count) {
    assert(first + count <= object.compactReferences.size());
    for (std::uint32_t i = first; i < first + count; ++i) {
      const PrimitiveRef& reference = object.compactReferences[i];
      assert(Holds(object, reference));
      if (reference.kind == kKindInstance) {
        EnterInstance(object.instances[reference.index]);
        continue;
      }
      const Part& part = object.parts[reference.part];
      const auto kind = static_cast<std::uint8_t>(reference.kind);
      PrimitiveHit found;
      bool met = false;
      if (kind == kKindParticle && kSeek == Seek::kAll) {
        met = TestParticle(part, reference.index, ray, found, ParentBlur(part, reference.index),
                           MeasuresInScene());
      } else if (kind == kKindCylinder && kSeek == Seek::kAll) {
        met = !IsParent(ray, part, kind, reference.index) && TestCylinder(part, reference.index, ray, found);
      } else if (kind == kKindTriangle) {
        met = !SkipsTriangle(part, reference.index) && TestTriangle(part, reference.index, ray, found);
      } else if (kind == kKindTetragon) {
        met = !IsParent(ray, part, kind, reference.index) && TestTetragon(part, reference.index, ray, found);
      }
      if (met && Counts(part, kind, reference.index, found)) Store(part, kind, reference.index, found);
    }
  }

  void EnterInstance(const Instance& instance);

  [[gnu::always_inline]] void Run();
  template <bool kUsual>
  void RunWithStack(const PackedTree& tree);

  [[gnu::always_inline]] void TestLeaf(const PackedTree& tree, std::uint32_t first, std::uint32_t word) {
    const std::uint32_t count = word & kLeafCount;
    if ((word & kTriangleLeaf) != 0)
      TestLanes(tree, first, count, ray, [&](const TriangleBlock& block, const TriangleHits<Float4>& hits) {
        TakeHits(tree, block, hits);
        return false;
      });
    else if ((word & kCylinderLeaf) != 0)
      TestCylinders(tree, first, count);
    else if ((word & kParticleLeaf) != 0)
      TestParticles(tree, first, count);
    else if ((word & kTetragonLeaf) != 0)
      TestTetragonLeaf(tree, first, count);
    else
      TestReferences(first, count);
  }
};

template <Seek kSeek>
template <bool kUsual>
void NearestWalk<kSeek>::RunWithStack(const PackedTree& tree) {
  constexpr int kStackSize = kUsual ? kFewStackEntries : kMostStackEntries;
  const PackedNode* const nodes = tree.nodes.data();
  const SlabRay<!kUsual> slab(ray);
  StackEntry stack[kStackSize];
  StackEntry* top = stack;
  StackEntry current = {0, 0, 0};
  for (;;) {
    assert(current.word != 0 || (current.child < tree.nodes.size() && top <= stack + kStackSize));
    if (current.word != 0 || Descend(nodes, slab, ray.t, current, top)) {
      if (top != stack) PrefetchWaiting(tree, top[-1].child, top[-1].word);
      TestLeaf(tree, current.child, current.word);
    }
    do {
      if (top == stack) return;
      current = *--top;
    } while (current.near >= ray.t);
  }
}

template <Seek kSeek>
inline void NearestWalk<kSeek>::Run() {
  const PackedTree* tree = object.packed.get();
  if (tree == nullptr || tree->nodes.size() == 0) return;
  if (kSeek == Seek::kAll && (ray.matrixDepth == 0 || !MeasuresInScene()))
    ray.direction = SafeNormalize(ray.direction);
  if (tree->stackSize <= kFewStackEntries && !IsSteep(ray)) [[likely]]
    RunWithStack<true>(*tree);
  else
    RunWithStack<false>(*tree);
}

template <Seek kSeek>
void NearestWalk<kSeek>::EnterInstance(const Instance& instance) {
  if (instance.object < 0 || ray.matrixDepth >= kMostInstanceLevels) return;
  const InsideInstance inside(ray, instance);
  NearestWalk inner{At(objectTable, instance.object), ray, outermost == nullptr ? &inside : outermost};
  if (cutOutsExist) [[unlikely]]
    inner.MindCutOuts(MixKey(key, static_cast<std::uint64_t>(&instance - object.instances.data())),
                      shader == kNone ? instance.shader : shader);
  inner.Run();
  if (!inner.hit) return;
  matrixStacks[ray.thread][ray.matrixDepth - 1] = NormalMatrix(instance);
  instanceStacks[ray.thread][ray.matrixDepth - 1] = &instance;
  if (instance.shader != kNone) ray.shader = instance.shader;
  hit = true;
}

template <Seek kSeek>
bool WalkFromRoot(RayRecord& ray) {
  ++threadSlots[ray.thread].rays;
  if (!PrepareRay(ray)) return false;
  NearestWalk<kSeek> walk{At(objectTable, rootObject), ray};
  if (cutOutsExist) [[unlikely]]
    walk.MindCutOuts(RayKey(ray), kNone);
  walk.Run();
  return walk.hit;
}

}  // namespace

bool Trace(RayRecord& ray) {
  ray.t = kFarthest;
  return WalkFromRoot<Seek::kAll>(ray);
}

bool TraceSurfaces(RayRecord& ray) { return WalkFromRoot<Seek::kSurfaces>(ray); }

const Instance& HitInstance(const RayRecord& ray, int level) {
  assert(level >= 0 && level < ray.hitMatrixDepth);
  return *instanceStacks[ray.thread][level];
}

Mat3 HitNormalMatrix(const RayRecord& ray) {
  assert(ray.hitMatrixDepth <= kMostInstanceLevels);
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
