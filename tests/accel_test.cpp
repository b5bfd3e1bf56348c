// The trees against what they stand for: flat loops over primitives, the records' invariants, plain lanes.

#include "accel/accel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
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
    const std::uint32_t a = AddVertex(part, p), b = AddVertex(part, p + u), c = AddVertex(part, p + v);
    if (i % 2 == 0)
      part.triangles.push_back({{a, b, c}, 0});
    else
      part.tetragons.push_back({{a, b, AddVertex(part, p + u + v), c}, 0});
  }
  return part;
}

RayRecord MakeRay(Vec3 origin = UniformPoint(12), Vec3 direction = UniformPoint(1)) {
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
  const auto consider = [&](auto test, std::uint8_t kind, std::size_t count) {
    PrimitiveHit hit;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (!test(part, i, ray, hit)) continue;
      const Vec3 b = hit.barycentric;
      const float last = kind == kKindTriangle ? b.z : std::min(1 - b.x, 1 - b.y);
      if (std::min({b.x, b.y, last}) < 1e-4f) best.grazes = true;
      if (hit.t < best.t) best = {hit.t, kind, static_cast<std::int32_t>(i), best.grazes};
    }
  };
  consider(TestTriangle, kKindTriangle, part.triangles.size());
  consider(TestTetragon, kKindTetragon, part.tetragons.size());
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
  static void Place(std::size_t where, std::int32_t what, const Mat4& matrix = {}) {
    Instance& instance = objectTable[where].instances.emplace_back();
    instance.object = what;
    instance.matrix = matrix;
  }
};

Box SlotBox(const WideNode& node, int i) {
  return {{node.boxes[0][i], node.boxes[1][i], node.boxes[2][i]},
          {node.boxes[3][i], node.boxes[4][i], node.boxes[5][i]}};
}

// Boxes hold what is below them, and every primitive stands in one leaf.
void ExpectWellFormed(const Object& object) {
  std::multiset<std::array<std::uint32_t, 3>> seen;
  for (std::size_t n = 0; n < object.wideNodes.size(); ++n) {
    const WideNode& node = object.wideNodes[n];
    for (int i = 0; i < 8; ++i) {
      if (node.child[i] == kUnusedSlot) continue;
      const Box slot = SlotBox(node, i);
      for (std::uint32_t k = 0; k < node.count[i]; ++k) {
        const PrimitiveRef& reference = object.compactReferences.at(node.child[i] + k);
        seen.insert({reference.part, reference.kind, reference.index});
        EXPECT_TRUE(Contains(slot, PrimitiveBox(object, reference)));
      }
      if (node.count[i] != 0) continue;
      ASSERT_LT(node.child[i], object.wideNodes.size());
      ASSERT_GT(node.child[i], n);
      const WideNode& child = object.wideNodes[node.child[i]];
      for (int k = 0; k < 8; ++k)
        EXPECT_TRUE(child.child[k] == kUnusedSlot || Contains(slot, SlotBox(child, k)));
    }
  }
  std::size_t total = object.instances.size();
  for (const Part& part : object.parts)
    total += part.particles.size() + part.triangles.size() + part.tetragons.size();
  EXPECT_EQ(seen.size(), total);
  EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), total);
}

void BuildWellFormed(Object& object) {
  Build(object);
  Update(object, true, 1);
  ExpectWellFormed(object);
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
    ASSERT_EQ(Trace(ray), expected.kind != kKindUnset);
    if (expected.kind == kKindUnset) continue;
    ++hits;
    EXPECT_EQ(ray.t, expected.t);  // lanes and scalar code agree to the bit
    EXPECT_EQ(ray.kind, expected.kind);
    EXPECT_EQ(ray.primitive, expected.primitive);
    EXPECT_TRUE(ray.levelZeroHit);
  }
  EXPECT_GT(compared, 2500);
  EXPECT_GT(hits, 1000);
}

// Steps whose corners lie on a lattice, so that axis-parallel rays through lattice points run within planes
// of boxes: no box may be lost, whatever a vanishing component of the direction is written as.
TEST_F(AccelTest, RaysWithinPlanesOfBoxesMissNoBox) {
  for (const float scale : {1.0f, 0.3f, 1000.7f}) {
    constexpr int kSide = 16;
    objectTable = {};
    Part& part = objectTable.emplace_back().parts.emplace_back();
    const auto corner = [&](int x, int z, int y) {
      return AddVertex(part,
                       scale * Vec3{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)});
    };
    for (int i = 0; i < kSide * kSide; ++i) {
      const int x = i % kSide, z = i / kSide, y = i * 7 % 5;
      const std::uint32_t a = corner(x, z, y), b = corner(x + 1, z, y), c = corner(x, z + 1, y);
      part.triangles.push_back({{a, b, c}, 0});
      part.triangles.push_back({{b, corner(x + 1, z + 1, y), c}, 0});
      part.triangles.push_back({{a, c, corner(x, z, y - 1)}, 0});
    }
    InitializeAccelerator();
    int hits = 0;
    for (const float nearlyZero : {0.0f, -0.0f, 1e-38f, 1e-30f, -1e-20f, 1e-12f, -1e-9f})
      for (int i = 0; i < 3 * kSide * kSide; ++i) {
        const int axis = i / (kSide * kSide);
        const auto inside = [](int k) { return static_cast<float>(std::max(k % kSide, 1)); };
        Vec3 origin = {inside(i), static_cast<float>(i % 5), inside(i / kSide)},
             direction = {nearlyZero, nearlyZero, nearlyZero};
        origin[axis] = 20;
        direction[axis] = -1;
        RayRecord ray = MakeRay(scale * origin, direction);
        const Nearest expected = NearestByLoop(part, ray);
        ASSERT_EQ(Trace(ray), expected.kind != kKindUnset) << scale << ' ' << nearlyZero << ' ' << i;
        if (expected.kind == kKindUnset) continue;
        ++hits;
        EXPECT_NEAR(ray.t, expected.t, 1e-5f * expected.t);
      }
    EXPECT_GT(hits, 1500);
  }
}

// Turns around one of the axes, then moves.
Mat4 RigidMatrix(int axis, float angle, Vec3 move) {
  const int u = (axis + 1) % 3, v = (axis + 2) % 3;
  Mat4 matrix;
  matrix.m[u][u] = matrix.m[v][v] = std::cos(angle);
  matrix.m[v][u] = std::sin(angle);
  matrix.m[u][v] = -std::sin(angle);
  for (int i = 0; i < 3; ++i) matrix.m[i][3] = move[i];
  return matrix;
}

TEST_F(AccelTest, NestedInstancesShowTheSamePrimitives) {
  // Three levels around one soup; the same soup, moved by the product of the matrices, is the oracle.
  objectTable.resize(4);
  objectTable[3].parts.push_back(MakeSoup(5000));
  Part world = objectTable[3].parts[0];
  for (int i = 2; i >= 0; --i) {
    const float level = static_cast<float>(i);
    const Mat4 matrix = RigidMatrix(i, 0.4f * (level + 1), {level, -2, 0.5f});
    Place(static_cast<std::size_t>(i), i + 1, matrix);
    for (Vec3& p : world.positions) p = TransformPoint(matrix, p);
  }
  objectTable[1].instances[0].shader = 0;
  InitializeAccelerator();
  int compared = 0;
  for (int i = 0; i < 2000; ++i) {
    RayRecord ray = MakeRay();
    const Nearest expected = NearestByLoop(world, ray);
    if (expected.grazes) continue;
    ASSERT_EQ(Trace(ray), expected.kind != kKindUnset) << i;
    if (expected.kind == kKindUnset) continue;
    ++compared;
    EXPECT_NEAR(ray.t, expected.t, 1e-4f * expected.t + 1e-4f);
    EXPECT_EQ(ray.primitive, expected.primitive);
    EXPECT_FALSE(ray.levelZeroHit);
    EXPECT_EQ(ray.hitMatrixDepth, 3);
    EXPECT_EQ(ray.shader, 0);
    // The product of the normal matrices turns the face normal into world space.
    const auto normal = [&](const Part& part) {
      const auto hit = static_cast<std::size_t>(ray.primitive);
      const std::uint32_t* v =
          ray.kind == kKindTriangle ? part.triangles[hit].vertex : part.tetragons[hit].vertex;
      const Vec3 a = part.positions[v[0]];
      return SafeNormalize(Cross(part.positions[v[1]] - a, part.positions[v[2]] - a));
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
  BuildWellFormed(empty);
  EXPECT_EQ(empty.wideNodes.size(), 1U);
  // More equal triangles than a leaf can count.
  Object equal;
  equal.parts.emplace_back().positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  equal.parts[0].triangles.assign(70000, {{0, 1, 2}, 0});
  BuildWellFormed(equal);
  // A tower of slivers, each half as high as the one below: one split takes off one end only.
  Object tower;
  Part& part = tower.parts.emplace_back();
  float height = 1e18f;
  for (std::uint32_t i = 0; i < 3 * 180; i += 3, height *= 0.5f) {
    part.positions.insert(part.positions.end(),
                          {{0, 0, height}, {1e-3f, 0, height}, {0, 1e-3f, height * 1.01f}});
    part.triangles.push_back({{i, i + 1, i + 2}, 0});
  }
  BuildWellFormed(tower);
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
    if (bad == kBlack) continue;
    ray.direction = {0, 0, 1};
    ray.origin = bad;
    EXPECT_FALSE(Trace(ray));
  }
}

TEST_F(AccelTest, GraphOfObjectsIsSoundWhateverTheInstancesSay) {
  SetConsoleQuiet(false);
  const auto expectRow = [](const std::string& row) {
    testing::internal::CaptureStdout();
    InitializeAccelerator();
    EXPECT_NE(testing::internal::GetCapturedStdout().find(row), std::string::npos) << row;
  };
  const auto start = [](std::size_t objects) {
    objectTable = {};
    objectTable.resize(objects);
    objectTable.back().parts.push_back(MakeSoup(10));
  };
  start(3);
  for (std::size_t i = 0; i < 3; ++i) objectTable[i].name = std::string(1, static_cast<char>('a' + i));
  Place(0, 1), Place(1, 2), Place(2, 1);  // a cycle below the root is cut where it closes
  expectRow("error :( \tobject - c places b in itself\n");
  EXPECT_EQ(rootObject, 0);
  EXPECT_EQ(objectTable[2].level, 2);

  start(2);
  Place(0, 1), Place(1, 0);
  expectRow("error :( \tobject - there is no root object\n");
  RayRecord ray = MakeRay();
  EXPECT_FALSE(Trace(ray));

  // Two candidates: the later one is the root and places the other.
  start(2);
  objectTable[1].name = "later";
  expectRow("warning :( \tobject - later is treated as the root object\n" + std::string(80, '_') + "\n\n");
  EXPECT_EQ(rootObject, 1);
  ASSERT_EQ(objectTable[1].instances.size(), 1U);
  EXPECT_EQ(objectTable[1].instances[0].object, 0);

  // Seventeen levels of Instances: the deepest is dropped.
  start(18);
  for (std::size_t i = 0; i < 17; ++i) Place(i, static_cast<std::int32_t>(i) + 1);
  expectRow("error :( \tobject - more than 16 instance levels");
}

TEST_F(AccelTest, MotionMovesVerticesAndTheSceneBoundFollows) {
  objectTable.resize(2);
  Part& part = objectTable[1].parts.emplace_back();
  part.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  part.triangles.push_back({{0, 1, 2}, 0});
  part.vectorSets.push_back({"motion", std::vector<Vec3>(3, {4, 0, 0})});
  Place(0, 1);
  InitializeAccelerator();
  EXPECT_EQ(sceneBounds.max.x, 1);
  for (float x = 1; x <= 4; ++x) {
    UpdateScene(4);
    EXPECT_EQ(objectTable[1].parts[0].positions[0].x, x);
    EXPECT_EQ(sceneBounds.min.x, x);
    RayRecord ray = MakeRay({x + 0.25f, 0.25f, 5}, {0, 0, -1});
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
}

TEST(Lanes, AgreeWithTheirPlainTwin) {
  const float infinite = std::numeric_limits<float>::infinity();
  const float special[] = {0.0f,     -0.0f,    1e-30f,    3.4e38f,
                           -3.4e38f, infinite, -infinite, std::numeric_limits<float>::quiet_NaN()};
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
