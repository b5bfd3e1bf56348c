// Photons: cells, the store and its search, energy, caustics, and final gathering against path tracing.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>

#include "accel/accel.h"
#include "core/index.h"
#include "geometry/density.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"
#include "integrator/estimator.h"
#include "integrator/photons.h"
#include "lights/photon_store.h"
#include "random_geometry.h"
#include "render_fixture.h"

namespace zp {
namespace {

// Cells of a triangle are similar to it: their corners differ in weights by a cell's size at the most.
TEST(DensityCells, EveryCellOfAPrimitiveIsHitAndNoOther) {
  for (std::int32_t level : {1, 2, 3, 9, 16, 255}) {
    std::map<std::int32_t, Vec3> triangle, tetragon;  // with one place inside
    const auto add = [&](std::map<std::int32_t, Vec3>& cells, std::int32_t cell, Vec3 w) {
      const Vec3 way = w - cells.try_emplace(cell, w).first->second;
      for (float step : {way.x, way.y, way.z})
        ASSERT_LT(std::fabs(step), 1.0001f / static_cast<float>(level)) << level;
    };
    for (int i = 0; i < 20 * level * level + 100; ++i) {
      const float root = std::sqrt(Uniform(0, 1)), u = Uniform(0, 1), v = Uniform(0, 1);
      const Vec3 w = {1 - root, root * (1 - v), root * v};
      add(triangle, TriangleCell(w, level), w);
      add(tetragon, TetragonCell(u, v, level), {u, v, 0});
    }
    // Corners, edges, and what rounding or a hit's slack makes of them.
    for (float e : {-1e-6f, 0.0f, 1e-6f})
      for (const Vec3 corner :
           {Vec3{1, 0, 0}, Vec3{0, 1, 0}, Vec3{0, 0, 1}, Vec3{0.5f, 0.5f, 0}, Vec3{0, 0.5f, 0.5f}}) {
        triangle[TriangleCell({corner.x + e, corner.y - e, corner.z}, level)];
        tetragon[TetragonCell(corner.x + e, corner.y + e, level)];
      }
    for (const auto& cells : {triangle, tetragon}) {
      EXPECT_EQ(cells.begin()->first, 0) << level;
      EXPECT_EQ(cells.rbegin()->first, level * level - 1) << level;
      EXPECT_EQ(cells.size(), static_cast<std::size_t>(level * level)) << level;
    }
  }
}

TEST(PackedDirections, ComeBackWithinTheirStep) {
  float worst = 1;
  for (int i = 0; i < 100000; ++i) {
    const Vec3 v = UniformDirection();
    const std::uint16_t packed = PackDirection(4 * v);
    EXPECT_NE(packed & 3, 0);
    EXPECT_EQ(PackDirection(UnpackDirection(packed)), packed);
    worst = std::min(worst, Dot(v, UnpackDirection(packed)));
  }
  EXPECT_GT(worst, std::cos(1.8f * kPi / 180));
  EXPECT_EQ(PackDirection({1, 0, 0}), 1);
  EXPECT_EQ(PackDirection({0, -1, 0}), 4 * 2 + 2);
  EXPECT_EQ(PackDirection({0, 0, -2}), 4 * 1 + 3);
  EXPECT_EQ(PackDirection({1, 1, 1}), (31 << 10) + (31 << 5) + 1);  // ties go to x
  EXPECT_EQ(PackDirection({1, -0.5f, 0.25f}), (16 << 10) + (8 << 5) + 4 * 2 + 1);
  EXPECT_EQ(PackDirection({}), 1);
}

class Store : public testing::Test {
 protected:
  void SetUp() override { SetConsoleQuiet(true); }
  void TearDown() override {
    EmptyPhotonStore();
    SetConsoleQuiet(false);
  }
};

TEST_F(Store, SearchFindsThePhotonsOfAPlainLoop) {
  for (int shape = 0; shape < 4; ++shape) {
    EmptyPhotonStore();
    const int count = shape == 3 ? 40 : 20000;
    for (int i = 0; i < count; ++i) {
      PhotonRecord photon;
      photon.position = {Uniform(0, 1), Uniform(0, 1), Uniform(0, 1)};
      if (shape == 1) photon.position.z = 0.5f;                              // a floor
      if (shape == 2) photon.position *= photon.position * photon.position;  // a caustic's edge
      if (i % 7 == 0) photon.position = {0.25f, 0.5f, 0.5f};                 // on one point
      photon.power = kWhite;
      photon.normal = PackDirection(i % 3 == 0 ? Vec3{0, 0, -1} : Vec3{0, 0, 1});
      photonStore.photons.push_back(photon);
    }
    BuildPhotonStore(0.2f);
    ASSERT_EQ(photonStore.photons.size(), static_cast<std::size_t>(count));
    for (int query = 0; query < 400; ++query) {
      Vec3 position = {Uniform(0, 1), Uniform(0, 1), Uniform(0, 1)};
      if (shape == 1) position.z = 0.5f;
      const float squaredRadius = 0.04f * Uniform(0, 1);
      const Vec3 normal = UnitVector({0.3f, 0, query % 2 == 0 ? 1.0f : -1.0f});
      std::vector<float> expected;
      for (const PhotonRecord& photon : photonStore.photons) {
        const Vec3 way = photon.position - position;
        if (Dot(way, way) < squaredRadius && Dot(UnpackDirection(photon.normal), normal) >= 0.5f)
          expected.push_back(Dot(way, way));
      }
      std::sort(expected.begin(), expected.end());
      if (expected.size() > kMostFoundPhotons) expected.resize(kMostFoundPhotons);
      FoundPhotons result;
      FindPhotons(position, normal, squaredRadius, result);
      std::vector<float> found;
      std::set<std::uint32_t> distinct;
      for (int i = 0; i < result.count; ++i) {
        found.push_back(At(result.found, i).squaredDistance);
        distinct.insert(At(result.found, i).photon);
      }
      std::sort(found.begin(), found.end());
      ASSERT_EQ(found, expected) << shape << " " << query;
      ASSERT_EQ(distinct.size(), found.size());
      if (!found.empty()) {
        ASSERT_EQ(result.largestSquared, found.back());
      }
    }
  }
}

class Photons : public RenderTest {
 protected:
  void SetUp() override {
    RenderTest::SetUp();
    skyLight.color = kBlack;
    skyLight.photon = geometryLight.photon = 0;
    settings.said.distance = 0.1f;
    settings.said.resolution = 0.01f;
  }
  // As AddCube, faces inwards.
  static void AddRoom(float half, std::int32_t shader) {
    const std::size_t first = Geometry().tetragons.size();
    AddCube(Geometry(), half, shader);
    for (std::size_t i = first; i < Geometry().tetragons.size(); ++i)
      std::swap(Geometry().tetragons[i].vertex[1], Geometry().tetragons[i].vertex[3]);
    LookFrom({-0.6f, -0.9f, 0.1f}, {0.5f, 0.9f, -0.2f}, 80);
  }

  // A plane with a square hole.
  static void AddFrame(float z, float hole, float far, std::int32_t shader) {
    for (float side : {-1.0f, 1.0f}) {
      const float in = side * hole, out = side * far;
      AddTetragon(Geometry(), {Vec3{in, -far, z}, Vec3{in, far, z}, Vec3{out, far, z}, Vec3{out, -far, z}},
                  shader);
      AddTetragon(Geometry(),
                  {Vec3{-hole, in, z}, Vec3{-hole, out, z}, Vec3{hole, out, z}, Vec3{hole, in, z}}, shader);
    }
  }

  // A square that shines downwards.
  static SurfaceShader& AddLamp(float z, float radiance) {
    AddTetragon(Geometry(),
                {Vec3{-0.4f, -0.4f, z}, Vec3{-0.4f, 0.4f, z}, Vec3{0.4f, 0.4f, z}, Vec3{0.4f, -0.4f, z}},
                AddShader("lamp", kBlack, Grey(radiance)));
    shaders.back().surfaces[0].sideness = Sideness::kFace;
    return shaders.back().surfaces[0];
  }

  // Density times area over all cells of a side: power that left the surfaces.
  static Vec3 PaintedPower(std::vector<Vec3> CellGrid::*side) {
    Vec3 sum;
    const Part& part = Geometry();
    const auto add = [&](const CellGrid& grid, std::size_t i, float area) {
      const auto cells = static_cast<std::size_t>(grid.level[i]) * static_cast<std::size_t>(grid.level[i]);
      for (std::size_t c = 0; c < cells; ++c)
        sum +=
            (area / static_cast<float>(cells)) * (grid.*side)[static_cast<std::size_t>(grid.offset[i]) + c];
    };
    for (std::uint32_t i = 0; i < part.triangles.size(); ++i)
      add(part.density->triangles, i, TriangleArea(part, i));
    for (std::uint32_t i = 0; i < part.tetragons.size(); ++i)
      add(part.density->tetragons, i, TetragonArea(part, i));
    return sum;
  }

  static void ExpectPower(Vec3 actual, Vec3 expected) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(actual[c], expected[c], 0.01f * expected[c]) << c;
  }

  // Means over the picture's four quarters.
  static std::array<Vec3, 4> Quarters(std::size_t aov = 0) {
    std::array<Vec3, 4> sums;
    const auto width = static_cast<std::size_t>(cameras[0].width),
               height = static_cast<std::size_t>(cameras[0].height);
    for (std::size_t y = 0; y < height; ++y)
      for (std::size_t x = 0; x < width; ++x)
        for (int c = 0; c < 3; ++c)
          sums[2 * (2 * y / height) + 2 * x / width][c] +=
              Pixels(aov)[3 * (y * width + x) + static_cast<std::size_t>(c)];
    for (Vec3& sum : sums) sum *= 4.0f / static_cast<float>(width * height);
    return sums;
  }
};

TEST_F(Photons, CellsHoldThePowerThatLanded) {
  const Vec3 albedo = {0.8f, 0.4f, 0.1f}, cloth = {0.2f, 0.3f, 0.4f};
  // A point light in a closed room: all of its 4 pi color lands, and lands again, in format 2 by chance.
  for (const auto& [format, landings] : {std::pair(1, 2), std::pair(2, 24)}) {
    Restart();
    settings.format = format;
    settings.said.photonDepth = landings - 1;
    AddRoom(1, AddShader("room", albedo, kBlack));
    AddPointLight({0.2f, -0.3f, 0.1f}, 0, 50000).color = {1, 2, 3};
    Initialize();
    Vec3 landed, left = 4 * kPi * Vec3{1, 2, 3};
    for (int i = 0; i < landings; ++i) landed += left *= albedo;
    ExpectPower(PaintedPower(&CellGrid::face), landed);
  }
  // A parallel light on two triangles: the share of its disc that they cover, once. Aslant, by the cosine.
  // Transmitted light is painted on the side that it leaves by; both lobes together lose and gain nothing.
  // Nor does a cut-out: what lands is less, and so is where it lands.
  for (const auto& [slope, opacity] :
       {std::pair(0.0f, 1.0f), std::pair(1.0f, 1.0f), std::pair(1.0f, 0.25f)}) {
    Restart();
    settings.format = 2;
    Part& part = Geometry();
    part.positions = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}};
    const std::int32_t shader = AddShader("cloth", albedo, kBlack, cloth);
    ShaderAt(shader).opacity = opacity;
    part.triangles = {{{0, 1, 2}, shader}, {{0, 2, 3}, shader}};
    AddParallelLight({slope, 0, -1}, 0, 100000);
    Initialize();
    const float landed = 4 / std::sqrt(1 + slope * slope);
    ExpectPower(PaintedPower(&CellGrid::face), landed * albedo);
    ExpectPower(PaintedPower(&CellGrid::back), landed * cloth);
  }
  settings.format = 1;
}

// Specks on black ground, too small for the first photons to find them all: those that are followed where
// nothing was found bring the others' light.
TEST_F(Photons, AimedOnesBringAllLight) {
  for (const bool sky : {false, true}) {
    Restart();
    settings.format = 2;
    constexpr float kSize = 0.004f;
    AddPlane(0, 1.5f, AddShader("ground", kBlack, kBlack));
    const std::int32_t white = AddShader("speck", kWhite, kBlack);
    for (int i = 0; i < 1600; ++i) {
      const float x = static_cast<float>(i % 40 - 20) * 0.07f, y = static_cast<float>(i / 40 - 20) * 0.07f;
      const float right = x + kSize, far = y + kSize, z = 0.001f;
      AddTetragon(Geometry(), {Vec3{x, y, z}, Vec3{right, y, z}, Vec3{right, far, z}, Vec3{x, far, z}},
                  white);
    }
    skyLight.color = sky ? kWhite : kBlack;
    if (sky)
      skyLight.photon = 4000000;
    else
      AddParallelLight({0, 0, -1}, 0, 1000000);
    Initialize();
    EXPECT_NEAR(PaintedPower(&CellGrid::face).x / (1600 * kSize * kSize), 1, 0.15f) << sky;
  }
}

TEST_F(Photons, LevelsFollowTheResolutionAndTheShaders) {
  const std::int32_t receiver = AddShader("receiver", Grey(0.5f), kBlack),
                     mirror = AddShader("mirror", kBlack, kBlack);
  AddPlane(0, 0.5f, receiver);  // area 1
  AddPlane(1, 0.5f, mirror);
  AddPlane(2, 50, receiver);  // area 10,000: more than 255 steps
  InitializeShaders();
  for (const auto& [resolution, level] : {std::pair(2.0f, 1), std::pair(1.0f, 2), std::pair(0.26f, 2),
                                          std::pair(0.25f, 3), std::pair(0.1f, 4), std::pair(0.01f, 11)}) {
    settings.said.resolution = resolution;
    SetUpDensity(Geometry());
    EXPECT_EQ(Geometry().density->tetragons.level[0], level) << resolution;
    EXPECT_EQ(Geometry().density->tetragons.level[1], 1);
    EXPECT_EQ(ValidateDensity(Geometry()), "");
  }
  EXPECT_EQ(Geometry().density->tetragons.level[2], 255);
  settings.said.resolution = 0;
  SetUpDensity(Geometry());
  EXPECT_EQ(Geometry().density, nullptr);
}

TEST_F(Photons, MemoryRowAndLimit) {
  const std::int32_t shader = AddShader("floor", Grey(0.5f), kBlack);
  InitializeShaders();
  Part& part = Geometry();
  part.positions = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}};
  part.triangles.assign(3, {{0, 1, 2}, shader});
  settings.said.resolution = 0.5f;  // level 3: 4.5 is above the area of 2
  const std::string row = Aloud([&] { SetUpDensity(part); });
  char expected[128];
  std::snprintf(expected, sizeof expected, "%.4f [ M bytes ]", (3 * 1 + 3 * 4 + 24 * 27) * 9.536743e-07);
  EXPECT_NE(row.find(expected), std::string::npos) << row;
  SetConsoleQuiet(false);
  // In a process of its own: the threads of this one do not survive a fork.
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  // 255 * 255 * 24 bytes a triangle pass 2^30 at the 689th.
  settings.said.resolution = 1e-6f;
  part.triangles.assign(688, {{0, 1, 2}, shader});
  Printed([&] { SetUpDensity(part); });
  part.density.reset();
  part.triangles.push_back(part.triangles[0]);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        SetUpDensity(part);
      },
      testing::ExitedWithCode(1), "^density estimator consumes more than 1GB memory.\n_{80}\n\n$");
  SetConsoleQuiet(true);
}

// What the eye meets of a level floor lies off the photons' box by rounding.
TEST_F(Store, LevelFloorsLoseNoCaustic) {
  for (int i = 0; i < 100; ++i) {
    PhotonRecord& photon = photonStore.photons.emplace_back();
    photon.position = {static_cast<float>(i % 10) * 0.01f, static_cast<float>(i / 10) * 0.01f, 0};
    photon.power = kWhite;
    photon.normal = PackDirection({0, 0, 1});
  }
  const float radius = settings.derived.photonRadius = 0.02f;
  settings.derived.photonRadiusSquared = radius * radius;
  BuildPhotonStore(radius);
  ShadingPoint point;
  point.geometricNormal = {0, 0, 1};
  for (const float height : {-2e-7f, 0.0f, 2e-7f}) {
    point.position = {0.05f, 0.05f, height};
    EXPECT_GT(GatherCaustics(RayRecord(), point, kEventLambertian).x, 0) << height;
  }
  ForgetGathers();
  ResetPhotonRadius();
}

// Light, mirror, floor: stored, with the mirror's share. Light, floor and sky, mirror, floor: not.
TEST_F(Photons, StoreHoldsCausticPathsAlone) {
  struct Case {
    const char* name;
    bool sky, thin, mirrorFirst, stored;
  };
  for (const Case& c : {Case{"light, mirror, ceiling", false, false, true, true},
                        Case{"light, floor, mirror, floor", false, false, false, false},
                        Case{"light, thin pane, floor: direct light", false, true, false, false},
                        Case{"sky, mirror, ceiling", true, false, true, false}}) {
    Restart();
    if (c.stored) settings.said.resolution = 0;  // in both modes, but diffuse bounces need cells
    AddPlane(c.thin ? 0.5f : -1, 1, AddGlass(c.thin ? Material::kThinDielectric : Material::kConductor, 3));
    if (!c.mirrorFirst && !c.thin) AddPlane(-0.5f, 0.6f, AddShader("shield", kBlack, kBlack));
    AddPlane(1, c.sky ? 2 : 30, AddShader("floor", Grey(0.5f), kBlack));
    skyLight.color = c.sky ? kWhite : kBlack;
    if (c.sky)
      skyLight.photon = 20000;
    else
      AddPointLight({}, 0, 20000);
    Initialize();
    EXPECT_EQ(!photonStore.photons.empty(), c.stored) << c.name;
    if (!c.stored) continue;
    // The mirror spans a sixth of all directions, as the side of a cube does.
    Vec3 sum;
    for (const PhotonRecord& photon : photonStore.photons) {
      sum += photon.power;
      EXPECT_NEAR(photon.position.z, 1, 1e-4f);
      EXPECT_LT(Dot(UnpackDirection(photon.normal), Vec3{0, 0, 1}), -0.9f);
      EXPECT_LT(Dot(UnpackDirection(photon.incoming), Vec3{0, 0, 1}), 0);
    }
    EXPECT_NEAR(static_cast<float>(photonStore.photons.size()), 20000 / 6.0f, 60);
    EXPECT_GT(sum.x, 4 * kPi / 6 * 0.25f);  // at least the reflectance of straight views
    EXPECT_LT(sum.x, 4 * kPi / 6 * 0.3f);
  }
}

// All light to the floor goes through a glass ball: rays that find the lamp through it and stored photons
// show the same.
TEST_F(Photons, GlassBallFocusesLikePathTracing) {
  float mean[2] = {}, brightest[2] = {};
  for (int photons : {0, 1}) {
    Restart();
    settings.said.resolution = 0;
    settings.said.rendererBounce = 1;
    settings.said.rayDepth = 4;
    settings.said.photonRadius = 0.08f;
    AddSphere(Geometry(), 4, false, AddGlass(Material::kDielectric));
    for (Vec3& p : Geometry().positions) p = 0.5f * p + Vec3{0, 0, 1.2f};
    AddFrame(1.2f, 0.3f, 20, AddShader("shield", kBlack, kBlack));
    AddPlane(0, 4, AddShader("floor", Grey(0.8f), kBlack));
    AddLamp(3, 20).virtualLight = photons == 1;
    geometryLight.sample = photons;
    geometryLight.photon = 1000000 * photons;
    settings.said.rendererSample = photons == 1 ? 4 : 4096;
    LookFrom({0.05f, -2.2f, 0.8f}, {0, 0, 0}, 36);
    cameras[0].sample = 32;
    Render();
    mean[photons] = Average(0);
    brightest[photons] = *std::max_element(Pixels(0).begin(), Pixels(0).end());
  }
  EXPECT_GT(mean[0], 0.025f);
  EXPECT_NEAR(mean[1] / mean[0], 1, 0.05f);
  EXPECT_NEAR(brightest[1] / brightest[0], 1, 0.15f);
}

// The four lights, once by many bounces and once by cells.
TEST_F(Photons, FinalGatheringAgreesWithPathTracing) {
  for (const std::string name : {"emitter", "point", "parallel", "sky"}) {
    SCOPED_TRACE(name);
    std::array<Vec3, 4> shown[2];
    for (int gathering : {0, 1}) {
      Restart();
      const std::int32_t room = AddShader("room", {0.7f, 0.5f, 0.3f}, kBlack);
      AddRoom(1, room);
      if (name == "emitter") {
        AddLamp(0.98f, 4);
        geometryLight.photon = 400000;
      } else if (name == "point") {
        AddPointLight({0.3f, 0.2f, 0.4f}, 0, 400000);
      } else {  // by a hole in the ceiling
        Geometry().tetragons.erase(Geometry().tetragons.begin() + 5);
        AddFrame(1, 0.6f, 1, room);
        skyLight.color = name == "sky" ? kWhite : kBlack;
        if (name == "sky")
          skyLight.photon = 2000000;
        else
          AddParallelLight({0.4f, 0.2f, -1}, 0, 2000000);
      }
      settings.said.resolution = gathering == 1 ? 0.005f : 0;
      settings.said.distance = 0.3f;
      settings.said.rendererBounce = gathering == 1 ? 3 : 24;
      settings.said.rayDepth = settings.said.photonDepth = 24;
      settings.said.rendererSample = gathering == 1 ? 768 : 1536;
      Render();
      shown[gathering] = Quarters();
    }
    for (std::size_t q = 0; q < 4; ++q)
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(shown[1][q][c] / shown[0][q][c], 1, 0.03f) << q << " " << c;
  }
}

// A closed room of albedo 1/2 that shines with 1 shows 2, whatever it is made of: cells, paths where there
// are none, faces of a millionth, or layers of which one shines and one reflects.
TEST_F(Photons, GatheringOfFormat2KnowsNoCuts) {
  struct Case {
    const char* name;
    std::size_t instanced;  // sides of the room
    float half;
    bool layered;
  };
  for (const Case& c : {Case{"cells", 0, 1, false},
                        {"half of it instanced", 3, 1, false},
                        {"instanced", 6, 1, false},
                        {"small", 0, 0.0005f, false},
                        {"layered", 0, 1, true}}) {
    Restart();
    settings.format = 2;
    const std::int32_t shader = AddShader("wall", Grey(0.5f), kWhite);
    if (c.layered) {
      shaders.back().surfaces.push_back(Layer(shader));
      for (int i = 0; i < 2; ++i) {
        SurfaceShader& layer = shaders.back().surfaces[static_cast<std::size_t>(i)];
        layer[Element::kEmissive].color = Grey(i == 0 ? 2 : 0);
        layer[Element::kLambertian].color = Grey(i == 0 ? 0 : 1);
      }
    }
    AddRoom(1, shader);
    for (Vec3& p : Geometry().positions) p *= c.half;
    for (int i = 0; i < 2; ++i) cameras[0].poses[i].position *= c.half, cameras[0].poses[i].target *= c.half;
    std::vector<Part> sides(6, Geometry());
    for (std::size_t i = 0; i < 6; ++i) sides[i].tetragons = {Geometry().tetragons[i]};
    objectTable[0].parts.assign(sides.begin() + static_cast<std::ptrdiff_t>(c.instanced), sides.end());
    if (c.instanced > 0) {
      objectTable.emplace_back().parts.assign(sides.begin(),
                                              sides.begin() + static_cast<std::ptrdiff_t>(c.instanced));
      objectTable[0].instances.emplace_back().object = 1;
    }
    geometryLight.photon = 100000;
    settings.said.resolution = 0.05f * c.half * c.half;
    settings.said.distance = 0.1f * c.half;
    settings.said.rayDepth = settings.said.photonDepth = 16;
    settings.said.rendererSample = 16;
    Render();
    EXPECT_NEAR(Average(0), 2, 0.02f) << c.name;
  }
}

// Drawn photons show what the lights themselves make of the surface, terminator included, and shadows.
TEST_F(Photons, FirstLandingsDrawDirectLight) {
  for (float offset : {0.0f, 0.3f}) {
    Restart();
    settings.said.resolution = 0;
    settings.said.rayDepth = 1;
    AddPlane(0, 1, AddShader("floor", {0.8f, 0.5f, 0.2f}, kBlack));
    AddTetragon(Geometry(),
                {Vec3{0, -0.5f, 0.3f}, Vec3{0.5f, -0.5f, 0.3f}, Vec3{0.5f, 0.5f, 0.3f}, Vec3{0, 0.5f, 0.3f}},
                AddShader("shade", kBlack, kBlack));
    AddPlane(-2, 3, AddShader("base", kBlack, kBlack));  // so large that the light is inside of the scene
    AddPointLight({0.2f, 0.1f, 1.5f}, 0, 4000000).offset = offset;
    LookFrom({-1.5f, -2, 1.8f}, kBlack, 50);
    cameras[0].sample = 64;
    const std::size_t paths = AddAov(kChannelLightPath);
    Render();
    const std::array<Vec3, 4> drawn = Quarters(paths), direct = Quarters();
    for (std::size_t q = 0; q < 4; ++q)
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(drawn[q][c], direct[q][c], 0.02f * direct[q][c] + 0.001f) << offset << " " << q;
  }
}

}  // namespace
}  // namespace zp
