// All walks through the trees against flat loops; what shadow rays and surface probes meet, and what not.

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <tuple>

#include "accel/accel.h"
#include "accel/tree.h"
#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
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

RayRecord RayTo(Vec3 from, Vec3 to) { return AimRay(from, to - from, SafeLength(to - from)); }

Instance Place(std::int32_t object, float angle, Vec3 move, Vec3 k = kWhite) {
  const float c = std::cos(angle), s = std::sin(angle);
  Instance instance;
  instance.object = object;
  instance.matrix = {
      {{k.x * c, -k.y * s, 0, move.x}, {k.x * s, k.y * c, 0, move.y}, {0, 0, k.z, move.z}, {0, 0, 0, 1}}};
  return instance;
}

// A triangle across a level, with its front upwards.
void AddSheet(Part& part, float height, float size, std::int32_t shader) {
  part.triangles.push_back({{AddVertex(part, {-size, -size, height}), AddVertex(part, {size, -size, height}),
                             AddVertex(part, {0, size, height})},
                            shader});
}

class OccludeTest : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    objectTable = {};
    shaders = {};
    AddTestShaders();
    settings.frame.samplePass = 1;
  }
  void TearDown() override {
    FinalizeAccelerator();
    shaders = {};
    settings.frame.samplePass = 8;
    settings.format = 1;
    SetConsoleQuiet(false);
  }

  // A new table; returns the only Part of the first Object.
  static Part& Restart(std::size_t objects = 1) {
    objectTable = {};
    objectTable.resize(objects);
    return objectTable[0].parts.emplace_back();
  }
};

// Around a vertical axis: a triangle at height 0, a rectangle at 10, a particle at 20; each the first of its
// kind.
void AddOneOfEach(Part& part, float x) {
  const auto corner = [&](float dx, float dy, float z) { return AddVertex(part, {x + dx, dy, z}); };
  part.triangles.push_back({{corner(-1, -1, 0), corner(1, -1, 0), corner(0, 1, 0)}, kSolid});
  part.tetragons.push_back(
      {{corner(-1, -1, 10), corner(1, -1, 10), corner(1, 1, 10), corner(-1, 1, 10)}, kSolid});
  part.particles.push_back(corner(0, 0, 20));
  part.scalarSets[0].values.assign(part.positions.size(), 1.0f);
}

// Four Objects of all kinds of primitives, each inside the one before: what Trace, Occlude and the matrices
// tell of a ray, against a loop that takes the ray into each of them. The outermost Instance with a shader
// counts. Format 2 has Instances that scale, and mirror.
TEST_F(OccludeTest, WalksAgreeWithALoopOverNestedSoups) {
  constexpr std::int32_t kLevels = 4;
  struct Case {
    bool opaque;
    std::int32_t outer;
    Vec3 scale = kWhite;
  };
  for (const Case& c : {Case{false, kNone}, Case{true, kNone}, Case{false, kVeil}, Case{false, kSolid},
                        Case{false, kNone, {-0.8f, 0.8f, 0.8f}}, Case{true, kNone, {1.2f, -0.6f, 0.9f}},
                        Case{false, kVeil, {1.1f, 1.1f, -1.1f}}}) {
    Restart(kLevels);
    settings.format = c.scale == kWhite ? 1 : 2;
    const auto draw = [&] { return c.opaque ? kSolid : static_cast<std::int32_t>(generator() % 4); };
    for (std::int32_t i = 0; i < kLevels; ++i) {
      Object& object = At(objectTable, i);
      FillSoup(object, i == 0 ? 400 : 60, draw);
      if (i + 1 == kLevels) break;
      const auto level = static_cast<float>(i);
      Instance& instance = object.instances.emplace_back(
          Place(i + 1, 0.4f * (level + 1), {0.3f * level, -0.4f, 0.5f}, c.scale));
      if (i == 1) instance.shader = c.outer;
      if (i == 2 && c.outer != kNone) instance.shader = kPane;  // hidden by the one around it
    }
    InitializeAccelerator();
    EXPECT_EQ(objectTable[0].packed->opaqueOnly, c.opaque);
    int blocked = 0, dimmed = 0, compared = 0, seen[8] = {}, seenAt[kLevels] = {};
    for (int i = 0; i < 1200; ++i) {
      const bool shadow = i % 2 == 0;
      RayRecord ray = RayTo(UniformPoint(9), UniformPoint(9));
      if (!shadow) ray.t = kFarthest;
      if (i % 20 == 1) ray.direction = {i % 40 == 1 ? 1.0f : -1.0f, 0, 0};  // infinite reciprocals
      LoopAnswer expected;
      RayRecord inside[kLevels];  // the ray in the space of each Object
      for (std::int32_t level = 0; level < kLevels; ++level) {
        inside[level] = ray;
        if (level > 0) {
          const RayRecord& around = inside[level - 1];
          const Mat34& inverse = At(objectTable, level - 1).instances[0].inverse;
          inside[level].origin = TransformPoint(inverse, around.origin);
          inside[level].direction = TransformDirection(inverse, around.direction);
        }
        // In units of the Object, and back.
        const float unit = SafeLength(inside[level].direction);
        RayRecord asked = AimRay(inside[level].origin, inside[level].direction, unit * ray.t);
        LoopAnswer here;
        const std::int32_t stands = level < 2 ? std::int32_t{kNone} : c.outer;
        AskLoop(
            At(objectTable, level), asked, shadow, level,
            [stands](std::int32_t shader, bool front, float cosine) {
              return Factor(stands == kNone ? shader : stands, front, cosine);
            },
            here);
        const Vec3 left = expected.throughput * here.throughput;
        const bool hit = here.kind != kKindUnset;
        here.t = hit ? here.t / unit : kFarthest;
        const bool unclear =
            expected.unclear || here.unclear || (hit && std::abs(here.t - expected.t) < 1e-3f);
        if (hit && here.t < expected.t) expected = here;
        expected.throughput = left;
        expected.unclear = unclear;
      }
      const float brightest = std::max({expected.throughput.x, expected.throughput.y, expected.throughput.z});
      if (expected.unclear || std::abs(brightest / kBlackThreshold - 1) < 1e-3f) continue;
      ++compared;
      SCOPED_TRACE(i);
      if (shadow) {
        settings.frame.samplePass = i / 2 % 2;
        const Vec3 left = IsBlack(expected.throughput) ? kBlack : expected.throughput;
        EXPECT_EQ(Occlude(ray), left == kBlack);
        EXPECT_LT(SafeLength(ray.throughput - left), 1e-3f);
        EXPECT_EQ(ray.depth, 0);
        blocked += left == kBlack;
        dimmed += left != kBlack && left != kWhite;
        continue;
      }
      ASSERT_EQ(Trace(ray), expected.kind != kKindUnset);
      if (expected.kind == kKindUnset) continue;
      ASSERT_EQ(std::tuple(ray.kind, ray.primitive, ray.hitMatrixDepth, ray.frontFace),
                std::tuple(expected.kind, expected.primitive, expected.level, expected.front));
      ++seen[ray.kind];
      ++seenAt[expected.level];
      EXPECT_NEAR(ray.t, expected.t, 1e-4f * (1 + expected.t));
      EXPECT_EQ(ray.levelZeroHit, expected.level == 0);
      if (expected.level >= 2 && c.outer != kNone) {
        EXPECT_EQ(ray.shader, c.outer);
      }
      // The product of the normal matrices keeps what lies across a direction across it.
      const Vec3 normal = UniformDirection();
      EXPECT_NEAR(Dot(HitNormalMatrix(ray) * normal, ray.direction),
                  Dot(normal, inside[expected.level].direction), 1e-3f);
    }
    EXPECT_GT(compared, 700);
    EXPECT_GT(blocked, 50);
    EXPECT_EQ(dimmed > 60, !c.opaque);
    for (const int count : seenAt) EXPECT_GT(count, 5);
    for (const int kind : {kKindTriangle, kKindTetragon, kKindParticle, kKindCylinder})
      EXPECT_GT(seen[kind], 10);
  }
}

TEST_F(OccludeTest, ManyPanesMultiplyUntilNothingIsLeft) {
  // Nine veils leave 1/512; the tenth leaves exactly the threshold, which is nothing.
  for (const int veils : {9, 10, 11}) {
    Part& part = Restart();
    for (int i = 0; i < veils; ++i) AddSheet(part, static_cast<float>(i), 5, kVeil);
    InitializeAccelerator();
    RayRecord ray = RayTo({0.1f, 0.2f, -1}, {0.1f, 0.2f, 20});
    EXPECT_EQ(Occlude(ray), veils >= 10);
    EXPECT_TRUE(veils == 9 ? ray.throughput == kWhite * (1.0f / 512) : IsBlack(ray.throughput)) << veils;
  }
  // Panes, slantwise: the closed form to the number of panes.
  Part& part = Restart();
  for (int i = 0; i < 6; ++i) AddSheet(part, 0.1f * static_cast<float>(i), 5, kPane);
  AddSheet(part, 10, 1e-4f, kPane);  // far smaller than what may be divided by
  InitializeAccelerator();
  RayRecord ray = RayTo({-2, 0, -1}, {2, 0.1f, 2});
  const float expected = std::pow(PaneFactor(ray.direction.z), 6.0f);
  EXPECT_FALSE(Occlude(ray));
  EXPECT_NEAR(ray.throughput.x, expected, 1e-4f);
  EXPECT_LT(expected, 0.7f);
  ray = RayTo({0, 0, 9}, {0, 0, 11});
  EXPECT_FALSE(Occlude(ray));
  EXPECT_NEAR(ray.throughput.x, PaneFactor(1), 1e-4f);
}

TEST_F(OccludeTest, TheParentCastsNoShadowOnItselfButOnOtherParts) {
  AddOneOfEach(Restart(), 0);
  AddOneOfEach(objectTable[0].parts.emplace_back(), 100);
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
          ray.parentPart = &At(objectTable[0].parts, parentPart);
          EXPECT_EQ(Occlude(ray), parent != target || parentPart != 0);
        }
}

// One of each kind, and the same in an Instance of another Shader: the share of rays that are stopped, which
// is that of the light that is, and each ray as often as it is asked.
TEST_F(OccludeTest, CutOutsStopTheirShareOfAllRays) {
  for (const float opacity : {0.0f, 0.3f, 1.0f}) {
    shaders[kSolid].cutsOut = true;
    shaders[kSolid].opacity = opacity;
    AddOneOfEach(Restart(2), 0);
    AddOneOfEach(objectTable[1].parts.emplace_back(), 0);
    for (Tetragon& face : objectTable[1].parts[0].tetragons) face.shader = kVeil;
    objectTable[0].instances.push_back(Place(1, 1, {100, 0, 0}));
    objectTable[0].instances[0].shader = kSolid;
    InitializeAccelerator();
    for (const float x : {0.0f, 100.0f})
      for (const float z : {0.0f, 10.0f, 20.0f}) {
        constexpr int kRays = 2000;
        int stopped = 0;
        for (int i = 0; i < kRays; ++i) {
          const Vec3 aside = {x + Uniform(-0.1f, 0.1f), Uniform(-0.1f, 0.1f), 0};
          RayRecord ray = RayTo(aside + Vec3{0, 0, z - 4}, aside + Vec3{0, 0, z - 3});
          const bool hit = Trace(ray) && ray.t < 9;
          EXPECT_EQ(Trace(ray) && ray.t < 9, hit);
          stopped += hit;
          ray.t = 8;
          EXPECT_EQ(Occlude(ray), opacity == 1);
          EXPECT_FLOAT_EQ(ray.throughput.y, 1 - opacity);
        }
        EXPECT_NEAR(static_cast<float>(stopped) / kRays, opacity, opacity == 0.3f ? 0.04f : 0.0f);
      }
  }
}

TEST_F(OccludeTest, OnlyInvisibleSurfacesCastNoShadow) {
  for (const std::uint8_t depth : {std::uint8_t{0}, std::uint8_t{1}})
    for (const Visibility visibility : {Visibility::kInvisible, Visibility::kNotLightPrimary,
                                        Visibility::kNotCameraPrimary, Visibility::kAll}) {
      shaders[kSolid].geometry.visibility = visibility;
      AddOneOfEach(Restart(), 0);
      InitializeAccelerator();
      for (const float z : {0.0f, 10.0f, 20.0f}) {
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
  Part& part = Restart();
  AddSheet(part, 0, 1, kSolid);
  InitializeAccelerator();
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  for (const Vec3 bad : {Vec3{nan, 0, 1}, Vec3{0, inf, 1}, Vec3{0, 0, 0}}) {
    RayRecord ray = RayTo({0, 0, -1}, {0, 0, 1});
    ray.direction = bad;
    EXPECT_FALSE(Occlude(ray) || Trace(ray));
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

std::uint64_t LoggedRays(const Object& object) {
  std::uint64_t sum = 0;
  for (const WideNode& node : object.wideNodes) sum = std::accumulate(node.log, node.log + 8, sum);
  return sum;
}

TEST_F(OccludeTest, PassZeroLogsAndOrderedSlotsAnswerTheSameSooner) {
  // A cloud of small triangles around a wall of a few large ones; an Instance of more stands behind.
  Part& part = Restart(2);
  objectTable[1].parts.push_back(MakeSoup(300));
  for (int i = 0; i < 4000; ++i) {
    const Vec3 p = UniformPoint(10);
    const std::uint32_t a = AddVertex(part, p);
    AddVertex(part, p + UniformPoint(0.2f)), AddVertex(part, p + UniformPoint(0.2f));
    part.triangles.push_back({{a, a + 1, a + 2}, kSolid});
  }
  AddSheet(part, 0.5f, 20, kSolid);
  objectTable[0].instances.push_back(Place(1, 0.1f, {0, 0, 5}));
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
  EXPECT_EQ(threadSlots[0].shadowRays, rays.size());
  EXPECT_EQ(threadSlots[0].rays, 0U);
  EXPECT_GE(threadSlots[0].innerNodes, rays.size());
  EXPECT_TRUE(threadSlots[0].leaves > 2000 && threadSlots[0].leaves <= threadSlots[0].primitives);
  EXPECT_EQ(LoggedRays(root), 0U);
  settings.frame.samplePass = 0;
  EXPECT_EQ(walk(logged), before);
  const auto blocked = static_cast<std::uint64_t>(std::count(plain.begin(), plain.end(), true));
  EXPECT_GT(blocked, 2000U);
  EXPECT_EQ(LoggedRays(root), blocked);  // one for each, Instances by their slot in the root
  EXPECT_EQ(LoggedRays(objectTable[1]), 0U);

  const auto innerBefore = objectTable[1].packed;
  for (Object& object : objectTable) {
    OrderOccluders(object);
    EXPECT_EQ(ValidateTree(object) + ValidateEmission(object), "");
  }
  for (const WideNode& node : root.wideNodes)  // by what blocked per cost, the most first
    for (int i = 1; i < 8 && node.child[i] != kUnusedSlot; ++i)
      EXPECT_GE(std::bit_cast<float>(node.log[i - 1]), std::bit_cast<float>(node.log[i]));
  EXPECT_EQ(objectTable[1].packed, innerBefore);
  settings.frame.samplePass = 1;
  const std::uint64_t after = walk(ordered);
  EXPECT_EQ(plain, logged);
  EXPECT_EQ(plain, ordered);
  EXPECT_LE(after, before);
  EXPECT_LT(after, 3 * rays.size());  // most rays meet the wall first of all
}

TEST_F(OccludeTest, LoggingLosesNoRayOfAnyThread) {
  AddSheet(Restart(), 0, 1, kSolid);
  InitializeAccelerator();
  settings.frame.samplePass = 0;
#pragma omp parallel num_threads(4)
  for (int i = 0; i < 5000; ++i) {
    RayRecord ray = RayTo({0, 0, -1}, {0, 0, 1});
    ray.thread = static_cast<std::uint8_t>(omp_get_thread_num());
    Occlude(ray);
  }
  EXPECT_EQ(LoggedRays(objectTable[0]), 20000U);
  for (ThreadSlot& slot : threadSlots) slot = {};
}

TEST_F(OccludeTest, SurfaceProbes) {
  Restart(2);
  AddOneOfEach(objectTable[1].parts.emplace_back(), 0);
  objectTable[0].instances.push_back(Place(1, 0.3f, {5, 0, 0}));
  objectTable[0].instances[0].shader = kVeil;
  InitializeAccelerator();
  const auto probe = [](float from, float to) { return RayTo({5.1f, 0.1f, from}, {5.1f, 0.1f, to}); };
  // Past the particle to the rectangle; the limit is the caller's.
  RayRecord ray = probe(24, 0.5f);
  ASSERT_TRUE(TraceSurfaces(ray));
  EXPECT_EQ(ray.kind, kKindTetragon);
  EXPECT_NEAR(ray.t, 14, 1e-5f);
  EXPECT_EQ(ray.shader, kVeil);
  EXPECT_EQ(ray.hitMatrixDepth, 1);
  EXPECT_FALSE(ray.levelZeroHit);
  ray = probe(24, 10.001f);
  EXPECT_FALSE(TraceSurfaces(ray));
  EXPECT_EQ(ray.kind, kKindUnset);
  // A triangle may be the parent, a tetragon not: either way the triangle is met.
  for (const std::uint8_t parent : {kKindTriangle, kKindTetragon}) {
    ray = parent == kKindTriangle ? probe(-4, 14) : probe(14, -4);
    ray.parentPart = &objectTable[1].parts[0];
    ray.parentPlace = PlaceInside(0, objectTable[0].instances[0]);
    ray.parentPrimitive = 0;
    ray.parentKind = parent;
    ASSERT_TRUE(TraceSurfaces(ray));
    EXPECT_EQ(ray.kind, kKindTriangle);
  }
  // The direction stays as the caller scaled it, and so does the unit of t.
  ray = probe(-4, 4);
  ray.direction = ray.direction * 2.0f;
  ASSERT_TRUE(TraceSurfaces(ray));
  EXPECT_NEAR(ray.t, 2, 1e-5f);
}

}  // namespace
}  // namespace zp
