// Fibres: energy, densities and limits of their scattering, and what a hair shows under lights. The hits are
// made by hand: nothing here depends on how rays meet curves.

#include "shading/hair.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "core/random.h"
#include "integrator/estimator.h"
#include "render_fixture.h"
#include "statistics.h"

namespace zp {
namespace {

constexpr Vec3 kAxis = {0, 0, 1};

// By inclination over the plane across kAxis, and azimuth.
Vec3 Direction(double inclination, double azimuth) {
  return {static_cast<float>(std::cos(inclination) * std::cos(azimuth)),
          static_cast<float>(std::cos(inclination) * std::sin(azimuth)),
          static_cast<float>(std::sin(inclination))};
}

double Sum(const FiberScattering& s) { return static_cast<double>(Mean(s.r + s.tt + s.trt)); }

class Hair : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    StartRandom(5);
  }
  void TearDown() override {
    settings.format = 1;
    StartRandom(std::nullopt);
    SetConsoleQuiet(false);
  }

  static FiberParameters MakeFiber(Vec3 absorption = kBlack) {
    FiberParameters fiber;
    fiber.absorption = absorption;
    InitializeFiber(fiber);
    return fiber;
  }
};

// Whatever the width and the inclination, on all branches of the formula.
TEST_F(Hair, LongitudinalTermSpreadsLightWithoutLoss) {
  for (float variance : {0.001f, 0.0305f, 0.1218f, 0.1999f, 0.2f, 0.2742f, 2.0f})
    for (double inclination : {0.0, 0.5, -1.2, 1.5}) {
      constexpr int kSteps = 20000;
      double sum = 0;
      for (int i = 0; i < kSteps; ++i) {
        const double theta = ((i + 0.5) / kSteps - 0.5) * double{kPi};
        const double cosine = std::cos(theta);
        const float term = LongitudinalTerm(variance, 1 / (2 * variance * std::sinh(1 / variance)),
                                            static_cast<float>(std::cos(inclination) * cosine),
                                            static_cast<float>(std::sin(inclination) * std::sin(theta)));
        sum += double{term} * cosine * double{kPi} / kSteps;
      }
      EXPECT_NEAR(sum, 1, 0.006) << variance << " " << inclination;
    }
}

// A white furnace around a fibre that absorbs nothing. Seen slantwise it gains: the Fresnel term of R knows
// the inclination, those of the images do not make up for it. Over all light that falls on a fibre, nothing
// is gained to speak of.
TEST_F(Hair, GainsNoEnergy) {
  const FiberParameters clear = MakeFiber(), dark = MakeFiber({0.1f, 0.5f, 2});
  double received = 0, scattered = 0;
  for (int degrees = 5; degrees < 90; degrees += 10) {
    const double inclination = degrees * double{kPi} / 180;
    const Vec3 incoming = Direction(inclination, 0.3);
    const double sum = OverSphere([&](Vec3 d) { return Sum(EvaluateFiber(clear, incoming, d, kAxis)); });
    EXPECT_GT(sum, 0.97) << degrees;
    EXPECT_LT(sum, degrees <= 45 ? 1.01 : degrees <= 65 ? 1.12 : 1.53) << degrees;
    received += std::cos(inclination) * std::cos(inclination);
    scattered += std::cos(inclination) * std::cos(inclination) * sum;
    double brighter = sum;
    for (int c = 0; c < 3; ++c) {
      const double absorbed = OverSphere(
          [&](Vec3 d) {
            const FiberScattering s = EvaluateFiber(dark, incoming, d, kAxis);
            return double{(s.r + s.tt + s.trt)[c]};
          },
          2);
      EXPECT_LT(absorbed, brighter - 0.05) << degrees << " " << c;
      EXPECT_GT(absorbed, 0.01) << degrees << " " << c;
      brighter = absorbed;
    }
  }
  EXPECT_NEAR(scattered / received, 1, 0.03);
}

TEST_F(Hair, DiffuseLightAddsUpToOne) {
  for (double inclination : {0.0, 0.7, -1.4}) {
    const Vec3 incoming = Direction(inclination, 1);
    EXPECT_NEAR(OverSphere([&](Vec3 d) { return double{FiberDiffuse(incoming, d, kAxis)}; }), 1, 1e-3);
  }
  // Lit from behind, a diffuse cylinder is dark.
  EXPECT_NEAR(FiberDiffuse(Direction(0, 0), Direction(0, double{kPi}), kAxis), 0, 1e-6f);
  EXPECT_NEAR(FiberDiffuse(Direction(0, 0), Direction(0, 0), kAxis), 0.25f, 1e-6f);
}

TEST_F(Hair, LooksTheSameFromEitherSide) {
  const FiberParameters fiber = MakeFiber({0.1f, 0.2f, 0.3f});
  for (int i = 0; i < 500; ++i) {
    const double a = 3 * double{RandomFloat()} - 1.5, b = 3 * double{RandomFloat()} - 1.5;
    const double turn = 6.2 * double{RandomFloat()}, start = 6.2 * double{RandomFloat()};
    const double value = Sum(EvaluateFiber(fiber, Direction(a, 0), Direction(b, turn), kAxis));
    // Where the angles fall on the border of two cells, rounding decides between neighbours.
    const auto expectSame = [&](Vec3 incoming, Vec3 scattered, const char* what, Vec3 axis = kAxis) {
      EXPECT_NEAR(Sum(EvaluateFiber(fiber, incoming, scattered, axis)), value, 0.05 * value + 1e-5) << what;
    };
    expectSame(Direction(a, 0), Direction(b, -turn), "mirrored");
    expectSame(Direction(a, start), Direction(b, start + turn), "turned");
    expectSame(Direction(-a, 0), Direction(-b, turn), "upside down");
    expectSame(Direction(a, 0), Direction(b, turn), "the axis reversed", -kAxis);
    expectSame(Direction(b, turn), Direction(a, 0), "light and view exchanged");
  }
}

TEST_F(Hair, ReflectedRaysFollowTheirDensity) {
  const SphereGrid grid(kAxis, 24, 12);
  for (float width : {0.09f, 10 * kPi / 180, 0.5f})  // either side of where the sampling formula changes
    for (double inclination : {0.0, 0.6, -1.1}) {
      SCOPED_TRACE(testing::Message() << width << " " << inclination);
      FiberParameters fiber;
      fiber.widthR = width;
      InitializeFiber(fiber);
      const Vec3 outgoing = Direction(inclination, 0.2);
      // The density comes with the squared cosine of the direction, which the samples do not know.
      std::vector<double> shares = grid.Integrate(
          [&](Vec3 d) { return EvaluateFiber(fiber, outgoing, d, kAxis).density.x / (1 - d.z * d.z); }, 8);
      std::vector<double> counts(shares.size());
      for (int i = 0; i < 20000; ++i)
        counts[grid.Bin(SampleFiber(fiber, outgoing, kAxis, 2 * RandomFloat() - 1).direction)] += 1;
      for (std::size_t i = 0; i < shares.size(); ++i)  // the poles, where that cosine vanishes, are left out
        if (shares[i] < 10.0 / 20000) shares[i] = counts[i] = 0;
      ExpectShares(counts, shares);
    }
}

// Rays of all lobes bring home what the lobes scatter.
TEST_F(Hair, RaysOfAllLobesCarryTheirLight) {
  settings.format = 2;
  FiberParameters fiber = MakeFiber({0.1f, 0.2f, 0.4f});
  for (bool all : {false, true})
    for (double inclination : {0.0, 0.5, 1.2}) {
      fiber.sampleAllLobes = all;
      const Vec3 outgoing = Direction(inclination, 0);
      Vec3 mean;
      double squares = 0;
      constexpr int kDraws = 40000;
      for (int i = 0; i < kDraws; ++i) {
        const Vec3 weight = SampleFiber(fiber, outgoing, kAxis, 2 * RandomFloat() - 1).weight;
        mean += weight / kDraws;
        squares += double{weight.x} * double{weight.x} / kDraws;
      }
      // Paths through many fibres multiply their weights, which must not differ much then.
      if (all) {
        EXPECT_LT(squares, 1.25 * double{mean.x} * double{mean.x});
      }
      for (int c = 0; c < 3; ++c) {
        const double expected = OverSphere(
            [&](Vec3 d) { return double{DrawnLobes(fiber, EvaluateFiber(fiber, outgoing, d, kAxis))[c]}; });
        EXPECT_NEAR(double{mean[c]}, expected, 0.02 * expected) << all << " " << inclination << " " << c;
      }
    }
}

TEST_F(Hair, EveryAngleGivesNumbers) {
  std::vector<Vec3> directions = {kAxis, -kAxis};
  for (double inclination : {-1.5707, -1.5, -0.4, 0.0, 1e-6, 0.8, 1.57079})
    for (int turn = 0; turn < 8; ++turn) directions.push_back(Direction(inclination, turn * 0.7853981634));
  struct Case {
    float width, ior;
  };
  const auto isLight = [](Vec3 v) { return IsFinite(v) && v.x >= 0 && v.y >= 0 && v.z >= 0; };
  for (Case c : {Case{0.1745f, 1.55f}, Case{0, 1}, Case{0.1f, 0.5f}, Case{0.104f, 3}, Case{50, 1e9f},
                 Case{std::nanf(""), std::nanf("")}}) {
    SCOPED_TRACE(c.width);
    FiberParameters fiber;
    fiber.widthR = c.width;
    fiber.ior = c.ior;
    InitializeFiber(fiber);
    fiber.sampleAllLobes = true;
    for (Vec3 incoming : directions) {
      for (Vec3 scattered : directions) {
        const FiberScattering s = EvaluateFiber(fiber, incoming, scattered, kAxis);
        ASSERT_TRUE(isLight(s.r) && isLight(s.tt) && isLight(s.trt) && isLight(s.density))
            << incoming.z << " " << scattered.z;
        ASSERT_TRUE(std::isfinite(FiberDiffuse(incoming, scattered, kAxis)));
      }
      for (float h : {-1.0f, 0.0f, 0.3f, 1.0f}) {
        const FiberSample sample = SampleFiber(fiber, incoming, kAxis, h);
        ASSERT_NEAR(Dot(sample.direction, sample.direction), 1, 1e-4f) << incoming.z;
        ASSERT_TRUE(isLight(sample.weight) && sample.weight.x <= 4) << sample.weight.x;
      }
    }
  }
  // What was not initialised is black.
  EXPECT_EQ(Sum(EvaluateFiber(FiberParameters{}, directions[2], directions[9], kAxis)), 0);
}

TEST_F(Hair, ImagesAreBuiltOnceForEqualFibersOfUsedShaders) {
  shaders.assign(3, Shader{});
  shaders[2].surfaces.resize(2);
  shaders[2].fiber.absorption = {1, 1, 1};
  InitializeFibers();
  EXPECT_EQ(shaders[0].fiber.lut, nullptr);
  shaders[1].usedByHair = true;
  InitializeFibers();
  ASSERT_NE(shaders[0].fiber.lut, nullptr);
  EXPECT_EQ(shaders[0].fiber.lut, shaders[1].fiber.lut);
  EXPECT_NE(shaders[0].fiber.lut, shaders[2].fiber.lut);
  EXPECT_EQ(shaders[2].surfaces[1].fiber.lut, shaders[2].fiber.lut);
  EXPECT_FLOAT_EQ(shaders[0].fiber.widthTT, 2 * shaders[0].fiber.widthR);
  EXPECT_FLOAT_EQ(shaders[0].fiber.widthTRT, 3 * shaders[0].fiber.widthR);
  shaders.clear();
}

// A strand along z in an empty scene, hit by a ray along y.
class LitHair : public RenderTest {
 protected:
  void Start(Vec3 lambertian, Vec3 glossy) {
    Restart();
    shader_ = AddShader("hair", lambertian, kBlack);
    Shader& shader = ShaderAt(shader_);
    shader.surfaces[0][Element::kGlossy].color = glossy;
    shader.usedByHair = true;
    cameras[0].sample = 1;
    settings.said.rendererSample = 4096;
  }

  // A white picture: a plain sky is not sampled.
  static void SampleWhiteSky(std::int32_t samples) {
    skyLight.sample = samples;
    AddImage("white", 8, 4, [](int, int) { return kWhite; });
    skyLight.image = "white";
  }

  // From here on the tables stand.
  void Prepare() {
    Initialize();
    strand_.positions = {Vec3{0, 0, -1}, Vec3{0, 0, 1}};
    strand_.tangents.assign(2, Pack(kAxis));
    strand_.cylinders = {0};
  }

  bool Hit(float offset, Vec3 direction = {0, 1, 0}) {
    ray_ = {};
    point_ = {};
    ray_.direction = direction, ray_.origin = -2 * direction, ray_.t = 2;
    ray_.part = &strand_, ray_.kind = kKindCylinder, ray_.primitive = 0;
    ray_.shader = shader_, ray_.frontFace = true;
    ray_.barycentric = {offset, 0, 0.5f};
    const bool met = SetUpShadingPoint(ray_, point_);
    if (met) TestElements(point_);
    return met;
  }

  LobeRadiance SampledLight() const {
    LobeRadiance lobes;
    SampleLights(ray_, point_, lobes);
    return lobes;
  }

  double Expected(const std::function<Vec3(const FiberScattering&)>& lobes) const {
    return OverSphere([&](Vec3 d) {
      return double{Mean(lobes(EvaluateFiber(*point_.fiber, point_.outgoing, d, point_.tangent)))};
    });
  }

  Part strand_;
  RayRecord ray_;
  ShadingPoint point_;
  std::int32_t shader_ = 0;
};

TEST_F(LitHair, FrameFollowsTheAxis) {
  Start(kBlack, kWhite);
  ShaderAt(shader_).surfaces[0][Element::kAngle].color = Grey(0.3f);
  Prepare();
  for (float offset : {-1.0f, -0.6f, 0.0f, 0.6f, 1.0f})
    for (Vec3 direction : {Vec3{0, 1, 0}, SafeNormalize({0.3f, 0.2f, 0.8f}), SafeNormalize({0, 1e-4f, 1}),
                           Vec3{0, 0, 1}, Vec3{0, 0, -1}}) {
      ASSERT_TRUE(Hit(offset, direction));
      EXPECT_NEAR(std::fabs(point_.tangent.z), 1, 1e-5f);
      EXPECT_NEAR(point_.normal.z, 0, 1e-4f);
      for (Vec3 v : {point_.normal, point_.tangent, point_.bitangent, point_.geometricNormal})
        EXPECT_NEAR(Dot(v, v), 1, 1e-4f);
      EXPECT_GE(Dot(point_.normal, point_.outgoing), -1e-4f);
    }
  // Seen along +y with the axis up: a ray that passes the axis at 0.6 radii, as the hit tests count, meets a
  // normal that leans as far the other way.
  ASSERT_TRUE(Hit(0.6f));
  EXPECT_LT(SafeLength(point_.normal - Vec3{-0.6f, -0.8f, 0}), 2e-4f);
}

// Light from behind shines through, where a surface would be dark.
TEST_F(LitHair, PointLightsMeetTheLobes) {
  for (Vec3 place : {Vec3{-1, -3, 1}, Vec3{0.2f, 3, 0}}) {
    Start(Grey(0.5f), Grey(0.7f));
    const Vec3 color = {1, 2, 4}, direction = SafeNormalize(place);
    AddPointLight(place).color = color;
    Prepare();
    ASSERT_TRUE(Hit(0.2f));
    const LobeRadiance lobes = SampledLight();
    const FiberScattering s = EvaluateFiber(*point_.fiber, point_.outgoing, direction, point_.tangent);
    const Vec3 light = (kPi / Dot(place, place)) * color, glossy = light * (s.r + s.tt + s.trt);
    const Vec3 diffuse = light * FiberDiffuse(point_.outgoing, direction, point_.tangent);
    ASSERT_GT(Mean(glossy), 0.01f);
    EXPECT_LT(SafeLength(lobes[Lobe::kGlossy] - glossy), 2e-5f);
    EXPECT_LT(SafeLength(lobes[Lobe::kLambertian] - diffuse), 2e-5f);
    EXPECT_EQ(lobes[Lobe::kTransmissive], kBlack);
  }
}

// In format 1 rays see the reflection alone; with light samples beside them the others come in, and nothing
// counts twice. In format 2 rays see them all.
TEST_F(LitHair, SkyLightAddsUpForTheGlossyLobes) {
  for (const int i : {0, 1, 2, 3}) {
    const bool sampled = i % 2 == 1, allLobes = sampled || i > 1;
    Start(kBlack, kWhite);
    settings.format = i > 1 ? 2 : 1;
    if (i > 1) settings.said.rendererSample = 16384;
    SampleWhiteSky(sampled ? 4096 : 0);
    Prepare();
    ASSERT_TRUE(Hit(0.3f, SafeNormalize({0, 1, 0.4f})));
    const double expected =
        Expected([&](const FiberScattering& s) { return allLobes ? s.r + s.tt + s.trt : s.r; });
    const double direct = double{Mean(SampledLight()[Lobe::kGlossy])};
    const double found = double{Mean(Gather(Lobe::kGlossy, ray_, point_))};
    EXPECT_NEAR(direct + found, expected, (i > 1 ? 0.02 : 0.03) * expected)
        << i << " " << direct << " " << found;
    EXPECT_GT(found, 0.01);
    EXPECT_EQ(direct > 0.01, sampled);
  }
  settings.format = 1;
}

// Averaged over its width, a white diffuse fibre under a white sky shows white, whoever finds the light.
TEST_F(LitHair, SkyLightAddsUpForTheDiffuseLobe) {
  for (int samples : {0, 512, 8192}) {
    Start(kWhite, kBlack);
    SampleWhiteSky(samples);
    settings.said.rendererSample = 1024;
    Prepare();
    double sum = 0;
    constexpr int kOffsets = 32;
    for (int i = 0; i < kOffsets; ++i) {
      ASSERT_TRUE(Hit((static_cast<float>(i) + 0.5f) / (kOffsets / 2) - 1));
      sum += double{Mean(SampledLight()[Lobe::kLambertian] + Gather(Lobe::kLambertian, ray_, point_))} /
             kOffsets;
    }
    EXPECT_NEAR(sum, 1, 0.015) << samples;
  }
}

}  // namespace
}  // namespace zp
