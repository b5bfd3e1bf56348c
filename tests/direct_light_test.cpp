// Light that reaches a surface straight from a light, by rendered pixels: closed forms, shadows, links, and
// agreement of light samples with rays that find the light by themselves.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>

#include "accel/accel.h"
#include "geometry/motion.h"
#include "imaging/frame_state.h"
#include "render_fixture.h"

namespace zp {
namespace {

constexpr Vec3 kPointColor = {0.8f, 0.4f, 0.2f};
// Where a lamp hangs over the floor; in format 1 of the one area that samples of the geometry light count in
// full, whose constant stands for pi over that area.
constexpr float kLampHeight = 0.04f;

float Soft(float cosine, float offset) { return std::clamp((cosine - offset) / (1 - offset), 0.0f, 1.0f); }

// A floor at z = 0 under a black sky, seen from straight above through all pixels as one point: the origin.
class DirectLight : public RenderTest {
 protected:
  void SetUp() override {
    RenderTest::SetUp();
    skyLight.color = kBlack;
    floor_ = AddShader("floor", kPointColor, kBlack);
    AddPlane(0, 50, floor_);
    LookFrom({0, 0, 3}, kBlack, 0.05f, {0, 1, 0});
    cameras[0].width = cameras[0].height = 4;
    cameras[0].sample = 2;
    settings.said.rendererSample = 2;
  }

  static void ExpectColor(Vec3 expected, float tolerance, const std::string& what, std::size_t aov = 0) {
    const Vec3 shown = MeanColor(aov);
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(shown[c], expected[c], tolerance * std::fabs(expected[c]) + 1e-6f)
          << what << " channel " << c;
  }

  SurfaceShader& FloorLayer() { return Layer(floor_); }

  // Black, over all that is right of x.
  static void AddWall(float x) {
    AddTetragon(Geometry(), {Vec3{x, -50, 4}, Vec3{50, -50, 4}, Vec3{50, 50, 4}, Vec3{x, 50, 4}},
                AddShader("wall", kBlack, kBlack));
  }

  static void AddLamp(Part& part, float z, std::int32_t shader) {
    const float half = (settings.format >= 2 ? 1.5f : 0.5f) * std::sqrt(kPi / 18481.0f);
    AddTetragon(part,
                {Vec3{-half, -half, z}, Vec3{-half, half, z}, Vec3{half, half, z}, Vec3{half, -half, z}},
                shader);
  }

  // Light samples and rays that find the light by themselves agree in the mean.
  void ExpectSamplesKeepTheMean(float tolerance, int kind, const std::function<void(bool)>& build) {
    Vec3 shown[2];
    for (int sampled : {0, 1}) {
      Restart();
      FloorLayer()[Element::kLambertian].color = Grey(0.7f);
      settings.said.rendererSample = 4096;
      build(sampled == 1);
      Render();
      shown[sampled] = MeanColor();
    }
    EXPECT_GT(shown[0].x, 0.01f) << kind;
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(shown[1][c] / shown[0][c], 1, tolerance) << kind << " " << c;
  }

  std::int32_t floor_ = 0;
};

TEST_F(DirectLight, PointLightFallsOffByDistanceAndSoftCosine) {
  for (float distance : {0.5f, 2.0f, 8.0f})
    for (float degrees : {0.0f, 45.0f, 80.0f, 84.0f, 89.0f})
      for (float offset : {0.0f, 0.1f, 0.5f}) {
        Restart();
        const float angle = degrees * kDegree;
        AddPointLight(distance * Vec3{std::sin(angle), 0, std::cos(angle)}, offset).color = {1, 2, 3};
        Render();
        ExpectColor(kPointColor * Vec3{1, 2, 3} * (Soft(std::cos(angle), offset) / (distance * distance)),
                    0.002f,
                    std::to_string(distance) + " " + std::to_string(degrees) + " " + std::to_string(offset));
      }
}

TEST_F(DirectLight, LightsAddUpAndLinksChooseWhatTheyLight) {
  AddPointLight({0, 0, 1}).color = {1, 0, 0};
  AddPointLight({0, 0, 2}).color = {0, 4, 0};
  PointLight& linked = AddPointLight({0, 0, 1});
  linked.color = {0, 0, 1};
  linked.link.names = {"floor", "no such shader"};
  AddPointLight({0, 0, 1}).link.names = {"undefined"};
  Render();
  ExpectColor(kPointColor, 0.001f, "sum");

  for (const std::string light : {"sky", "emitter", "parallel"})
    for (const std::string name : {"floor", "undefined"}) {
      Restart();
      if (light == "sky") {
        skyLight.color = kWhite;
        skyLight.link.names = {name};
      } else if (light == "emitter") {
        AddPlane(4, 2000, AddShader("lamp", kBlack, kWhite));
        geometryLight.link.names = {name};
      } else {
        AddParallelLight({0, 0, -1}).link.names = {name};
      }
      settings.said.rendererSample = 256;
      Render();
      ExpectColor(name == "floor" ? kPointColor : kBlack, 0.01f, light + " " + name);
    }
  // The camera sees the background whatever the list says.
  Restart();
  skyLight.color = kWhite;
  skyLight.link.names = {"undefined"};
  LookFrom({0, 0, 3}, {0, 1, 4}, 20);
  Render();
  ExpectColor(kWhite, 0.001f, "background");
}

TEST_F(DirectLight, TransmissiveLayerTakesLightFromBehindOnly) {
  for (float z : {-2.0f, 2.0f}) {
    Restart();
    FloorLayer()[Element::kLambertian].color = kBlack;
    FloorLayer()[Element::kTransmissive].color = kPointColor;
    AddPointLight({0, 0, z}, 0.2f);
    Render();
    ExpectColor(z < 0 ? kPointColor / 4 : kBlack, 0.001f, std::to_string(z));
  }
}

TEST_F(DirectLight, PanesMultiplyTheirTransparencies) {
  const Vec3 tint = {0.9f, 0.5f, 0.8f};
  const std::int32_t pane = AddShader("pane", kBlack, kBlack);
  Layer(pane)[Element::kShadowTransparency].color = tint;
  for (float z : {4.0f, 4.1f, 4.2f}) AddPlane(z, 10, pane);
  AddPointLight({0, 0, 6});
  Render();
  ExpectColor(kPointColor * tint * tint * tint / 36, 0.002f, "tinted");
}

// Half of a spherical lamp stands behind an edge: half of its light arrives.
TEST_F(DirectLight, BlurredLightsCastSoftShadows) {
  for (bool parallel : {false, true}) {
    Restart();
    AddWall(0);
    Light& light = parallel ? static_cast<Light&>(AddParallelLight({0, 0, -1})) : AddPointLight({0, 0, 8});
    light.blur = parallel ? 10 : 0.5f;
    light.sample = 512;
    LookFrom({-0.5f, 0, 3}, kBlack, 0.05f);
    Render();
    const Vec3 open = kPointColor * (parallel ? 0.9924f : 1 / 64.0f);  // the cone's mean cosine
    ExpectColor(open * 0.5f, 0.02f, parallel ? "parallel" : "point");
  }
}

// Diffusion moves light over a surface and, where that is endless, neither adds nor loses any. Where the
// light has an edge, the widest channel reaches farthest into the shadow.
TEST_F(DirectLight, DiffusionSpreadsLight) {
  FloorLayer()[Element::kLambertian].color = Grey(0.5f);
  FloorLayer()[Element::kDiffusion].color = Grey(0.01f);
  AddParallelLight({0, 0, -1});
  Render();
  ExpectColor(Grey(0.5f), 0.001f, "endless");

  Restart();
  FloorLayer()[Element::kLambertian].color = kWhite;
  FloorLayer()[Element::kDiffusion].color = {0.04f, 0.01f, 0.0025f};
  AddWall(-0.1f);
  AddParallelLight({0, 0, -1}).sample = 4096;
  LookFrom({-0.5f, 0, 3}, kBlack, 0.05f);
  Render();
  const Vec3 shown = MeanColor();
  EXPECT_GT(shown.x, 1.2f * shown.y);
  EXPECT_GT(shown.y, 1.2f * shown.z);
  EXPECT_GT(shown.z, 0);
  EXPECT_LT(shown.x, 0.5f);
}

// In format 2 it leaves a white body white under a white sky, also at edges, and the edge of a shadow is a
// Gaussian's in each channel.
TEST_F(DirectLight, DiffusionOfFormat2LosesNothing) {
  const Vec3 variances = {0.04f, 0.01f, 0.0025f};
  for (bool edge : {true, false}) {
    Restart();
    settings.format = 2;
    skyLight.color = edge ? kBlack : kWhite;
    Geometry() = {};
    const std::int32_t wax = AddShader("wax", kWhite, kBlack);
    Layer(wax)[Element::kDiffusion].color = variances;
    if (edge) {
      AddPlane(0, 9, wax);
      AddTetragon(Geometry(), {Vec3{-9, -9, 1}, Vec3{0, -9, 1}, Vec3{0, 9, 1}, Vec3{-9, 9, 1}},
                  AddShader("wall", kBlack, kBlack));
      AddParallelLight({0, 0, -1}).sample = 4096;
      LookFrom({0.05f, 0, 0.9f}, {0.05f, 0, 0}, 0.05f, {0, 1, 0});
    } else {
      AddCube(Geometry(), 0.5f, wax);
      LookFrom({3, 2.6f, 2.8f}, kBlack, 8);
    }
    settings.said.rendererSample = edge ? 4 : 4096;
    Render();
    const Vec3 shown = MeanColor();
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(shown[c], edge ? 0.5f * std::erfc(-0.05f / std::sqrt(2 * variances[c])) : 1, 0.01f) << c;
  }
}

// For floor and shadowed wall alike. In format 1 only with so many bounces that one more does not count; in
// format 2 at the last bounce, and at the ray depth, all light is seen.
TEST_F(DirectLight, SkySamplesDoNotChangeTheMean) {
  const std::tuple<bool, int, int> cases[] = {{false, 1, 10}, {true, 1, 10}, {true, 2, 1}};
  for (const auto& one : cases) {
    const bool analytic = std::get<0>(one);
    const int format = std::get<1>(one), bounces = std::get<2>(one);
    ExpectSamplesKeepTheMean(0.02f, format + analytic, [&](bool sampled) {
      settings.format = format;
      skyLight.color = kWhite;
      skyLight.sample = sampled ? 64 : 0;
      skyLight.image = analytic ? "analytic" : "";
      AddTetragon(Geometry(), {Vec3{1, -3, 0}, Vec3{1, 3, 0}, Vec3{1, 3, 1}, Vec3{1, -3, 1}},
                  AddShader("wall", Grey(0.5f), kBlack));
      settings.said.rendererBounce = bounces;
      settings.said.rayDepth = bounces + (format == 2);
      cameras[0].width = cameras[0].height = 8;
      cameras[0].sample = 4;
    });
    EXPECT_EQ(skyLight.sample, kUnsaid) << "the frame's end puts the default back";
    skyLight.image.clear();
    settings.format = 1;
  }
}

// Where the emission lists do not hold an emitter, nothing samples it, and rays that find it bring all of it.
TEST_F(DirectLight, EmitterSamplesDoNotChangeTheMean) {
  enum Kind { kPlain, kInstance, kRootWithoutParts, kOverride, kParticle };
  for (int i = 0; i < 10; ++i) {
    const auto kind = static_cast<Kind>(i / 2);
    ExpectSamplesKeepTheMean(0.015f, i, [&](bool sampled) {
      settings.format = 1 + i % 2;
      const std::int32_t lamp = AddShader("lamp", kBlack, {9, 6, 3});
      const std::int32_t off = AddShader("off", kBlack, kBlack);
      Layer(lamp).virtualLight = true;
      geometryLight.sample = sampled ? (settings.format == 2 ? 4 : 64) : 0;
      LookFrom({1, 0, 0.05f}, {0.02f, 0, 0}, 0.02f);
      objectTable[0].name = "root";
      const auto place = [&](const Instance& given) {
        Instance instance = given;
        instance.object = static_cast<std::int32_t>(objectTable.size());
        objectTable[0].instances.push_back(instance);
        objectTable.emplace_back().name = "part " + std::to_string(instance.object);
        return &objectTable.back().parts.emplace_back();
      };
      if (kind == kPlain) {
        AddLamp(Geometry(), kLampHeight, lamp);
      } else if (kind == kParticle) {
        Part& part = Geometry();
        part.particles = {static_cast<std::uint32_t>(part.positions.size())};
        part.positions.push_back({0, 0, kLampHeight});
        part.scalarSets[0].values.assign(part.positions.size(), 0.02f);
        part.primitiveShaders = {lamp};
        part.shader = lamp;
        LookFrom({1, 0, 0.5f}, {0.06f, 0, 0}, 0.02f);
      } else {
        if (kind == kRootWithoutParts) {
          const Part moved = Geometry();
          objectTable[0].parts.clear();
          *place({}) = moved;
        }
        Instance raised;
        raised.matrix.m[2][3] = kLampHeight;
        if (settings.format == 2) raised.matrix.m[1][1] = 0.1f;  // areas by the direction that they face
        if (kind == kOverride) raised.shader = lamp;
        if (settings.format == 2) {
          Mat4 close = raised.matrix;
          close.m[0][0] = 9;
          SetMatrixEnd(raised, close);
        }
        AddLamp(*place(raised), 0, kind == kOverride ? off : lamp);
      }
      if (kind == kParticle || kind == kOverride)  // another lamp, far away, is in the list
        AddTetragon(Geometry(), {Vec3{40, 0, 9}, Vec3{40.1f, 0, 9}, Vec3{40.1f, 0.1f, 9}, Vec3{40, 0.1f, 9}},
                    lamp);
    });
  }
  settings.format = 1;
}

// Each light's own pictures hold its light, by lobe, and together they are the beauty image.
TEST_F(DirectLight, LightAovsAddUpToTheBeautyImage) {
  const auto addAov = [](std::vector<Aov>& aovs, std::uint32_t channel) {
    aovs.emplace_back().channel = kChannelBeauty | channel;
    return &aovs.back();
  };
  const auto mean = [](const Aov& aov) {
    double sum = 0;
    for (float p : aov.image.floatPixels) sum += static_cast<double>(p);
    return sum / static_cast<double>(aov.image.floatPixels.size());
  };
  for (bool triangles : {false, true}) {
    Restart();
    if (triangles) SplitTetragon(floor_);
    SurfaceShader& layer = FloorLayer();
    layer[Element::kGlossy].color = kPointColor;
    layer[Element::kTransmissive].color = Grey(0.3f);
    layer[Element::kEmissive].color = Grey(0.25f);
    layer[Element::kRoughness].color = Grey(0.4f);
    layer[Element::kIor].color = Grey(1.5f);
    const std::uint32_t all = kChannelLambertian | kChannelTransmissive | kChannelGlossy | kChannelSpecular;
    PointLight& above = AddPointLight({0.5f, 0, 2});
    for (std::uint32_t channel : {+kChannelLambertian, +kChannelTransmissive, +kChannelGlossy, all})
      addAov(above.aovs, channel);
    addAov(AddPointLight({0, 0, -2}).aovs, all);
    addAov(AddParallelLight({0, 0, -1}, 0.1f).aovs, all);
    for (const char* name : {"floor", "undefined"}) addAov(geometryLight.aovs, all)->shaderName = name;
    for (std::uint32_t channel : {+kChannelLambertian, +kChannelTransmissive, +kChannelGlossy,
                                  +kChannelSpecular, +kChannelEmissive, +kChannelGlossyColor})
      AddAov(channel);
    settings.said.rayDepth = 1;  // no light but from the lights
    Initialize();
    for (std::uint32_t pass = 0; pass < 2; ++pass) {
      settings.frame.samplePass = static_cast<std::int32_t>(pass);
      RenderPixels(pass);
    }
    const std::vector<Aov>&shown = cameras[0].aovs, &byLobe = pointLights[0].aovs;
    const double beauty = mean(shown[0]);
    double lobes = 0;
    for (std::size_t i = 1; i <= 5; ++i) lobes += mean(shown[i]);
    EXPECT_NEAR(lobes, beauty, 1e-4 * beauty);
    EXPECT_NEAR(mean(byLobe[0]) + mean(byLobe[2]), mean(byLobe[3]), 1e-4 * beauty);
    EXPECT_EQ(mean(byLobe[1]), 0);
    EXPECT_GT(mean(byLobe[2]), 0);
    EXPECT_GT(mean(geometryLight.aovs[0]), 0.2);
    EXPECT_EQ(mean(geometryLight.aovs[1]), 0);
    EXPECT_NEAR(
        mean(byLobe[3]) + mean(pointLights[1].aovs[0]) + mean(parallelLights[0].aovs[0]) + mean(shown[5]),
        beauty, 1e-4 * beauty);
    EXPECT_NEAR(mean(shown[6]), static_cast<double>(Mean(kPointColor)), 1e-5);
  }
}

// Of more than eight lights of a kind hits of format 2 pick some: the mean of all of them stays, and that of
// each in its own picture.
TEST_F(DirectLight, ManyLightsArePickedFrom) {
  for (bool parallel : {false, true}) {
    Vec3 shown[2];
    double byLight[2][2];
    for (int format : {1, 2}) {
      Restart();
      settings.format = format;
      FloorLayer()[Element::kTransmissive].color = Grey(0.4f);
      AddWall(1);
      for (int i = 0; i < 60; ++i) {
        const auto x = static_cast<float>(i);
        const Vec3 place = {std::sin(x), std::cos(3 * x), i % 5 == 0 ? -1.0f : 0.5f + 0.05f * x};
        Light& light =
            parallel ? static_cast<Light&>(AddParallelLight(-place, 0.1f)) : AddPointLight(place, 0.1f);
        light.color = Grey(1 + 0.3f * x);
        light.sample = 2000;
        if (i % 20 == 3) light.link.names = {"undefined"};
        if (i == 4 || i == 17) light.aovs.emplace_back().channel = kChannelBeauty | kChannelLambertian;
        if (parallel || i % 2 == 0) continue;
        pointLights.back().direction = -place;
        pointLights.back().innerAngle = 20;
        pointLights.back().outerAngle = 60;
      }
      settings.said.rayDepth = 1;  // no light but from the lights
      cameras[0].width = cameras[0].height = 16;
      Initialize();
      EXPECT_EQ(lightGroups.size(), format == 2 ? 1 : 0);  // the linked three stand alone
      RenderPixels(0);
      shown[format - 1] = MeanColor();
      for (int i : {0, 1}) {
        const auto& lights = pointLights;
        const auto& aov =
            parallel ? parallelLights[i == 0 ? 4 : 17].aovs[0] : lights[i == 0 ? 4 : 17].aovs[0];
        double sum = 0;
        for (const float pixel : FinishedPicture(aov, frameState).floatPixels)
          sum += static_cast<double>(pixel);
        byLight[format - 1][i] = sum;
      }
    }
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(shown[1][c] / shown[0][c], 1, 0.02f) << parallel;
    for (int i : {0, 1}) EXPECT_NEAR(byLight[1][i] / byLight[0][i], 1, 0.06) << parallel << i;
  }
  settings.format = 1;
}

// What bounces on is lit again; light is sampled as far as the bounces go, and not behind.
TEST_F(DirectLight, BouncedLightIsSampledUpToTheLastBounce) {
  for (int bounces : {1, 3}) {
    Restart();
    FloorLayer()[Element::kLambertian].color = Grey(0.5f);
    const std::int32_t ceiling = AddShader("ceiling", Grey(0.5f), kBlack);
    AddPlane(6, 50, ceiling);
    for (float z : {-1.0f, 1.0f}) AddParallelLight({0, 0, z});  // both plates get the same light, all over
    for (std::int32_t plate : {floor_, ceiling}) Layer(plate)[Element::kShadowTransparency].color = kWhite;
    settings.said.rendererBounce = bounces;
    settings.said.rendererSample = 1024;
    Render();
    double expected = 0;
    for (int k = 0; k <= bounces; ++k) expected += std::pow(0.5, k + 1);
    EXPECT_NEAR(MeanColor().x, expected, 0.02 * expected) << bounces;
  }
}

TEST_F(DirectLight, HighlightsStayWhereTheyAreOnDiffusingBodies) {
  Vec3 shown[2];
  for (int diffusing : {0, 1}) {
    Restart();
    FloorLayer()[Element::kLambertian].color = Grey(0.01f);
    FloorLayer()[Element::kGlossy].color = kWhite;
    FloorLayer()[Element::kRoughness].color = Grey(0.2f);
    FloorLayer()[Element::kIor].color = Grey(1.5f);
    FloorLayer()[Element::kDiffusion].color = Grey(0.01f * static_cast<float>(diffusing));
    AddParallelLight({0, 0, -1}).aovs.emplace_back().channel = kChannelBeauty | kChannelGlossy;
    const std::size_t glossy = AddAov(kChannelGlossy);
    Render();
    shown[diffusing] = MeanColor(glossy);
  }
  EXPECT_NEAR(shown[0].x, 0.25f, 0.001f);  // Fresnel times pi over 4 pi alpha squared
  EXPECT_NEAR(shown[1].x, shown[0].x, 1e-4f);
}

// A window shows the sky behind it, and as a virtual light lights the floor as any emitter does.
TEST_F(DirectLight, WindowsBringTheSkyIn) {
  enum Kind { kEmitter, kWindow, kVirtualWindow };
  Vec3 shown[3];
  for (Kind kind : {kEmitter, kWindow, kVirtualWindow}) {
    Restart();
    skyLight.color = {9, 6, 3};
    FloorLayer()[Element::kLambertian].color = Grey(0.7f);
    AddCube(Geometry(), 2, AddShader("black", kBlack, kBlack));  // keeps the sky itself out
    const std::int32_t lamp = AddShader("lamp", kBlack, kind == kEmitter ? skyLight.color : kBlack);
    Layer(lamp).window = kind != kEmitter;
    Layer(lamp).virtualLight = kind == kVirtualWindow;
    AddLamp(Geometry(), kLampHeight, lamp);
    geometryLight.sample = 64;
    settings.said.rendererSample = 4096;
    LookFrom({1, 0, 0.025f}, {0.02f, 0, 0}, 0.02f);
    Render();
    shown[kind] = MeanColor();
  }
  EXPECT_GT(shown[0].x, 0.01f);
  for (int c = 0; c < 3; ++c) {
    EXPECT_NEAR(shown[kWindow][c], shown[kEmitter][c], 1e-5f);
    EXPECT_NEAR(shown[kVirtualWindow][c] / shown[kEmitter][c], 1, 0.02f);
  }
}

}  // namespace
}  // namespace zp
