// What format 2 does differently: each case is the same thing said in another way, or a closed form.

#include "core/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>

#include "accel/accel.h"
#include "accel/curve_segment.h"
#include "accel/primitive_tests.h"
#include "frame/frame.h"
#include "geometry/geometry.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "scene/scene.h"
#include "shading/shading.h"
#include "surroundings.h"

namespace zp {
namespace {

class Formats : public testing::Test {
 protected:
  void TearDown() override {
    unsetenv("ZP_FORMAT");
    settings.format = 1;
    settings.formatIsSettled = false;
    formatProblem.clear();
  }
};

TEST_F(Formats, OptionBeforeTextBeforeEnvironment) {
  struct Case {
    int option;
    const char *text, *environment;
    int format;
    bool sound;
  };
  for (const Case& c : {Case{0, "", "", 1, true},
                        {0, "", "2", 2, true},
                        {0, "format 1", "2", 1, true},
                        {0, "format 2", "", 2, true},
                        {1, "format 2", "2", 1, true},
                        {2, "format x", "", 2, true},
                        {0, "format 3", "2", 1, false},
                        {0, "format", "", 1, false}}) {
    setenv("ZP_FORMAT", c.environment, 1);
    Printed([&] { Startup(1, c.option > 0 ? std::optional(c.option) : std::nullopt); });
    std::istringstream text(std::string("render\n") + c.text + "\nend\n");
    ReadScene(text);
    EXPECT_EQ(std::tuple(settings.format, formatProblem.empty()), std::tuple(c.format, c.sound)) << c.text;
  }
  setenv("ZP_FORMAT", "two", 1);
  EXPECT_NE(Printed([] { Startup(1); }).find("ZP_FORMAT: 'two' is no format"), std::string::npos);
}

// What nobody says, before or behind the format. The diagonal of the scene is 20.
TEST_F(Formats, PathsAreTracedUntilGatheringIsAskedFor) {
  const std::string gathers = "render\nfinal_gather\ndistance 1\nresolution 1\nradius 1\nend\nend\n";
  for (const auto& [text, gathering, photons, radius] :
       {std::tuple<std::string, bool, int, float>{"render\nformat 1\nend\n", true, 1000000, 1},
        {"render\nformat 2\nend\n", false, 0, 0.1f},
        {"render\nformat 2\nfinal_gather\ndistance 1\nend\nend\nsky_light\nphoton 5\nend\n", false, 5, 0.1f},
        {"sky_light\nphoton 7\nend\n" + gathers + "render\nformat 2\nend\n", true, 7, 1},
        {"render\nformat 2\nend\n", false, 0, 0.1f}}) {
    Printed([&] { Startup(1); });
    std::istringstream stream(text);
    ReadScene(stream);
    sceneRadius = 10;
    Printed([] { InitializeRenderer(); });
    EXPECT_EQ(std::tuple(settings.derived.finalGathering, PhotonsOf(skyLight.photon)),
              std::tuple(gathering, photons))
        << text;
    EXPECT_FLOAT_EQ(settings.derived.photonRadius, radius) << text;
    Printed([] { FinalizeRenderer(); });
  }
  sceneRadius = 0;
  ResetSky();
}

// Of a square spiral, an arrow from each of its corners, a rim that touches itself around a hole, and a star
// of so many rays that a search of all its corners for each would take minutes.
TEST_F(Formats, FacesOfAnyCornersKeepTheirArea) {
  settings.format = 2;
  constexpr int kRays = 50'000;
  std::string star, corners = "f";
  for (int i = 0; i < 2 * kRays; ++i) {
    const double angle = i * double{kPi} / kRays, radius = i % 2 == 0 ? 1000 : 1500;
    star += "v " + std::to_string(radius * std::cos(angle)) + ' ' + std::to_string(radius * std::sin(angle)) +
            " 0\n";
    corners += ' ' + std::to_string(i + 1);
  }
  const std::pair<std::string, float> faces[] = {
      {star + corners + '\n', kPi * 1000 * 1500},
      {"v 0 0 0\nv 3 0 0\nv 3 3 0\nv 1 3 0\nv 1 2 0\nv 2 2 0\nv 2 1 0\nv 0 1 0\nf 1 2 3 4 5 6 7 8\n", 6},
      {"v 0 1 0\nv 2 0 0\nv 0 4 0\nv -2 0 0\nf 1 2 3 4\n", 6},
      {"v 0 1 0\nv 2 0 0\nv 0 4 0\nv -2 0 0\nf 4 1 2 3\n", 6},
      {"v 0 0 0\nv 0 3 0\nv 0 3 3\nv 0 0 3\nv 0 1 1\nv 0 1 2\nv 0 2 2\nv 0 2 1\nf 1 2 3 4 1 5 6 7 8 5\n", 8}};
  for (const auto& [text, area] : faces) {
    Part part;
    ReadObj(text, part);
    double sum = 0;
    for (const Triangle& t : part.triangles) {
      const Vec3 p = part.positions[t.vertex[0]];
      sum +=
          0.5 * double{SafeLength(Cross(part.positions[t.vertex[1]] - p, part.positions[t.vertex[2]] - p))};
    }
    EXPECT_NEAR(sum, area, 1e-3f + 1e-4f * area) << text.substr(0, 100);
  }
}

// A strand is the same shape in metres and in centimetres, and its box holds both radii.
TEST_F(Formats, StrandsHaveNoScaleOfTheirOwn) {
  settings.format = 2;
  for (const float scale : {1.0f, 0.01f}) {
    Part part;
    part.positions = {{0, 0, 0}, scale * Vec3{1, 0, 0}};
    part.tangents = {Pack({0, 1, 0}), Pack({0, -1, 0})};
    part.scalarSets[0].values = {scale * 0.1f, scale * 0.2f};
    part.cylinders = {0};
    EXPECT_NEAR(CurvePoint(part, 0, 0.5f).y / scale, 0.25f, 1e-3f);
    EXPECT_NEAR(MakeCurveSegment(part, 0).tangent0.y / scale, 1, 1e-3f);
    EXPECT_NEAR(CylinderBox(part, 0).min.x / scale, -0.2f, 0.1f);
    EXPECT_NEAR(CylinderBox(part, 0).max.x / scale, 1.2f, 1e-3f);
  }
}

// A sphere of radius 10, light behind it at 40: the discriminant of 100 goes past both ends.
TEST_F(Formats, LargeSpheresCastShadows) {
  Part part;
  part.positions = {{0, 0, 20}};
  part.scalarSets[0].values = {10};
  part.particles = {0};
  RayRecord ray;
  ray.t = 40;
  ray.direction = {0, 0, 1};
  PrimitiveHit hit;
  EXPECT_FALSE(TestShadowParticle(part, 0, ray, hit));
  EXPECT_TRUE(TestShadowParticle(part, 0, ray, hit, true));
  EXPECT_FLOAT_EQ(hit.t, 10);
}

// Along u on a face and on its mirror image, with the uvs' hand kept apart.
TEST_F(Formats, TangentsOfMirroredUvsRunAlongU) {
  for (const int format : {1, 2}) {
    settings.format = format;
    Part part;
    ReadObj("v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nvt -1 0\nvt 0 1\nf 1/1 2/2 3/3\n", part);
    part.mirroredUvs = format == 2;
    EXPECT_TRUE(IsMirrored(part, part.triangles[0].vertex));
    Smooth(part);
    EXPECT_EQ(part.tangents.empty() ? 0 : part.tangents[0].x < 0 ? -1 : 1, format == 2 ? -1 : 1);
  }
}

TEST_F(Formats, SixteenBitsReadUpToOne) {
  settings.format = 2;
  ImageBuffer image;
  Allocate(image, 1, 1, 3, 16, false);
  WritePixel(image, {1, 0.5f, 0}, 0);
  EXPECT_NEAR(ReadPixel(image, 0).x, 1, 1e-6f);
  EXPECT_NEAR(ReadPixel(image, 0).y, 0.5f, 1e-4f);
}

// By the picture's alpha, where it has one that says something; else by its colours.
TEST_F(Formats, OpacityAndClipCutOut) {
  for (const int format : {1, 2})
    for (const float alpha : {0.5f, 1.0f}) {
      shaders = {};
      images = {};
      settings.format = format;
      ImageBuffer& leaf = At(images, FindOrAddTexture("leaf"));
      Allocate(leaf, 1, 1, 4, 32, false);
      leaf.floatPixels = {0.25f, 0.25f, 0.25f, alpha};
      leaf.loaded = true;
      std::istringstream text(
          "shader\nname \"leaf\"\nopacity 0.5\nsurface_shader\nend\ngeometry_shader\n"
          "clip\nimage \"leaf\"\nend\nend\nend\n");
      Printed([&] {
        ReadScene(text);
        InitializeShaders();
      });
      EXPECT_EQ(Opacity(ShaderAt(FindShader("leaf")), {}), format == 1 ? 1 : alpha == 1 ? 0.125f : 0.25f);
    }
  shaders = {};
  images = {};
}

}  // namespace
}  // namespace zp
