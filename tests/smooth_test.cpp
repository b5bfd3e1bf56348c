// Smoothing: what the angles do to normals, tangents and vertices, and what a picture shows of it.

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "accel/accel.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
#include "render_fixture.h"

namespace zp {
namespace {

// Packing cuts each of three components to a multiple of 1/128, and unpacking makes the length right again.
const float kPackingError = std::sqrt(3.0f) / 128;

Vec3 NormalAt(const Part& part, std::uint32_t vertex) { return UnitVector(Unpack(part.normals.at(vertex))); }
Vec3 TangentAt(const Part& part, std::uint32_t vertex) {
  return UnitVector(Unpack(part.tangents.at(vertex)));
}

Vec3 FaceNormal(const Part& part, const Triangle& t) {
  const auto& p = part.positions;
  return UnitVector(Cross(p[t.vertex[1]] - p[t.vertex[0]], p[t.vertex[2]] - p[t.vertex[0]]));
}

void ExpectSame(const Part& a, const Part& b) {
  EXPECT_EQ(a.positions, b.positions);
  EXPECT_EQ(a.normals, b.normals);
  EXPECT_EQ(a.tangents, b.tangents);
  EXPECT_EQ(a.uvSets[0].values, b.uvSets[0].values);
  const auto same = [](const auto& f, const auto& g) {
    return std::equal(std::begin(f.vertex), std::end(f.vertex), std::begin(g.vertex));
  };
  EXPECT_TRUE(std::ranges::equal(a.triangles, b.triangles, same));
  EXPECT_TRUE(std::ranges::equal(a.tetragons, b.tetragons, same));
}

// A wavy sheet of 2 n^2 triangles with shared vertices and uvs.
Part WavySheet(std::uint32_t n, std::int32_t shader) {
  Part part;
  for (std::uint32_t y = 0; y <= n; ++y)
    for (std::uint32_t x = 0; x <= n; ++x) {
      const float u = static_cast<float>(x) / static_cast<float>(n);
      const float v = static_cast<float>(y) / static_cast<float>(n);
      part.positions.push_back({u, v, 0.2f * std::sin(9 * u) * std::cos(7 * v)});
      part.uvSets[0].values.push_back({u, v});
    }
  for (std::uint32_t y = 0; y < n; ++y)
    for (std::uint32_t x = 0; x < n; ++x) {
      const std::uint32_t i = y * (n + 1) + x;
      part.triangles.push_back({{i, i + 1, i + n + 2}, shader});
      part.triangles.push_back({{i, i + n + 2, i + n + 1}, shader});
    }
  return part;
}

class SmoothTest : public RenderTest {
 protected:
  // A Shader with this angle.
  static std::int32_t AngleShader(float degrees) {
    const auto shader = AddShader("angle", Grey(0.9f), kBlack);
    shaders.back().geometry.smoothAngle = degrees;
    return shader;
  }

  static std::string Rows(Part& part) {
    return Aloud([&] { Smooth(part); });
  }

  // Eight shared vertices, six tetragons that face outwards.
  static Part SharedCube(std::int32_t shader) {
    Part part;
    for (int i = 0; i < 8; ++i)
      part.positions.push_back({(i & 1) ? 1.0f : -1.0f, (i & 2) ? 1.0f : -1.0f, (i & 4) ? 1.0f : -1.0f});
    part.tetragons = {{{0, 2, 3, 1}, shader}, {{4, 5, 7, 6}, shader}, {{0, 1, 5, 4}, shader},
                      {{2, 6, 7, 3}, shader}, {{0, 4, 6, 2}, shader}, {{1, 3, 7, 5}, shader}};
    return part;
  }
};

TEST_F(SmoothTest, SphereHasItsTrueNormals) {
  Part part;
  AddSphere(part, 5, false, AngleShader(180));
  const std::size_t corners = part.positions.size();
  Smooth(part);
  for (std::uint32_t v = 0; v < part.positions.size(); ++v)
    EXPECT_LT(SafeLength(NormalAt(part, v) - part.positions[v]), kPackingError);
  EXPECT_LT(part.positions.size(), corners);  // corners of their own fell together
}

TEST_F(SmoothTest, CubeKeepsItsEdgesOnlyBelowTheirAngle) {
  for (const float degrees : {30.0f, 89.0f}) {
    Part sharp = SharedCube(AngleShader(degrees));
    Smooth(sharp);
    EXPECT_EQ(sharp.positions.size(), 24U) << degrees;
    for (const Tetragon& face : sharp.tetragons) {
      const Vec3 center = 0.5f * (sharp.positions[face.vertex[0]] + sharp.positions[face.vertex[2]]);
      for (const std::uint32_t v : face.vertex) EXPECT_EQ(NormalAt(sharp, v), center) << degrees;
    }
  }
  for (const float degrees : {91.0f, 100.0f, 180.0f, 1e9f, std::numeric_limits<float>::infinity()}) {
    Part round = SharedCube(AngleShader(degrees));
    Smooth(round);
    for (std::uint32_t v = 0; v < round.positions.size(); ++v)
      EXPECT_GT(Dot(NormalAt(round, v), UnitVector(round.positions[v])), 0.9999f) << degrees;
    // Beyond 180 degrees the tangents fall together too, opposite ones included: nothing splits.
    EXPECT_TRUE(degrees <= 180 || round.positions.size() == 8) << degrees;
  }
}

TEST_F(SmoothTest, AnglesBelongToTheShaderOfEachCorner) {
  // A roof with a ridge of 90 degrees along y, whose sides have shaders of their own.
  const auto roof = [](std::int32_t left, std::int32_t right) {
    Part part;
    part.positions = {{0, 0, 1}, {0, 1, 1}, {-1, 0, 0}, {1, 0, 0}};
    part.triangles = {{{0, 1, 2}, left}, {{0, 3, 1}, right}};
    return part;
  };
  const std::int32_t facets = AngleShader(0), soft = AngleShader(120), sharp = AngleShader(60);
  Part part = roof(facets, soft);
  Smooth(part);
  ASSERT_EQ(part.normals.size(), part.positions.size());
  EXPECT_EQ(part.positions.size(), 6U);
  for (const std::uint32_t v : part.triangles[0].vertex)
    EXPECT_TRUE(IsZero(part.normals[v]) && IsZero(part.tangents[v]));
  EXPECT_EQ(NormalAt(part, part.triangles[1].vertex[0]), (Vec3{0, 0, 1}));

  part = roof(sharp, soft);
  Smooth(part);
  EXPECT_LT(NormalAt(part, part.triangles[0].vertex[0]).x, -0.7f);
  EXPECT_EQ(NormalAt(part, part.triangles[1].vertex[0]), (Vec3{0, 0, 1}));

  // Nothing but facets: the normals go, and the vertices stay.
  part = roof(facets, facets);
  part.normals.assign(4, Pack({0, 0, 1}));
  Smooth(part);
  EXPECT_EQ(part.normals.size(), 0U);
  EXPECT_EQ(part.positions.size(), 4U);

  // A shader that is not there counts as one with the default angle.
  part = roof(1000, -1);
  Smooth(part);
  EXPECT_LT(NormalAt(part, part.triangles[0].vertex[0]).x, -0.7f);
}

TEST_F(SmoothTest, NegativeAngleKeepsWhatIsStoredAndLeavesTheRestFaceted) {
  const std::int32_t shader = AngleShader(-1);
  Part part = WavySheet(8, shader);
  const Vec3 odd = UnitVector({0.3f, -0.4f, 0.8f});
  part.normals.assign(part.positions.size(), Pack(odd));
  part.tangents.assign(part.positions.size(), Pack({1, 0, 0}));
  const Part before = part;
  Smooth(part);
  ExpectSame(part, before);  // nothing differs, so nothing splits

  part.normals[40] = {};  // a vertex inside without a normal
  Smooth(part);
  std::size_t faceted = 0;
  for (const Triangle& t : part.triangles)
    for (const std::uint32_t v : t.vertex) {
      if (part.normals[v] == Pack(odd)) continue;
      ++faceted;
      EXPECT_EQ(part.normals[v], Pack(FaceNormal(part, t)));
    }
  EXPECT_EQ(faceted, 6U);
}

// Vectors by face are to the bit those that split vertices have.
TEST_F(SmoothTest, VerticesStayWhereFacesHaveOneNormalAndOneTangent) {
  Part split = WavySheet(8, AngleShader(-1));
  for (std::size_t v = 9 * 4; v < split.positions.size(); ++v) split.positions[v].z = 0;  // many equal faces
  split.triangles.pop_back();
  split.tetragons.push_back({{0, 1, 10, 9}, 0});
  Part kept = split;
  Smooth(split);
  Smooth(kept, true);
  EXPECT_EQ(kept.positions.size(), 81U);
  EXPECT_TRUE(kept.normals.empty() && kept.tangents.empty());
  const auto expectSame = [&](std::uint8_t kind, std::uint32_t index) {
    const Vec3 place = {0.2f, 0.3f, 0.5f};
    const auto ours = HitCorners(kept, kind, index, place), theirs = HitCorners(split, kind, index, place);
    for (const auto vectorsOf : {CornerNormals, CornerTangents}) {
      PackedVector a[4], b[4];
      EXPECT_EQ(vectorsOf(ours, kept, kind, index, a), vectorsOf(theirs, split, kind, index, b)) << index;
      EXPECT_TRUE(std::equal(a, a + ours.count, b)) << index;
    }
  };
  for (std::uint32_t i = 0; i < kept.triangles.size(); ++i) expectSame(kKindTriangle, i);
  expectSame(kKindTetragon, 0);
  EXPECT_EQ(ValidatePart(kept), "");

  // Normals that are supplied stay where they are; smooth tangents need vertices of their own.
  Part supplied = WavySheet(8, AngleShader(-1));
  supplied.normals.assign(81, Pack({0, 1, 2}));
  Smooth(supplied, true);
  EXPECT_EQ(supplied.normals, std::vector<PackedVector>(81, Pack({0, 1, 2})));
  EXPECT_EQ(supplied.cornerTangents.values.size(), supplied.triangles.size());
  Part smooth = WavySheet(8, AngleShader(60)), same = smooth;
  Smooth(smooth, true);
  Smooth(same);
  ExpectSame(smooth, same);
}

TEST_F(SmoothTest, TangentsFollowU) {
  const std::int32_t shader = AngleShader(60);
  struct Case {
    std::vector<Vec2> uvs;
    Vec3 tangent;
  };
  for (const Case& c : {Case{{{0, 0}, {1, 0}, {1, 1}, {0, 1}}, {1, 0, 0}},
                        Case{{{0, 0}, {0, -1}, {1, -1}, {1, 0}}, {0, 1, 0}},   // u grows along y
                        Case{{{0, 0}, {1, 0}, {2, 1}, {1, 1}}, {1, 0, 0}}}) {  // v is constant along x
    Part part;
    part.positions = {{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {0, 1, 0}};
    part.uvSets[0].values = c.uvs;
    part.tetragons = {{{0, 1, 2, 3}, shader}};
    Smooth(part);
    for (std::uint32_t v = 0; v < 4; ++v) EXPECT_EQ(TangentAt(part, v), c.tangent);
  }
  // No uvs, or all in one place: some direction in the surface, also for the normal where the rule vanishes.
  for (const Vec3 third : {Vec3{0, 1, 0}, Vec3{1, 0, 1}})
    for (const bool hasUvs : {false, true}) {
      Part part;
      part.positions = {{0, 0, 0}, {1, -1, 0}, third};
      if (hasUvs) part.uvSets[0].values.assign(3, {0.5f, 0.5f});
      part.triangles = {{{0, 1, 2}, shader}};
      const Vec3 normal = FaceNormal(part, part.triangles[0]);
      Smooth(part);
      EXPECT_NEAR(Dot(TangentAt(part, 0), normal), 0, kPackingError);
      EXPECT_FALSE(IsZero(part.tangents[0]));
    }
}

TEST_F(SmoothTest, DataTravelsWithItsVertex) {
  Part part = SharedCube(AngleShader(30));
  for (std::uint32_t v = 0; v < 8; ++v) {
    const Vec3 p = part.positions[v];
    part.uvSets[0].values.push_back({p.x, p.y + p.z});
    part.scalarSets[0].values.push_back(p.x + 2 * p.y + 4 * p.z);
  }
  part.vectorSets.push_back({"motion", part.positions});
  part.vectorSets.push_back({"empty", {}});
  part.uvSets.push_back({"second", part.uvSets[0].values});
  Smooth(part);
  ASSERT_GT(part.positions.size(), 8U);
  EXPECT_EQ(part.vectorSets[0].values, part.positions);
  EXPECT_TRUE(part.vectorSets[1].values.empty());
  EXPECT_EQ(part.uvSets[1].values, part.uvSets[0].values);
  for (std::uint32_t v = 0; v < part.positions.size(); ++v) {
    const Vec3 p = part.positions[v];
    EXPECT_EQ(part.uvSets[0].values.at(v), (Vec2{p.x, p.y + p.z}));
    EXPECT_EQ(part.scalarSets[0].values.at(v), p.x + 2 * p.y + 4 * p.z);
  }
  // Two vertices that differ in one value alone are smoothed together and stay two.
  for (const float other : {5.0f, 6.0f}) {
    Part pair;
    pair.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 0}, {1, 0, 0}, {0, -1, 0}};
    pair.scalarSets[0].values = {5, 5, 5, 5, other, 5};
    pair.triangles = {{{0, 1, 2}, 1}, {{3, 5, 4}, 1}};
    Smooth(pair);
    EXPECT_EQ(pair.positions.size(), other == 5 ? 4U : 5U);
  }
}

TEST_F(SmoothTest, BadInputIsSmoothedAsFarAsItGoes) {
  const std::int32_t shader = AngleShader(180);
  const float nan = std::numeric_limits<float>::quiet_NaN(), huge = 3e38f;
  Part part;
  part.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0},     {nan, 0, 0},  // a face, a vertex that is no number
                    {0, 0, 0}, {8, 8, 8}, {-huge, 0, 0}, {huge, huge, 0}, {-0.0f, 1, 0},
                    {9, 9, 9}, {7, 7, 7}};
  part.triangles = {{{0, 1, 2}, shader}, {{0, 1, 3}, shader}, {{0, 4, 1}, shader},
                    {{0, 0, 0}, shader}, {{4, 6, 7}, shader}, {{8, 0, 1}, shader}};
  part.particles = {9};
  part.cylinders = {9};
  EXPECT_EQ(Rows(part), "");
  ASSERT_EQ(part.triangles.size(), 6U);
  ASSERT_EQ(part.normals.size(), part.positions.size());
  for (const Triangle& t : part.triangles)
    for (const std::uint32_t v : t.vertex) ASSERT_LT(v, part.positions.size());
  EXPECT_EQ(NormalAt(part, part.triangles[0].vertex[1]), (Vec3{0, 0, 1}));
  EXPECT_EQ(part.triangles[0].vertex[2], part.triangles[5].vertex[0]);  // both zeros are one place
  for (const Vec3& p : part.positions) EXPECT_NE(p, (Vec3{8, 8, 8}));   // of no primitive
  EXPECT_EQ(part.positions.at(part.particles.at(0)), (Vec3{9, 9, 9}));
  EXPECT_EQ(part.positions.at(part.cylinders.at(0)), (Vec3{9, 9, 9}));
  EXPECT_EQ(part.positions.at(part.cylinders.at(0) + 1), (Vec3{7, 7, 7}));

  part.triangles.push_back({{0, 1, 1000}, shader});
  EXPECT_EQ(Rows(part), "error :( \tpart - smoothing out of range\n");
  EXPECT_EQ(part.triangles.size(), 6U);

  Part points;
  points.positions.resize(3);
  points.particles = {0, 2};
  EXPECT_EQ(Rows(points), "");
  EXPECT_EQ(points.positions.size(), 3U);
  EXPECT_EQ(points.particles.size(), 2U);
  for (const float degrees : {nan, -std::numeric_limits<float>::infinity()}) {
    Part cube = SharedCube(AngleShader(degrees));
    Smooth(cube);
    EXPECT_EQ(cube.positions.size(), 24U);
  }
}

// A fan of 20,000 triangles: the quadratic rule over all of it would take minutes.
TEST_F(SmoothTest, LongFansTakeNoTime) {
  constexpr std::uint32_t kCount = 20000;
  const std::int32_t shader = AngleShader(20);
  Part part;
  part.positions.push_back({0, 0, 0});
  for (std::uint32_t i = 0; i < kCount; ++i) {
    const float angle = 2 * kPi * static_cast<float>(i) / static_cast<float>(kCount);
    part.positions.push_back({std::cos(angle), std::sin(angle), 0});
    part.triangles.push_back({{0, 1 + i, 1 + (i + 1) % kCount}, shader});
  }
  Smooth(part);
  for (std::uint32_t v = 0; v < part.positions.size(); ++v)
    ASSERT_EQ(part.normals[v], (PackedVector{0, 0, 127}));
}

}  // namespace
}  // namespace zp
