// The walk of shadow rays: whatever lies between two points, in the order of slots.

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>

#include "accel/accel.h"
#include "accel/walk.h"
#include "core/index.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"

namespace zp {
namespace {

// Of one ray, through all Instances.
struct OccluderCounts {
  std::uint64_t innerNodes = 0, leaves = 0, primitives = 0;
  BodyCrossings* crossings = nullptr;
};

// A sphere is met at its front alone, and left again on the other side of its centre.
void NoteBody(BodyCrossings& crossings, std::uint8_t kind, std::int32_t shader, const PrimitiveHit& hit,
              Vec3 direction) {
  if (kind == kKindCylinder || !ShaderAt(shader).isBody) return;
  const bool front = hit.denominator < 0;
  AddCrossing(crossings, {hit.t, shader, front});
  if (kind != kKindParticle || !front) return;
  const float chord = -2 * Dot(hit.barycentric, direction) / Dot(direction, direction);
  AddCrossing(crossings, {hit.t + MaxOf(chord, 0.0f), shader, false});
}

// What one catcher keeps from another is dark in the picture behind them already.
bool PassesCatcher(const RayRecord& ray) {
  return HasShader(ray.parentShader) && ShaderAt(ray.parentShader).catchesShadow;
}

struct OccluderWalk {
  Object& object;
  RayRecord& ray;
  OccluderCounts& counts;
  std::int32_t shader;                   // of the outermost Instance that has one; it stands for all below
  const OccluderWalk* around = nullptr;  // null at the root
  const Instance* by = nullptr;          // what places the Object there
  std::uint32_t blockingLane = 0;        // in a packed leaf: the lane that blocked

  // A direction, and a normal, of the Object that is walked in scene space.
  Vec3 DirectionInScene(Vec3 v) const {
    for (const OccluderWalk* walk = this; walk->around != nullptr; walk = walk->around)
      v = TransformDirection(walk->by->matrix, v);
    return v;
  }
  Vec3 NormalInScene(Vec3 v) const {
    for (const OccluderWalk* walk = this; walk->around != nullptr; walk = walk->around)
      v = NormalMatrix(*walk->by) * v;
    return v;
  }

  // The cosine of the ray and the unit geometric normal; of no defined sign. Intended: a cylinder's is that
  // of its middle line as the ray sees it, wherever it is hit. By format 1 in the space of the Object, as if
  // the Instances scaled nothing.
  float HitCosine(const Part& part, std::uint32_t index, const Corners& corners,
                  const PrimitiveHit& hit) const {
    const bool inScene = around != nullptr && MeasuresInScene();
    const auto at = [&](int i) { return part.positions[corners.vertex[i]]; };
    if (corners.count == 2) {
      if (!inScene) return hit.denominator;
      const Vec3 axis = UnitVector(DirectionInScene(CurveAxis(part, index, hit.barycentric.z)));
      const Vec3 across = Cross(DirectionInScene(ray.direction), axis);
      return std::sqrt(Dot(across, across));
    }
    Vec3 normal = hit.barycentric;
    if (corners.count == 3) normal = Cross(at(1) - at(0), at(2) - at(0));
    if (corners.count == 4) normal = Cross(at(2) - at(0), at(3) - at(1));
    const Vec3 placed = inScene ? NormalInScene(normal) : normal;
    const float length = std::sqrt(Dot(placed, placed));  // small faces' normals are shorter than safe roots
    return length > 0 ? Dot(ray.direction, normal) / length : 1.0f;
  }

  // True when the surface that was met leaves nothing of the light. What counts by chance takes its share.
  bool Absorbs(const Part& part, std::uint8_t kind, std::uint32_t index, const PrimitiveHit& hit) const {
    const std::int32_t number = shader == kNone ? hit.shader : shader;
    if (!HasShader(number)) return true;
    const Shader& met = ShaderAt(number);
    const bool front = hit.denominator < 0;
    if (met.catchesShadow && PassesCatcher(ray)) return false;
    const bool opaque = front ? met.frontOpaque : met.backOpaque;
    if (opaque && !met.cutsOut) return true;
    const Corners corners = HitCorners(part, kind, index, hit.barycentric);
    const auto uv = CornerUv(corners, part);
    const Vec3 passes =
        opaque ? kBlack : ShadowTransparency(met, front, uv, HitCosine(part, index, corners, hit));
    const float share = met.cutsOut ? Opacity(met, uv) : 1.0f;
    ray.throughput *= share == 1 ? passes : kWhite * (1 - share) + share * passes;
    if (IsBlack(ray.throughput)) return true;
    if (counts.crossings != nullptr && share > 0)
      NoteBody(*counts.crossings, kind, number, hit, ray.direction);
    return false;
  }

  template <bool kOpaque>
  bool TakeHits(const PackedTree& tree, const TriangleBlock& block, const TriangleHits<Float4>& hits) {
    const StoredHits stored(hits);
    for (unsigned mask = hits.mask; mask != 0; mask &= mask - 1) {
      const int i = std::countr_zero(mask);
      const std::uint32_t index = block.primitive[i];
      const Part& part = object.parts[block.part[i]];
      if (IsParent(ray, part, kKindTriangle, index)) continue;
      if (tree.filtersVisibility && !IsVisible(block.shader[i], ray)) continue;
      if (!kOpaque && !Absorbs(part, kKindTriangle, index, stored.Lane(i, block.shader[i]))) continue;
      const auto lane = (&block - tree.blocks.data()) * kBlockLanes + i;
      blockingLane = static_cast<std::uint32_t>(lane);
      return true;
    }
    return false;
  }

  template <bool kOpaque>
  bool TestParticles(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    return TestParticleLanes(
        tree, first, count, ray, true,
        [&](const ParticleBlock& block, int i, Vec3 d, float nearest, float discriminant) {
          const Part& part = object.parts[block.part[i]];
          const std::uint32_t index = block.primitive[i];
          if (IsParent(ray, part, kKindParticle, index)) return false;
          if (tree.filtersVisibility && !IsVisible(part.shader, ray)) return false;
          PrimitiveHit hit;
          hit.shader = part.shader;
          if (!TakeShadowSphere(tree.shadowRoots, d, nearest, discriminant, ray, hit)) return false;
          if (!kOpaque && !Absorbs(part, kKindParticle, index, hit)) return false;
          blockingLane = static_cast<std::uint32_t>((&block - tree.particles.data()) * kParticleLanes + i);
          return true;
        });
  }

  template <bool kOpaque>
  bool TestCylinders(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t i = first; i < first + count; ++i) {
      const CurveSegment& segment = tree.segments[i];
      PrimitiveHit hit;
      if (!TestCurveSegment<Float8>(segment, ray.origin, ray.direction, ray.t, hit)) continue;
      const Part& part = object.parts[segment.part];
      if (IsParent(ray, part, kKindCylinder, segment.primitive)) continue;
      if (tree.filtersVisibility && !IsVisible(part.shader, ray)) continue;
      hit.shader = part.shader;
      if (!kOpaque && !Absorbs(part, kKindCylinder, segment.primitive, hit)) continue;
      blockingLane = i;
      return true;
    }
    return false;
  }

  template <bool kOpaque>
  bool TestTetragonLeaf(const PackedTree& tree, std::uint32_t first, std::uint32_t count) {
    return TestTetragonLanes(
        tree, first, count, ray, [&](const TetragonBlock& block, int i, const PrimitiveHit& hit) {
          const Part& part = object.parts[block.part[i]];
          const std::uint32_t index = block.primitive[i];
          if (IsParent(ray, part, kKindTetragon, index)) return false;
          if (tree.filtersVisibility && !IsVisible(hit.shader, ray)) return false;
          if (!kOpaque && !Absorbs(part, kKindTetragon, index, hit)) return false;
          blockingLane = static_cast<std::uint32_t>((&block - tree.tetragons.data()) * kTetragonLanes + i);
          return true;
        });
  }

  template <bool kOpaque>
  bool TestReferences(std::uint32_t first, std::uint32_t count) {
    assert(first + count <= object.compactReferences.size());
    for (std::uint32_t i = first; i < first + count; ++i) {
      const PrimitiveRef& reference = object.compactReferences[i];
      assert(Holds(object, reference));
      if (reference.kind == kKindInstance) {
        if (EnterInstance(object.instances[reference.index])) return true;
        continue;
      }
      const Part& part = object.parts[reference.part];
      const auto kind = static_cast<std::uint8_t>(reference.kind);
      if (IsParent(ray, part, kind, reference.index)) continue;
      PrimitiveHit hit;
      bool met = false;
      if (kind == kKindParticle)
        met = TestShadowParticle(part, reference.index, ray, hit, object.packed->shadowRoots);
      if (kind == kKindCylinder) met = TestCylinder(part, reference.index, ray, hit);
      if (kind == kKindTriangle) met = TestTriangle(part, reference.index, ray, hit);
      if (kind == kKindTetragon) met = TestTetragon(part, reference.index, ray, hit);
      if (met && (kOpaque || Absorbs(part, kind, reference.index, hit))) return true;
    }
    return false;
  }

  bool EnterInstance(const Instance& instance) {
    if (instance.object < 0 || ray.matrixDepth >= kMostInstanceLevels) return false;
    const InsideInstance inside(ray, instance);
    OccluderWalk inner{At(objectTable, instance.object),           ray,  counts,
                       shader == kNone ? instance.shader : shader, this, &instance};
    return inner.Run<false>();
  }

  // True if the ray is blocked.
  template <bool kLog>
  bool Run() {
    const PackedTree* tree = object.packed.get();
    if (tree == nullptr || tree->nodes.size() == 0) return false;
    const bool opaque = shader == kNone ? tree->opaqueOnly : IsOpaque(shader);
    if (tree->stackSize > kFewStackEntries || IsSteep(ray)) [[unlikely]]
      return opaque ? RunWithStack<kLog, true, false>(*tree) : RunWithStack<kLog, false, false>(*tree);
    return opaque ? RunWithStack<kLog, true, true>(*tree) : RunWithStack<kLog, false, true>(*tree);
  }

  //   kUsual  neither a tree that is deep nor a steep ray
  template <bool kLog, bool kOpaque, bool kUsual>
  bool RunWithStack(const PackedTree& tree);

  template <bool kOpaque>
  [[gnu::always_inline]] bool TestLeaf(const PackedTree& tree, std::uint32_t first, std::uint32_t word) {
    const std::uint32_t count = word & kLeafCount;
    if ((word & kTriangleLeaf) != 0)
      return TestLanes(tree, first, count, ray,
                       [&](const TriangleBlock& block, const TriangleHits<Float4>& hits) {
                         return TakeHits<kOpaque>(tree, block, hits);
                       });
    if ((word & kCylinderLeaf) != 0) return TestCylinders<kOpaque>(tree, first, count);
    if ((word & kParticleLeaf) != 0) return TestParticles<kOpaque>(tree, first, count);
    if ((word & kTetragonLeaf) != 0) return TestTetragonLeaf<kOpaque>(tree, first, count);
    return TestReferences<kOpaque>(first, count);
  }

  // The log of the slot that holds what blocked, in a merged subtree: its wide nodes stand in a row from
  // `first` on. `word` is that of the packed slot that leads there.
  std::uint32_t& FindLog(const PackedTree& tree, std::uint32_t first, std::uint32_t word) {
    const PrimitiveRef blocking = LaneReference(tree, word & kPackedLeaf, blockingLane);
    std::uint32_t left = word & kLeafCount;
    for (WideNode* node = &object.wideNodes[first];; ++node)
      for (int i = 0; i < 8; ++i) {
        const std::uint32_t count = node->count[i];
        if (count == 0) continue;
        const auto leaf = object.compactReferences.begin() + node->child[i];
        left -= count;
        if (left == 0 || std::find(leaf, leaf + count, blocking) != leaf + count) return node->log[i];
      }
  }

  // A thread's blocked ray counts for the leaf's slot in the wide node above it.
  void Log(const PackedTree& tree, std::uint32_t place) {
    const std::uint32_t packed = place / 8, slot = place % 8;
    WideNode& node = object.wideNodes[tree.wide[packed]];
    std::uint32_t& log = node.count[slot] != 0
                             ? node.log[slot]
                             : FindLog(tree, node.child[slot], tree.nodes[packed].word[slot]);
    std::atomic_ref<std::uint32_t>(log).fetch_add(1, std::memory_order_relaxed);
  }
};

template <bool kLog, bool kOpaque, bool kUsual>
bool OccluderWalk::RunWithStack(const PackedTree& tree) {
  constexpr int kStackSize = kUsual ? kFewStackEntries : kMostStackEntries;
  const PackedNode* const nodes = tree.nodes.data();
  const SlabRay<!kUsual> slab(ray);
  // Eight entries are written wherever some are pushed.
  std::uint32_t children[kStackSize + 8], words[kStackSize + 8];
  [[maybe_unused]] std::uint32_t places[kLog ? kStackSize + 8 : 1];
  std::size_t top = 0;
  std::uint32_t child = 0, word = 0;
  [[maybe_unused]] std::uint32_t place = 0;  // 8 * parent node + slot
  std::uint64_t innerNodes = 0, leaves = 0, primitives = 0;
  bool blocked = false;
  for (;;) {
    if (word == 0) {
      do {
        ++innerNodes;
        assert(child < tree.nodes.size() && top <= kStackSize);
        const PackedNode& node = nodes[child];
        Prefetch(node.child);
        Float8 near;
        const unsigned mask = SlabTest(node, slab, ray.t, near);
        if (mask == 0) goto pop;
        // The first slot goes on; the others wait, the second on top.
        const unsigned others = mask & (mask - 1);
        const int first = std::countr_zero(mask);
        if (others != 0) {
          const Words8 order = Words8::Load(kLaneOrders.lanes[others]);
          Permute(Words8::Load(node.child), order).Store(children + top);
          Permute(Words8::Load(node.word), order).Store(words + top);
          if constexpr (kLog) (order + Words8::Set(child * 8)).Store(places + top);
          top += static_cast<std::size_t>(std::popcount(others));
        }
        if constexpr (kLog) place = child * 8 + static_cast<std::uint32_t>(first);
        child = node.child[first];
        word = node.word[first];
      } while (word == 0);
    }
    ++leaves;
    primitives += word & kLeafCount;
    if (top != 0) PrefetchWaiting(tree, children[top - 1], words[top - 1]);
    blocked = TestLeaf<kOpaque>(tree, child, word);
    if (blocked) {
      if constexpr (kLog) Log(tree, place);
      break;
    }
  pop:
    if (top == 0) break;
    --top;
    child = children[top];
    word = words[top];
    if constexpr (kLog) place = places[top];
  }
  counts.innerNodes += innerNodes;
  counts.leaves += leaves;
  counts.primitives += primitives;
  return blocked;
}

}  // namespace

// In the order of distances. An edge that two faces share is one crossing.
void AddCrossing(BodyCrossings& crossings, const BodyCrossing& crossing) {
  constexpr float kSame = 1e-5f;
  for (int i = 0; i < crossings.count; ++i) {
    const BodyCrossing& other = crossings.list[i];
    if (other.shader == crossing.shader && other.front == crossing.front &&
        std::fabs(other.t - crossing.t) <= kSame * crossing.t)
      return;
  }
  if (crossings.count == BodyCrossings::kMost && crossings.list[crossings.count - 1].t < crossing.t) return;
  int i = crossings.count < BodyCrossings::kMost ? crossings.count++ : BodyCrossings::kMost - 1;
  for (; i > 0 && crossings.list[i - 1].t > crossing.t; --i) crossings.list[i] = crossings.list[i - 1];
  crossings.list[i] = crossing;
}

bool Occlude(RayRecord& ray, BodyCrossings* crossings) {
  ThreadSlot& slot = threadSlots[ray.thread];
  ++slot.shadowRays;
  ray.throughput = kWhite;
  if (!PrepareRay(ray)) return false;
  // The visibility filter knows legs by depth: a shadow ray is no camera ray, even from a first hit.
  const std::uint8_t depth = ray.depth;
  if (depth == 0) ray.depth = 1;
  OccluderCounts counts;
  counts.crossings = crossings;
  OccluderWalk walk{At(objectTable, rootObject), ray, counts, kNone};
  const bool logs = settings.frame.samplePass == 0 && settings.format < 2;  // nobody else reads the logs
  const bool blocked = logs ? walk.Run<true>() : walk.Run<false>();
  if (blocked) ray.throughput = kBlack;
  ray.depth = depth;
  slot.innerNodes += counts.innerNodes;
  slot.leaves += counts.leaves;
  slot.primitives += counts.primitives;
  return blocked;
}

}  // namespace zp
