// The trees' invariants, the graph of Objects, plain lanes. Walks are compared with loops in occlude_test.

#include "accel/accel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "accel/primitive_tests.h"
#include "accel/split.h"
#include "core/console.h"
#include "core/float8.h"
#include "geometry/geometry.h"
#include "random_geometry.h"
#include "surroundings.h"

namespace zp {
namespace {

RayRecord MakeRay(Vec3 origin = UniformPoint(12), Vec3 direction = UniformPoint(1)) {
  RayRecord ray;
  ray.origin = origin;
  ray.direction = SafeNormalize(direction);
  return ray;
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

void BuildWellFormed(Object& object) {
  Build(object);
  Update(object, true, 1);
  EXPECT_EQ(ValidateTree(object), "");
}

float RefitCost(const Object& object, std::uint32_t index, Box& box) {
  const BinaryNode& n = object.nodes[index];
  box = Box{};
  if (n.IsLeaf()) {
    for (std::uint32_t i = 0; i < n.Sum(); ++i)
      Grow(box, PrimitiveBox(object, object.references[n.FirstReference() + i]));
    return HalfArea(box) * static_cast<float>(n.Sum());
  }
  Box l, r;
  const float cost = RefitCost(object, n.link, l) + RefitCost(object, n.link + 1, r);
  box = Union(l, r);
  return cost + HalfArea(box);
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
        LoopAnswer expected;
        AskLoop(
            objectTable[0], ray, false, 0, [](auto...) { return kWhite; }, expected);
        ASSERT_EQ(Trace(ray), expected.kind != kKindUnset) << scale << ' ' << nearlyZero << ' ' << i;
        if (expected.kind == kKindUnset) continue;
        ++hits;
        EXPECT_NEAR(ray.t, expected.t, 1e-5f * expected.t);
      }
    EXPECT_GT(hits, 1500);
  }
}

TEST_F(AccelTest, BinaryTreeKeepsItsInvariantsAndRotationsNeverCostMore) {
  Object object;
  object.parts.push_back(MakeSoup(5000));
  BuildWellFormed(object);
  Box box, after;
  EXPECT_NEAR(object.treeCost, RefitCost(object, BinaryNode::kRoot, box), 1e-3 * object.treeCost);
  EXPECT_EQ(object.bounds, box);
  object.deformable = true;
  for (Vec3& p : object.parts[0].positions) p = UniformPoint(10);
  const float before = RefitCost(object, BinaryNode::kRoot, box);
  Update(object, false, 1);
  EXPECT_EQ(ValidateTree(object), "");
  const float cost = RefitCost(object, BinaryNode::kRoot, after);
  EXPECT_LT(cost, before);
  EXPECT_EQ(box, after);
  EXPECT_EQ(object.nodes[BinaryNode::kRoot].Sum(), 5000U);
  EXPECT_NEAR(object.treeCost, cost, 1e-3 * static_cast<double>(cost));
}

// Few records fill bins in another way than many.
TEST_F(AccelTest, BinsOfManyAreThoseOfEachAddedUp) {
  std::vector<BuildRecord> records(333);
  LaneBox centroids = EmptyBox();
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Vec3 p = UniformPoint(10);
    const float x = i % 50 == 7 ? std::nanf("") : i % 50 == 9 ? 1e38f : p.x;
    records[i] = {{x, p.y, p.z}, 0, {-x, -p.y - 1, -p.z}, 0};
    Grow(centroids, CentroidBox(BoxOf(records[i])));
  }
  Bins all, each;
  all.Fill(records.data(), 333, centroids);
  for (const BuildRecord& record : records) {
    Bins one;
    one.Fill(&record, 1, centroids);
    each.Add(one);
  }
  for (int i = 0; i < 3 * kBins; ++i) {
    EXPECT_EQ(ToBox(all.box[i / kBins][i % kBins]), ToBox(each.box[i / kBins][i % kBins])) << i;
    std::uint32_t counts[2][kBins];
    all.upTo[i / kBins].Store(counts[0]);
    each.upTo[i / kBins].Store(counts[1]);
    EXPECT_EQ(counts[0][i % kBins], counts[1][i % kBins]) << i;
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
  BuildWellFormed(broken);
}

TEST_F(AccelTest, GraphOfObjectsIsSoundWhateverTheInstancesSay) {
  SetConsoleQuiet(false);
  const auto expectRow = [](const std::string& row) {
    EXPECT_NE(Printed(InitializeAccelerator).find(row), std::string::npos) << row;
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
