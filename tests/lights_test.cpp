// The Gaffer and the geometry light against closed forms: what reaches a point, where samples lie, what
// photons carry.

#include "lights/lights.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <tuple>

#include "accel/accel.h"
#include "core/random.h"
#include "integrator/estimator.h"
#include "render_fixture.h"
#include "statistics.h"

namespace zp {
namespace {

class Lights : public RenderTest {
 protected:
  void SetUp() override {
    RenderTest::SetUp();
    sceneCenter = kBlack;
    sceneRadius = 0;
  }
};
using GafferTest = Lights;
using GeometryLightTest = Lights;

// One of so many equal parts of 0..1.
std::size_t BinOf(double share, std::size_t bins) {
  return static_cast<std::size_t>(std::clamp(share, 0.0, 0.9999) * static_cast<double>(bins));
}
double Turn(float x, float y) { return std::atan2(double{y}, double{x}) / kTau + 0.5; }
std::size_t Octant(Vec3 v) { return (v.x > 0 ? 4u : 0u) + (v.y > 0 ? 2u : 0u) + (v.z > 0 ? 1u : 0u); }

void Ready() {
  InitializeGaffer();
  AimPhotons();
}

// Whatever an earlier photon could have left in the ray is gone, except the thread.
template <class Kind>
RayRecord PhotonOf(const Kind& light, std::uint32_t s) {
  RayRecord ray;
  ray.thread = 5;
  ray.depth = ray.diffuseBounces = ray.specularBounces = 3;
  ray.throughput = kBlack;
  ray.kind = ray.parentKind = kKindTriangle;
  ray.primitive = ray.parentPrimitive = 9;
  ray.event = ray.previousEvent = kEventGlossy;
  MakePhotonRay(light, ray, s);
  EXPECT_EQ(std::tuple(ray.thread, ray.sampleNumber, ray.ior), std::tuple(5, s, light.ior));
  EXPECT_EQ(ray.throughput, kWhite);
  EXPECT_EQ(ray.depth + BounceCount(ray) + ray.specularBounces + ray.event + ray.previousEvent, 0);
  EXPECT_EQ(std::tuple(ray.kind, ray.parentKind, ray.primitive, ray.parentPrimitive),
            std::tuple(kKindUnset, kKindUnset, kNone, kNone));
  EXPECT_TRUE(ray.photonIndirect && ray.photonStore);
  return ray;
}

TEST_F(GafferTest, SpotFactor) {
  struct Case {
    Vec3 direction;
    float inner, outer;
    std::vector<std::pair<float, float>> factors;  // by degrees off +y
  };
  const PointLight plain;  // the whole sphere, fading towards the back
  for (const Case& c :
       {Case{{0, 0.25f, 0}, 30, 60, {{0, 1}, {29, 1}, {36, 0.8f}, {45, 0.5f}, {57, 0.1f}, {61, 0}, {180, 0}}},
        Case{{0, 1, 0}, 45, 45, {{0, 1}, {44.9f, 1}, {45.1f, 0}, {180, 0}}},
        Case{{0, 1, 0}, 0, 0, {{0, 0}}},  // 0 / 0 on the axis itself
        Case{plain.direction, plain.innerAngle, plain.outerAngle, {{0, 1}, {90, 0.5f}, {180, 0}}},
        Case{kBlack, 0, 180, {{120, 0.5f}}}}) {
    PointLight& light = pointLights.emplace_back();
    light.direction = c.direction;
    light.innerAngle = c.inner;
    light.outerAngle = c.outer;
    Ready();
    for (const auto& [degrees, factor] : c.factors) {
      const float angle = degrees * kPi / 180;
      const Vec3 off = {std::sin(angle), std::cos(angle), 0};
      EXPECT_NEAR(SampleLight(light, light.position + off, 0, 0).radiance.x / kPi, factor, 1e-3f) << degrees;
    }
  }
}

TEST_F(GafferTest, NothingIsInfinite) {
  const float infinity = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  AddPointLight({1, 1, 1});
  AddPointLight({infinity, 0, 0});
  AddPointLight({nan, 0, 0});
  AddPointLight({1e30f, 0, 0});
  for (PointLight& light : pointLights) light.photon = 16;
  parallelLights.emplace_back().photon = 16;  // nobody gave it a direction
  sceneRadius = 1;
  Ready();
  for (const PointLight& light : pointLights)
    EXPECT_EQ(SampleLight(light, {1, 1, 1}, 0.5f, 0.5f).radiance, kBlack);
  EXPECT_EQ(SampleLight(pointLights[0], {1, 1, 1 + 1e-6f}, 0.5f, 0.5f).radiance, kBlack);
  EXPECT_EQ(SampleLight(parallelLights[0], kBlack, 0.5f, 0.5f).radiance, kBlack);
  EXPECT_EQ(PhotonOf(parallelLights[0], 3).photonPower, kBlack);
  for (std::size_t i = 1; i < 3; ++i) EXPECT_FALSE(PhotonOf(pointLights[i], 3).photonPower.x > 0);
}

TEST_F(GafferTest, BlurOfAPointLightIsAUniformSphere) {
  PointLight& light = AddPointLight({4, 5, 6});
  light.blur = 0.5f;
  Ready();
  const Vec3 place = {9, 5, 6};
  std::vector<double> octants(8), bands[3];
  for (std::vector<double>& band : bands) band.resize(20);
  for (int i = 0; i < 40000; ++i) {
    const LightSample sample = SampleLight(light, place, RandomFloat(), RandomFloat());
    const Vec3 out = (place + sample.distance * sample.direction - light.position) / 0.5f;
    ASSERT_NEAR(SafeLength(out), 1, 2e-4f);
    ASSERT_NEAR(sample.radiance.x * sample.distance * sample.distance, kPi, 1e-3f);
    octants[Octant(out)] += 1;
    // Each coordinate of a uniform sphere is uniform: Archimedes.
    for (int c = 0; c < 3; ++c) bands[c][BinOf((double{out[c]} + 1) / 2, 20)] += 1;
  }
  ExpectShares(octants);
  for (const std::vector<double>& band : bands) ExpectShares(band);
}

TEST_F(GafferTest, BlurOfAParallelLightIsAUniformCone) {
  ParallelLight& light = parallelLights.emplace_back();
  for (float degrees : {2.0f, 20.0f, 170.0f}) {
    light.zAxis = {1, 1, -1};
    light.blur = degrees;
    Ready();
    std::vector<double> bins(5 * 8);
    const double height = 1 - std::cos(double{degrees} * kTau / 360);
    for (int i = 0; i < 40000; ++i) {
      const Vec3 d = -SampleLight(light, kBlack, RandomFloat(), RandomFloat()).direction;
      ASSERT_NEAR(Dot(d, d), 1, 1e-5f);
      // 1 - cosine = half the squared chord, which single precision keeps for narrow cones too.
      const Vec3 chord = d - light.zAxis;
      const double share = double{Dot(chord, chord)} / 2 / height;
      ASSERT_LE(share, 1.001) << degrees;
      bins[8 * BinOf(share, 5) + BinOf(Turn(Dot(d, light.xAxis), Dot(d, light.yAxis)), 8)] += 1;
    }
    ExpectShares(bins);
  }
}

// The power of all photons of a light together.
template <class Kind>
Vec3 PowerOf(const Kind& light) {
  Vec3 sum;
  for (std::uint32_t s = 0; s < static_cast<std::uint32_t>(light.photon); ++s) {
    const RayRecord ray = PhotonOf(light, s);
    EXPECT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
    sum += ray.photonPower;
  }
  return sum;
}

// Intensity `color` in all directions that can meet the scene, a ball of radius 4.
TEST_F(GafferTest, PhotonsOfPointLights) {
  sceneCenter = {1, 2, 3};
  sceneRadius = 4;
  const float inner = kPi / 6, outer = kPi * 75 / 180;  // the spot factor's integral over the sphere:
  const float spot = 2 * kPi * (1 - (std::sin(outer) - std::sin(inner)) / (outer - inner));
  const auto cone = [](float distance) { return 2 * kPi * (1 - distance / std::hypot(distance, 4.0f)); };
  struct Case {
    Vec3 away;  // from the centre
    bool isSpot;
    float solidAngle;
  };
  for (const Case& c :
       {Case{{2, 1, 0}, false, 4 * kPi}, Case{{2, 1, 0}, true, spot}, Case{{5, 0, 0}, false, cone(5)},
        Case{{0, -40, 0}, false, cone(40)}, Case{{-6, -6, 6}, false, cone(std::sqrt(108.0f))}}) {
    SCOPED_TRACE(c.solidAngle);
    pointLights = {};
    PointLight& light = AddPointLight(sceneCenter + c.away, 0, 20000);
    light.color = {2, 1, 0.5f};
    light.direction = {1, 2, -2};
    if (c.isSpot) light.innerAngle = 30, light.outerAngle = 75;
    Ready();
    ExpectNear(PowerOf(light) / c.solidAngle, light.color, c.isSpot ? 5e-3f : 1e-3f);
    std::vector<double> bins(8);  // even around the way to the scene, or over the sphere
    for (std::uint32_t s = 0; s < 20000; ++s) {
      const RayRecord ray = PhotonOf(light, s);
      const Vec3 toCenter = sceneCenter - ray.origin;
      ASSERT_TRUE(light.inside || (Dot(toCenter, ray.direction) > 0 &&
                                   SafeLength(Cross(toCenter, ray.direction)) < sceneRadius));
      if (light.inside)
        bins[Octant(ray.direction)] += 1;
      else
        bins[BinOf(double{1 - Dot(ray.direction, light.zAxis)} / double{1 - light.cosine}, 8)] += 1;
    }
    ExpectShares(bins);
  }
  pointLights[0].photon = 0;
  Ready();
  EXPECT_EQ(pointLights[0].power, kBlack);
  EXPECT_NE(SampleLight(pointLights[0], sceneCenter, 0, 0).radiance, kBlack);
  globalVolume.sigmaT = {0, 0, 0.1f};  // an atmosphere is lit from everywhere
  Ready();
  EXPECT_TRUE(pointLights[0].inside);
}

TEST_F(GafferTest, PhotonsOfABlurredPointLightStartOnItsSphere) {
  sceneRadius = 4;
  PointLight& light = AddPointLight({1, 2, 3}, 0, 4000);
  light.blur = 0.5f;
  Ready();
  std::vector<double> bins(16);
  for (std::uint32_t s = 0; s < 4000; ++s) {
    const RayRecord ray = PhotonOf(light, s);
    const Vec3 out = (ray.origin - light.position) / light.blur;
    ASSERT_NEAR(SafeLength(out), 1, 1e-4f);
    ASSERT_EQ(ray.dimension, 3);
    // The place says nothing about the direction.
    bins[2 * Octant(out) + (Dot(out, ray.direction) > 0 ? 1 : 0)] += 1;
  }
  ExpectShares(bins);
}

TEST_F(GafferTest, PhotonsOfAParallelLightFillADisc) {
  sceneCenter = {1, 2, 3};
  sceneRadius = 2;
  ParallelLight& light = AddParallelLight({1, 1, -1}, 0, 4000);
  light.color = {2, 1, 0.5f};
  for (const float blur : {0.0f, 10.0f}) {
    light.blur = blur;
    Ready();
    ExpectNear(PowerOf(light), 4 * kPi * light.color, 1e-2f);
    std::vector<double> disc(4 * 8);
    for (std::uint32_t s = 0; s < 4000; ++s) {
      const RayRecord ray = PhotonOf(light, s);
      const Vec3 across = (ray.origin - sceneCenter) / sceneRadius + light.zAxis;
      ASSERT_NEAR(Dot(across, light.zAxis), 0, 1e-4f);
      ASSERT_LE(SafeLength(across), 1.0001f);
      ASSERT_GE(Dot(ray.direction, light.zAxis), light.cosine - 1e-5f);
      ASSERT_EQ(ray.dimension, blur > 0 ? 4 : 2);
      const double turn = Turn(Dot(across, light.xAxis), Dot(across, light.yAxis));
      disc[8 * BinOf(double{Dot(across, across)}, 4) + BinOf(turn, 8)] += 1;
    }
    ExpectShares(disc);
  }
}

// Emissive on the front side only, sampled unless told otherwise.
std::int32_t AddEmissive(Vec3 emissive, Sideness sideness = Sideness::kFace) {
  const std::int32_t shader = AddShader("emissive", kBlack, emissive);
  shaders.back().surfaces[0].virtualLight = true;
  shaders.back().surfaces[0].sideness = sideness;
  return shader;
}

void AddFace(Part& part, std::vector<Vec3> corners, std::int32_t shader) {
  const auto first = static_cast<std::uint32_t>(part.positions.size());
  part.positions.insert(part.positions.end(), corners.begin(), corners.end());
  for (Vec3 p : corners) part.uvSets[0].values.push_back({p.x + 0.5f * p.z, p.y});
  if (corners.size() == 3) part.triangles.push_back({{first, first + 1, first + 2}, shader});
  if (corners.size() == 4) part.tetragons.push_back({{first, first + 1, first + 2, first + 3}, shader});
}

void PlaceInRoot(std::int32_t object, const Mat4& matrix, std::int32_t shader = kNone) {
  Instance& instance = objectTable[0].instances.emplace_back();
  instance.object = object;
  instance.matrix = matrix;
  instance.shader = shader;
}
Mat4 Lifted(float height) { return {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, height}, {0, 0, 0, 1}}}; }

LightReceiver From(Vec3 position) { return {.position = position}; }

void InitializeScene() {
  InitializeShaders();
  InitializeAccelerator();
  InitializeGeometryLight();
}

// Turned about z by a quarter and about x by `tilt`, then moved.
Mat4 Rigid(float tilt, Vec3 move) {
  const float c = std::cos(tilt), s = std::sin(tilt);
  return {{{0, -1, 0, move.x}, {c, 0, -s, move.y}, {s, 0, c, move.z}, {0, 0, 0, 1}}};
}

// A root with a triangle and a tetragon, that places an Object with a tetragon of its own twice (once with
// another shader), which places a third Object with a triangle.
void BuildNested() {
  const std::int32_t plain = AddEmissive({1, 1, 1}, Sideness::kBoth);
  const std::int32_t other = AddEmissive({5, 5, 5}, Sideness::kBoth);
  objectTable.resize(3);
  for (Object& object : objectTable) object.parts.resize(1);
  AddFace(objectTable[0].parts[0], {{0, 0, 0}, {0, 1, 0}, {0, 0, 1}}, plain);
  AddFace(objectTable[0].parts[0], {{1, 1, 1}, {3, 1, 1}, {3, 2, 1}, {1, 2, 1}}, plain);
  AddFace(objectTable[1].parts[0], {{0, 0, 0}, {1, 0, 0}, {1, 0, 1}, {0, 0, 1}}, plain);
  AddFace(objectTable[2].parts[0], {{0, 0, 0}, {3, 0, 1}, {0, 1, 0}}, plain);
  Instance inner;
  inner.object = 2;
  inner.matrix = Rigid(0.7f, {3, 0, -2});
  objectTable[1].instances.push_back(inner);
  PlaceInRoot(1, Rigid(-1.2f, {10, 5, 0}));
  PlaceInRoot(1, Rigid(2.4f, {-10, -5, 4}), other);
  InitializeScene();
}

TEST_F(GeometryLightTest, PicksInProportionToArea) {
  BuildNested();
  const double slanted = std::sqrt(10.0) / 2, total = 2 * (0.5 + 2 + 2 * (1 + slanted));
  EXPECT_NEAR(geometryLight.area, total, 1e-4);
  constexpr std::uint32_t kPicks = 60000;
  struct Face {
    double share = 0, count = 0;
  };
  // Part, kind, side and shader tell the faces apart.
  std::map<std::tuple<const Part*, int, int, int>, Face> faces;
  for (std::uint32_t i = 0; i < kPicks; ++i) {
    EmitterPick pick;
    ASSERT_TRUE(PickEmitter(i % 2 == 0, StratifiedNumber(i / 2, kPicks / 2), pick));
    Face& face = faces[{pick.part, pick.kind, pick.side, pick.shader}];
    face.share = pick.part == &objectTable[2].parts[0]   ? slanted / total
                 : pick.part == &objectTable[1].parts[0] ? 1.0 / total
                 : pick.kind == kKindTriangle            ? 0.5 / total
                                                         : 2.0 / total;
    face.count += 1;
    ASSERT_NEAR(pick.weight, face.share, 1e-5);
    ASSERT_EQ(pick.placed, pick.part != &objectTable[0].parts[0]);
  }
  ASSERT_EQ(faces.size(), 12u);
  std::vector<double> counts, shares;
  for (const auto& [key, face] : faces) {
    counts.push_back(face.count);
    shares.push_back(face.share);
  }
  ExpectShares(counts, shares);
}

// In format 2 each sample counts by the reciprocal of its density, whatever stands around its face: the mean
// is the solid angle of what shines.
TEST_F(GeometryLightTest, SamplesCoverTheSolidAngle) {
  const Mat4 stretched = {{{-4, 1, 0, 3}, {0, 0.5f, 0, -1}, {1, 0, 0.1f, 2}, {0, 0, 0, 1}}};
  enum Kind { kShines, kOverridden, kSwitchedOff };
  for (Kind kind : {kShines, kOverridden, kSwitchedOff}) {
    Restart();
    settings.format = 2;
    const std::int32_t lamp = AddEmissive(kWhite, Sideness::kBoth), off = AddShader("off", kBlack, kBlack);
    objectTable.clear();
    objectTable.resize(3);
    AddFace(objectTable[2].parts.emplace_back(), {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}},
            kind == kOverridden ? off : lamp);
    Instance inner;
    inner.object = 2;
    inner.matrix = Rigid(0.7f, {1, 0, -1});
    objectTable[1].instances = {inner};
    PlaceInRoot(1, stretched, kind == kOverridden ? lamp : kind == kSwitchedOff ? off : kNone);
    PlaceInRoot(2, Lifted(0.5f), lamp);
    InitializeScene();
    double mean = 0, expected = 0;
    constexpr std::uint32_t kSamples = 100000;
    for (std::uint32_t i = 0; i < kSamples; ++i) {
      LightSample sample;
      if (!SampleGeometryLight({}, StratifiedNumber(i, kSamples), RandomFloat(), RandomFloat(), sample))
        continue;
      mean += double{kPi * sample.factor} / kSamples;
      RayRecord ray;  // what meets the same place knows the same density
      ray.direction = sample.direction;
      if (i % 50 != 0 || !Trace(ray) || ray.t < 0.999f * sample.distance) continue;
      EXPECT_NEAR(EmitterDensity({}, ray) / sample.pdf, 1, 2e-3) << kind;
    }
    for (const bool placed : {false, true}) {
      const auto corner = [&](Vec3 p) {
        return UnitVector(placed ? TransformPoint(stretched, TransformPoint(inner.matrix, p))
                                 : p + Vec3{0, 0, 0.5f});
      };
      const Vec3 a = corner({0, 0, 0}), c = corner({1, 1, 0});
      for (const Vec3 b : {corner({1, 0, 0}), corner({0, 1, 0})})  // van Oosterom and Strackee, 1983
        if (!placed || kind != kSwitchedOff)
          expected += 2 * std::fabs(std::atan2(Dot(a, Cross(b, c)), 1 + Dot(a, b) + Dot(b, c) + Dot(c, a)));
    }
    EXPECT_NEAR(mean / expected, 1, 0.01) << kind;
  }
  settings.format = 1;
}

TEST_F(GeometryLightTest, FirstDrawIsStratified) {
  const std::int32_t shader = AddEmissive(kWhite);
  Part& part = Geometry();
  for (float x = 0; x < 8; ++x) AddFace(part, {{x, 0, 0}, {x + 1, 0, 0}, {x, 1, 0}}, shader);
  InitializeScene();
  for (std::uint32_t i = 0; i < 64; ++i) {
    EmitterPick pick;
    ASSERT_TRUE(PickEmitter(true, StratifiedNumber(i, 64), pick));
    EXPECT_EQ(pick.index, i / 8);
  }
  EmitterPick pick;
  EXPECT_TRUE(PickEmitter(true, StratifiedNumber(5, 0), pick));
  EXPECT_TRUE(PickEmitter(true, StratifiedNumber(4000000000U, 3), pick));
}

// The tree is the oracle: a ray that comes down on the point must find that very face, from that side.
TEST_F(GeometryLightTest, PointsLieOnTheirFacesInWorldSpace) {
  BuildNested();
  for (std::uint32_t i = 0; i < 2000; ++i) {
    EmitterPick pick;
    ASSERT_TRUE(PickEmitter(true, StratifiedNumber(i, 2000), pick));
    ShadingPoint point;
    PlaceOnEmitter(pick, 0.02f + 0.96f * RandomFloat(), 0.02f + 0.96f * RandomFloat(), point);
    for (Vec3 axis : {point.tangent, point.bitangent}) ASSERT_NEAR(Dot(axis, axis), 1, 1e-4f);
    ASSERT_EQ(point.normal, point.geometricNormal);
    // The back has the front's frame with all four signs turned.
    const Vec3 third = Cross(point.tangent, point.bitangent);
    ExpectNear(third, pick.side == 1 ? point.normal : -point.normal, 1e-4f);
    RayRecord ray;
    ray.direction = SafeNormalize(0.1f * point.tangent - point.normal);
    ray.origin = point.position - 0.25f * ray.direction;
    ASSERT_TRUE(Trace(ray));
    ShadingPoint hit;
    ShaderAt(ray.shader).readsUv = true;  // as if it had a picture
    ASSERT_TRUE(SetUpShadingPoint(ray, hit));
    ASSERT_EQ(
        std::tuple(ray.part, ray.kind, ray.primitive, ray.shader, ray.frontFace),
        std::tuple(pick.part, pick.kind, static_cast<std::int32_t>(pick.index), pick.shader, pick.side == 1));
    ExpectNear(hit.position, point.position, 1e-4f);
    ExpectNear(hit.geometricNormal, point.geometricNormal, 1e-4f);
    EXPECT_NEAR(hit.uv.x, point.uv.x, 1e-4f);
    EXPECT_NEAR(hit.uv.y, point.uv.y, 1e-4f);
  }
}

TEST_F(GeometryLightTest, PointsAreUniformOnTheirFace) {
  Part part;
  AddFace(part, {{0, 0, 0}, {3, 0, 0}, {0, 3, 0}}, 0);
  AddFace(part, {{0, 0, 0}, {3, 0, 0}, {4, 2, 0}, {1, 2, 0}}, 0);
  AddFace(part, {{0, 0, 0}, {3, 0, 0}, {5, 4, 0}, {1, 2, 0}}, 0);
  EmitterPick pick;
  pick.part = &part;
  ShadingPoint point;
  for (std::uint8_t kind : {kKindTriangle, kKindTetragon}) {
    pick.kind = kind;
    const bool triangle = kind == kKindTriangle;
    std::vector<double> bins(16);
    for (int i = 0; i < 40000; ++i) {
      PlaceOnEmitter(pick, RandomFloat(), RandomFloat(), point);
      ASSERT_EQ(point.normal.z, 1);
      const float x = point.position.x, y = point.position.y;
      // In a triangle the area nearer to a corner goes with the squared distance.
      const float t = triangle ? (x + y) / 3 : y / 2;
      const float s = triangle ? y / (x + y) : (x - t) / 3;
      bins[4 * BinOf(triangle ? double{t * t} : double{t}, 4) + BinOf(double{s}, 4)] += 1;
    }
    ExpectShares(bins);
  }
  pick.index = 1;
  const Vec2 corners[] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  for (std::size_t i = 0; i < 4; ++i) {
    PlaceOnEmitter(pick, corners[i].x, corners[i].y, point);
    EXPECT_EQ(point.position, part.positions[7 + i]);
    EXPECT_EQ(point.uv, part.uvSets[0].values[7 + i]);
  }
}

TEST_F(GeometryLightTest, NothingToPick) {
  EmitterPick pick;
  LightSample sample;
  RayRecord ray;
  EXPECT_FALSE(PickEmitter(true, StratifiedNumber(0, 1), pick));  // no scene at all
  EXPECT_FALSE(SampleGeometryLight({}, 0, 0, 0, sample));
  MakeGeometryPhotonRay(ray, 0);
  EXPECT_EQ(ray.photonPower, kBlack);

  // An Instance that was listed while its Object still had emitters.
  BuildNested();
  objectTable[1].virtualLights = {};
  int found = 0;
  for (std::uint32_t i = 0; i < 100; ++i) found += PickEmitter(true, StratifiedNumber(i, 100), pick);
  EXPECT_GT(found, 10);
  EXPECT_LT(found, 90);

  // An Object that places itself without end.
  objectTable[1].virtualLights = objectTable[0].virtualLights;
  objectTable[1].instances = objectTable[0].instances;
  for (std::uint32_t i = 0; i < 100; ++i)
    if (PickEmitter(true, StratifiedNumber(i, 100), pick)) {
      EXPECT_GT(pick.weight, 0);
    }
}

// Irradiance at a point below the centre of a facing rectangle of radiance 1, by the form factors of its
// quarters: Siegel and Howell, "Thermal Radiation Heat Transfer", configuration 4.
double FacingIrradiance(double width, double depth, double height) {
  const double a = width / 2 / height, b = depth / 2 / height;
  const double p = std::sqrt(1 + a * a), q = std::sqrt(1 + b * b);
  return 4 * 0.5 * (a / p * std::atan(b / p) + b / q * std::atan(a / q));
}

TEST_F(GeometryLightTest, IrradianceOfAPanel) {
  const std::int32_t shader = AddEmissive({2, 1, 0.5f});
  objectTable.resize(2);
  // Half of it as two triangles, the other half as a tetragon inside an Instance; all look down.
  Part& part = Geometry();
  AddFace(part, {{-1, -1.5f, 2}, {-1, 1.5f, 2}, {0, 1.5f, 2}}, shader);
  AddFace(part, {{-1, -1.5f, 2}, {0, 1.5f, 2}, {0, -1.5f, 2}}, shader);
  AddFace(objectTable[1].parts.emplace_back(), {{0, -1.5f, 0}, {0, 1.5f, 0}, {1, 1.5f, 0}, {1, -1.5f, 0}},
          shader);
  PlaceInRoot(1, Lifted(2));
  InitializeScene();
  EXPECT_NEAR(geometryLight.area, 6, 1e-4);
  constexpr std::uint32_t kSamples = 40000;
  RunningMean found;
  for (std::uint32_t i = 0; i < kSamples; ++i) {
    LightSample sample;
    ASSERT_TRUE(SampleGeometryLight(From({0, 0, 0.5f}), StratifiedNumber(i, kSamples), RandomFloat(),
                                    RandomFloat(), sample));
    ASSERT_EQ(sample.radiance, (Vec3{2, 1, 0.5f}));
    ASSERT_NEAR(sample.distance * sample.direction.z, 1.5f, 1e-3f);
    ASSERT_LT(sample.distance * sample.direction.z, 1.5f);  // ends before the emitter
    // The two ways to weight a sample differ by their constant and the probability of the pick.
    const double weight = sample.direction.x < 0 ? 1.5 / 6 : 3.0 / 6;
    ASSERT_NEAR(double{sample.factor} * double{sample.pdf} * 18481 * weight * 6, 1, 1e-3);
    found.Add(double{sample.radiance.y * sample.direction.z / sample.pdf});
  }
  EXPECT_NEAR(found.Mean(), FacingIrradiance(2, 3, 1.5), 4 * found.Error());
  EXPECT_LT(found.Error(), 0.01);

  LightSample sample;
  EXPECT_FALSE(SampleGeometryLight(From({0, 0, 3}), 0.5, 0.5f, 0.5f, sample));     // behind it
  EXPECT_FALSE(SampleGeometryLight(From({0, 0.5f, 2}), 0.5, 0.5f, 0.5f, sample));  // in its plane
}

// Of a rectangle samples are uniform over its solid angle: of all of them the same density, and that of hits.
TEST_F(GeometryLightTest, RectanglesBySolidAngle) {
  settings.format = 2;
  AddFace(Geometry(), {{-1, -2, 0}, {1, -2, 0}, {1, 2, 0}, {-1, 2, 0}}, AddEmissive({2, 2, 2}));
  InitializeScene();
  const Vec3 from = {1.3f, 0.4f, 0.7f};
  Vec3 mean;
  constexpr std::uint32_t kSamples = 20000;
  float density = 0;
  for (std::uint32_t i = 0; i < kSamples; ++i) {
    LightSample sample;
    ASSERT_TRUE(SampleGeometryLight(From(from), StratifiedNumber(i, kSamples), 0, RandomFloat(), sample));
    if (i == 0) density = sample.pdf;
    ASSERT_EQ(sample.pdf, density);
    mean += sample.direction / kSamples;
  }
  // The same by many points uniform over the area.
  Vec3 sum;
  double solidAngle = 0;
  for (int i = 0; i < 400; ++i)
    for (int j = 0; j < 400; ++j) {
      const Vec3 way =
          Vec3{(static_cast<float>(i) + 0.5f) / 200 - 1, (static_cast<float>(j) + 0.5f) / 100 - 2, 0} - from;
      const float squared = Dot(way, way), share = 0.7f / (squared * std::sqrt(squared)) * 8 / 160000;
      sum += share / std::sqrt(squared) * way;
      solidAngle += static_cast<double>(share);
    }
  EXPECT_NEAR(1 / density, solidAngle, 1e-3);
  ExpectNear(mean, sum / static_cast<float>(solidAngle), 5e-3f);
  settings.format = 1;
}

TEST_F(GeometryLightTest, LayersOfTheEmittingSide) {
  const std::int32_t shader = AddEmissive({2, 2, 2});
  AddFace(Geometry(), {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, shader);
  auto& surfaces = ShaderAt(shader).surfaces;
  const auto restart = [&] {
    for (Shader& s : shaders) s.initialized = false;
    InitializeScene();
  };
  LightSample sample;
  const auto shines = [&] { return SampleGeometryLight(From({0.3f, 0.3f, 1}), 0.5, 0.4f, 0.5f, sample); };

  // Glass lets out what it does not reflect; (0.5 / 2.5)^2 head-on.
  surfaces[0][Element::kIor].color = {1.5f, 1.5f, 1.5f};
  restart();
  ASSERT_TRUE(SampleGeometryLight(From({0.31622777f, 0.31622777f, 1}), 0.5, 0.4f, 0.5f, sample));
  EXPECT_NEAR(sample.radiance.x, 2 * 0.96f, 1e-3f);
  surfaces[0][Element::kIor].color = kWhite;

  // Of a mixture only the layers count that are sampled at all; the others are met by chance.
  surfaces[0][Element::kWeight].color = kWhite;
  surfaces.resize(1);  // without the plain back that initialisation has added
  surfaces.push_back(surfaces[0]);
  surfaces[1].virtualLight = false;
  surfaces[1][Element::kWeight].color = {3, 3, 3};
  restart();
  int count = 0;
  for (int i = 0; i < 4000; ++i) count += shines();
  EXPECT_NEAR(count, 1000, 4 * std::sqrt(750.0));

  surfaces.resize(1);
  surfaces[0][Element::kEmissive].color = kBlack;
  restart();
  EXPECT_FALSE(shines());
}

TEST_F(GeometryLightTest, Photons) {
  const std::int32_t shader = AddEmissive({2, 1, 0.5f}, Sideness::kBoth);
  objectTable.resize(2);
  AddFace(Geometry(), {{0, 0, 0}, {1, 0, 0}, {0, 2, 0}}, shader);
  AddFace(objectTable[1].parts.emplace_back(), {{0, 0, 0}, {2, 0, 0}, {2, 2, 0}, {0, 2, 0}}, shader);
  PlaceInRoot(1, Lifted(5));
  geometryLight.photon = 4000;
  InitializeScene();
  double power = 0, upwards = 0, cosines = 0;
  for (std::uint32_t s = 0; s < 4000; ++s) {
    RayRecord ray;
    ray.thread = 3;
    MakeGeometryPhotonRay(ray, s);
    ASSERT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-3f);
    const bool placed = ray.origin.z == 5;
    ASSERT_TRUE(placed || ray.origin.z == 0);
    const Part* part = &objectTable[placed ? 1 : 0].parts[0];
    ASSERT_EQ(std::tuple(ray.parentPart, ray.parentKind, ray.parentPrimitive),
              std::tuple(part, placed ? kKindTetragon : kKindTriangle, 0));
    ASSERT_EQ(std::tuple(ray.dimension, ray.ior, ray.thread), std::tuple(4, 1, 3));
    ASSERT_TRUE(ray.photonStore && ray.photonIndirect);
    power += double{ray.photonPower.x};
    upwards += ray.direction.z > 0 ? 1 : 0;
    cosines += std::fabs(double{ray.direction.z});
    // From one panel only the other can be met.
    if (Trace(ray)) {
      ASSERT_NE(ray.part, ray.parentPart);
    }
  }
  EXPECT_NEAR(power, 2 * 2 * (1 + 4), 1e-2);  // radiance times area, both sides
  EXPECT_NEAR(upwards, 2000, 4 * std::sqrt(1000.0));
  EXPECT_NEAR(cosines / 4000, 2.0 / 3, 0.01);
}

}  // namespace
}  // namespace zp
