// The trees against what they stand for: flat loops over primitives, the records' invariants, plain lanes.

#include "accel/accel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <set>

#include "accel/float8.h"
#include "accel/primitive_tests.h"
#include "core/console.h"
#include "geometry/geometry.h"
#include "random_geometry.h"

namespace zp {
namespace {

// Small triangles and rectangles, scattered in a cube.
Part MakeSoup(int count) {
  Part part;
  for (int i = 0; i < count; ++i) {
    const Vec3 p = UniformPoint(10), u = UniformPoint(0.5f);
    const Vec3 v = Cross(SafeNormalize(u), SafeNormalize(UniformPoint(1)));
    if (i % 2 == 0) {
      part.triangles.push_back({{AddVertex(part, p), AddVertex(part, p + u), AddVertex(part, p + v)}, 0});
    } else {
      part.tetragons.push_back(
          {{AddVertex(part, p), AddVertex(part, p + u), AddVertex(part, p + u + v), AddVertex(part, p + v)},
           0});
    }
  }
  return part;
}

RayRecord MakeRay(Vec3 origin, Vec3 direction) {
  RayRecord ray;
  ray.origin = origin;
  ray.direction = SafeNormalize(direction);
  return ray;
}

struct Nearest {
  float t = kFarthest;
  std::uint8_t kind = kKindUnset;
  std::int32_t primitive = kNone;
  bool grazes = false;  // passes so close to an edge that rounding decides
};

Nearest NearestByLoop(const Part& part, RayRecord ray) {
  ray.direction = SafeNormalize(ray.direction);  // as every walk begins
  Nearest best;
  const auto consider = [&](bool met, const PrimitiveHit& hit, std::uint8_t kind, std::size_t i) {
    if (!met) return;
    const Vec3 b = hit.barycentric;
    const float edge =
        kind == kKindTriangle ? std::min({b.x, b.y, b.z}) : std::min({b.x, b.y, 1 - b.x, 1 - b.y});
    if (edge < 1e-4f) best.grazes = true;
    if (hit.t < best.t) {
      best.t = hit.t;
      best.kind = kind;
      best.primitive = static_cast<std::int32_t>(i);
    }
  };
  PrimitiveHit hit;
  for (std::size_t i = 0; i < part.triangles.size(); ++i)
    consider(TestTriangle(part, static_cast<std::uint32_t>(i), ray, hit), hit, kKindTriangle, i);
  for (std::size_t i = 0; i < part.tetragons.size(); ++i)
    consider(TestTetragon(part, static_cast<std::uint32_t>(i), ray, hit), hit, kKindTetragon, i);
  return best;
}

class AccelTest : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    objectTable = {};
    shaders = {};
    shaders.resize(1);
  }
  void TearDown() override {
    FinalizeAccelerator();
    shaders = {};
    SetConsoleQuiet(false);
  }
};

void ExpectWellFormed(const Object& object) {
  std::multiset<std::uint64_t> seen;
  const auto key = [](const PrimitiveRef& r) {
    return static_cast<std::uint64_t>(r.part) << 48U | static_cast<std::uint64_t>(r.kind) << 32U | r.index;
  };
  for (std::size_t n = 0; n < object.wideNodes.size(); ++n) {
    const WideNode& node = object.wideNodes[n];
    for (int i = 0; i < 8; ++i) {
      if (node.child[i] == kUnusedSlot) continue;
      const Box slot = {{node.boxes[0][i], node.boxes[1][i], node.boxes[2][i]},
                        {node.boxes[3][i], node.boxes[4][i], node.boxes[5][i]}};
      if (node.count[i] == 0) {
        ASSERT_LT(node.child[i], object.wideNodes.size());
        ASSERT_GT(node.child[i], n);
        const WideNode& child = object.wideNodes[node.child[i]];
        for (int k = 0; k < 8; ++k) {
          if (child.child[k] == kUnusedSlot) continue;
          EXPECT_TRUE(Contains(slot, {{child.boxes[0][k], child.boxes[1][k], child.boxes[2][k]},
                                      {child.boxes[3][k], child.boxes[4][k], child.boxes[5][k]}}));
        }
      } else {
        for (std::uint32_t k = 0; k < node.count[i]; ++k) {
          const PrimitiveRef& reference = object.compactReferences.at(node.child[i] + k);
          seen.insert(key(reference));
          EXPECT_TRUE(Contains(slot, PrimitiveBox(object, reference)));
        }
      }
    }
  }
  std::size_t total = object.instances.size();
  for (const Part& part : object.parts)
    total += part.particles.size() + part.triangles.size() + part.tetragons.size();
  EXPECT_EQ(seen.size(), total);
  EXPECT_EQ(std::set<std::uint64_t>(seen.begin(), seen.end()).size(), total);
}

float RefitCost(const Object& object, std::uint32_t index, Box& box) {
  const BinaryNode& n = object.nodes[index];
  box = Box{};
  if (n.count != 0) {
    for (std::uint32_t i = n.first; i < n.first + n.count; ++i)
      Grow(box, PrimitiveBox(object, object.references[i]));
    return HalfArea(box) * n.count;
  }
  Box l, r;
  const float cost = RefitCost(object, n.first, l) + RefitCost(object, n.first + 1, r);
  box = Union(l, r);
  return cost + HalfArea(box);
}

TEST_F(AccelTest, NearestHitsAgreeWithALoopOverASoup) {
  objectTable.resize(1);
  objectTable[0].parts.push_back(MakeSoup(20000));
  InitializeAccelerator();
  ExpectWellFormed(objectTable[0]);
  int compared = 0, hits = 0;
  for (int i = 0; i < 3000; ++i) {
    Vec3 direction = UniformPoint(1);
    if (i % 10 == 0) direction = {i % 20 == 0 ? 1.0f : -1.0f, 0, 0};  // along an axis: infinite reciprocals
    RayRecord ray = MakeRay(UniformPoint(12), direction);
    const Nearest expected = NearestByLoop(objectTable[0].parts[0], ray);
    if (expected.grazes) continue;
    ++compared;
    const bool hit = Trace(ray);
    ASSERT_EQ(hit, expected.kind != kKindUnset);
    if (!hit) continue;
    ++hits;
    EXPECT_EQ(ray.t, expected.t);  // lanes and scalar code agree to the bit
    EXPECT_EQ(ray.kind, expected.kind);
    EXPECT_EQ(ray.primitive, expected.primitive);
    EXPECT_TRUE(ray.levelZeroHit);
  }
  EXPECT_GT(compared, 2500);
  EXPECT_GT(hits, 1000);
}

Mat4 RigidMatrix(float angle, Vec3 move) {
  const float c = std::cos(angle), s = std::sin(angle);
  return {{{c, -s, 0, move.x}, {s, c, 0, move.y}, {0, 0, 1, move.z}, {0, 0, 0, 1}}};
}

TEST_F(AccelTest, NestedInstancesShowTheSamePrimitives) {
  // Three levels around one soup; the same soup, moved by the product of the matrices, is the oracle.
  objectTable.resize(4);
  objectTable[3].parts.push_back(MakeSoup(5000));
  Part world = objectTable[3].parts[0];
  for (int i = 0; i < 3; ++i) {
    Instance instance;
    instance.object = i + 1;
    instance.matrix = RigidMatrix(0.4f * static_cast<float>(i + 1), {1.0f * static_cast<float>(i), -2, 0.5f});
    instance.shader = i == 1 ? 0 : kNone;
    objectTable[static_cast<std::size_t>(i)].instances.push_back(instance);
  }
  for (Vec3& p : world.positions)
    for (int i = 2; i >= 0; --i)
      p = TransformPoint(objectTable[static_cast<std::size_t>(i)].instances[0].matrix, p);
  InitializeAccelerator();
  int compared = 0;
  for (int i = 0; i < 2000; ++i) {
    RayRecord ray = MakeRay(UniformPoint(12), UniformPoint(1));
    const Nearest expected = NearestByLoop(world, ray);
    if (expected.grazes) continue;
    const bool hit = Trace(ray);
    ASSERT_EQ(hit, expected.kind != kKindUnset) << i;
    if (!hit) continue;
    ++compared;
    EXPECT_NEAR(ray.t, expected.t, 1e-4f * expected.t + 1e-4f);
    EXPECT_EQ(ray.primitive, expected.primitive);
    EXPECT_FALSE(ray.levelZeroHit);
    EXPECT_EQ(ray.hitMatrixDepth, 3);
    EXPECT_EQ(ray.shader, 0);
    // The product of the normal matrices turns the face normal into world space.
    const auto corner = [&](const Part& part, int k) {
      const auto index = static_cast<std::size_t>(ray.primitive);
      return part.positions[ray.kind == kKindTriangle ? part.triangles[index].vertex[k]
                                                      : part.tetragons[index].vertex[k]];
    };
    const auto normal = [&](const Part& part) {
      return SafeNormalize(Cross(corner(part, 1) - corner(part, 0), corner(part, 2) - corner(part, 0)));
    };
    const Vec3 turned = HitNormalMatrix(ray) * normal(*ray.part);
    EXPECT_NEAR(Dot(turned, normal(world)), 1.0f, 1e-3f);
  }
  EXPECT_GT(compared, 500);
}

TEST_F(AccelTest, BinaryTreeKeepsItsInvariantsAndRotationsNeverCostMore) {
  Object object;
  object.parts.push_back(MakeSoup(5000));
  Build(object);
  Box box;
  const float before = RefitCost(object, 0, box);
  EXPECT_EQ(object.nodes.size() % 2, 1U);
  Update(object, true, 1);
  ExpectWellFormed(object);
  Box after;
  const float cost = RefitCost(object, 0, after);
  EXPECT_LT(cost, before);
  EXPECT_EQ(box, after);
  EXPECT_EQ(object.nodes[0].sum, 5000U);
  EXPECT_NEAR(object.treeCost, cost, 1e-3 * static_cast<double>(cost));
  for (const BinaryNode& n : object.nodes) {
    if (n.count != 0) continue;
    EXPECT_EQ(n.first % 2, 1U);
    EXPECT_TRUE(Contains(n.box, object.nodes[n.first].box) && Contains(n.box, object.nodes[n.first + 1].box));
    EXPECT_EQ(n.sum, object.nodes[n.first].sum + object.nodes[n.first + 1].sum);
  }
}

TEST_F(AccelTest, StrangeGeometryDoesNotHang) {
  // Nothing at all.
  Object empty;
  Build(empty);
  Update(empty, true, 1);
  ExpectWellFormed(empty);
  EXPECT_EQ(empty.wideNodes.size(), 1U);
  // More equal triangles than a leaf can count.
  Object equal;
  equal.parts.emplace_back();
  for (const Vec3 p : {Vec3{0, 0, 0}, Vec3{1, 0, 0}, Vec3{0, 1, 0}}) AddVertex(equal.parts[0], p);
  equal.parts[0].triangles.assign(70000, {{0, 1, 2}, 0});
  Build(equal);
  Update(equal, true, 1);
  ExpectWellFormed(equal);
  // A tower of slivers, each half as high as the one below: one split takes off one end only.
  Object tower;
  tower.parts.emplace_back();
  float height = 1e18f;
  for (int i = 0; i < 180; ++i, height *= 0.5f) {
    Part& part = tower.parts[0];
    part.triangles.push_back({{AddVertex(part, {0, 0, height}), AddVertex(part, {1e-3f, 0, height}),
                               AddVertex(part, {0, 1e-3f, height * 1.01f})},
                              0});
  }
  Build(tower);
  Update(tower, true, 1);
  ExpectWellFormed(tower);
  // Coordinates that are no numbers reach the builder only past the checks of loading; it ends all the same.
  Object broken;
  broken.parts.push_back(MakeSoup(1000));
  for (std::size_t i = 0; i < broken.parts[0].positions.size(); i += 7)
    broken.parts[0].positions[i].y = std::numeric_limits<float>::quiet_NaN();
  Build(broken);
  Update(broken, true, 1);
}

TEST_F(AccelTest, RaysOfNoNumbersMeetNothing) {
  objectTable.resize(1);
  objectTable[0].parts.push_back(MakeSoup(100));
  InitializeAccelerator();
  const float nan = std::numeric_limits<float>::quiet_NaN(),
              infinite = std::numeric_limits<float>::infinity();
  for (const Vec3 bad : {Vec3{nan, 0, 1}, Vec3{0, infinite, 1}, Vec3{0, 0, 0}}) {
    RayRecord ray;
    ray.direction = bad;
    EXPECT_FALSE(Trace(ray));
    ray.direction = {0, 0, 1};
    if (bad != kBlack) {
      ray.origin = bad;
      EXPECT_FALSE(Trace(ray));
    }
  }
}

TEST_F(AccelTest, GraphOfObjectsIsSoundWhateverTheInstancesSay) {
  SetConsoleQuiet(false);
  const auto place = [](std::size_t where, std::int32_t what) {
    Instance instance;
    instance.object = what;
    objectTable[where].instances.push_back(instance);
  };
  // A cycle below the root is cut where it closes.
  objectTable.resize(3);
  for (std::size_t i = 0; i < 3; ++i) objectTable[i].name = std::string(1, static_cast<char>('a' + i));
  objectTable[2].parts.push_back(MakeSoup(10));
  place(0, 1), place(1, 2), place(2, 1);
  testing::internal::CaptureStdout();
  InitializeAccelerator();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("error :( \tobject - c places b in itself\n"),
            std::string::npos);
  EXPECT_EQ(rootObject, 0);
  EXPECT_EQ(objectTable[2].level, 2);

  // Every Object placed by another: there is no root, and rays meet nothing.
  objectTable = {};
  objectTable.resize(2);
  place(0, 1), place(1, 0);
  testing::internal::CaptureStdout();
  InitializeAccelerator();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("error :( \tobject - there is no root object\n"),
            std::string::npos);
  RayRecord ray = MakeRay({0, 0, 0}, {0, 0, 1});
  EXPECT_FALSE(Trace(ray));

  // Two candidates: the later one is the root and places the other.
  objectTable = {};
  objectTable.resize(2);
  objectTable[0].parts.push_back(MakeSoup(10));
  objectTable[1].name = "later";
  testing::internal::CaptureStdout();
  InitializeAccelerator();
  EXPECT_NE(
      testing::internal::GetCapturedStdout().find(
          "warning :( \tobject - later is treated as the root object\n" + std::string(80, '_') + "\n\n"),
      std::string::npos);
  EXPECT_EQ(rootObject, 1);
  ASSERT_EQ(objectTable[1].instances.size(), 1U);
  EXPECT_EQ(objectTable[1].instances[0].object, 0);

  // Seventeen levels of Instances: the deepest is dropped.
  objectTable = {};
  objectTable.resize(18);
  for (std::size_t i = 0; i < 17; ++i) place(i, static_cast<std::int32_t>(i) + 1);
  objectTable[17].parts.push_back(MakeSoup(1));
  testing::internal::CaptureStdout();
  InitializeAccelerator();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("error :( \tobject - more than 16 instance levels"),
            std::string::npos);
}

TEST_F(AccelTest, MotionMovesVerticesAndTheSceneBoundFollows) {
  objectTable.resize(2);
  Part part;
  for (const Vec3 p : {Vec3{0, 0, 0}, Vec3{1, 0, 0}, Vec3{0, 1, 0}}) AddVertex(part, p);
  part.triangles.push_back({{0, 1, 2}, 0});
  part.vectorSets.push_back({"motion", std::vector<Vec3>(3, {4, 0, 0})});
  objectTable[1].parts.push_back(part);
  Instance instance;
  instance.object = 1;
  objectTable[0].instances.push_back(instance);
  InitializeAccelerator();
  EXPECT_EQ(sceneBounds.max.x, 1);
  for (int pass = 1; pass <= 4; ++pass) {
    UpdateScene(4);
    EXPECT_EQ(objectTable[1].parts[0].positions[0].x, static_cast<float>(pass));
    EXPECT_EQ(sceneBounds.min.x, static_cast<float>(pass));
    RayRecord ray = MakeRay({static_cast<float>(pass) + 0.25f, 0.25f, 5}, {0, 0, -1});
    EXPECT_TRUE(Trace(ray));
  }
}

TEST_F(AccelTest, OrderOccludersSortsSlotsByWhatBlockedPerCost) {
  objectTable.resize(1);
  objectTable[0].parts.push_back(MakeSoup(2000));
  InitializeAccelerator();
  Object& object = objectTable[0];
  for (WideNode& node : object.wideNodes)
    for (int i = 0; i < 8; ++i)
      if (node.count[i] != 0) node.log[i] = static_cast<std::uint32_t>(generator() % 100);
  OrderOccluders(object);
  for (const WideNode& node : object.wideNodes)
    for (int i = 1; i < 8; ++i) {
      if (node.child[i] == kUnusedSlot) continue;
      EXPECT_GE(std::bit_cast<float>(node.log[i - 1]), std::bit_cast<float>(node.log[i]));
    }
  ExpectWellFormed(object);
  // The walk follows the new order and still finds everything.
  for (int i = 0; i < 300; ++i) {
    RayRecord ray = MakeRay(UniformPoint(12), UniformPoint(1));
    const Nearest expected = NearestByLoop(object.parts[0], ray);
    if (!expected.grazes) {
      EXPECT_EQ(Trace(ray), expected.kind != kKindUnset);
    }
  }
}

TEST(Lanes, AgreeWithTheirPlainTwin) {
  const float special[] = {0.0f,
                           -0.0f,
                           1e-30f,
                           3.4e38f,
                           -3.4e38f,
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(),
                           std::numeric_limits<float>::quiet_NaN()};
  for (int round = 0; round < 200; ++round) {
    float a[8], b[8], c[8];
    for (int i = 0; i < 8; ++i) {
      a[i] = round % 3 == 0 ? special[generator() % 8] : Uniform(-10, 10);
      b[i] = round % 5 == 0 ? special[generator() % 8] : Uniform(-10, 10);
      c[i] = Uniform(-1, 1);
    }
    const auto check = [&](auto lanes, auto plain) {
      float x[8], y[8];
      lanes.Store(x);
      plain.Store(y);
      for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(std::bit_cast<std::uint32_t>(x[i]) == std::bit_cast<std::uint32_t>(y[i]) ||
                    (std::isnan(x[i]) && std::isnan(y[i])));
    };
    using Plain = PlainLanes<8>;
    const Float8 fa = Float8::Load(a), fb = Float8::Load(b), fc = Float8::Load(c);
    const Plain pa = Plain::Load(a), pb = Plain::Load(b), pc = Plain::Load(c);
    check(fa + fb, pa + pb);
    check(fa - fb, pa - pb);
    check(fa * fb, pa * pb);
    check(Max(fa, fb), Max(pa, pb));
    check(Min(fa, fb), Min(pa, pb));
    check(MulAdd(fa, fb, fc), MulAdd(pa, pb, pc));
    check(MulSub(fa, fb, fc), MulSub(pa, pb, pc));
    EXPECT_EQ(MaskLessEqual(fa, fb), MaskLessEqual(pa, pb));
  }
}

}  // namespace
}  // namespace zp
