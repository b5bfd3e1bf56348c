// Whole pictures against closed forms: furnaces, form factors, bounce series; and the rules of a pass.

#include "integrator/integrator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "accel/accel.h"
#include "core/index.h"
#include "core/random.h"
#include "integrator/estimator.h"
#include "render_fixture.h"

namespace zp {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

class Integrator : public RenderTest {
 protected:
  // A camera inside a box of half side 1 around the origin.
  static void LookAround(std::int32_t shader) {
    AddCube(Geometry(), 1, shader);
    LookFrom({0.1f, -0.2f, 0.3f}, {1, 0, 0}, 90);
  }

  // Everything that draws random numbers, or keeps something from one picture to the next.
  static void BuildRichScene() {
    skyLight.image = "analytic";
    skyLight.sample = geometryLight.sample = 8;
    const std::int32_t floor = AddShader("floor", Grey(0.5f), kBlack),
                       skin = AddShader("skin", {0.6f, 0.3f, 0.2f}, kBlack, Grey(0.2f)),
                       lamp = AddShader("lamp", Grey(0.2f), Grey(30));
    ShaderAt(lamp).surfaces[0].virtualLight = true;
    std::vector<SurfaceShader>& layers = ShaderAt(skin).surfaces;
    layers[0][Element::kWeight].color = kWhite;
    layers[0][Element::kGlossy].color = Grey(0.5f);
    layers[0][Element::kRoughness].color = Grey(0.2f);
    layers[0][Element::kIor].color = Grey(1.5f);
    layers.resize(3, layers[0]);
    layers[1][Element::kDiffusion].color = {0.01f, 0.02f, 0.005f};
    layers[2].material = Material::kDielectric;
    layers[2][Element::kSpecular].color = Grey(0.9f);
    objectTable.resize(3);
    for (std::size_t i = 0; i < 3; ++i) {
      objectTable[i].name = std::to_string(i);
      objectTable[i].parts.resize(1);
    }
    AddPlane(-1, 6, floor);
    AddPlane(3, 1, lamp);
    AddSphere(objectTable[1].parts[0], 2, true, skin);
    AddCube(objectTable[2].parts[0], 0.5f, skin);
    for (int i = 0; i < 6; ++i) {
      Instance& instance = objectTable[0].instances.emplace_back();
      instance.object = 1 + i % 2;
      instance.matrix.m[0][3] = 1.3f * static_cast<float>(i - 3);
      instance.matrix.m[1][3] = static_cast<float>(i % 3);
    }
    PointLight& light = AddPointLight({2, -2, 3}, 0.1f);
    light.blur = 0.3f;
    light.sample = 8;
    settings.said.rendererBounce = 3;
    settings.said.rendererSample = 8;
    cameras[0].width = cameras[0].height = 24;
    cameras[0].poses[0].bokeh = cameras[0].poses[1].bokeh = 1;
  }
};

// Two endless plates, the lower one glowing: lower = 1 + a upper, upper = b lower. Each is the only primitive
// of its Part, so that both have the same index.
TEST_F(Integrator, FacingPlatesExchangeLight) {
  const float a = 0.5f, b = 0.7f, size = 2000;
  for (const float direction : {-1.0f, 1.0f}) {
    Restart();
    skyLight.color = kBlack;
    AddPlane(0, size, AddShader("lower", Grey(a), kWhite));
    AddTetragon(objectTable[0].parts.emplace_back(),
                {Vec3{-size, -size, 1}, Vec3{-size, size, 1}, Vec3{size, size, 1}, Vec3{size, -size, 1}},
                AddShader("upper", Grey(b), kBlack));
    LookFrom({0, 0, 0.5f}, {0.1f, 0.2f, 0.5f + direction}, 60);
    settings.said.rendererBounce = settings.said.rayDepth = 60;
    settings.said.rendererSample = 16;
    Render();
    const float expected = (direction < 0 ? 1 : b) / (1 - a * b);
    EXPECT_NEAR(Average(0), expected, 0.003f * expected);
  }
}

// Inside an emitting box of albedo a, the bounce number k brings a^k: the sum tells how many were followed.
TEST_F(Integrator, ClosedBoxSumsTheBounces) {
  struct Case {
    float albedo;
    std::int32_t bounces, rayDepth;
    int terms;
  };
  for (const Case& c : {
           Case{0.5f, 1, 100, 2},      // a first hit gathers at one bounce already
           Case{0.5f, 2, 100, 3},      //
           Case{0.5f, 0, 100, 2},      // raised to 1
           Case{0.5f, 100, 1, 1},      // children return black
           Case{0.5f, 100, -3, 1},     // raised to 1
           Case{0.5f, 100, 3, 3},      //
           Case{0.5f, 100, 100, 10},   // stops where the throughput counts as black: at 2^-10
           Case{0.75f, 300, 900, 25},  // 0.75^25 is below
       }) {
    Restart();
    skyLight.color = kBlack;
    LookAround(AddShader("box", Grey(c.albedo), kWhite));
    cameras[0].width = cameras[0].height = 8;
    cameras[0].sample = 2;
    settings.said.rendererSample = 2;
    settings.said.rendererBounce = c.bounces;
    settings.said.rayDepth = c.rayDepth;
    Render();
    double expected = 0;
    for (int k = 0; k < c.terms; ++k) expected += std::pow(static_cast<double>(c.albedo), k);
    // One sample number turns alike at every bounce: of long paths a few spiral into a corner, closer to the
    // next wall than a hit can be, and are lost.
    EXPECT_NEAR(Average(0), expected, (c.terms > 60 ? 0.01 : 0.002) * expected)
        << c.albedo << " " << c.bounces << " " << c.rayDepth;
  }
}

// The deepest recursion there is runs on a worker's stack. Sample 0 takes the same local direction at every
// bounce, so that some of its paths wind into an edge of the box until the walls are nearer than the least
// distance of a hit, and end in the sky.
TEST_F(Integrator, DeepestPathFits) {
  LookAround(AddShader("box", kWhite, kWhite));
  skyLight.color = Grey(100);
  cameras[0].sample = 1;
  settings.said.rendererBounce = settings.said.rayDepth = 100000;
  omp_set_num_threads(2);
  Render();
  EXPECT_EQ(settings.said.rayDepth, 255);
  for (float value : Pixels(0)) ASSERT_NEAR(value, 255, 100);
  EXPECT_NEAR(Average(0), 255, 2);
}

// A square of side 2 at height 1, seen from below its middle: four corner rectangles of
// F = 1 / (2 pi) (2 / sqrt 2 atan(1 / sqrt 2)) each.
constexpr double kSquareFormFactor = 0.554096;

TEST_F(Integrator, GathersHaveTheCosineDensity) {
  for (float height : {0.5f, -0.5f}) {  // of the camera: the lit side, then the side that light comes through
    Restart();
    skyLight.color = kBlack;
    AddPlane(0, 9, AddShader("floor", {1, 0.5f, 0}, kBlack, {0.25f, 0.5f, 1}));
    AddPlane(1, 1, AddShader("panel", kBlack, kWhite));
    LookFrom({0, -3, height}, kBlack, 0.5f);
    cameras[0].width = cameras[0].height = 8;
    cameras[0].sample = 16;
    settings.said.rendererSample = 512;
    const std::size_t lambertian = AddAov(kChannelLambertian), transmissive = AddAov(kChannelTransmissive);
    Render();
    Vec3 mean, variance;
    ImageStatistics(cameras[0].aovs[0].image, mean, variance);
    const Vec3 color = height > 0 ? Vec3{1, 0.5f, 0} : Vec3{0.25f, 0.5f, 1};
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(mean[c], static_cast<double>(color[c]) * kSquareFormFactor, 0.006) << c;
    // The beauty image is the sum of its lobes, and the other lobe sees the dark half.
    EXPECT_NEAR(Average(height > 0 ? lambertian : transmissive), Average(0), 1e-4);
    EXPECT_EQ(Average(height > 0 ? transmissive : lambertian), 0);
  }
}

TEST_F(Integrator, SeededPicturesIgnoreThreadsAndWhatWasRenderedBefore) {
  std::vector<float> first;
  struct Case {
    int threads;
    std::uint64_t seed;
  };
  for (const Case& c : {Case{1, 1}, Case{5, 1}, Case{5, 2}}) {
    Restart();
    StartRandom(c.seed);
    BuildRichScene();
    omp_set_num_threads(c.threads);
    Render();
    if (first.empty()) first = Pixels(0);
    for (float value : Pixels(0)) ASSERT_TRUE(std::isfinite(value) && value >= 0);
    EXPECT_EQ(Pixels(0) == first, c.seed == 1) << c.threads;
  }
  skyLight.image.clear();
}

TEST_F(Integrator, BeautyIsTheMeanOfThePasses) {
  const std::int32_t shader = AddShader("grey", {0.8f, 0.6f, 0.4f}, kBlack);
  AddCube(Geometry(), 0.7f, shader);
  AddPlane(-1, 4, shader);
  settings.said.rendererBounce = 3;
  settings.said.rendererSample = 12;
  cameras[0].regionXMin = 3, cameras[0].regionXMax = 14;
  cameras[0].regionYMin = 5, cameras[0].regionYMax = 9;
  Initialize();
  constexpr int kWidth = 11, kHeight = 4, kCount = kWidth * kHeight;
  std::vector<float> pass(3 * kCount + 3, -1.0f), sum(3 * kCount), first;
  for (int i = 0; i < 4; ++i) {
    RenderPixels(kCount + 1, pass.data(), i);  // one more than there is
    if (i == 0) first = pass;
    for (std::size_t k = 0; k < sum.size(); ++k) sum[k] += pass[k] / 4;
  }
  EXPECT_EQ(pass.back(), -1.0f);
  EXPECT_EQ(Average(0), 0);    // the host's passes leave the picture alone
  for (int other : {4, -4}) {  // passes are counted modulo the camera's samples
    RenderPixels(kCount, pass.data(), other);
    EXPECT_EQ(settings.frame.samplePass, 0);
    EXPECT_EQ(pass, first);
  }
  std::vector<FrameReport> reports;
  frameObserver.passDone = [&](const FrameReport& report) { reports.push_back(report); };
  RenderLoop();
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x)
      for (int c = 0; c < 3; ++c) {
        const float value = At(Pixels(0), 3 * (16 * y + x) + c);
        const bool inside = x >= 3 && x < 14 && y >= 5 && y < 9;
        const auto k = static_cast<std::size_t>(3 * (kWidth * (y - 5) + x - 3) + c);
        ASSERT_NEAR(value, inside ? sum[k] : 0, 1e-5f) << x << " " << y;
      }
  ASSERT_EQ(reports.size(), 4u);
  for (std::uint32_t i = 0; i < 4; ++i)
    EXPECT_TRUE(reports[i].done == i + 1 && reports[i].total == 4 && reports[i].rays >= kCount) << i;
}

// One pixel's samples cover the whole budget once: sums over passes weigh every ray alike.
TEST(Gather, CountIsAPositiveMultipleOfThePasses) {
  EXPECT_EQ(GatherCount(Grey(0.5f), 64, 10), 30);
  EXPECT_EQ(GatherCount({0.9f, 0, 0}, 100, 1), 30);  // truncated, by the mean
  EXPECT_EQ(GatherCount(Grey(0.01f), 64, 17), 17);
  EXPECT_EQ(GatherCount(Grey(9), 64, 8), 64);
  EXPECT_EQ(GatherCount(kWhite, 5, 8), 8);
  for (float value : {-1.0f, 0.0f, 0.3f, 1.0f, 1e30f, -kInfinity, kInfinity, kNan})
    for (std::int32_t budget : {std::numeric_limits<std::int32_t>::min(), -1, 0, 7, 64, 2147483647})
      for (std::int32_t passes : {-5, 0, 1, 3, 17, 65535}) {
        const std::int32_t count = GatherCount(Grey(value), budget, passes);
        EXPECT_GT(count, 0);
        EXPECT_EQ(count % std::max(passes, 1), 0);
        EXPECT_LE(count, std::max({budget, passes, 1}));
      }
}

// Format 1 shares a budget of 12 out to the passes; in format 2 each takes it, however many are planned.
TEST_F(Integrator, EachNumberBelongsToOnePass) {
  cameras.resize(1);
  for (const std::int32_t format : {1, 2})
    for (const std::int32_t passes : {4, 6}) {
      settings.format = format;
      EXPECT_EQ(GatherBudget(), format == 2 ? 1 : 64);
      EXPECT_EQ(LightBudget(GeometryLight()), format == 2 ? 1 : 0);
      cameras[0].sample = passes;
      std::vector<int> taken(100);
      for (std::int32_t pass = 0; pass < passes; ++pass) {
        settings.frame.samplePass = pass;
        const PassShare share = ShareOf(Grey(0.75f), 16);
        EXPECT_EQ(share.count, format == 2 ? 12 : 12 / passes);
        for (std::int32_t i = 0; i < share.count; ++i) ++At(taken, share.Number(i));
        EXPECT_EQ(share.Number(0), static_cast<std::uint32_t>(format == 2 ? 12 * pass : pass));
      }
      EXPECT_EQ(std::count(taken.begin(), taken.begin() + (format == 2 ? 12 * passes : 12), 1),
                format == 2 ? 12 * passes : 12);
    }
  // Of one number, lights and bounces draw different places; in format 1 the same.
  for (settings.format = 1; settings.format <= 2; ++settings.format) {
    const RayRecord ray, child = MakeChildRay(ray, {}, kEventLambertian, {0, 0, 1}, kWhite);
    EXPECT_EQ(DrawPair(ray, 3, 1).x != DrawPair(ray, 3, 2).x, settings.format == 2);
    EXPECT_NE(DrawPair(ray, 3, 1).x, DrawPair(child, 3, 1).x);
  }
}

TEST_F(Integrator, BadSamplesBecomeTheErrorColour) {
  objectTable.clear();
  settings.said.error = {0.5f, 0.25f, 2};
  settings.said.clamp = {0.1f, 0.2f, -1};  // does not reach the error colour; a negative limit is raised to 0
  Initialize();
  float pixel[3];
  for (Vec3 bad : {Vec3{kInfinity, 0.1f, 0.1f}, Vec3{0.1f, -kInfinity, 0.1f}, Vec3{0.1f, 0.1f, kNan}}) {
    skyLight.color = bad;
    RenderPixels(1, pixel, 0);
    EXPECT_EQ((Vec3{pixel[0], pixel[1], pixel[2]}), settings.said.error);
  }
  skyLight.color = Grey(0.15f);
  RenderPixels(1, pixel, 0);
  EXPECT_EQ((Vec3{pixel[0], pixel[1], pixel[2]}), (Vec3{0.1f, 0.15f, 0}));
}

TEST_F(Integrator, SetUpGuardsAndFrames) {
  ShadingPoint point;
  RayRecord ray;
  EXPECT_FALSE(SetUpShadingPoint(ray, point));  // nothing was hit
  for (int i = 0; i < 500; ++i) {
    const float z = 1 - 2 * static_cast<float>(i) / 499, turn = static_cast<float>(i) * 2.4f;
    const float r = std::sqrt(std::max(0.0f, 1 - z * z));
    point.normal = {r * std::cos(turn), r * std::sin(turn), z};
    if (i == 0) point.normal = SafeNormalize({1, 1, -1});  // where the usual perpendicular vector is zero
    for (Vec3 tangent : {kBlack, 1e-3f * point.normal, Vec3{0, 127, 0}, Vec3{1e-6f, 0, 1e-6f}}) {
      SetFrame(point, tangent);
      EXPECT_NEAR(Dot(point.tangent, point.tangent), 1, 1e-5f);
      EXPECT_NEAR(Dot(point.tangent, point.normal), 0, 1e-4f);
      EXPECT_LT(SafeLength(point.bitangent - Cross(point.normal, point.tangent)), 1e-4f);
    }
  }
}

// Normals look to the ray's origin from either side, also for triangles far smaller than the safe length.
TEST_F(Integrator, NormalsLookBack) {
  const float size = 1e-4f;
  Part& part = Geometry();
  part.positions = {Vec3{0, 0, 0}, Vec3{size, 0, 0}, Vec3{0, size, 0}};
  part.triangles.push_back({{0, 1, 2}, AddShader("speck", kWhite, kBlack)});
  for (bool reversed : {false, true}) {
    part.normals.assign(3, Pack(reversed ? Vec3{0.3f, 0, -0.954f} : Vec3{0.3f, 0, 0.954f}));
    Initialize();
    for (float side : {1.0f, -1.0f}) {
      RayRecord ray;
      ray.origin = {size / 4, size / 4, side};
      ray.direction = {0, 0, -side};
      ASSERT_TRUE(Trace(ray));
      ShadingPoint point;
      ASSERT_TRUE(SetUpShadingPoint(ray, point));
      EXPECT_NEAR(point.geometricNormal.z, side, 1e-5f);
      EXPECT_NEAR(point.normal.z, side * 0.954f, 0.01f);
      EXPECT_NEAR(SafeLength(point.normal), 1, 1e-5f);
      EXPECT_NEAR(point.position.z, 0, 1e-6f);
    }
  }
}

TEST(Statistics, OneSecondMomentForAllChannels) {
  ImageBuffer image;
  Allocate(image, 2, 1, 3, 32, false);
  WritePixel(image, {1, 0, 0}, 0);
  WritePixel(image, {0, 3, 1}, 1);
  Vec3 mean, variance;
  ImageStatistics(image, mean, variance);
  EXPECT_EQ(mean, (Vec3{0.5f, 1.5f, 0.5f}));
  EXPECT_EQ(variance, (Vec3{4.75f, 2.75f, 4.75f}));  // (1 + 9) / 2 minus the squared means
}

}  // namespace
}  // namespace zp
