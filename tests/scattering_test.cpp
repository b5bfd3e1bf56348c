#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "core/random.h"
#include "shading/directions.h"
#include "shading/shading.h"
#include "statistics.h"
#include "surroundings.h"

namespace zp {
namespace {

class Scattering : public testing::Test {
 protected:
  void SetUp() override {
    StartRandom(11);
    shaders = {};
    images = {};
  }
  void TearDown() override {
    SetUp();
    StartRandom(std::nullopt);
  }
};

ShadingPoint MakePoint(float alphaX, float alphaY, Vec3 outgoing) {
  ShadingPoint point;
  point.tangent = {1, 0, 0};
  point.bitangent = {0, 1, 0};
  point.normal = point.geometricNormal = {0, 0, 1};
  point.outgoing = outgoing;
  point.alphaX = alphaX;
  point.alphaY = alphaY;
  return point;
}

Vec3 Mirrored(Vec3 outgoing, Vec3 half) { return 2 * Dot(outgoing, half) * half - outgoing; }

// The samples' density is 2 D (l + o) . n over the whole sphere, below the horizon too. Half vectors that
// look away from the viewer mirror to where D is 0; the share of those is closed: slopes are Gaussian.
TEST_F(Scattering, GlossySamplesFollowTheDensity) {
  constexpr int kDraws = 100000;
  for (const auto& [alphaX, alphaY] : {std::array{0.3f, 0.3f}, {0.1f, 0.1f}, {0.1f, 0.4f}, {0.9f, 0.25f}})
    for (float cosine : {0.995f, 0.6f, 0.08f}) {
      SCOPED_TRACE(testing::Message() << alphaX << ' ' << alphaY << " at " << cosine);
      const ShadingPoint point = MakePoint(alphaX, alphaY, FromPolar(cosine, 0.7));
      const Vec3 o = point.outgoing;
      // Around the direction in which the half vector vanishes, where the density is singular.
      const SphereGrid grid(-o);
      std::vector<double> shares = grid.Integrate(
          [&](Vec3 l) { return 2.0 * GlossyD(point, l) * std::max(0.0f, Dot(l + o, point.normal)); });
      shares.push_back(0.5 * std::erfc(o.z / std::hypot(alphaX * o.x, alphaY * o.y)));
      EXPECT_NEAR(Sum(shares), 1, 0.004);

      std::vector<double> counts(shares.size());
      for (int i = 0; i < kDraws; ++i) {
        const float u = RandomFloat(), v = RandomFloat();
        const Vec3 half = SampleGlossyHalf(point, u, v);
        ASSERT_NEAR(Dot(half, half), 1, 1e-5);
        counts[Dot(half, o) > 0 ? grid.Bin(Mirrored(o, half)) : counts.size() - 1] += 1;
      }
      ExpectShares(counts, shares);
    }
}

TEST_F(Scattering, CosineDirectionsFollowTheirDensity) {
  constexpr int kDraws = 200000;
  const SphereGrid grid;
  const std::vector<double> shares = grid.Integrate([](Vec3 d) { return std::max(0.0f, d.z) * 2 / kTau; });
  std::vector<double> counts(shares.size());
  for (int i = 0; i < kDraws; ++i) {
    const float u = RandomFloat(), v = RandomFloat();
    const Vec3 d = CosineDirection(u, v);
    ASSERT_NEAR(Dot(d, d), 1, 1e-5);
    counts[grid.Bin(d)] += 1;
  }
  ExpectShares(counts, shares);
  EXPECT_EQ(ConcentricDisk(0.5f, 0.5f), (Vec2{0, 0}));
}

// By midpoints over the slopes of the half vector: the share of light from everywhere that the lobe returns.
double Albedo(const ShadingPoint& point) {
  constexpr int kSteps = 100;
  double sum = 0;
  for (int i = 0; i < kSteps; ++i)
    for (int j = 0; j < kSteps; ++j) {
      const float u = (static_cast<float>(i) + 0.5f) / kSteps, v = (static_cast<float>(j) + 0.5f) / kSteps;
      const Vec3 l = Mirrored(point.outgoing, SampleGlossyHalf(point, u, v));
      // 4 D cos over the density of the sample; D is in both.
      if (l.z > 0 && GlossyD(point, l) > 0) sum += 2.0 * l.z / (l.z + point.outgoing.z);
    }
  return sum / (kSteps * kSteps);
}

TEST_F(Scattering, TheLobeCreatesNoEnergy) {
  for (float roughness : {0.05f, 0.1f, 0.2f, 0.35f, 0.5f, 0.75f, 1.0f})
    for (float stretch : {1.0f, 0.7f, 0.4f, 0.1f})
      for (float cosine : {1.0f, 0.9f, 0.7f, 0.5f, 0.3f, 0.15f, 0.05f, 0.01f})
        for (double turn : {0.0, 0.7, 1.5708}) {
          SCOPED_TRACE(testing::Message() << roughness << ' ' << stretch << ' ' << cosine << ' ' << turn);
          const double albedo =
              Albedo(MakePoint(roughness * stretch, roughness / stretch, FromPolar(cosine, turn)));
          EXPECT_LE(albedo, 1.002);
          EXPECT_GE(albedo, roughness <= 0.1f && stretch == 1 && cosine >= 0.5f ? 0.95 : 0);
        }
  // The estimate of the albedo rests on the sampling; a plain integral over the hemisphere does not.
  const ShadingPoint point = MakePoint(0.5f, 0.3f, FromPolar(0.6, 0.7));
  const double albedo = OverSphere([&](Vec3 l) { return 4 * GlossyD(point, l) * std::max(0.0f, l.z); });
  EXPECT_NEAR(albedo, Albedo(point), 0.003);
}

TEST_F(Scattering, DensityIsReciprocalAndNeverBreaks) {
  std::vector<Vec3> directions = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0}};
  for (double cosine : {1e-6, -1e-6, 1e-3}) directions.push_back(FromPolar(cosine, 0.3));
  for (int i = 0; i < 30; ++i) directions.push_back(FromPolar(2.0 * RandomFloat() - 1, 9.0 * RandomFloat()));
  for (float alphaX : {0.0f, 1e-10f, 1e-6f, 1e-3f, 0.3f, 1.0f, 1e3f, 1e10f})
    for (float alphaY : {0.0f, 1e-6f, 1e-2f, 0.2f, 1e3f, 1e10f})
      for (Vec3 o : directions) {
        SCOPED_TRACE(alphaX);
        const ShadingPoint point = MakePoint(alphaX, alphaY, o);
        for (Vec3 l : directions) {
          const float d = GlossyD(point, l);
          ASSERT_TRUE(std::isfinite(d) && d >= 0) << alphaY;
          ASSERT_FLOAT_EQ(d, GlossyD(MakePoint(alphaX, alphaY, l), o)) << alphaY;
          ASSERT_TRUE((l + o).z > 0 || d == 0) << alphaY;
        }
        for (float u : {0.0f, 0.25f, 0.5f, 0.9999999f})
          for (float v : {0.0f, 1e-7f, 0.5f, 0.9999999f}) {
            const Vec3 half = SampleGlossyHalf(point, u, v);
            ASSERT_NEAR(Dot(half, half), 1, 1e-5) << alphaY;
            ASSERT_GE(half.z, 0);
          }
      }
}

// What the balance heuristic needs of nearly perfect mirrors: their samples are likely, not impossible.
TEST_F(Scattering, NarrowLobesFindTheirOwnSamples) {
  for (float alpha : {1e-6f, 1e-5f, 5e-5f, 1e-4f, 1e-3f}) {
    const ShadingPoint point = MakePoint(alpha, alpha, FromPolar(0.6, 0.7));
    double weights = 0, squares = 0;
    constexpr int kDraws = 4000;
    for (int i = 0; i < kDraws; ++i) {
      const float u = RandomFloat(), v = RandomFloat();
      const Vec3 half = SampleGlossyHalf(point, u, v);
      const double d = GlossyD(point, Mirrored(point.outgoing, half));
      weights += d / (d + 1);
      squares += double{half.x} * double{half.x};
    }
    EXPECT_GT(weights / kDraws, 0.99) << alpha;
    // The variance of a slope is alpha^2 / 2, down to the narrowest lobe.
    const double width = std::max(alpha, 1e-4f);
    EXPECT_NEAR(squares / kDraws / (width * width), 0.5, 0.05) << alpha;
  }
}

TEST_F(Scattering, RefractionObeysSnell) {
  const Vec3 normal = SafeNormalize({0.3f, -0.2f, 1});
  const Vec3 side = SafeNormalize(Perpendicular(normal));
  Vec3 refracted;
  for (float ratio : {1 / 1.33f, 1 / 1.5f, 1 / 2.4f, 1.33f, 1.5f, 2.4f, 1.0f})
    for (int degrees = 0; degrees < 90; ++degrees) {
      const Vec3 local = FromPolar(std::cos(degrees * kTau / 360), 0);
      const Vec3 direction = local.x * side - local.z * normal;
      const bool passes = Refract(direction, normal, -Dot(direction, normal), ratio, refracted);
      const float expected = local.x * ratio;
      if (std::abs(expected - 1) < 1e-4) continue;
      ASSERT_EQ(passes, expected < 1) << ratio << ' ' << degrees;
      if (!passes) continue;
      EXPECT_NEAR(Dot(refracted, refracted), 1, 1e-5);
      EXPECT_NEAR(Dot(refracted, side), expected, 2e-4);
      EXPECT_NEAR(Dot(refracted, Cross(normal, side)), 0, 1e-5);
      EXPECT_LT(Dot(refracted, normal), 0);
      if (ratio == 1) {
        EXPECT_EQ(refracted, direction);  // exactly: what a pane lets through is not bent
      }
    }
  for (float ratio : {std::nanf(""), 1e38f, INFINITY})
    EXPECT_TRUE(!Refract({0.6f, 0, -0.8f}, {0, 0, 1}, 0.8f, ratio, refracted) || IsFinite(refracted));
}

// --- Shadow rays -------------------------------------------------------------------------------------------

Shader MakeShader(std::vector<SurfaceShader> layers) {
  shaders.clear();
  shaders.emplace_back().surfaces = std::move(layers);
  Printed(InitializeShaders);
  return shaders[0];
}

SurfaceShader MakePane(float ior, Vec3 color) {
  SurfaceShader pane;
  pane.material = Material::kThinDielectric;
  pane[Element::kIor].color = ior * kWhite;
  pane[Element::kSpecular].color = color;
  return pane;
}

SurfaceShader MakeVeil(Vec3 color) {
  SurfaceShader veil;
  veil[Element::kShadowTransparency].color = color;
  return veil;
}

TEST_F(Scattering, TransparencyIsTheProductOverTheSide) {
  std::vector<SurfaceShader> layers = {MakeVeil({0.5f, 1, 0.25f}), MakeVeil({0.5f, 0.5f, 0.5f}),
                                       MakePane(1, {1, 0.5f, 1}), MakeVeil(kBlack)};
  layers[1].sideness = Sideness::kFace;
  layers[3].sideness = Sideness::kBack;
  const Shader shader = MakeShader(layers);
  EXPECT_EQ(ShadowTransparency(shader, true, {}, 1), (Vec3{0.25f, 0.25f, 0.125f}));
  EXPECT_EQ(ShadowTransparency(shader, false, {}, 1), kBlack);
  // A side without layers is open, unless the shader has but one layer.
  layers = {MakeVeil(kBlack), MakeVeil(kBlack)};
  layers[0].sideness = layers[1].sideness = Sideness::kFace;
  EXPECT_EQ(ShadowTransparency(MakeShader(layers), false, {}, 1), kWhite);
  // An image is looked up where the ray passes.
  ImageBuffer& image = images.emplace_back();
  Allocate(image, 2, 1, 3, 32, false);
  WritePixel(image, {0.5f, 0.5f, 0.5f}, 1);
  SurfaceShader net = MakeVeil({1, 0.5f, 0});
  net[Element::kShadowTransparency].image = 0;
  net[Element::kShadowTransparency].pixelSampler = PixelSampler::kNearest;
  const Shader curtain = MakeShader({net});
  EXPECT_FALSE(curtain.frontOpaque);
  EXPECT_EQ(ShadowTransparency(curtain, true, {0.1f, 0}, 1), kBlack);
  EXPECT_EQ(ShadowTransparency(curtain, true, {0.6f, 0}, 1), (Vec3{0.5f, 0.25f, 0}));
}

TEST_F(Scattering, OpaqueSidesAreThoseThatPassNothing) {
  const auto color = [] {
    const float r = RandomFloat();
    return r < 0.3f ? kBlack : r < 0.5f ? Vec3{0, 0, 1e-5f} : Vec3{r, 0.5f, 0.5f * r};
  };
  int opaque = 0;
  for (int i = 0; i < 500; ++i) {
    std::vector<SurfaceShader> layers;
    for (std::size_t k = 1 + RandomBits() % 4; k > 0; --k) {
      const bool isPane = RandomFloat() < 0.4f;
      SurfaceShader& layer = layers.emplace_back(isPane ? MakePane(1.5f, color()) : MakeVeil(color()));
      // A pane's veil and a veil's mirror colour count for nothing.
      layer[isPane ? Element::kShadowTransparency : Element::kSpecular].color = color();
      layer.sideness = static_cast<Sideness>(RandomBits() % 3);
    }
    const Shader shader = MakeShader(layers);
    for (bool front : {false, true}) {
      const bool passesNothing = ShadowTransparency(shader, front, {}, 0.7f) == kBlack;
      // No two colours cancel out: the blue of all but black is above 0.
      EXPECT_EQ(front ? shader.frontOpaque : shader.backOpaque, passesNothing);
      opaque += passesNothing;
    }
  }
  EXPECT_GT(opaque, 200);
  EXPECT_LT(opaque, 800);
}

}  // namespace
}  // namespace zp
