// Displacement: surfaces that stay closed to the bit, patches that obey their normals, where layers move
// points.

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "geometry/displace_patch.h"
#include "geometry/geometry.h"
#include "render_fixture.h"

namespace zp {
namespace {

constexpr float kTwoPi = 2 * kPi;

// Waves in all three channels, around mid-grey.
std::int32_t AddWaves() {
  return AddImage("waves", 64, 32, [](int x, int y) {
    const float u = static_cast<float>(x) / 64, v = static_cast<float>(y) / 32;
    return Vec3{0.5f + 0.3f * std::sin(kTwoPi * u), 0.4f + 0.2f * std::cos(2 * kTwoPi * v),
                0.5f + 0.5f * std::sin(kTwoPi * (u + 2 * v))};
  });
}

ImageSlot& AddLayer(std::int32_t shader, int level, Vec3 vector, std::int32_t image = kNone) {
  ImageSlot& layer = ShaderAt(shader).geometry.vector.emplace_back();
  layer.level = level;
  layer.color = vector;
  layer.image = image;
  return layer;
}

// A vertex of the plane z = 0 that looks up, its uv equal to its place.
std::uint32_t AddFlatVertex(Part& part, float x, float y) {
  part.positions.push_back({x, y, 0});
  part.uvSets[0].values.push_back({x, y});
  part.normals.push_back(Pack({0, 0, 1}));
  part.tangents.push_back(Pack({1, 0, 0}));
  return static_cast<std::uint32_t>(part.positions.size()) - 1;
}

// Half a unit square with its right angle at (x, 0).
void AddFlatTriangle(Part& part, float x, std::int32_t shader) {
  const std::uint32_t a = AddFlatVertex(part, x, 0), b = AddFlatVertex(part, x + 1, 0);
  part.triangles.push_back({{a, b, AddFlatVertex(part, x, 1)}, shader});
}

void AddUnitSquare(Part& part, std::int32_t shader) {
  const std::uint32_t a = AddFlatVertex(part, 0, 0), b = AddFlatVertex(part, 1, 0);
  const std::uint32_t c = AddFlatVertex(part, 1, 1), d = AddFlatVertex(part, 0, 1);
  part.tetragons.push_back({{a, b, c, d}, shader});
}

// Every vertex that a triangle has, as often as it is one.
std::vector<std::uint32_t> Corners(const Part& part) {
  std::vector<std::uint32_t> corners;
  for (const Triangle& t : part.triangles) corners.insert(corners.end(), t.vertex, t.vertex + 3);
  return corners;
}

using Bits = std::array<std::uint32_t, 3>;
Bits BitsOf(Vec3 p) {
  return {std::bit_cast<std::uint32_t>(p.x), std::bit_cast<std::uint32_t>(p.y),
          std::bit_cast<std::uint32_t>(p.z)};
}

// How often each edge is walked there less how often back: 0 where two triangles meet. Open edges alone.
std::map<std::pair<Bits, Bits>, int> OpenEdges(const RawVector<Triangle>& triangles, const Part& part) {
  std::map<std::pair<Bits, Bits>, int> walked;
  for (const Triangle& triangle : triangles)
    for (int i = 0; i < 3; ++i) {
      const Bits a = BitsOf(part.positions[triangle.vertex[i]]);
      const Bits b = BitsOf(part.positions[triangle.vertex[(i + 1) % 3]]);
      walked[std::minmax(a, b)] += a < b ? 1 : -1;
    }
  std::erase_if(walked, [](const auto& edge) { return edge.second == 0; });
  return walked;
}
bool IsClosed(const Part& part) { return OpenEdges(part.triangles, part).empty(); }

// A closed bumpy ball whose triangles own their vertices and begin at any of their three corners.
Part BumpyBall(std::int32_t shader) {
  Part part;
  AddSphere(part, 1, true, shader);
  for (std::size_t i = 0; i < part.positions.size(); ++i) {
    Vec3& p = part.positions[i];
    part.tangents.push_back(Pack(UnitPerpendicular(p)));
    part.uvSets[0].values.push_back({0.5f + 0.31f * p.x + 0.1f * p.z, 0.37f * p.y - 0.2f * p.z});
    p = p * Vec3{1.3f + 0.2f * p.y, 0.9f + 0.1f * p.z, 1.1f} + Vec3{0.123f, -7.77f, 0.031f};
  }
  for (std::size_t i = 0; i < part.triangles.size(); ++i) {
    auto& v = part.triangles[i].vertex;
    std::rotate(v, v + i % 3, v + 3);
  }
  return part;
}

class DisplaceTest : public RenderTest {
 protected:
  void SetUp() override {
    RenderTest::SetUp();
    shader_ = AddShader("first", kWhite, kBlack);
    other_ = AddShader("second", kWhite, kBlack);
  }

  GeometryShader& First() const { return ShaderAt(shader_).geometry; }

  static std::string DisplaceAloud(Part& part) {
    return Aloud([&] { Displace(part); });
  }

  std::int32_t shader_ = 0, other_ = 0;
};

TEST_F(DisplaceTest, LayersMultiplyAndEndShaderByShader) {
  AddLayer(shader_, 2, {});
  AddLayer(shader_, 3, {});
  AddLayer(other_, 4, {});
  Part part;
  AddUnitSquare(part, shader_);
  AddFlatTriangle(part, 3, other_);
  AddFlatTriangle(part, 5, AddShader("plain", kWhite, kBlack));
  Displace(part);
  EXPECT_TRUE(part.tetragons.empty());
  std::map<std::int32_t, int> counts;
  for (const Triangle& triangle : part.triangles) ++counts[triangle.shader];
  EXPECT_EQ(counts, (std::map<std::int32_t, int>{{shader_, 2 * 4 * 9}, {other_, 16}, {other_ + 1, 1}}));

  Part plain;
  AddUnitSquare(plain, 77);  // of no table
  EXPECT_EQ(DisplaceAloud(plain), "");
  EXPECT_EQ(plain.tetragons.size(), 1u);
  EXPECT_EQ(plain.positions.size(), 4u);
}

TEST_F(DisplaceTest, EdgesMeetToTheBit) {
  const std::int32_t waves = AddWaves();
  for (const PixelSampler sampler :
       {PixelSampler::kBilinear, PixelSampler::kNearest, PixelSampler::kStochastic})
    for (const int level : {-3, 0, 1, 2, 3, 7, 10, 43, 49}) {  // 43 divides the grid of the weights
      First().vector.clear();
      AddLayer(shader_, level, {0.03f, -0.02f, 0.2f}, waves).pixelSampler = sampler;
      Part part = BumpyBall(shader_);
      Displace(part);
      const int n = std::max(level, 1);
      ASSERT_EQ(part.triangles.size(), 32u * static_cast<std::size_t>(n * n));
      EXPECT_TRUE(IsClosed(part)) << "level " << level << " sampler " << static_cast<int>(sampler);
    }
}

// A level that divides the other's has its edge points among the other's.
TEST_F(DisplaceTest, PointsOfDifferentLevelsCoincide) {
  const std::int32_t waves = AddWaves();
  AddLayer(shader_, 3, {0, 0, 0.2f}, waves);
  AddLayer(other_, 12, {0, 0, 0.2f}, waves);
  Part part = BumpyBall(shader_);
  for (std::size_t i = 0; i < part.triangles.size(); i += 2) part.triangles[i].shader = other_;
  Displace(part);
  std::set<Bits> finePoints;
  RawVector<Triangle> coarse;
  for (const Triangle& t : part.triangles) {
    if (t.shader != other_) coarse.push_back(t);
    for (const std::uint32_t v : t.vertex)
      if (t.shader == other_) finePoints.insert(BitsOf(part.positions[v]));
  }
  const auto border = OpenEdges(coarse, part);  // where coarse meets fine
  EXPECT_GT(border.size(), 30u);
  for (const auto& [edge, count] : border)
    EXPECT_TRUE(finePoints.count(edge.first) && finePoints.count(edge.second));
}

// Leaves both ends along their tangent planes, is one curve from either end, and has the normal that belongs
// to its own derivative.
TEST_F(DisplaceTest, CurveObeysItsNormals) {
  const PatchCorner a = {{0.2f, -0.4f, 0.1f}, SafeNormalize({0.3f, 0.5f, 1})};
  const PatchCorner b = {{1.1f, 0.3f, 0.4f}, SafeNormalize({-0.8f, 0.1f, 1})};
  constexpr float kStep = 1.0f / 64;
  const auto slope = [](float t, const PatchCorner& p, const PatchCorner& q) {
    return (PatchCurve(t + kStep, p, q).position - PatchCurve(t - kStep, p, q).position) / (2 * kStep);
  };
  EXPECT_NEAR(Dot(slope(1, a, b), a.normal), 0, 2e-3f);
  EXPECT_NEAR(Dot(slope(0, a, b), b.normal), 0, 2e-3f);
  EXPECT_GT(std::abs(Dot(a.position - b.position, b.normal)), 0.1f);  // which the chord does not

  const PatchCorner parallel = {b.position, a.normal};
  for (const float t : {0.1f, 0.35f, 0.5f, 0.8f}) {
    EXPECT_LT(SafeLength(PatchCurve(t, a, b).position - PatchCurve(1 - t, b, a).position), 1.1e-5f);
    const PatchCorner point = PatchCurve(t, a, parallel);
    EXPECT_NEAR(Dot(slope(t, a, parallel), point.normal), 0, 2e-3f);
    EXPECT_NEAR(Dot(point.normal, point.normal),
                1 - std::pow(Dot(a.normal, SafeNormalize(slope(t, a, parallel))), 2.0f), 2e-3f);
  }
}

// Thirty-two flat triangles, bent by their normals alone, come close to the sphere that these belong to.
TEST_F(DisplaceTest, PatchBendsToASphere) {
  AddLayer(shader_, 8, {});
  Part part;
  AddSphere(part, 1, true, shader_);
  Displace(part);
  for (const std::uint32_t v : Corners(part)) {
    EXPECT_NEAR(SafeLength(part.positions[v]), 1, 0.015f);  // the flat triangles reach in to 0.83
    EXPECT_GT(Dot(SafeNormalize(Unpack(part.normals[v])), SafeNormalize(part.positions[v])), 0.98f);
  }
}

TEST_F(DisplaceTest, OffsetFollowsFrameOrDirection) {
  const std::int32_t grey = AddImage("grey", 2, 2, [](int, int) { return Grey(0.5f); });
  const std::int32_t color = AddImage("color", 2, 2, [](int, int) { return Vec3{1, 0.25f, 0}; });
  struct Case {
    Vec3 vector;
    std::int32_t image;
    Vec3 direction, offset;
    bool isHeight = false;
  };
  const Case cases[] = {
      {{1, 2, 3}, kNone, {}, {0, 0, 2}, true},
      {{1, 2, 4}, color, {1, 1, 1}, {0, 0, -2.0f / 3}, true},  // half a unit, minus a half, minus two
      {{1, 2, 3}, kNone, {}, {1, -2, 3}},  // the second component goes against the bitangent
      {{1, 2, 3}, kNone, {0, 0, -2}, {0, 0, -6}},
      {{1, 2, 3}, grey, {}, {}},
      {{1, 2, 4}, color, {}, {0.5f, 0.5f, -2}},
      {{1, 2, 4}, color, {1, 1, 1}, {0.5f, -0.5f, -2}},
      {{INFINITY, 0, 0}, kNone, {1, 1, 1}, {}},  // what would leave the scene stays
      {{NAN, 0, 0}, kNone, {}, {}},
  };
  for (const Case& c : cases) {
    First().vector.clear();
    AddLayer(shader_, 1, c.vector, c.image).direction = c.direction;
    settings.format = c.isHeight ? 2 : 1;
    if (c.isHeight) First().height = std::exchange(First().vector, {});
    Part part;
    AddFlatTriangle(part, 0, shader_);
    const std::vector<Vec3> before = part.positions;
    Displace(part);
    ASSERT_EQ(part.triangles.size(), 1u);
    for (std::size_t i = 0; i < 3; ++i) {
      const Vec3 moved = part.positions[part.triangles[0].vertex[i]] - before[i];
      EXPECT_LT(SafeLength(moved - c.offset), 3e-5f) << "case " << &c - cases << " corner " << i;
    }
    First().height.clear();
  }
}

TEST_F(DisplaceTest, UserDataFollowsThePlane) {
  AddLayer(shader_, 6, {0, 0, 1});
  AddLayer(shader_, 2, {});
  Part part;
  AddUnitSquare(part, shader_);
  part.scalarSets.push_back({"heat", {}});
  part.uvSets.push_back({"second", {}});
  part.vectorSets.push_back({"motion", {}});
  for (const Vec3& p : part.positions) {
    part.scalarSets[1].values.push_back(3 * p.x - p.y);
    part.uvSets[1].values.push_back({p.y, -2 * p.x});
    part.vectorSets[0].values.push_back({p.x + p.y, 5 * p.x, -p.y});
  }
  Displace(part);
  EXPECT_TRUE(part.scalarSets[0].values.empty());
  EXPECT_EQ(part.normals.size(), part.positions.size());
  EXPECT_EQ(part.tangents.size(), part.positions.size());
  for (const std::uint32_t v : Corners(part)) {
    const Vec3 p = part.positions[v];
    constexpr float kTolerance = 1e-3f;  // of truncated weights, twice
    EXPECT_NEAR(p.z, 1, kTolerance);
    EXPECT_NEAR(part.scalarSets[1].values.at(v), 3 * p.x - p.y, kTolerance);
    EXPECT_NEAR(part.uvSets[1].values.at(v).x, p.y, kTolerance);
    EXPECT_NEAR(part.uvSets[1].values.at(v).y, -2 * p.x, kTolerance);
    EXPECT_LT(SafeLength(part.vectorSets[0].values.at(v) - Vec3{p.x + p.y, 5 * p.x, -p.y}), kTolerance);
  }
}

TEST_F(DisplaceTest, FacetedPartsAreWarnedAbout) {
  AddLayer(shader_, 4, {0, 0, 1});
  First().smoothAngle = 0;
  Part part;
  AddUnitSquare(part, shader_);
  const std::string warning = "part - missing vertex normals for displacement mapping";
  const std::string text = DisplaceAloud(part);
  EXPECT_NE(text.find(warning), std::string::npos);
  EXPECT_EQ(text.find(warning), text.rfind(warning));
  EXPECT_NE(text.find(std::string(80, '_')), std::string::npos);
  EXPECT_EQ(part.triangles.size(), 2u);
  EXPECT_TRUE(part.tetragons.empty());

  // One shader asks for facets, the other does not: only the first stays as it is.
  AddLayer(other_, 4, {0, 0, 1});
  Part both;
  AddFlatTriangle(both, 0, shader_);
  AddFlatTriangle(both, 2, other_);
  EXPECT_EQ(DisplaceAloud(both).find(warning), std::string::npos);
  ASSERT_EQ(both.triangles.size(), 1u + 16);
  EXPECT_EQ(both.triangles[0].shader, shader_);
  for (const std::uint32_t v : both.triangles[0].vertex) EXPECT_EQ(both.positions[v].z, 0);
}

TEST_F(DisplaceTest, TooFineLevelsAreLeftOut) {
  AddLayer(shader_, 2, {0, 0, 1});
  for (const int level : {30000, 65536, 2147483647}) {
    AddLayer(shader_, level, {});
    Part part;
    AddUnitSquare(part, shader_);
    EXPECT_NE(DisplaceAloud(part).find("error"), std::string::npos);
    EXPECT_EQ(part.triangles.size(), 2u * 4);  // the first layer stays
    for (const std::uint32_t v : Corners(part)) EXPECT_NEAR(part.positions[v].z, 1, 1e-6f);
    First().vector.pop_back();
  }
}

// Smoothed and displaced in two layers, it is closed and the same at every thread count.
TEST_F(DisplaceTest, ThreadsChangeNothing) {
  const std::int32_t waves = AddWaves();
  First().smoothAngle = 180;
  AddLayer(shader_, 3, {0.1f, 0.1f, 0.2f}, waves).pixelSampler = PixelSampler::kStochastic;
  AddLayer(shader_, 4, {0, 0, 0.1f}, waves).direction = {1, 2, 3};
  AddLayer(other_, 12, {});
  const auto prepared = [&](int threads) {
    omp_set_num_threads(threads);
    Part part = BumpyBall(shader_);
    PreparePart(part, {});
    return part;
  };
  const Part reference = prepared(1);
  EXPECT_EQ(reference.triangles.size(), 32u * 144);
  EXPECT_TRUE(IsClosed(reference));
  for (const int threads : {2, 3, 7}) {
    const Part part = prepared(threads);
    EXPECT_EQ(Corners(part), Corners(reference)) << threads;
    EXPECT_EQ(part.positions, reference.positions) << threads;
    EXPECT_EQ(part.normals, reference.normals) << threads;
    EXPECT_EQ(part.tangents, reference.tangents) << threads;
  }
}

}  // namespace
}  // namespace zp
