// The light from all around: the analytic model, maps and their axes, the importance table and what is drawn
// from it.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include "accel/accel.h"
#include "core/console.h"
#include "core/tables.h"
#include "lights/lights.h"
#include "lights/sky_map.h"
#include "lights/sky_model.h"
#include "lights/sky_table.h"

namespace zp {
namespace {

constexpr double kTau = 2 * 3.14159265358979323846;

double Radians(double degrees) { return degrees * kTau / 360; }

Vec3 FromAngles(double cosTheta, double phi) {
  const double sine = std::sqrt(std::max(0.0, 1 - cosTheta * cosTheta));
  return {static_cast<float>(sine * std::cos(phi)), static_cast<float>(sine * std::sin(phi)),
          static_cast<float>(cosTheta)};
}

Vec3 Random(std::mt19937& random) {
  std::uniform_real_distribution<double> uniform(0, 1);
  const double z = 1 - 2 * uniform(random);
  return FromAngles(z, kTau * uniform(random));
}

struct TemporaryFolder {
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "skyXXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path = pattern;
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path); }
  std::string Path(const std::string& name) const { return (path / name).string(); }
  std::filesystem::path path;
};

// A sky whose image is in the texture table already, as a file that was read.
class Sky : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    FillExponentTable();
    FillHaltonTables();
    oldPaths = imageSearchPaths;
    imageSearchPaths = {""};
    Clear();
    skyLight.color = kWhite;
    sceneCenter = {1, 2, 3};
    sceneRadius = 2;
  }
  void TearDown() override {
    Clear();
    EmptyHaltonTables();
    imageSearchPaths = oldPaths;
    sceneCenter = {};
    sceneRadius = 0;
    SetConsoleQuiet(false);
  }
  static void Clear() {
    skyLight = {};
    ResetSky();
    images.clear();
  }
  // color(x, y) with y = 0 at the bottom.
  static void AddImage(const std::string& name, int width, int height,
                       const std::function<Vec3(int, int)>& color) {
    ImageBuffer& image = images[static_cast<std::size_t>(FindOrAddTexture(name))];
    Allocate(image, width, height, 3, 32, false);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) WritePixel(image, color(x, y), static_cast<std::size_t>(y * width + x));
    image.loaded = true;
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

  std::vector<std::string> oldPaths;
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

struct ModelRow {
  double turbidity, albedo, elevation, theta, gamma;  // degrees
  double color[3];
};

// Six digits are known.
void ExpectDigits(double value, double expected) {
  EXPECT_NEAR(value, expected, 0.51 * std::pow(10.0, std::floor(std::log10(std::abs(expected))) - 5));
}

TEST(SkyModel, ReferenceValues) {
  const ModelRow rows[] = {
      {3, 0, 45, 0, 45, {2.16082, 3.67742, 7.47558}},
      {2.5, 0.3, 30, 60, 0, {18.4596, 21.6320, 23.7166}},
      {10, 1, 60, 80, 100, {28.2105, 28.5055, 29.7341}},
      {1, 0.5, 5, 89, 20, {13.2063, 12.0958, 6.14281}},
      {9, 0.2, 25, 40, 70, {4.47329, 5.54062, 7.89256}},
      {6.75, 0.8, 0.5, 30, 75, {0.661705, 0.796374, 0.868055}},
  };
  for (const ModelRow& row : rows) {
    SCOPED_TRACE(row.turbidity);
    const SkyModelState state = MakeSkyModelState(row.turbidity, row.albedo, Radians(row.elevation));
    for (int c = 0; c < 3; ++c)
      ExpectDigits(
          SkyModelRadiance(state.channels[c], std::cos(Radians(row.theta)), std::cos(Radians(row.gamma))),
          row.color[c]);
  }
}

TEST(SkyModel, ReferenceState) {
  const double expected[10][3] = {
      {-1.07984, -1.08537, -1.09780},     {-0.150038, -0.171414, -0.240345}, {1.50796, 1.20517, 0.770390},
      {0.873895, 0.270019, -0.000263624}, {-2.62305, -3.85272, -0.557390},   {1.27412, 1.07213, 0.703566},
      {0.140481, 0.0894129, 0.0432349},   {1.25566, 2.02887, 2.27812},       {0.683920, 0.674363, 0.648026},
      {7.02946, 10.5208, 14.8697},
  };
  const SkyModelState state = MakeSkyModelState(2.5, 0.3, Radians(30));
  for (int c = 0; c < 3; ++c) {
    for (int i = 0; i < 9; ++i) ExpectDigits(state.channels[c].coefficients[i], expected[i][c]);
    ExpectDigits(state.channels[c].scale, expected[9][c]);
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

TEST_F(Sky, CoordinatesInvert) {
  SkyFrame frame;
  EXPECT_TRUE(MakeSkyFrame({1, 2, -1}, {0, 3, 1}, frame));
  std::mt19937 random(1);
  for (int i = 0; i < 1000; ++i) {
    const Vec3 d = Random(random);
    const Vec3 back = MapDirection(frame, MapCoordinates(frame, d));
    EXPECT_LT(SafeLength(back - d), 2e-3f);
  }
  const SkyFrame plain;
  EXPECT_EQ(MapCoordinates(plain, {0, 0, 1}).y, 1);
  EXPECT_NEAR(MapCoordinates(plain, {0, 0, -1}).y, 0, 1e-6f);
  EXPECT_NEAR(MapCoordinates(plain, {1, 0, 0}).x, 0.5f, 1e-6f);
  EXPECT_NEAR(MapCoordinates(plain, {0, 1, 0}).x, 0.25f, 1e-6f);
  for (int i = 0; i < 1000; ++i) {
    const Vec3 d = Random(random);
    const double angle = std::atan2(static_cast<double>(d.y), static_cast<double>(d.x));
    EXPECT_NEAR(static_cast<double>(MapCoordinates(plain, d).x), 0.5 - angle / kTau, 2e-7);
  }
}

TEST_F(Sky, LookUpWrapsAroundAndEndsAtThePoles) {
  ImageBuffer image;
  Allocate(image, 4, 2, 3, 32, false);
  for (std::size_t i = 0; i < 8; ++i) WritePixel(image, {static_cast<float>(i), 0, 0}, i);
  const SkyMap map = MakeSkyMap(image);
  EXPECT_EQ(LookUp(map, {0, 0}).x, 0);
  EXPECT_EQ(LookUp(map, {0.125f, 0}).x, 0.5f);
  EXPECT_EQ(LookUp(map, {0.875f, 0}).x, 1.5f);  // between the last column, 3, and the first, 0
  EXPECT_EQ(LookUp(map, {1, 0}).x, 0);
  EXPECT_EQ(LookUp(map, {0.25f, 0.25f}).x, 3);  // between 1 and 5
  EXPECT_EQ(LookUp(map, {0.25f, 0.9f}).x, 5);   // nothing of the bottom row
  EXPECT_EQ(LookUp(map, {0.25f, 1}).x, 5);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (const float bad : {nan, -7.0f, 1e30f, -1e30f}) EXPECT_TRUE(IsFinite(LookUp(map, {bad, bad}))) << bad;
  // One texel is everywhere.
  Allocate(image, 1, 1, 3, 32, false);
  WritePixel(image, {3, nan, std::numeric_limits<float>::infinity()}, 0);
  const Vec3 c = LookUp(MakeSkyMap(image), {0.3f, 0.8f});
  EXPECT_EQ(c.x, 3);
  EXPECT_EQ(c.y, 0);
  EXPECT_TRUE(std::isfinite(c.z));
}

TEST_F(Sky, PackedMapsReadAsTheirPixels) {
  ImageBuffer image;
  Allocate(image, 3, 1, 3, 32, true);
  image.packedPixels = {{128, 64, 255, 130}, {0, 0, 0, 0}, {200, 1, 7, 140}};
  const SkyMap map = MakeSkyMap(image);
  for (int x = 0; x < 3; ++x)
    EXPECT_EQ(LookUp(map, {static_cast<float>(x) / 3, 0}), ReadPixel(image, static_cast<std::size_t>(x)));
  const Vec3 between = LookUp(map, {0.5f / 3, 0}), first = ReadPixel(image, 0);
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(between[c], 0.5f * first[c], 1e-5f * first[c]);
}

TEST(SkyTable, CellsCoverTheSphere) {
  // The faces' corners are the cube's, the middles its axes.
  EXPECT_EQ(CellDirection(0, 128, 128), (Vec3{1, 0, 0}));
  EXPECT_EQ(CellDirection(5, 128, 128).y, -1);
  EXPECT_NEAR(CellDirection(3, 0, 0).x, std::sqrt(1.0f / 3), 1e-6f);
  std::mt19937 random(2);
  std::uniform_real_distribution<float> uniform(0.001f, 0.999f);
  for (int face = 0; face < 6; ++face)
    for (int y = 0; y < 256; y += 3)
      for (int x = 0; x < 256; x += 3) {
        const Vec3 d = CellDirection(face, static_cast<float>(x) + uniform(random),
                                     static_cast<float>(y) + uniform(random));
        ASSERT_NEAR(Dot(d, d), 1, 1e-6f);
        ASSERT_EQ(FindCell(d), (SkyCell{face * 256 + y, x})) << face << " " << x << " " << y;
      }
  for (const Vec3 d : {Vec3{1, 1, 1}, {-1, -1, 1}, {-1, -1, -1}, {1, 0, 1}, {0, 0, -1}, {0, 0, 0}}) {
    const SkyCell cell = FindCell(d);
    EXPECT_TRUE(cell.row >= 0 && cell.row < 1536 && cell.cell >= 0 && cell.cell < 256);
  }
}

// Integral of f over the sphere, on a grid that is even in area.
double OverSphere(int rows, const std::function<double(Vec3)>& f) {
  double sum = 0;
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < 2 * rows; ++j)
      sum += f(FromAngles(1 - 2 * (i + 0.5) / rows, kTau * (j + 0.5) / (2 * rows)));
  return sum * 2 * kTau / (2.0 * rows * rows);
}

// Chi-square over the sphere: 20 x 40 areas, each expectation by numerical integration.
void ExpectSamplesFollowDensity(std::uint32_t seed) {
  constexpr int kRows = 20, kColumns = 40, kFine = 40, kSamples = 300000;
  const auto area = [](Vec3 d) {
    const double phi = std::atan2(static_cast<double>(d.y), static_cast<double>(d.x));
    const int row = std::clamp(static_cast<int>((1 - static_cast<double>(d.z)) / 2 * kRows), 0, kRows - 1);
    const int column = static_cast<int>((phi < 0 ? phi + kTau : phi) / kTau * kColumns) % kColumns;
    return static_cast<std::size_t>(row * kColumns + column);
  };
  std::array<double, kRows*kColumns> expected = {}, counts = {};
  // In the table's own coordinates the density is even in every cell, so that its Jacobian is integrated by
  // area: sub-areas of each cell count where they fall.
  double total = 0;
  for (int i = 0; i < kRows * kFine; ++i)
    for (int j = 0; j < kColumns * kFine; ++j) {
      const Vec3 d = FromAngles(1 - 2 * (i + 0.5) / (kRows * kFine), kTau * (j + 0.5) / (kColumns * kFine));
      const double mass =
          static_cast<double>(SkyDensity(d)) * 2 * kTau / (1.0 * kRows * kFine * kColumns * kFine);
      expected[area(d)] += mass * kSamples;
      total += mass;
    }
  EXPECT_NEAR(total, 1, 0.003);
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> uniform(0, 1);
  for (int i = 0; i < kSamples; ++i) {
    LightSample sample;
    ASSERT_TRUE(SampleSky(uniform(random), uniform(random), sample));
    ASSERT_NEAR(SkyDensity(sample.direction), sample.pdf, 1e-3f * sample.pdf);
    counts[area(sample.direction)] += 1;
  }
  double chiSquare = 0, restExpected = 0, restCount = 0;
  int degrees = -1;
  const auto add = [&](double count, double mean) {
    chiSquare += (count - mean) * (count - mean) / mean;
    ++degrees;
  };
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] < 20) {
      restExpected += expected[i];
      restCount += counts[i];
    } else {
      add(counts[i], expected[i]);
    }
  }
  if (restExpected > 5) add(restCount, restExpected);
  EXPECT_LT(chiSquare, degrees + 5 * std::sqrt(2.0 * degrees)) << degrees;
}

// Irradiance of a surface that faces `normal`, by samples and by a sum over the sphere.
void ExpectSameIrradiance(Vec3 normal, std::uint32_t seed) {
  constexpr int kSamples = 100000;
  const auto cosine = [&](Vec3 d) { return static_cast<double>(std::max(Dot(d, normal), 0.0f)); };
  const double integral =
      OverSphere(600, [&](Vec3 d) { return cosine(d) * static_cast<double>(Mean(SkyRadiance(d))); });
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> uniform(0, 1);
  double sum = 0, squares = 0;
  for (int i = 0; i < kSamples; ++i) {
    LightSample sample;
    ASSERT_TRUE(SampleSky(uniform(random), uniform(random), sample));
    EXPECT_EQ(sample.distance, kFarthest);
    const double value = cosine(sample.direction) * static_cast<double>(Mean(sample.radiance)) /
                         static_cast<double>(sample.pdf);
    sum += value;
    squares += value * value;
  }
  const double mean = sum / kSamples;
  const double error = std::sqrt((squares / kSamples - mean * mean) / kSamples);
  EXPECT_NEAR(mean, integral, 4 * error + 0.002 * integral);
  EXPECT_LT(error, 0.02 * mean);
}

TEST_F(Sky, SamplesOfASunFollowTheDensity) {
  UseImage(128, 64, Spotted);
  ASSERT_EQ(skyLight.sample, 64);
  ExpectSamplesFollowDensity(3);
  ExpectSameIrradiance(MapDirection({}, {41.0f / 128, 49.0f / 64}), 4);
  ExpectSameIrradiance({0, 0, 1}, 5);
}

TEST_F(Sky, SamplesOfTheAnalyticSkyFollowTheDensity) {
  skyLight.image = "analytic";
  skyLight.turbidity = 4;
  skyLight.north = {1, 0, 0};
  skyLight.zenith = {0, 1, 0};
  skyLight.color = {0.5f, 0.25f, 1};
  InitializeSky();
  EXPECT_TRUE(images.empty());
  ExpectSamplesFollowDensity(6);
  ExpectSameIrradiance({0, 1, 0}, 7);
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
  std::mt19937 random(8);
  double ground = 0;
  for (int i = 0; i < 2000; ++i) {
    Vec3 d = Random(random);
    if (std::abs(d.z) < 0.02f || d.z > 0.9999f) continue;
    const Vec3 seen = SkyRadiance(d);
    for (int c = 0; c < 3 && d.z > 0; ++c) {
      const double expected =
          static_cast<double>(skyLight.color[c]) *
          SkyModelRadiance(state.channels[c], static_cast<double>(d.z), static_cast<double>(Dot(d, sun)));
      EXPECT_NEAR(static_cast<double>(seen[c]), expected, 0.01 * expected);
    }
    if (d.z < 0) {
      if (ground == 0) ground = static_cast<double>(seen.y);
      EXPECT_EQ(static_cast<double>(seen.y), ground);
    }
  }
  const double irradiance =
      OverSphere(500, [](Vec3 d) { return static_cast<double>(std::max(d.z, 0.0f) * SkyRadiance(d).y); });
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
      const Vec3 c = SkyRadiance(FromAngles(0.02 * (i % 100) / 100, kTau * i / 40000));
      lowest = std::min({lowest, c.x, c.y, c.z});
    }
    EXPECT_EQ(lowest, 0);
  }
}

TEST_F(Sky, ABlackImageIsSampledEvenly) {
  UseImage(8, 4, [](int, int) { return kBlack; });
  std::mt19937 random(9);
  for (int i = 0; i < 1000; ++i) {
    const Vec3 d = Random(random);
    // Even over the cells, whose solid angles differ by a small factor.
    EXPECT_NEAR(SkyDensity(d) * 4 * kPi, 1, 0.35f);
  }
  ExpectSamplesFollowDensity(10);
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

// From a picture's file to a direction: its top row is the zenith's side, its left half lies
// beyond the north.
TEST_F(Sky, FilesOfEveryFormatStandUpright) {
  StartImageFiles();
  const TemporaryFolder folder;
  for (const char* extension : {".hdr", ".pfm", ".exr", ".png", ".tif", ".bmp"}) {
    SCOPED_TRACE(extension);
    ImageBuffer picture;
    Allocate(picture, 16, 8, 3, 32, false);
    for (int y = 0; y < 8; ++y)  // row 0 is the top one
      for (int x = 0; x < 16; ++x)
        WritePixel(picture, {y < 4 ? 1.0f : 0.25f, x < 8 ? 1.0f : 0.25f, 1},
                   static_cast<std::size_t>(y * 16 + x));
    picture.fileName = skyLight.image = skyLight.backdrop = folder.Path("sky" + std::string(extension));
    ASSERT_TRUE(SaveImage(picture));
    InitializeSky();
    for (const float up : {-0.7f, 0.7f})
      for (const float north : {-0.7f, 0.7f}) {
        const Vec3 direction = SafeNormalize({-0.1f, north, up});
        for (const Vec3 c : {SkyRadiance(direction), BackgroundRadiance(direction)}) {
          EXPECT_NEAR(c.x, up > 0 ? 1.0f : 0.25f, 0.01f);
          EXPECT_NEAR(c.y, north > 0 ? 1.0f : 0.25f, 0.01f);
        }
      }
  }
  // A file without a picture that can be used: reported like a missing one.
  skyLight.image = folder.Path("bits.pbm");
  std::ofstream(skyLight.image) << "P1\n2 1\n1 0\n";
  testing::internal::CaptureStdout();
  SetConsoleQuiet(false);
  InitializeSky();
  SetConsoleQuiet(true);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_NE(text.find("image - " + skyLight.image), std::string::npos) << text;
  EXPECT_EQ(skyLight.sample, 0);
  EXPECT_EQ(SkyRadiance({0, 0, 1}), skyLight.color);
  StopImageFiles();
}

TEST_F(Sky, MissingImages) {
  skyLight.color = {0.5f, 0.25f, 1};
  skyLight.image = skyLight.backdrop = "no-such-sky.hdr";
  testing::internal::CaptureStdout();
  SetConsoleQuiet(false);
  InitializeSky();
  SetConsoleQuiet(true);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_NE(text.find("image - no-such-sky.hdr\tcannot be found"), std::string::npos) << text;
  EXPECT_NE(text.find("sky light map width                   0 [ n/a ]"), std::string::npos) << text;
  EXPECT_EQ(skyLight.sample, 0);
  EXPECT_EQ(skyLight.photon, 1000000);
  EXPECT_EQ(SkyRadiance({0, 0, 1}), skyLight.color);
  EXPECT_EQ(BackgroundRadiance({0, 0, 1}), skyLight.color);
  LightSample sample;
  EXPECT_FALSE(SampleSky(0.5f, 0.5f, sample));
  EXPECT_EQ(SkyDensity({0, 0, 1}), 0);
}

TEST_F(Sky, BackdropAndSettings) {
  AddImage("backdrop", 4, 2, [](int, int) { return Vec3{7, 8, 9}; });
  skyLight.backdrop = "backdrop";
  skyLight.color = {0.5f, 0.5f, 0.5f};
  testing::internal::CaptureStdout();
  SetConsoleQuiet(false);
  UseImage(8, 4, [](int, int) { return Vec3{2, 2, 2}; });
  SetConsoleQuiet(true);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_NE(text.find("sky light map width                   8 [ n/a ]"), std::string::npos) << text;
  EXPECT_NE(text.find("sky light map height                  4 [ n/a ]"), std::string::npos) << text;
  // 1537 distributions of three arrays, four bytes an entry, and 1536 headers of 80 bytes.
  EXPECT_NE(text.find("sky light memory                 4.6465 [ M bytes ]"), std::string::npos) << text;
  EXPECT_EQ(BackgroundRadiance({1, 0, 0}), (Vec3{7, 8, 9}));
  EXPECT_EQ(SkyRadiance({1, 0, 0}), kWhite);
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
  skyLight.color = 0.0009f * kWhite;
  InitializeSky();
  EXPECT_EQ(skyLight.sample, 0);
  EXPECT_EQ(skyLight.photon, 0);
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
    double power[3] = {};
    Vec3 sum;
    for (std::uint32_t s = 0; s < 20000; ++s) {
      RayRecord ray;
      ray.thread = 7;
      ray.hitSide = 1;
      ray.throughput = kBlack;
      MakeSkyPhotonRay(ray, s);
      ASSERT_NEAR(Dot(ray.direction, ray.direction), 1, 1e-5f);
      const Vec3 offset = ray.origin - (sceneCenter - sceneRadius * ray.direction);
      ASSERT_NEAR(Dot(offset, ray.direction), 0, 1e-5f);
      ASSERT_LE(SafeLength(offset), sceneRadius * 1.0001f);
      for (int c = 0; c < 3; ++c) power[c] += static_cast<double>(ray.photonPower[c]);
      sum += ray.direction;
      if (s == 17) {
        EXPECT_EQ(ray.thread, 7);
        EXPECT_EQ(ray.sampleNumber, 17U);
        EXPECT_EQ(ray.dimension, 4);
        EXPECT_EQ(ray.ior, 1.25f);
        EXPECT_EQ(ray.throughput, kWhite);
        EXPECT_EQ(ray.kind, 0);
        EXPECT_EQ(ray.parentKind, 0);
        EXPECT_EQ(ray.primitive, kNone);
        EXPECT_EQ(ray.event, 0);
        EXPECT_EQ(ray.previousEvent, 0);
        EXPECT_EQ(ray.hitSide, 0);
        EXPECT_TRUE(ray.photonIndirect);
        EXPECT_FALSE(ray.photonStore);
      }
    }
    for (int c = 0; c < 3; ++c) {
      const double expected = 4 * kTau / 2 * 4 * static_cast<double>(skyLight.color[c]);
      EXPECT_NEAR(power[c], expected, 1e-3 * expected);
    }
    EXPECT_LT(SafeLength(sum) / 20000, 0.02f);  // from everywhere
  }
  // The corner cell whose direction has no perpendicular in the usual form.
  EXPECT_EQ(Perpendicular({-1, -1, 1}), kBlack);
}

// Bright directions get more photons, and each as much less.
TEST_F(Sky, PhotonsFollowTheImage) {
  skyLight.photon = 50000;
  UseImage(128, 64, Spotted);
  const Vec3 spot = MapDirection({}, {41.0f / 128, 49.0f / 64});
  int towardsSpot = 0;
  double power = 0, squares = 0;
  for (std::uint32_t s = 0; s < 50000; ++s) {
    RayRecord ray;
    MakeSkyPhotonRay(ray, s);
    if (Dot(-ray.direction, spot) > 0.99f) ++towardsSpot;
    const double p = static_cast<double>(Mean(ray.photonPower));
    power += p;
    squares += p * p;
  }
  EXPECT_GT(towardsSpot, 40000);
  EXPECT_LT(squares * 50000 / (power * power), 4);
}

}  // namespace
}  // namespace zp
