// Glossy, specular and emissive layers, glass and media, by rendered pixels against closed forms.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "render_fixture.h"

namespace zp {
namespace {

constexpr float kGlass = 1.5f;
constexpr float kDistance = 5;  // of the camera

float Schlick(float ior, float cosine) {
  const float head = (ior - 1) * (ior - 1) / ((ior + 1) * (ior + 1));
  return head + (1 - head) * std::pow(1 - cosine, 5.0f);
}

class Materials : public RenderTest {
 protected:
  void SetUp() override {
    RenderTest::SetUp();
    cameras[0].width = cameras[0].height = 4;
    cameras[0].sample = 2;
    settings.said.rendererSample = 2;
  }
  void RestartInTheDark() {
    Restart();
    skyLight.color = kBlack;
  }

  // A slab from z = -thickness to 0, its faces outwards.
  static void AddSlab(float thickness, std::int32_t shader) {
    AddPlane(0, 100, shader);
    const float z = -thickness;
    AddTetragon(Geometry(), {Vec3{-100, -100, z}, Vec3{-100, 100, z}, Vec3{100, 100, z}, Vec3{100, -100, z}},
                shader);
  }

  // An emissive floor whose red shows where it is: x / 10 + 0.5 over ten units, the rest is 1.
  static void AddRuler(float z) {
    AddImage("ruler", 1024, 1, [](int x, int) { return Vec3{static_cast<float>(x) / 1024, 1, 1}; });
    const std::int32_t ruler = AddShader("ruler", kBlack, kWhite);
    Layer(ruler)[Element::kEmissive].imageName = "ruler";
    AddPlane(z, 5, ruler);
    Geometry().uvSets[0].values.resize(Geometry().positions.size());
    const std::size_t first = Geometry().positions.size() - 4;
    for (std::size_t i = 0; i < 4; ++i) {
      const Vec3 p = Geometry().positions[first + i];
      Geometry().uvSets[0].values[first + i] = {p.x / 10 + 0.5f, p.y / 10 + 0.5f};
    }
  }

  // All pixels as one.
  static void LookAlong(Vec3 from, Vec3 to) { LookFrom(from, to, 0.02f, {0, 1, 0}); }

  // From `degrees` off the z axis.
  static void LookAtOrigin(float degrees) {
    LookAlong(kDistance * Vec3{-std::sin(degrees * kDegree), 0, std::cos(degrees * kDegree)}, kBlack);
  }

  static float RulerPosition() { return 10 * (MeanColor().x / MeanColor().y - 0.5f); }
};

// Of the white sky, and of a white ground behind panes.
TEST_F(Materials, MirrorsAndPanesShowFresnelReflectance) {
  struct Case {
    Material material;
    float ior, degrees;
  };
  for (const auto& [material, ior, degrees] :
       {Case{Material::kConductor, 1, 80}, Case{Material::kConductor, 2, 0},
        Case{Material::kConductor, 2, 80}, Case{Material::kThinDielectric, kGlass, 0},
        Case{Material::kThinDielectric, kGlass, 60}})
    for (bool reflection : {true, false}) {
      Restart();
      skyLight.color = reflection ? kWhite : kBlack;
      AddPlane(0, 50, AddGlass(material, ior));
      AddPlane(-1, 50, AddShader("ground", kBlack, reflection ? kBlack : kWhite));
      LookAtOrigin(degrees);
      Render();
      const bool pane = material == Material::kThinDielectric;
      const float f = ior == 1 ? 0 : Schlick(ior, std::cos(degrees * kDegree));
      const float reflected = pane ? 2 * f / (1 + f) : f;
      EXPECT_NEAR(MeanColor().x, reflection ? reflected : pane ? 1 - reflected : 0, 1e-4f) << ior << degrees;
    }
}

// Through a slab a ray goes on beside its line, by the thickness and both angles. What it shows is dimmed by
// both surfaces, and by the media to the power of the distances.
TEST_F(Materials, SlabShiftsAndDimsTheView) {
  const Vec3 glass = {0.5f, 0.5f, 1}, air = {0.9f, 0.9f, 0.8f};
  const float thickness = 2, below = 1;
  for (float degrees : {0.0f, 30.0f, 60.0f}) {
    RestartInTheDark();
    const std::int32_t shader = AddGlass(Material::kDielectric);
    ShaderAt(shader).volume.transmittance = glass;
    globalVolume.transmittance = air;
    AddSlab(thickness, shader);
    AddRuler(-thickness - below);
    LookAtOrigin(degrees);
    settings.said.rayDepth = 3;  // no reflections within the slab
    Render();
    const float outside = degrees * kDegree, inside = std::asin(std::sin(outside) / kGlass);
    EXPECT_NEAR(RulerPosition(), thickness * std::tan(inside) + below * std::tan(outside), 0.01f) << degrees;
    const float surfaces =
        (1 - Schlick(kGlass, std::cos(outside))) * (1 - Schlick(1 / kGlass, std::cos(inside)));
    for (int c : {1, 2}) {
      const float expected = surfaces * std::pow(glass[c], thickness / std::cos(inside)) *
                             std::pow(air[c], kDistance + below / std::cos(outside));
      EXPECT_NEAR(MeanColor()[c], expected, 0.002f) << degrees;
    }
  }
}

// What a medium leaves of light on its way down to a white floor, or past it out of the scene; the box of
// all is 4 high and 100 wide, and the camera sees through a unit of it. By format 1 and 2.
TEST_F(Materials, MediaDimLightByTheLengthInside) {
  enum Light { kParallel, kPoint, kSky, kPhotons };
  struct Case {
    const char* what;
    Light light;
    bool fog, slab;
    float ior, lengths[2];  // of the camera's world; negative: nothing arrives
  };
  for (const auto& [what, light, fog, slab, ior, lengths] :
       {Case{"sun", kParallel, true, false, 1, {1, 5}}, Case{"lamp", kPoint, true, false, 1, {1, 3}},
        Case{"sky", kSky, true, false, 1, {0, 50}}, Case{"shadow", kParallel, false, true, 1, {0, 1.5f}},
        Case{"photons", kPhotons, false, true, 1, {0, 1.5f}},
        Case{"world", kPoint, false, false, 1.33f, {-1, 0}}})
    for (int format : {1, 2}) {
      Restart();
      settings.format = format;
      skyLight.color = light == kSky ? kWhite : kBlack;
      const Vec3 medium = light == kSky ? Vec3{0.99f, 0.98f, 0.9f} : Vec3{0.9f, 0.5f, 0.7f};
      const std::int32_t glass = AddGlass(Material::kDielectric, light == kPhotons ? 1.0001f : 1.5f);
      AddTetragon(Geometry(), {Vec3{40, 40, 4}, Vec3{41, 40, 4}, Vec3{41, 41, 4}, Vec3{40, 41, 4}},
                  AddShader("top", kBlack, kBlack));
      AddPlane(0, 50, AddShader("floor", kWhite, kBlack));
      if (slab) {
        for (float z : {3.0f, 1.5f}) AddPlane(z, 50, glass);
        std::swap(Geometry().tetragons.back().vertex[1], Geometry().tetragons.back().vertex[3]);
        ShaderAt(glass).volume.transmittance = medium;
        if (light != kPhotons) Layer(glass)[Element::kShadowTransparency].color = kWhite;
      }
      if (fog) globalVolume.transmittance = medium;
      if (light == kParallel || light == kPhotons)
        AddParallelLight({0, 0, -1}, 0, light == kPhotons ? 200000 : 0);
      if (light == kPoint) AddPointLight({1e-3f, 0, 2}).color = Grey(4);
      cameras[0].ior = ior;
      LookAlong({0, 0, 1}, light == kSky ? Vec3{1, 0, 1} : kBlack);
      settings.said.rayDepth = 1;
      settings.said.photonRadius = 10;
      Render();
      const float length = At(lengths, format - 1);
      const Vec3 shown = MeanColor();
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(shown[c], length < 0 ? 0 : std::pow(medium[c], length),
                    light == kPhotons ? 0.08f : 0.005f)
            << what << format;
    }
}

// A prism turns the view at its long side without loss, where 45 degrees is past the critical angle.
TEST_F(Materials, TotalReflectionKeepsAllLight) {
  for (float ior : {kGlass, 1.3f}) {  // critical angles 41.8 and 50.3 degrees
    RestartInTheDark();
    const std::int32_t glass = AddGlass(Material::kDielectric, ior);
    const auto add = [](Vec3 a, Vec3 b,
                        std::int32_t shader) {  // a face along y, from a to b in its cross section
      AddTetragon(Geometry(), {Vec3{a.x, -9, a.z}, Vec3{b.x, -9, b.z}, Vec3{b.x, 9, b.z}, Vec3{a.x, 9, a.z}},
                  shader);
    };
    add({-1, 0, 1}, {1, 0, 1}, glass);   // top
    add({1, 0, 1}, {1, 0, -1}, glass);   // right
    add({1, 0, -1}, {-1, 0, 1}, glass);  // long side
    add({3, 0, 1}, {3, 0, -1}, AddShader("lamp", kBlack, kWhite));
    LookAlong({0.2f, 0, 5}, {0.2f, 0, 0});
    settings.said.rayDepth = 4;
    Render();
    const float pass = 1 - Schlick(ior, 1);
    const float turned = ior == kGlass ? 1 : Schlick(1 / ior, std::cos(45 * kDegree));
    EXPECT_NEAR(MeanColor().x, pass * pass * turned, 0.002f) << ior;
  }
}

// Light behind glass: a point in the open behind two crossings takes direct light again.
TEST_F(Materials, BehindGlassItIsOpenAgain) {
  for (float ior : {1.1f, 1.33f, 1.5f, 1.7f, 2.4f}) {
    RestartInTheDark();
    AddSlab(1, AddGlass(Material::kDielectric, ior));
    AddPlane(-3, 50, AddShader("ground", Grey(0.5f), kBlack));
    AddPointLight({0, 0, -2});
    LookAtOrigin(0);
    settings.said.rayDepth = 3;
    Render();
    const float pass = 1 - Schlick(ior, 1);
    EXPECT_NEAR(MeanColor().x, 0.5f * pass * pass, 0.001f) << ior;
  }
}

// The highlight is wide across the hair-fine grooves of a brushed surface: along the tangent its width is
// alpha (1 - a), along the bitangent alpha / (1 - a). A quarter turn exchanges them.
TEST_F(Materials, AnisotropyStretchesAlongTheFrameAndAngleTurnsIt) {
  const float alpha = 0.2f, stretch = 0.5f, tilt = 12 * kDegree, fresnel = 0.04f;
  const float slope = std::tan(tilt / 2), cosine = std::cos(tilt / 2);  // of the half vector
  for (float turns : {0.0f, 0.25f})
    for (bool alongX : {true, false}) {
      RestartInTheDark();
      const std::int32_t shader = AddGlass(Material::kConductor, kGlass, alpha, 1 - stretch);
      Layer(shader)[Element::kAngle].color = Grey(turns);
      AddPlane(0, 50, shader);
      Geometry().tangents.assign(4, Pack({1, 0, 0}));
      ParallelLight& light = parallelLights.emplace_back();
      light.zAxis = {alongX ? -std::sin(tilt) : 0, alongX ? 0 : -std::sin(tilt), -std::cos(tilt)};
      LookAtOrigin(0);
      settings.said.rayDepth = 1;
      Render();
      const float width = alongX == (turns == 0) ? alpha * stretch : alpha / stretch;
      const float expected = std::exp(-slope * slope / (width * width)) * std::cos(tilt) * fresnel /
                             (4 * alpha * alpha * std::pow(cosine, 6.0f));
      EXPECT_NEAR(MeanColor().x, expected, 0.02f * expected) << turns << alongX;
    }
}

// What a camera records of a point that has every layer: the lobes add up to the beauty.
TEST_F(Materials, AovsOfAPointWithEveryLayer) {
  const Vec3 lambertian = {0.1f, 0.2f, 0.3f}, transmissive = {0.3f, 0.1f, 0.2f}, glossy = {0.5f, 0.4f, 0.3f},
             specular = {0.2f, 0.4f, 0.6f}, emissive = {0.05f, 0.1f, 0.15f};
  for (bool triangles : {false, true}) {
    Restart();
    skyLight.color = Grey(0.5f);
    const std::int32_t shader = AddShader("all", lambertian, emissive, transmissive);
    Layer(shader)[Element::kGlossy].color = glossy;
    Layer(shader)[Element::kSpecular].color = specular;
    Layer(shader)[Element::kRoughness].color = Grey(0.3f);
    Layer(shader)[Element::kIor].color = Grey(1.8f);
    AddPlane(0, 50, shader);
    if (triangles) SplitTetragon(shader);
    Geometry().tangents.assign(4, Pack({0, 1, 0}));
    Geometry().uvSets.push_back({"pair", {}});
    Geometry().scalarSets.push_back({"height", {}});
    Geometry().vectorSets.push_back({"place", Geometry().positions});
    for (Vec3 p : Geometry().positions) {
      Geometry().uvSets.back().values.push_back({p.x, 2 * p.y});
      Geometry().scalarSets.back().values.push_back(p.x + p.y);
    }
    AddPointLight({0.5f, 0.2f, 2});
    LookFrom({0, 0, 3}, {0.5f, 0.25f, 0}, 0.02f);
    settings.said.rendererSample = 64;
    const Vec3 place = {0.5f, 0.25f, 0};
    const float depth = SafeLength(Vec3{0, 0, 3} - place);
    const Vec3 shown = emissive * (1 - Schlick(1.8f, 3 / depth));
    const std::pair<std::size_t, Vec3> flat[] = {{AddAov(kChannelLambertianColor), lambertian},
                                                 {AddAov(kChannelTransmissiveColor), transmissive},
                                                 {AddAov(kChannelGlossyColor), glossy},
                                                 {AddAov(kChannelSpecularColor), specular},
                                                 {AddAov(kChannelEmissive), shown},
                                                 {AddAov(kChannelTangent), {0.5f, 1, 0.5f}},
                                                 {AddAov(kChannelNormal), {0.5f, 0.5f, 1}},
                                                 {AddAov(kChannelPosition), place},
                                                 {AddAov(kChannelDepth), Grey(depth)},
                                                 {AddAov(kChannelUserData, "height"), Grey(0.75f)},
                                                 {AddAov(kChannelUserData, "place"), place},
                                                 {AddAov(kChannelUserData, "nothing"), kBlack},
                                                 {AddAov(kChannelNormal | kChannelBeauty), kBlack},
                                                 {AddAov(kChannelUserData, "pair"), {0.5f, 0.5f, 0}}};
    const std::size_t lobes[] = {AddAov(kChannelLambertian), AddAov(kChannelTransmissive),
                                 AddAov(kChannelGlossy), AddAov(kChannelSpecular)};
    Render();
    Vec3 sum = shown;
    for (std::size_t lobe : lobes) {
      sum += MeanColor(lobe);
      EXPECT_GT(MeanColor(lobe).y, 1e-3f);
    }
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(sum[c], MeanColor()[c], 1e-4f * MeanColor()[c]);
      for (const auto& [aov, expected] : flat) EXPECT_NEAR(MeanColor(aov)[c], expected[c], 2e-3f) << aov;
    }
  }
}

}  // namespace
}  // namespace zp
