// Photons: cells, the store and its search, energy, caustics, and final gathering against path tracing.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <string>

#include "accel/accel.h"
#include "geometry/density.h"
#include "geometry/geometry.h"
#include "integrator/photons.h"
#include "lights/photon_store.h"
#include "render_fixture.h"

namespace zp {
namespace {

Vec3 RandomDirection(std::mt19937& random) {
  std::normal_distribution<float> normal;
  return UnitVector({normal(random), normal(random), normal(random)});
}

TEST(DensityCells, EveryCellOfAPrimitiveIsHitAndNoOther) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> uniform(0, 1);
  for (std::int32_t level : {1, 2, 3, 7, 16, 255}) {
    std::set<std::int32_t> triangle, tetragon;
    const int draws = 40 * level * level + 100;
    for (int i = 0; i < draws; ++i) {
      const float root = std::sqrt(uniform(random)), v = uniform(random);
      triangle.insert(TriangleCell({1 - root, root * (1 - v), root * v}, level));
      tetragon.insert(TetragonCell(uniform(random), uniform(random), level));
    }
    // Corners, edges, and what rounding or a hit's slack makes of them.
    for (float e : {-1e-6f, 0.0f, 1e-6f})
      for (const Vec3 corner :
           {Vec3{1, 0, 0}, Vec3{0, 1, 0}, Vec3{0, 0, 1}, Vec3{0.5f, 0.5f, 0}, Vec3{0, 0.5f, 0.5f}}) {
        triangle.insert(TriangleCell({corner.x + e, corner.y - e, corner.z}, level));
        tetragon.insert(TetragonCell(corner.x + e, corner.y + e, level));
      }
    for (const auto& cells : {triangle, tetragon}) {
      EXPECT_EQ(*cells.begin(), 0) << level;
      EXPECT_EQ(*cells.rbegin(), level * level - 1) << level;
      EXPECT_EQ(cells.size(), static_cast<std::size_t>(level * level)) << level;
    }
  }
}

// Cells of a triangle are similar to it: their corners differ in weights by a cell's size at the most.
TEST(DensityCells, CellsAreSmall) {
  std::mt19937 random(2);
  std::uniform_real_distribution<float> uniform(0, 1);
  const std::int32_t level = 9;
  std::vector<std::vector<Vec3>> weights(static_cast<std::size_t>(level * level));
  for (int i = 0; i < 20000; ++i) {
    const float root = std::sqrt(uniform(random)), v = uniform(random);
    const Vec3 w = {1 - root, root * (1 - v), root * v};
    weights[static_cast<std::size_t>(TriangleCell(w, level))].push_back(w);
  }
  for (const std::vector<Vec3>& cell : weights)
    for (const Vec3 w : cell)
      for (int a = 0; a < 3; ++a)
        ASSERT_LT(std::fabs(w[a] - cell[0][a]), 1.0001f / static_cast<float>(level));
}

TEST(PackedDirections, ComeBackWithinTheirStep) {
  std::mt19937 random(3);
  float worst = 1;
  for (int i = 0; i < 100000; ++i) {
    const Vec3 v = RandomDirection(random);
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
  std::mt19937 random(4);
  std::uniform_real_distribution<float> uniform(0, 1);
  for (int shape = 0; shape < 4; ++shape) {
    EmptyPhotonStore();
    const int count = shape == 3 ? 40 : 20000;
    for (int i = 0; i < count; ++i) {
      PhotonRecord photon;
      photon.position = {uniform(random), uniform(random), uniform(random)};
      if (shape == 1) photon.position.z = 0.5f;  // a floor
      if (shape == 2)
        photon.position = photon.position * photon.position * photon.position;  // a caustic's edge
      if (i % 7 == 0) photon.position = {0.25f, 0.5f, 0.5f};                    // on one point
      photon.power = kWhite;
      photon.normal = PackDirection(i % 3 == 0 ? Vec3{0, 0, -1} : Vec3{0, 0, 1});
      photonStore.photons.push_back(photon);
    }
    BuildPhotonStore(0.2f);
    ASSERT_EQ(photonStore.photons.size(), static_cast<std::size_t>(count));
    for (int query = 0; query < 400; ++query) {
      Vec3 position = {uniform(random), uniform(random), uniform(random)};
      if (shape == 1) position.z = 0.5f;
      const float squaredRadius = 0.04f * uniform(random);
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
        found.push_back(result.found[static_cast<std::size_t>(i)].squaredDistance);
        distinct.insert(result.found[static_cast<std::size_t>(i)].photon);
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
    settings.distance = 0.1f;
    settings.resolution = 0.01f;
  }
  // As AddCube, faces inwards.
  static void AddRoom(float half, std::int32_t shader) {
    const std::size_t first = Geometry().tetragons.size();
    AddCube(Geometry(), half, shader);
    for (std::size_t i = first; i < Geometry().tetragons.size(); ++i)
      std::swap(Geometry().tetragons[i].vertex[1], Geometry().tetragons[i].vertex[3]);
  }

  // Density times area over all cells: power that left the surfaces.
  static Vec3 PaintedPower() {
    Vec3 sum;
    const Part& part = Geometry();
    const auto add = [&](const CellGrid& grid, std::size_t i, float area) {
      const auto cells = static_cast<std::size_t>(grid.level[i]) * static_cast<std::size_t>(grid.level[i]);
      for (std::size_t c = 0; c < cells; ++c) {
        const std::size_t at = static_cast<std::size_t>(grid.offset[i]) + c;
        sum += (area / static_cast<float>(cells)) * (grid.face[at] + grid.back[at]);
      }
    };
    for (std::size_t i = 0; i < part.triangles.size(); ++i)
      add(part.density->triangles, i, TriangleArea(part, static_cast<std::uint32_t>(i)));
    for (std::size_t i = 0; i < part.tetragons.size(); ++i)
      add(part.density->tetragons, i, TetragonArea(part, static_cast<std::uint32_t>(i)));
    return sum;
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
  const Vec3 albedo = {0.8f, 0.4f, 0.1f};
  settings.photonDepth = 1;  // the first landing, and one more
  // A point light in a closed room: all of its 4 pi color lands, and lands again.
  AddRoom(1, AddShader("room", albedo, kBlack));
  AddPointLight({0.2f, -0.3f, 0.1f}, 0, 50000).color = {1, 2, 3};
  Initialize();
  const Vec3 power = 4 * kPi * Vec3{1, 2, 3};
  for (int c = 0; c < 3; ++c) {
    const float expected = power[c] * (albedo[c] + albedo[c] * albedo[c]);
    EXPECT_NEAR(PaintedPower()[c], expected, 0.01f * expected) << c;
  }
  // A parallel light on two triangles: the share of its disc that they cover, once. Aslant, by the cosine.
  for (float slope : {0.0f, 1.0f}) {
    Restart();
    settings.photonDepth = 1;
    Part& part = Geometry();
    part.positions = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}};
    const std::int32_t shader = AddShader("floor", albedo, kBlack);
    part.triangles = {{{0, 1, 2}, shader}, {{0, 2, 3}, shader}};
    ParallelLight& light = parallelLights.emplace_back();
    light.zAxis = {slope, 0, -1};
    light.photon = 100000;
    Initialize();
    const float landed = 4 / std::sqrt(1 + slope * slope);
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(PaintedPower()[c], landed * albedo[c], 0.01f * landed * albedo[c]) << slope << " " << c;
  }
}

// Transmitted light is painted on the side that it leaves by; both lobes together lose and gain nothing.
TEST_F(Photons, ClothIsPaintedOnBothSides) {
  settings.photonDepth = 1;
  AddPlane(0, 1, AddShader("cloth", Grey(0.4f), kBlack, Grey(0.25f)));
  ParallelLight& light = parallelLights.emplace_back();
  light.zAxis = {0, 0, -1};
  light.photon = 20000;
  Initialize();
  const CellGrid& grid = Geometry().density->tetragons;
  Vec3 face, back;
  for (const Vec3 cell : grid.face) face += cell / static_cast<float>(grid.face.size());
  for (const Vec3 cell : grid.back) back += cell / static_cast<float>(grid.back.size());
  EXPECT_NEAR(face.x, 0.4f, 0.004f);
  EXPECT_NEAR(back.x, 0.25f, 0.003f);
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
    settings.resolution = resolution;
    SetUpDensity(Geometry());
    EXPECT_EQ(Geometry().density->tetragons.level[0], level) << resolution;
    EXPECT_EQ(Geometry().density->tetragons.level[1], 1);
  }
  EXPECT_EQ(Geometry().density->tetragons.level[2], 255);
  settings.resolution = 0;
  SetUpDensity(Geometry());
  EXPECT_EQ(Geometry().density, nullptr);
}

TEST_F(Photons, MemoryRowAndLimit) {
  const std::int32_t shader = AddShader("floor", Grey(0.5f), kBlack);
  InitializeShaders();
  Part& part = Geometry();
  part.positions = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}};
  part.triangles.assign(3, {{0, 1, 2}, shader});
  settings.resolution = 0.5f;  // level 3: 4.5 is above the area of 2
  SetConsoleQuiet(false);
  testing::internal::CaptureStdout();
  SetUpDensity(part);
  const std::string row = testing::internal::GetCapturedStdout();
  char expected[128];
  std::snprintf(expected, sizeof expected, "%.4f [ M bytes ]", (3 * 1 + 3 * 4 + 24 * 27) * 9.536743e-07);
  EXPECT_NE(row.find(expected), std::string::npos) << row;
  // In a process of its own: the threads of this one do not survive a fork.
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  // 255 * 255 * 24 bytes a triangle pass 2^30 at the 689th.
  settings.resolution = 1e-6f;
  part.triangles.assign(688, {{0, 1, 2}, shader});
  testing::internal::CaptureStdout();
  SetUpDensity(part);
  testing::internal::GetCapturedStdout();
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
    settings.resolution = 0;  // the store is filled in both modes
    const std::int32_t mirror = AddShader("mirror", kBlack, kBlack);
    SurfaceShader& layer = shaders[static_cast<std::size_t>(mirror)].surfaces[0];
    layer[Element::kSpecular].color = kWhite;
    layer[Element::kIor].color = Grey(3);
    if (c.thin) layer.material = Material::kThinDielectric;
    AddPlane(c.thin ? 0.5f : -1, 1, mirror);
    if (!c.mirrorFirst && !c.thin) AddPlane(-0.5f, 0.6f, AddShader("shield", kBlack, kBlack));
    AddPlane(1, 30, AddShader("floor", Grey(0.5f), kBlack));
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

// A parallel light by way of a mirror: as bright as the light, its reflectance and the angle tell.
TEST_F(Photons, MirroredSunIsGathered) {
  settings.resolution = 0;
  settings.photonRadius = 0.2f;
  skyLight.color = kBlack;
  const std::int32_t mirror = AddShader("mirror", kBlack, kBlack);
  SurfaceShader& layer = shaders[static_cast<std::size_t>(mirror)].surfaces[0];
  layer[Element::kSpecular].color = Grey(0.5f);
  layer[Element::kIor].color = Grey(4);
  AddPlane(-1, 3, mirror);
  AddPlane(1, 2, AddShader("ceiling", Grey(0.6f), kBlack));
  ParallelLight& light = parallelLights.emplace_back();
  light.zAxis = {1, 0, -1};  // past the ceiling's edge
  light.photon = 400000;
  LookFrom({0.5f, 0, -0.5f}, {0.5f, 0.01f, 1}, 30);
  cameras[0].width = cameras[0].height = 8;
  cameras[0].sample = 4;
  settings.rendererSample = 4;
  Render();
  const float cosine = std::sqrt(0.5f);
  const float fresnel = 0.36f + 0.64f * std::pow(1 - cosine, 5.0f);
  const float expected = 0.6f * cosine * fresnel * 0.5f;
  EXPECT_NEAR(Average(0), expected, 0.06f * expected);
}

// All light to the floor goes through a glass ball: rays that find the lamp through it and stored photons
// show the same.
TEST_F(Photons, GlassBallFocusesLikePathTracing) {
  std::array<Vec3, 4> shown[2];
  float brightest[2] = {};
  for (int photons : {0, 1}) {
    Restart();
    settings.resolution = 0;
    settings.rendererBounce = 1;
    settings.rayDepth = 4;
    settings.photonRadius = 0.08f;
    AddSphere(Geometry(), 4, false, AddShader("glass", kBlack, kBlack));
    for (Vec3& p : Geometry().positions) p = 0.5f * p + Vec3{0, 0, 1.2f};
    SurfaceShader& glass = shaders.back().surfaces[0];
    glass.material = Material::kDielectric;
    glass[Element::kSpecular].color = kWhite;
    glass[Element::kIor].color = Grey(1.5f);
    const std::int32_t black = AddShader("shield", kBlack, kBlack);
    const float z = 1.2f, hole = 0.3f, far = 20;
    for (float side : {-1.0f, 1.0f}) {
      AddTetragon(Geometry(),
                  {Vec3{side * hole, -far, z}, Vec3{side * far, -far, z}, Vec3{side * far, far, z},
                   Vec3{side * hole, far, z}},
                  black);
      AddTetragon(Geometry(),
                  {Vec3{-hole, side * hole, z}, Vec3{-hole, side * far, z}, Vec3{hole, side * far, z},
                   Vec3{hole, side * hole, z}},
                  black);
    }
    AddPlane(0, 4, AddShader("floor", Grey(0.8f), kBlack));
    const std::int32_t lamp = AddShader("lamp", kBlack, Grey(20));
    AddTetragon(Geometry(),
                {Vec3{-0.4f, -0.4f, 3}, Vec3{-0.4f, 0.4f, 3}, Vec3{0.4f, 0.4f, 3}, Vec3{0.4f, -0.4f, 3}},
                lamp);
    SurfaceShader& layer = shaders[static_cast<std::size_t>(lamp)].surfaces[0];
    layer.sideness = Sideness::kFace;
    if (photons == 1) {
      layer.virtualLight = true;
      geometryLight.sample = 1;
      geometryLight.photon = 1000000;
      settings.rendererSample = 4;
    } else {
      settings.rendererSample = 4096;
    }
    LookFrom({0.05f, -2.2f, 0.8f}, {0, 0, 0}, 36);
    cameras[0].sample = 32;
    Render();
    shown[photons] = Quarters();
    brightest[photons] = *std::max_element(Pixels(0).begin(), Pixels(0).end());
  }
  Vec3 total[2];
  for (int mode : {0, 1})
    for (Vec3 quarter : shown[mode]) total[mode] += quarter;
  EXPECT_GT(total[0].x, 0.1f);
  EXPECT_NEAR(total[1].x / total[0].x, 1, 0.05f);
  EXPECT_NEAR(brightest[1] / brightest[0], 1, 0.15f);
}

// The four lights, once by many bounces and once by cells.
TEST_F(Photons, FinalGatheringAgreesWithPathTracing) {
  for (const char* source : {"emitter", "point", "parallel", "sky"}) {
    const std::string name = source;
    std::array<Vec3, 4> shown[2];
    for (int gathering : {0, 1}) {
      Restart();
      const Vec3 albedo = {0.7f, 0.5f, 0.3f};
      const std::int32_t room = AddShader("room", albedo, kBlack);
      AddRoom(1, room);
      if (name == "emitter") {
        const std::int32_t lamp = AddShader("lamp", kBlack, Grey(4));
        AddTetragon(Geometry(),
                    {Vec3{-0.4f, -0.4f, 0.98f}, Vec3{-0.4f, 0.4f, 0.98f}, Vec3{0.4f, 0.4f, 0.98f},
                     Vec3{0.4f, -0.4f, 0.98f}},
                    lamp);
        shaders[static_cast<std::size_t>(lamp)].surfaces[0].sideness = Sideness::kFace;
        geometryLight.photon = 400000;
      } else if (name == "point") {
        AddPointLight({0.3f, 0.2f, 0.4f}, 0, 400000);
      } else {
        // The ceiling has a hole: four strips around it.
        Geometry().tetragons.erase(Geometry().tetragons.begin() + 5);
        for (float side : {-1.0f, 1.0f}) {
          AddTetragon(
              Geometry(),
              {Vec3{0.6f * side, -1, 1}, Vec3{0.6f * side, 1, 1}, Vec3{side, 1, 1}, Vec3{side, -1, 1}}, room);
          AddTetragon(Geometry(),
                      {Vec3{-0.6f, 0.6f * side, 1}, Vec3{-0.6f, side, 1}, Vec3{0.6f, side, 1},
                       Vec3{0.6f, 0.6f * side, 1}},
                      room);
        }
        if (name == "parallel") {
          ParallelLight& light = parallelLights.emplace_back();
          light.zAxis = {0.4f, 0.2f, -1};
          light.offset = 0;
          light.photon = 2000000;
        } else {
          skyLight.color = kWhite;
          skyLight.photon = 2000000;
        }
      }
      LookFrom({-0.6f, -0.9f, 0.1f}, {0.5f, 0.9f, -0.2f}, 80);
      cameras[0].width = cameras[0].height = 16;
      cameras[0].sample = 4;
      settings.resolution = gathering == 1 ? 0.005f : 0;
      settings.distance = 0.3f;
      settings.rendererBounce = gathering == 1 ? 3 : 24;
      settings.rayDepth = settings.photonDepth = 24;
      settings.rendererSample = gathering == 1 ? 768 : 1536;
      Render();
      shown[gathering] = Quarters();
    }
    for (std::size_t q = 0; q < 4; ++q)
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(shown[1][q][c] / shown[0][q][c], 1, 0.03f)
            << name << " quarter " << q << " channel " << c;
  }
}

// Against many bounces, cells come closer as they shrink and photons grow in number.
TEST_F(Photons, FinerCellsAndMorePhotonsComeCloser) {
  struct Case {
    float resolution;
    std::int64_t photons;
  };
  std::array<Vec3, 4> reference;
  std::vector<double> errors;
  for (const Case& c : {Case{0, 0}, Case{4, 300}, Case{1, 3000}, Case{0.01f, 1000000}}) {
    Restart();
    AddRoom(1, AddShader("room", Grey(0.7f), kBlack));
    AddPointLight({0.75f, 0.2f, 0.4f}, 0, c.photons);
    LookFrom({-0.6f, -0.9f, 0.1f}, {0.5f, 0.9f, -0.2f}, 80);
    settings.resolution = c.resolution;
    settings.distance = 0.05f;
    settings.rendererBounce = c.photons > 0 ? 3 : 20;
    settings.rayDepth = settings.photonDepth = 20;
    settings.rendererSample = 1024;
    Render();
    if (c.photons == 0) {
      reference = Quarters();
      continue;
    }
    double squares = 0;
    for (std::size_t q = 0; q < 4; ++q)
      squares += std::pow(static_cast<double>(Quarters()[q].x - reference[q].x), 2.0);
    errors.push_back(std::sqrt(squares));
  }
  EXPECT_LT(errors[1], 0.7 * errors[0]);
  EXPECT_LT(errors[2], 0.7 * errors[1]);
}

// Drawn photons show what the lights themselves make of the surface, terminator included, and shadows.
TEST_F(Photons, FirstLandingsDrawDirectLight) {
  for (float offset : {0.0f, 0.3f}) {
    Restart();
    settings.resolution = 0;
    settings.rayDepth = 1;
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

TEST_F(Photons, SeedRepeatsAGatheredPictureOnOneThread) {
  std::vector<float> pictures[2];
  for (std::vector<float>& picture : pictures) {
    Restart();
    omp_set_num_threads(1);
    AddRoom(1, AddShader("room", Grey(0.6f), kBlack));
    AddPointLight({0.3f, 0.2f, 0.4f}, 0, 20000);
    LookFrom({-0.6f, -0.9f, 0.1f}, {0.5f, 0.9f, -0.2f}, 80);
    Render();
    picture = Pixels(0);
  }
  EXPECT_EQ(pictures[0], pictures[1]);
}

}  // namespace
}  // namespace zp
