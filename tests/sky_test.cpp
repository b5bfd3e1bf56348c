// The light from all around: the analytic model, maps and their axes, the importance table and what is drawn
// from it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <utility>

#include "accel/accel.h"
#include "core/random.h"
#include "lights/sky_map.h"
#include "lights/sky_model.h"
#include "lights/sky_table.h"
#include "render_fixture.h"
#include "statistics.h"

namespace zp {
namespace {

double Radians(double degrees) { return degrees * kTau / 360; }

// A sky whose image is in the texture table already, as a file that was read.
class Sky : public RenderTest {
 protected:
  void SetUp() override {
    RenderTest::SetUp();
    imageSearchPaths = {""};
    Clear();
    skyLight.color = kWhite;
    sceneCenter = {1, 2, 3};
    sceneRadius = 2;
  }
  void TearDown() override {
    Clear();
    imageSearchPaths = oldPaths;
    RenderTest::TearDown();
  }
  static void Clear() {
    skyLight = {};
    ResetSky();
    images.clear();
  }
  static void UseImage(int width, int height, const std::function<Vec3(int, int)>& color) {
    AddImage("sky.hdr", width, height, color);
    skyLight.image = "sky.hdr";
    InitializeSky();
  }
  // Dim, uneven, with a sun of a few texels.
  static Vec3 Spotted(int x, int y) {
    if (x >= 40 && x < 43 && y >= 48 && y < 50) return {20000, 18000, 15000};
    return {0.2f + 0.01f * static_cast<float>(x % 7), 0.5f, y > 32 ? 1.0f : 0.1f};
  }

  const std::vector<std::string> oldPaths = imageSearchPaths;
};

TEST(SkyModel, SumsOfThePublishedFigures) {
  const double config[] = {227.611717703029, 255.838690994012, 173.414334186757};
  const double radiance[] = {1011.198683405, 1132.0721387, 1287.22966535};
  for (int c = 0; c < 3; ++c) {
    double sum = 0;
    for (int i = 0; i < 1080; ++i) sum += (&kSkyModelConfig[c][0][0][0][0])[i];
    EXPECT_NEAR(sum, config[c], 1e-9);
    sum = 0;
    for (int i = 0; i < 120; ++i) sum += (&kSkyModelRadiance[c][0][0][0])[i];
    EXPECT_NEAR(sum, radiance[c], 1e-9);
  }
}

// Six digits are known.
TEST(SkyModel, ReferenceValues) {
  struct ModelRow {
    double turbidity, albedo, elevation, theta, gamma;  // degrees
    double color[3];
  };
  for (const ModelRow& row : {ModelRow{3, 0, 45, 0, 45, {2.16082, 3.67742, 7.47558}},
                              {2.5, 0.3, 30, 60, 0, {18.4596, 21.6320, 23.7166}},
                              {10, 1, 60, 80, 100, {28.2105, 28.5055, 29.7341}},
                              {1, 0.5, 5, 89, 20, {13.2063, 12.0958, 6.14281}},
                              {9, 0.2, 25, 40, 70, {4.47329, 5.54062, 7.89256}},
                              {6.75, 0.8, 0.5, 30, 75, {0.661705, 0.796374, 0.868055}}}) {
    const SkyModelState state = MakeSkyModelState(row.turbidity, row.albedo, Radians(row.elevation));
    for (int c = 0; c < 3; ++c) {
      const double value =
          SkyModelRadiance(state.channels[c], std::cos(Radians(row.theta)), std::cos(Radians(row.gamma)));
      const double digit = std::pow(10.0, std::floor(std::log10(row.color[c])) - 5);
      EXPECT_NEAR(value, row.color[c], 0.51 * digit) << row.turbidity;
    }
  }
}

TEST(SkyModel, EveryArgumentIsLimited) {
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  const double odd[] = {nan, inf, -inf, -3, 0, 1e30, 0.5, 2, 10, 10.000001};
  for (const double turbidity : odd)
    for (const double albedo : odd)
      for (const double elevation : odd) {
        const SkyModelState state = MakeSkyModelState(turbidity, albedo, elevation);
        for (const double cosine : odd)
          for (const SkyChannelState& channel : state.channels)
            ASSERT_TRUE(std::isfinite(SkyModelRadiance(channel, cosine, -cosine)));
      }
  const auto red = [](double turbidity, double albedo, double elevation) {
    return SkyModelRadiance(MakeSkyModelState(turbidity, albedo, elevation).channels[0], 0.5, 0.5);
  };
  EXPECT_EQ(red(99, 9, 9), red(10, 1, kTau / 4));
  EXPECT_EQ(red(-1, -1, -1), red(1, 0, 0));
}

// A map of four colours, by quadrant: left and right half, bottom and top.
TEST_F(Sky, FrameTurnsTheMap) {
  const Vec3 quadrants[2][2] = {{{1, 0, 0}, {0, 1, 0}}, {{0, 0, 1}, {1, 1, 0}}};  // [top][right]
  struct Axes {
    Vec3 north, zenith, east, up;
  };
  const Axes cases[] = {
      {{0, 1, 0}, {0, 0, 1}, {1, 0, 0}, {0, 0, 1}},
      {{0, 0, -3}, {0, 5, 0}, {1, 0, 0}, {0, 1, 0}},
      {{1, 0, 0}, {0, 0, 1}, {0, -1, 0}, {0, 0, 1}},
      {{0, 1, 0}, {0, 2, 2}, {1, 0, 0}, {0, 0, 1}},  // north is kept, the zenith gives way
      {{0, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 0, 1}},  // no directions: the defaults
      {{0, 2, 0}, {0, 1, 0}, {1, 0, 0}, {0, 0, 1}},  // no plane
  };
  skyLight.north = cases[1].north;
  skyLight.zenith = cases[1].zenith;
  UseImage(64, 32, [&](int x, int y) { return quadrants[y >= 16][x >= 32]; });
  const SkyMap map = MakeSkyMap(images[0]);
  for (const Axes& axes : cases) {
    SkyFrame frame;
    EXPECT_EQ(MakeSkyFrame(axes.north, axes.zenith, frame), &axes < cases + 4);
    const Vec3 north = Cross(axes.up, axes.east);
    for (const float east : {-0.6f, 0.6f})
      for (const float up : {-0.5f, 0.5f})
        for (const float forward : {-0.7f, 0.7f}) {
          const Vec3 direction = SafeNormalize(east * axes.east + forward * north + up * axes.up);
          // u falls as the angle from east to north grows: the right half lies beyond the south.
          EXPECT_EQ(LookUp(map, MapCoordinates(frame, direction)), quadrants[up > 0][forward < 0]);
          if (&axes == cases + 1) {
            EXPECT_EQ(SkyRadiance(direction), quadrants[up > 0][forward < 0]);
          }
        }
  }
}

TEST_F(Sky, LookUpWrapsAroundAndEndsAtThePoles) {
  ImageBuffer image;
  Allocate(image, 4, 2, 3, 32, false);
  for (std::size_t i = 0; i < 8; ++i) WritePixel(image, {static_cast<float>(i), 0, 0}, i);
  const SkyMap map = MakeSkyMap(image);
  const std::pair<Vec2, float> places[] = {
      {{0, 0}, 0},        {{0.125f, 0}, 0.5f}, {{0.875f, 0}, 1.5f},  // between the last column and the first
      {{1, 0}, 0},        {{0.25f, 0.25f}, 3},                       // between the rows
      {{0.25f, 0.9f}, 5}, {{0.25f, 1}, 5},                           // nothing of the bottom row
  };
  for (const auto& [uv, value] : places) EXPECT_EQ(LookUp(map, uv).x, value) << uv.x << " " << uv.y;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (const float bad : {nan, -7.0f, 1e30f, -1e30f}) EXPECT_TRUE(IsFinite(LookUp(map, {bad, bad}))) << bad;
  // One texel is everywhere.
  Allocate(image, 1, 1, 3, 32, false);
  WritePixel(image, {3, nan, std::numeric_limits<float>::infinity()}, 0);
  const Vec3 c = LookUp(MakeSkyMap(image), {0.3f, 0.8f});
  EXPECT_EQ(c.x, 3);
  EXPECT_EQ(c.y, 0);
  EXPECT_TRUE(std::isfinite(c.z));
  // Packed maps read as their pixels.
  Allocate(image, 3, 1, 3, 32, true);
  image.packedPixels = {{128, 64, 255, 130}, {0, 0, 0, 0}, {200, 1, 7, 140}};
  for (int x = 0; x < 3; ++x)
    EXPECT_EQ(LookUp(MakeSkyMap(image), {static_cast<float>(x) / 3, 0}),
              ReadPixel(image, static_cast<std::size_t>(x)));
}

TEST(SkyTable, CellsCoverTheSphere) {
  for (int face = 0; face < 6; ++face)
    for (int y = 0; y < 256; y += 3)
      for (int x = 0; x < 256; x += 3) {
        const float u = 0.001f + 0.998f * RandomFloat(), v = 0.001f + 0.998f * RandomFloat();
        const Vec3 d = CellDirection(face, static_cast<float>(x) + u, static_cast<float>(y) + v);
        ASSERT_NEAR(Dot(d, d), 1, 1e-6f);
        ASSERT_EQ(FindCell(d), (SkyCell{face * 256 + y, x}));
      }
  for (const Vec3 d : {Vec3{1, 1, 1}, {-1, -1, 1}, {-1, -1, -1}, {1, 0, 1}, {0, 0, -1}, {0, 0, 0}}) {
    const SkyCell cell = FindCell(d);
    EXPECT_TRUE(cell.row >= 0 && cell.row < 1536 && cell.cell >= 0 && cell.cell < 256);
  }
}

void ExpectSamplesFollowDensity() {
  const SphereGrid grid;
  const std::vector<double> shares = grid.Integrate(SkyDensity, 10);
  EXPECT_NEAR(Sum(shares), 1, 0.001);
  std::vector<double> counts(shares.size());
  for (int i = 0; i < 300000; ++i) {
    LightSample sample;
    ASSERT_TRUE(SampleSky(RandomFloat(), RandomFloat(), sample));
    ASSERT_NEAR(SkyDensity(sample.direction), sample.pdf, 1e-3f * sample.pdf);
    counts[grid.Bin(sample.direction)] += 1;
  }
  ExpectShares(counts, shares);
}

// Irradiance of a surface that faces `normal`, by samples and by a sum over the sphere.
void ExpectSameIrradiance(Vec3 normal) {
  const auto cosine = [&](Vec3 d) { return std::max(Dot(d, normal), 0.0f); };
  const double integral = OverSphere([&](Vec3 d) { return cosine(d) * Mean(SkyRadiance(d)); }, 12);
  RunningMean found;
  for (int i = 0; i < 100000; ++i) {
    LightSample sample;
    ASSERT_TRUE(SampleSky(RandomFloat(), RandomFloat(), sample));
    ASSERT_EQ(sample.distance, kFarthest);
    found.Add(double{cosine(sample.direction) * Mean(sample.radiance) / sample.pdf});
  }
  EXPECT_NEAR(found.Mean(), integral, 4 * found.Error() + 0.002 * integral);
  EXPECT_LT(found.Error(), 0.02 * found.Mean());
}

TEST_F(Sky, SamplesFollowTheDensity) {
  skyLight.north = {1, 0, 0};
  skyLight.zenith = {0, 1, 0};
  skyLight.color = {0.5f, 0.25f, 1};
  skyLight.image = "analytic";
  skyLight.turbidity = 4;
  InitializeSky();
  ExpectSamplesFollowDensity();
  ExpectSameIrradiance(skyLight.zenith);
  SkyFrame frame;
  UseImage(128, 64, Spotted);
  EXPECT_TRUE(MakeSkyFrame(skyLight.north, skyLight.zenith, frame));
  ExpectSameIrradiance(MapDirection(frame, {41.0f / 128, 49.0f / 64}));
  ExpectSameIrradiance(skyLight.zenith);
}

// What is seen is what the model says, between texels too; the ground is one colour.
TEST_F(Sky, AnalyticSkyShowsTheModel) {
  skyLight.image = "analytic";
  skyLight.turbidity = 3;
  skyLight.albedo = 0.5f;
  skyLight.color = {1, 0.5f, 2};
  InitializeSky();
  const Vec3 sun = SafeNormalize({1, 2, 1});
  const SkyModelState state = MakeSkyModelState(3, 0.5, std::asin(1 / std::sqrt(6.0)));
  double ground = 0;
  for (int i = 0; i < 2000; ++i) {
    const Vec3 d = FromPolar(1 - 2.0 * RandomFloat(), kTau * RandomFloat());
    if (std::abs(d.z) < 0.02f || d.z > 0.9999f) continue;
    const Vec3 seen = SkyRadiance(d);
    for (int c = 0; c < 3 && d.z > 0; ++c) {
      const double expected =
          double{skyLight.color[c]} * SkyModelRadiance(state.channels[c], double{d.z}, double{Dot(d, sun)});
      EXPECT_NEAR(double{seen[c]}, expected, 0.01 * expected);
    }
    if (d.z < 0) {
      if (ground == 0) ground = double{seen.y};
      EXPECT_EQ(double{seen.y}, ground);
    }
  }
  const double irradiance = OverSphere([](Vec3 d) { return std::max(d.z, 0.0f) * SkyRadiance(d).y; }, 6);
  EXPECT_NEAR(ground, 0.5 * irradiance / (kTau / 2), 0.01 * ground);
}

TEST_F(Sky, ALowSunIsNeverNegative) {
  skyLight.image = "analytic";
  skyLight.zenith = {0.5f, -1, 1.6f};  // nearly at right angles to the sun
  skyLight.north = {1, 0, 0};
  for (const float turbidity : {1.0f, 10.0f}) {
    skyLight.turbidity = turbidity;
    InitializeSky();
    float lowest = 0;
    for (int i = 0; i < 40000; ++i) {
      const Vec3 c = SkyRadiance(FromPolar(0.02 * (i % 100) / 100, kTau * i / 40000));
      lowest = std::min({lowest, c.x, c.y, c.z});
    }
    EXPECT_EQ(lowest, 0);
  }
}

// No number of an image may empty the table or stop a search.
TEST_F(Sky, HostileImages) {
  const float odd[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), -5,
                       3e38f};
  for (const float value : odd) {
    images.clear();
    UseImage(16, 8, [&](int x, int y) { return x == 3 && y == 5 ? Vec3{value, value, value} : kWhite; });
    for (const float u : {0.0f, 0.5f, 0.999999940395355f, 1.0f, -1.0f, odd[0]}) {
      LightSample sample;
      ASSERT_TRUE(SampleSky(u, u, sample));
      EXPECT_NEAR(Dot(sample.direction, sample.direction), 1, 1e-5f);
      EXPECT_TRUE(sample.pdf > 0 && std::isfinite(sample.pdf)) << value;
      EXPECT_TRUE(IsFinite(sample.radiance));
    }
  }
  EXPECT_EQ(SkyDensity({0, 0, 0}), 0);
  EXPECT_EQ(SkyDensity({odd[0], 0, 0}), 0);
}

// A file is read from the top, a map from the bottom. Without a picture that can be used there is the colour.
TEST_F(Sky, FilesStandUprightAndMissingOnesAreTold) {
  StartImageFiles();
  const TemporaryFolder folder;
  ImageBuffer picture;
  Allocate(picture, 1, 2, 3, 32, false);
  WritePixel(picture, {4, 4, 4}, 0);  // the top row
  picture.fileName = skyLight.image = folder / "sky.pfm";
  ASSERT_TRUE(SaveImage(picture));
  InitializeSky();
  EXPECT_GT(SkyRadiance({0, 0.6f, 0.8f}).x, SkyRadiance({0, 0.6f, -0.8f}).x);
  WriteFile(folder / "bits.pbm", "P1\n2 1\n1 0\n");
  skyLight.color = {0.5f, 0.25f, 1};
  for (const std::string& name : {folder / "bits.pbm", std::string("no-such-sky.hdr")}) {
    skyLight.image = skyLight.backdrop = name;
    const std::string text = Aloud(InitializeSky);
    const char* reason =
        name.ends_with(".pbm") ? "\thas pixels of a kind that is not read" : "\tcannot be found";
    EXPECT_NE(text.find("image - " + name + reason), std::string::npos) << text;
    EXPECT_NE(text.find("sky light map width                   0 [ n/a ]"), std::string::npos) << text;
    EXPECT_EQ(std::tuple(skyLight.sample, PhotonsOf(skyLight.photon)), std::tuple(0, 1000000));
    EXPECT_EQ(SkyRadiance({0, 0, 1}), skyLight.color);
    EXPECT_EQ(BackgroundRadiance({0, 0, 1}), skyLight.color);
    LightSample sample;
    EXPECT_FALSE(SampleSky(0.5f, 0.5f, sample));
    EXPECT_EQ(SkyDensity({0, 0, 1}), 0);
  }
  StopImageFiles();
}

TEST_F(Sky, BackdropAndSettings) {
  AddImage("backdrop", 4, 2, [](int, int) { return Vec3{7, 8, 9}; });
  skyLight.backdrop = "backdrop";
  AddImage("sky.hdr", 8, 4, [](int, int) { return Vec3{2, 2, 2}; });
  skyLight.image = "sky.hdr";
  skyLight.color = {0.5f, 0.5f, 0.5f};
  InitializeSky();
  EXPECT_EQ(BackgroundRadiance({1, 0, 0}), (Vec3{7, 8, 9}));
  EXPECT_GT(SkyDensity({1, 0, 0}), 0);
  LightSample sample;
  EXPECT_TRUE(SampleSky(0.1f, 0.2f, sample));
  skyLight.sample = 0;
  EXPECT_FALSE(SampleSky(0.1f, 0.2f, sample));
  // The texture table may go, the sky stays until its own end, and comes back as it is set then.
  images.clear();
  EXPECT_EQ(SkyRadiance({1, 0, 0}), kWhite);
  FinalizeSky();
  EXPECT_EQ(SkyRadiance({1, 0, 0}), skyLight.color);
  EXPECT_EQ(SkyDensity({1, 0, 0}), 0);
  skyLight.backdrop.clear();
  UseImage(2, 2, [](int, int) { return Vec3{4, 4, 4}; });
  EXPECT_EQ(BackgroundRadiance({1, 0, 0}), (Vec3{3, 3, 3}));
  skyLight.color = 0.0009f * kWhite;  // as good as black
  InitializeSky();
  EXPECT_EQ(skyLight.sample + *skyLight.photon, 0);
  EXPECT_EQ(SkyDensity({1, 0, 0}), 0);
}

// Rays start on a disc that touches the scene's sphere; together they carry 4 pi radius^2 for a sky of 1.
TEST_F(Sky, PhotonRays) {
  for (const bool withImage : {false, true}) {
    SCOPED_TRACE(withImage);
    Clear();
    skyLight.color = {0.5f, 1, 2};
    skyLight.photon = 20000;
    skyLight.ior = 1.25f;
    if (withImage)
      UseImage(8, 4, [](int, int) { return kWhite; });
    else
      InitializeSky();
    AimPhotons();
    Vec3 sum, power;
    for (std::uint32_t s = 0; s < 20000; ++s) {
      RayRecord ray;
      ray.thread = 7;
      MakeSkyPhotonRay(ray, s);
      ASSERT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
      const Vec3 offset = ray.origin - (sceneCenter - sceneRadius * ray.direction);
      ASSERT_NEAR(Dot(offset, ray.direction), 0, 1e-5f);
      ASSERT_LE(SafeLength(offset), sceneRadius * 1.0001f);
      ASSERT_EQ(std::tuple(ray.thread, ray.sampleNumber, ray.dimension, ray.ior, ray.kind, ray.parentKind),
                std::tuple(7, s, 4, 1.25f, kKindNone, kKindNone));
      ASSERT_TRUE(ray.photonIndirect && !ray.photonStore);
      power += ray.photonPower / (16 * kPi);
      sum += ray.direction;
    }
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(power[c] / skyLight.color[c], 1, 2e-3f);
    EXPECT_LT(SafeLength(sum) / 20000, 0.02f);  // from everywhere
  }
}

// Bright directions get more photons, and each as much less.
TEST_F(Sky, PhotonsFollowTheImage) {
  skyLight.photon = 50000;
  UseImage(128, 64, Spotted);
  AimPhotons();
  const Vec3 spot = MapDirection({}, {41.0f / 128, 49.0f / 64});
  int towardsSpot = 0;
  RunningMean power;
  for (std::uint32_t s = 0; s < 50000; ++s) {
    RayRecord ray;
    MakeSkyPhotonRay(ray, s);
    towardsSpot += Dot(-ray.direction, spot) > 0.99f;
    power.Add(double{Mean(ray.photonPower)});
  }
  EXPECT_GT(towardsSpot, 40000);
  // All together carry the sky's light through the scene's ball; cells are nearly alike in size.
  const double light = OverSphere([](Vec3 d) { return Mean(SkyRadiance(d)); }, 6);
  EXPECT_NEAR(power.sum / (light * double{sceneRadius * sceneRadius}), 1, 0.1);
  EXPECT_LT(power.Error() * std::sqrt(50000.0), 1.7 * power.Mean());
}

}  // namespace
}  // namespace zp
