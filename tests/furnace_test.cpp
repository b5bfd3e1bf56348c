// Furnaces: bodies of every kind in a white sky show what they reflect of it, and none more.

#include <gtest/gtest.h>

#include <algorithm>

#include "random_geometry.h"
#include "render_fixture.h"

namespace zp {
namespace {

constexpr float kSpecular = -1;  // in place of a roughness

class Furnace : public RenderTest {
 protected:
  static std::int32_t AddGlossy(Material material, float ior, float roughness, float anisotropy = 0) {
    const std::int32_t shader = AddShader("glossy", kBlack, kBlack);
    SurfaceShader& layer = Layer(shader);
    layer[roughness == kSpecular ? Element::kSpecular : Element::kGlossy].color = kWhite;
    layer[Element::kRoughness].color = Grey(roughness);
    layer[Element::kAnisotropy].color = Grey(anisotropy);
    layer[Element::kIor].color = Grey(ior);
    layer.material = material;
    return shader;
  }
  static void AddBall(std::int32_t shader) {
    Geometry().shader = shader;
    AddParticle(Geometry(), kBlack, 1);
  }
};

// Every pixel shows the colour where the body is and the sky elsewhere, in the parts that its samples met.
TEST_F(Furnace, DiffuseBodiesShowTheirAlbedo) {
  struct Case {
    float albedo;
    void (*addBody)(std::int32_t);
  };
  const auto cube = [](std::int32_t shader) { AddCube(Geometry(), 0.8f, shader); };
  const auto facets = [](std::int32_t shader) { AddSphere(Geometry(), 2, false, shader); };
  const auto smooth = [](std::int32_t shader) { AddSphere(Geometry(), 3, true, shader); };
  const auto ball = [](std::int32_t shader) { AddBall(shader); };
  const auto varnished = [](std::int32_t shader) {  // what the varnish keeps away it reflects
    Layer(shader)[Element::kSpecular].color = kWhite;
    Layer(shader)[Element::kIor].color = Grey(1.5f);
    AddCube(Geometry(), 0.8f, shader);
  };
  for (const Case& c : {Case{0.6f, cube}, Case{1, cube}, Case{0.3f, facets}, Case{1, smooth},
                        Case{0.6f, ball}, Case{1, varnished}}) {
    Restart();
    c.addBody(AddShader("body", Grey(c.albedo), kBlack));
    const std::size_t cover = AddAov(kChannelLambertianColor);
    Render();
    for (std::size_t i = 0; i < Pixels(0).size(); ++i) {
      const float share = Pixels(cover)[i] / c.albedo;
      ASSERT_NEAR(Pixels(0)[i], share * c.albedo + (1 - share), 0.005f) << i;
    }
    const float covered = Average(cover) / c.albedo;
    EXPECT_TRUE(covered > 0.1f && covered < 0.9f) << covered;
  }
}

TEST_F(Furnace, GlossyAndSpecularBodiesGainNothing) {
  const std::pair<float, float> lobes[] = {{kSpecular, 0}, {0.0f, 0},    {0.1f, 0}, {0.1f, 0.8f},
                                           {0.4f, 0},      {0.4f, 0.8f}, {1, 0},    {1, 0.8f}};
  for (Material material : {Material::kConductor, Material::kDielectric, Material::kThinDielectric})
    for (const auto& [roughness, anisotropy] : lobes)
      for (float ior : {1.2f, 1.5f, 4.0f})
        for (bool sphere : {true, false}) {
          SCOPED_TRACE(testing::Message() << static_cast<int>(material) << " " << roughness << " "
                                          << anisotropy << " " << ior << (sphere ? " sphere" : " cube"));
          Restart();
          const std::int32_t shader = AddGlossy(material, ior, roughness, anisotropy);
          if (sphere)
            AddSphere(Geometry(), 3, true, shader);
          else
            AddCube(Geometry(), 0.8f, shader);
          cameras[0].width = cameras[0].height = 8;
          cameras[0].sample = 2;
          settings.said.rendererSample = 32;
          settings.said.rendererBounce = 4;
          Render();
          const auto [least, most] = std::minmax_element(Pixels(0).begin(), Pixels(0).end());
          EXPECT_LE(*most, 1.0001f);
          EXPECT_LT(*least, 1);
          EXPECT_GE(*least, 0);
        }
}

// White glass shows what its bounces bring out again: nearly all.
TEST_F(Furnace, LosslessGlassVanishes) {
  for (float roughness : {kSpecular, 0.3f})
    for (bool particle : {false, true}) {
      if (particle && roughness != kSpecular) continue;
      Restart();
      const std::int32_t glass = AddGlossy(Material::kDielectric, 1.5f, roughness);
      if (particle)
        AddBall(glass);
      else
        AddSphere(Geometry(), 4, true, glass);
      settings.said.rayDepth = settings.said.rendererBounce = 12;
      settings.said.rendererSample = 64;
      Render();
      EXPECT_GT(Average(0), 0.96f) << roughness << particle;
      EXPECT_LT(Average(0), 1.001f) << roughness << particle;
    }
}

// A white picture as a sky has an importance table, so that samples and rays of the lobe share the light. It
// is all there again, but for what rough lobes send below the horizon: rays leave that out of their mean.
TEST_F(Furnace, GlossySurfacesGainNothingFromSkySamples) {
  struct Case {
    Material material;
    float roughness, anisotropy, degrees, least;
  };
  for (const Case& c :
       {Case{Material::kConductor, 0.0f, 0, 45, 0.995f}, Case{Material::kConductor, 0.2f, 0, 0, 0.985f},
        Case{Material::kConductor, 0.2f, 0.5f, 80, 0.94f}, Case{Material::kDielectric, 0.2f, 0, 70, 0.985f},
        Case{Material::kConductor, 1.0f, 0, 87, 0.7f}}) {
    Restart();
    AddImage("white", 8, 4, [](int, int) { return kWhite; });
    skyLight.image = "white";
    skyLight.sample = settings.said.rendererSample = 64;
    AddPlane(0, 1000, AddGlossy(c.material, 1e6f, c.roughness, c.anisotropy));
    const float angle = c.degrees * kDegree;
    LookFrom({-5 * std::sin(angle), 0.01f, 5 * std::cos(angle)}, kBlack, 0.02f);
    cameras[0].sample = 2;
    Render();
    EXPECT_LT(MeanColor().x, 1.002f) << c.roughness << " " << c.degrees;
    EXPECT_GT(MeanColor().x, c.least) << c.roughness << " " << c.degrees;
  }
}

}  // namespace
}  // namespace zp
