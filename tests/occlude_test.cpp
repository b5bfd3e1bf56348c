// Shadow rays and surface probes against flat loops over the same primitives.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>

#include "accel/accel.h"
#include "accel/primitive_tests.h"
#include "accel/tree.h"
#include "core/console.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "random_geometry.h"

namespace zp {
namespace {

// Shader 0 is opaque, 1 lets half through from both sides, 2 is opaque from behind and coloured from the
// front, 3 is a thin pane of ior 1.5.
constexpr Vec3 kHalf = {0.5f, 0.5f, 0.5f}, kTinted = {1, 0.25f, 0};
constexpr float kPaneIor = 1.5f;
enum : std::int32_t { kSolid, kVeil, kOneWay, kPane };

void AddTestShaders() {
  shaders.resize(4);
  for (Shader& s : shaders) {
    s.name = "of the test";
    s.surfaces.resize(1);
    s.frontCount = s.backCount = 1;
  }
  shaders[kVeil].surfaces[0][Element::kShadowTransparency].color = kHalf;
  shaders[kOneWay].surfaces.resize(2);
  shaders[kOneWay].surfaces[0][Element::kShadowTransparency].color = kTinted;
  shaders[kOneWay].back[0] = 1;
  shaders[kPane].surfaces[0].material = Material::kThinDielectric;
  shaders[kPane].surfaces[0][Element::kSpecular].color = kWhite;
  shaders[kPane].surfaces[0][Element::kIor].color = {kPaneIor, kPaneIor, kPaneIor};
  shaders[kSolid].frontOpaque = shaders[kSolid].backOpaque = shaders[kOneWay].backOpaque = true;
}

// What a pane keeps at a cosine: both faces of a slab with all its inner reflections.
float PaneFactor(float cosine) {
  const float r0 = (kPaneIor - 1) * (kPaneIor - 1) / ((kPaneIor + 1) * (kPaneIor + 1));
  const float r = r0 + (1 - r0) * std::pow(1 - std::abs(cosine), 5.0f);
  return (1 - r) * (1 - r) / (1 - r * r);
}

Vec3 Factor(std::int32_t shader, bool front, float cosine) {
  if (shader == kVeil) return kHalf;
  if (shader == kOneWay && front) return kTinted;
  if (shader == kPane) return kWhite * PaneFactor(cosine);
  return kBlack;
}

// Triangles, rectangles and particles; the Part's shader is that of the particles.
Part MakeSoup(int count, bool opaque) {
  Part part;
  part.shader = opaque ? kSolid : kVeil;
  for (int i = 0; i < count; ++i) {
    const Vec3 p = UniformPoint(10), u = UniformPoint(1);
    const Vec3 v = Cross(SafeNormalize(u), SafeNormalize(UniformPoint(1)));
    const auto shader = opaque ? kSolid : static_cast<std::int32_t>(generator() % 8);
    const std::int32_t used = shader > kPane ? kVeil : shader;
    switch (i % 3) {
      case 0:
        part.triangles.push_back(
            {{AddVertex(part, p), AddVertex(part, p + u), AddVertex(part, p + v)}, used});
        break;
      case 1:
        part.tetragons.push_back(
            {{AddVertex(part, p), AddVertex(part, p + u), AddVertex(part, p + u + v), AddVertex(part, p + v)},
             used});
        break;
      default:
        part.particles.push_back(AddVertex(part, p));
    }
  }
  part.scalarSets[0].values.assign(part.positions.size(), 0.3f);
  return part;
}

struct Expected {
  Vec3 throughput = kWhite;
  bool grazes = false;  // so close to an edge, or to the threshold, that rounding decides
  bool blocked = false;
};

Expected OccludeByLoop(const Part& part, RayRecord ray) {
  Expected expected;
  ray.depth = 1;
  const auto at = [&](std::uint32_t i) { return part.positions[i]; };
  const auto pass = [&](std::uint8_t kind, std::uint32_t i, const PrimitiveHit& hit, Vec3 normal) {
    if (ray.parentKind == kind && ray.parentPrimitive == static_cast<std::int32_t>(i)) return;
    const Vec3 b = hit.barycentric;
    const float edge = kind == kKindTriangle   ? std::min({b.x, b.y, b.z})
                       : kind == kKindTetragon ? std::min({b.x, b.y, 1 - b.x, 1 - b.y})
                                               : 1.0f;
    if (edge < 1e-4f || std::abs(hit.t - ray.t) < 1e-3f) expected.grazes = true;
    expected.throughput *= Factor(hit.shader, hit.denominator < 0, Dot(ray.direction, SafeNormalize(normal)));
  };
  PrimitiveHit hit;
  for (std::uint32_t i = 0; i < part.triangles.size(); ++i) {
    const auto& v = part.triangles[i].vertex;
    if (TestTriangle(part, i, ray, hit))
      pass(kKindTriangle, i, hit, Cross(at(v[1]) - at(v[0]), at(v[2]) - at(v[0])));
  }
  for (std::uint32_t i = 0; i < part.tetragons.size(); ++i) {
    const auto& v = part.tetragons[i].vertex;
    if (TestTetragon(part, i, ray, hit))
      pass(kKindTetragon, i, hit, Cross(at(v[2]) - at(v[0]), at(v[3]) - at(v[1])));
  }
  for (std::uint32_t i = 0; i < part.particles.size(); ++i) {
    // Spheres whose roots come from the discriminant itself.
    const Vec3 d = at(part.particles[i]) - ray.origin;
    const float b = Dot(d, ray.direction), radius = part.scalarSets[0].values[part.particles[i]];
    const float discriminant = b * b - Dot(d, d) + radius * radius;
    if (std::abs(discriminant) < 1e-3f) expected.grazes = true;
    if (discriminant < 0) continue;
    const auto counts = [&](float t) {
      if (std::abs(t - ray.t) < 1e-3f || std::abs(t) < 1e-3f) expected.grazes = true;
      return t > kHitEpsilon && t < ray.t + kHitEpsilon;
    };
    // Roots outside the box of the sphere are met only if the ray enters the box before its end.
    if (b - radius < ray.t && b + radius > ray.t) expected.grazes = true;
    if (counts(b - discriminant) || counts(b + discriminant)) {
      hit.denominator = -1;
      hit.shader = part.shader;
      hit.t = 0;
      hit.barycentric = {};
      pass(kKindParticle, i, hit, {0, 0, 1});
    }
  }
  const float brightest = std::max({expected.throughput.x, expected.throughput.y, expected.throughput.z});
  if (std::abs(brightest - kBlackThreshold) < 1e-4f * kBlackThreshold && brightest != kBlackThreshold)
    expected.grazes = true;
  expected.blocked = IsBlack(expected.throughput);
  return expected;
}

RayRecord RayTo(Vec3 from, Vec3 to) {
  RayRecord ray;
  ray.origin = from;
  ray.direction = SafeNormalize(to - from);
  ray.t = SafeLength(to - from);
  return ray;
}

Mat4 RigidMatrix(float angle, Vec3 move) {
  const float c = std::cos(angle), s = std::sin(angle);
  return {{{c, -s, 0, move.x}, {s, c, 0, move.y}, {0, 0, 1, move.z}, {0, 0, 0, 1}}};
}

class OccludeTest : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    objectTable = {};
    shaders = {};
    AddTestShaders();
    settings.samplePass = 1;
  }
  void TearDown() override {
    FinalizeAccelerator();
    shaders = {};
    settings.samplePass = 8;
    SetConsoleQuiet(false);
  }

  // Returns how many rays were blocked and how many came through dimmed.
  static std::pair<int, int> Compare(const Part& oracle, int rays, float tolerance) {
    int blocked = 0, dimmed = 0, compared = 0;
    for (int i = 0; i < rays; ++i) {
      RayRecord ray = RayTo(UniformPoint(11), UniformPoint(11));
      const Expected expected = OccludeByLoop(oracle, ray);
      if (expected.grazes) continue;
      ++compared;
      EXPECT_EQ(Occlude(ray), expected.blocked) << i;
      EXPECT_EQ(ray.depth, 0);
      if (expected.blocked) {
        ++blocked;
        EXPECT_TRUE(IsBlack(ray.throughput));
        continue;
      }
      if (expected.throughput.x < 1) ++dimmed;
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(ray.throughput[c], expected.throughput[c], tolerance);
    }
    EXPECT_GT(compared, rays / 2);
    return {blocked, dimmed};
  }
};

// A triangle across a level, with its front upwards.
void AddSquare(Part& part, float height, float size, std::int32_t shader) {
  part.triangles.push_back({{AddVertex(part, {-size, -size, height}), AddVertex(part, {size, -size, height}),
                             AddVertex(part, {0, size, height})},
                            shader});
}

TEST_F(OccludeTest, AgreesWithALoopOverASoup) {
  for (const bool opaque : {false, true}) {
    objectTable = {};
    objectTable.resize(1);
    objectTable[0].parts.push_back(MakeSoup(opaque ? 900 : 3000, opaque));
    InitializeAccelerator();
    EXPECT_EQ(objectTable[0].packed->opaqueOnly, opaque);
    const auto [blocked, dimmed] = Compare(objectTable[0].parts[0], 4000, 1e-4f);
    EXPECT_GT(blocked, 400) << opaque;
    EXPECT_LT(blocked, 3600);
    EXPECT_EQ(dimmed > 400, !opaque);
  }
}

TEST_F(OccludeTest, NestedInstancesCastTheSameShadowsAndTheOutermostShaderCounts) {
  for (const std::int32_t outer :
       {kNone, static_cast<std::int32_t>(kVeil), static_cast<std::int32_t>(kSolid)}) {
    objectTable = {};
    objectTable.resize(4);
    objectTable[3].parts.push_back(MakeSoup(2000, false));
    Part world = objectTable[3].parts[0];
    for (int i = 0; i < 3; ++i) {
      Instance instance;
      instance.object = i + 1;
      instance.matrix =
          RigidMatrix(0.4f * static_cast<float>(i + 1), {0.3f * static_cast<float>(i), -0.4f, 0.5f});
      if (i == 1) instance.shader = outer;
      if (i == 2 && outer != kNone) instance.shader = kPane;  // hidden by the one around it
      objectTable[static_cast<std::size_t>(i)].instances.push_back(instance);
    }
    for (Vec3& p : world.positions)
      for (int i = 2; i >= 0; --i)
        p = TransformPoint(objectTable[static_cast<std::size_t>(i)].instances[0].matrix, p);
    if (outer != kNone) {
      world.shader = outer;
      for (Triangle& t : world.triangles) t.shader = outer;
      for (Tetragon& t : world.tetragons) t.shader = outer;
    }
    InitializeAccelerator();
    const auto [blocked, dimmed] = Compare(world, 1500, 1e-3f);
    EXPECT_EQ(blocked > 50, outer != kVeil) << outer;
    EXPECT_EQ(dimmed > 50, outer != kSolid) << outer;
  }
}

TEST_F(OccludeTest, ManyPanesMultiplyUntilNothingIsLeft) {
  // Nine veils leave 1/512; the tenth leaves exactly the threshold, which is nothing.
  for (const int veils : {9, 10, 11}) {
    objectTable = {};
    objectTable.resize(1);
    Part& part = objectTable[0].parts.emplace_back();
    for (int i = 0; i < veils; ++i) AddSquare(part, static_cast<float>(i), 5, kVeil);
    InitializeAccelerator();
    RayRecord ray = RayTo({0.1f, 0.2f, -1}, {0.1f, 0.2f, 20});
    EXPECT_EQ(Occlude(ray), veils >= 10);
    if (veils == 9) {
      EXPECT_EQ(ray.throughput, kWhite * (1.0f / 512));
    }
  }
  // Panes, slantwise: the closed form to the number of panes.
  objectTable = {};
  objectTable.resize(1);
  Part& part = objectTable[0].parts.emplace_back();
  for (int i = 0; i < 6; ++i) AddSquare(part, 0.1f * static_cast<float>(i), 5, kPane);
  InitializeAccelerator();
  RayRecord ray = RayTo({-2, 0, -1}, {2, 0.1f, 2});
  const float expected = std::pow(PaneFactor(ray.direction.z), 6.0f);
  EXPECT_FALSE(Occlude(ray));
  EXPECT_NEAR(ray.throughput.x, expected, 1e-4f);
  EXPECT_LT(expected, 0.7f);
}

TEST_F(OccludeTest, ASideDecidesAndTinyFacesKeepTheirCosine) {
  objectTable.resize(1);
  Part& part = objectTable[0].parts.emplace_back();
  AddSquare(part, 0, 1, kOneWay);
  AddSquare(part, 10, 1e-4f, kPane);
  InitializeAccelerator();
  RayRecord fromFront = RayTo({0, 0, 1}, {0, 0, -1}), fromBack = RayTo({0, 0, -1}, {0, 0, 1});
  EXPECT_FALSE(Occlude(fromFront));
  EXPECT_EQ(fromFront.throughput, kTinted);
  EXPECT_TRUE(Occlude(fromBack));
  RayRecord tiny = RayTo({0, 0, 9}, {0, 0, 11});
  EXPECT_FALSE(Occlude(tiny));
  EXPECT_NEAR(tiny.throughput.x, PaneFactor(1), 1e-4f);
}

TEST_F(OccludeTest, TheParentCastsNoShadowOnItselfButOnOtherParts) {
  // One primitive of each kind with the same index, and the same once more in another Part.
  objectTable.resize(1);
  for (int p = 0; p < 2; ++p) {
    Part& part = objectTable[0].parts.emplace_back();
    const float x = 100 * static_cast<float>(p);
    const auto corner = [&](float dx, float dy, float z) { return AddVertex(part, {x + dx, dy, z}); };
    part.triangles.push_back({{corner(-1, -1, 0), corner(1, -1, 0), corner(0, 1, 0)}, kSolid});
    part.tetragons.push_back(
        {{corner(-1, -1, 10), corner(1, -1, 10), corner(1, 1, 10), corner(-1, 1, 10)}, kSolid});
    part.particles.push_back(corner(0, 0, 20));
    part.scalarSets[0].values.assign(part.positions.size(), 1.0f);
  }
  InitializeAccelerator();
  const std::uint8_t kinds[] = {kKindTriangle, kKindTetragon, kKindParticle};
  for (int target = 0; target < 3; ++target)
    for (int parent = 0; parent < 3; ++parent)
      for (int parentPart = 0; parentPart < 2; ++parentPart)
        for (const std::uint8_t event : {kEventLambertian, kEventSpecularRefraction}) {
          const float z = 10 * static_cast<float>(target);
          RayRecord ray = RayTo({0.1f, 0.1f, z - 2}, {0.1f, 0.1f, z + 2});
          ray.event = event;
          ray.parentKind = kinds[parent];
          ray.parentPrimitive = 0;
          ray.parentPart = &objectTable[0].parts[static_cast<std::size_t>(parentPart)];
          EXPECT_EQ(Occlude(ray), parent != target || parentPart != 0);
        }
}

TEST_F(OccludeTest, OnlyInvisibleSurfacesCastNoShadow) {
  for (const std::uint8_t depth : {std::uint8_t{0}, std::uint8_t{1}})
    for (const Visibility visibility : {Visibility::kInvisible, Visibility::kNotLightPrimary,
                                        Visibility::kNotCameraPrimary, Visibility::kAll}) {
      objectTable = {};
      objectTable.resize(1);
      shaders[kSolid].geometry.visibility = visibility;
      Part& part = objectTable[0].parts.emplace_back();
      AddSquare(part, 0, 1, kSolid);
      part.particles.push_back(AddVertex(part, {0, 0, 10}));
      part.scalarSets[0].values.assign(part.positions.size(), 1.0f);
      InitializeAccelerator();
      for (const float z : {0.0f, 10.0f}) {
        RayRecord ray = RayTo({0, 0, z - 2}, {0, 0.1f, z + 2});
        ray.depth = depth;
        EXPECT_EQ(Occlude(ray), visibility != Visibility::kInvisible);
        EXPECT_EQ(ray.depth, depth);
      }
    }
}

TEST_F(OccludeTest, StrangeRaysAndScenes) {
  RayRecord lost = RayTo({0, 0, 0}, {0, 0, 1});
  EXPECT_FALSE(Occlude(lost));  // no Object at all
  objectTable.resize(1);
  Part& part = objectTable[0].parts.emplace_back();
  AddSquare(part, 0, 1, kSolid);
  InitializeAccelerator();
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  for (const Vec3 bad : {Vec3{nan, 0, 1}, Vec3{0, inf, 1}, Vec3{0, 0, 0}}) {
    RayRecord ray = RayTo({0, 0, -1}, {0, 0, 1});
    ray.direction = bad;
    EXPECT_FALSE(Occlude(ray));
    EXPECT_EQ(ray.throughput, kWhite);
  }
  RayRecord endless = RayTo({0, 0, -1}, {0, 0, 1}), nowhere = endless;
  endless.t = inf;
  nowhere.t = nan;
  EXPECT_TRUE(Occlude(endless));
  EXPECT_FALSE(Occlude(nowhere));
  // Along an axis, whichever sign its zeros have, and before or behind the limit.
  for (const float zero : {0.0f, -0.0f}) {
    RayRecord ray = RayTo({0.1f, 0.1f, -1}, {0.1f, 0.1f, 1});
    ray.direction = {zero, zero, 1};
    EXPECT_TRUE(Occlude(ray));
    ray.t = 0.999f;
    EXPECT_FALSE(Occlude(ray));
    ray.t = 1.001f;
    EXPECT_TRUE(Occlude(ray));
  }
}

TEST_F(OccludeTest, CountsWhatItVisits) {
  objectTable.resize(1);
  Part& part = objectTable[0].parts.emplace_back();
  AddSquare(part, 0, 1, kSolid);
  AddSquare(part, 50, 1, kSolid);
  InitializeAccelerator();
  threadSlots[3] = {};
  for (const float z : {0.0f, 50.0f, 90.0f}) {
    RayRecord ray = RayTo({0, 0, z - 1}, {0, 0, z + 1});
    ray.thread = 3;
    EXPECT_EQ(Occlude(ray), z < 60);
  }
  EXPECT_EQ(threadSlots[3].shadowRays, 3U);
  EXPECT_EQ(threadSlots[3].rays, 0U);
  EXPECT_EQ(threadSlots[3].innerNodes, 3U);
  EXPECT_EQ(threadSlots[3].leaves, 2U);
  EXPECT_EQ(threadSlots[3].primitives, 2U);
  threadSlots[3] = {};
}

std::uint64_t LoggedRays(const Object& object) {
  std::uint64_t sum = 0;
  for (const WideNode& node : object.wideNodes) sum = std::accumulate(node.log, node.log + 8, sum);
  return sum;
}

TEST_F(OccludeTest, PassZeroLogsAndOrderedSlotsAnswerTheSameSooner) {
  // A cloud of small triangles around a wall of a few large ones; an Instance of more stands behind.
  objectTable.resize(2);
  objectTable[1].parts.push_back(MakeSoup(300, true));
  Part& part = objectTable[0].parts.emplace_back();
  for (int i = 0; i < 4000; ++i) {
    const Vec3 p = UniformPoint(10);
    part.triangles.push_back({{AddVertex(part, p), AddVertex(part, p + UniformPoint(0.2f)),
                               AddVertex(part, p + UniformPoint(0.2f))},
                              kSolid});
  }
  AddSquare(part, 0.5f, 20, kSolid);
  Instance instance;
  instance.object = 1;
  instance.matrix = RigidMatrix(0.1f, {0, 0, 5});
  objectTable[0].instances.push_back(instance);
  InitializeAccelerator();
  Object& root = objectTable[0];

  std::vector<RayRecord> rays;
  for (int i = 0; i < 4000; ++i)
    rays.push_back(RayTo({Uniform(-9, 9), Uniform(-9, 9), -10}, {Uniform(-9, 9), Uniform(-9, 9), 11}));
  const auto walk = [&](std::vector<bool>& answers) {
    threadSlots[0] = {};
    answers.clear();
    for (RayRecord ray : rays) answers.push_back(Occlude(ray));
    return threadSlots[0].innerNodes + threadSlots[0].primitives;
  };
  std::vector<bool> plain, logged, ordered;
  const std::uint64_t before = walk(plain);
  EXPECT_EQ(LoggedRays(root), 0U);
  settings.samplePass = 0;
  EXPECT_EQ(walk(logged), before);
  const auto blocked = static_cast<std::uint64_t>(std::count(plain.begin(), plain.end(), true));
  EXPECT_GT(blocked, 2000U);
  EXPECT_EQ(LoggedRays(root), blocked);  // one for each, Instances by their slot in the root
  EXPECT_EQ(LoggedRays(objectTable[1]), 0U);

  const auto innerBefore = objectTable[1].packed;
  for (Object& object : objectTable) OrderOccluders(object);
  EXPECT_EQ(objectTable[1].packed, innerBefore);
  settings.samplePass = 1;
  const std::uint64_t after = walk(ordered);
  EXPECT_EQ(plain, logged);
  EXPECT_EQ(plain, ordered);
  EXPECT_LE(after, before);
  EXPECT_LT(after, 3 * rays.size());  // most rays meet the wall first of all
  // The packed tree mirrors the records slot by slot.
  for (std::size_t n = 0; n < root.wideNodes.size(); ++n)
    for (int i = 0; i < 8; ++i) {
      const WideNode& wide = root.wideNodes[n];
      if (wide.child[i] == kUnusedSlot) continue;
      const PackedNode& packed = root.packed->nodes[n];
      const bool merged = wide.count[i] == 0 && packed.word[i] != 0;
      if (merged)
        EXPECT_LE(packed.word[i] & kLeafCount, kMergedTriangles);
      else
        EXPECT_EQ(packed.word[i] & kLeafCount, wide.count[i]);
      for (int row = 0; row < 6; ++row) EXPECT_EQ(packed.boxes[row][i], wide.boxes[row][i]);
    }
  // The slot that blocked most a unit of work comes first: that of the wall or its ancestors.
  std::uint32_t wall = 0;
  for (int step = 0; step < 64; ++step) {
    const WideNode& node = root.wideNodes[wall];
    if (node.count[0] != 0) {
      const PrimitiveRef& reference = root.compactReferences[node.child[0]];
      EXPECT_EQ(reference.kind, kKindTriangle);
      EXPECT_EQ(reference.index, root.parts[0].triangles.size() - 1);
      break;
    }
    wall = node.child[0];
  }
}

TEST_F(OccludeTest, LoggingLosesNoRayOfAnyThread) {
  objectTable.resize(1);
  AddSquare(objectTable[0].parts.emplace_back(), 0, 1, kSolid);
  InitializeAccelerator();
  settings.samplePass = 0;
#pragma omp parallel num_threads(4)
  for (int i = 0; i < 5000; ++i) {
    RayRecord ray = RayTo({0, 0, -1}, {0, 0, 1});
    ray.thread = 4;
    Occlude(ray);
  }
  EXPECT_EQ(LoggedRays(objectTable[0]), 20000U);
  threadSlots[4] = {};
}

TEST_F(OccludeTest, SurfaceProbes) {
  objectTable.resize(2);
  Part& part = objectTable[1].parts.emplace_back();
  AddSquare(part, 0, 1, kSolid);
  part.tetragons.push_back({{AddVertex(part, {-1, -1, 1}), AddVertex(part, {1, -1, 1}),
                             AddVertex(part, {1, 1, 1}), AddVertex(part, {-1, 1, 1})},
                            kSolid});
  part.particles.push_back(AddVertex(part, {0, 0, -2}));
  part.scalarSets[0].values.assign(part.positions.size(), 0.5f);
  Instance instance;
  instance.object = 1;
  instance.shader = kVeil;
  instance.matrix = RigidMatrix(0.3f, {5, 0, 0});
  objectTable[0].instances.push_back(instance);
  InitializeAccelerator();
  const auto probe = [](float from, float to) { return RayTo({5.1f, 0.1f, from}, {5.1f, 0.1f, to}); };
  // Past the particle to the triangle; the limit is the caller's.
  RayRecord ray = probe(-4, 4);
  ASSERT_TRUE(TraceSurfaces(ray));
  EXPECT_EQ(ray.kind, kKindTriangle);
  EXPECT_NEAR(ray.t, 4, 1e-5f);
  EXPECT_EQ(ray.shader, kVeil);
  EXPECT_EQ(ray.hitMatrixDepth, 1);
  EXPECT_FALSE(ray.levelZeroHit);
  ray = probe(-4, -0.001f);
  EXPECT_FALSE(TraceSurfaces(ray));
  EXPECT_EQ(ray.kind, kKindUnset);
  // A triangle may be the parent, a tetragon not.
  ray = probe(-4, 4);
  ray.parentPart = &objectTable[1].parts[0];
  ray.parentPlace = PlaceInside(0, objectTable[0].instances[0]);
  ray.parentPrimitive = 0;
  ray.parentKind = kKindTriangle;
  ASSERT_TRUE(TraceSurfaces(ray));
  EXPECT_EQ(ray.kind, kKindTriangle);
  ray = probe(4, -4);
  ray.parentPart = &objectTable[1].parts[0];
  ray.parentPlace = PlaceInside(0, objectTable[0].instances[0]);
  ray.parentPrimitive = 0;
  ray.parentKind = kKindTetragon;
  ASSERT_TRUE(TraceSurfaces(ray));
  EXPECT_EQ(ray.kind, kKindTriangle);
  // The direction stays as the caller scaled it, and so does the unit of t.
  ray = probe(-4, 4);
  ray.direction = ray.direction * 2.0f;
  ASSERT_TRUE(TraceSurfaces(ray));
  EXPECT_NEAR(ray.t, 2, 1e-5f);
}

}  // namespace
}  // namespace zp
