#include <gtest/gtest.h>
#include <omp.h>

#include <filesystem>
#include <tuple>

#include "accel/accel.h"
#include "core/random.h"
#include "core/settings.h"
#include "core/tables.h"
#include "frame/frame.h"
#include "frame/zp.h"
#include "geometry/density.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "scene/scene.h"
#include "surroundings.h"

namespace zp {
namespace {

class Lifecycle : public testing::Test {
 protected:
  void SetUp() override { Clear(); }
  void TearDown() override {
    Clear();
    StartRandom(std::nullopt);
  }
  static void Clear() {
    shaders = {};
    images = {};
    cameras = {};
    objectTable = {};
    pointLights = {};
    parallelLights = {};
    imageSearchPaths = {};
  }
};

TEST_F(Lifecycle, StartupPrintsTheBannerAndFillsTheTablesOnce) {
  const std::string rule = std::string(80, '_') + "\n\n";
  const std::string text = Printed([] { Startup(1); });
  EXPECT_EQ(text.rfind(rule + "            zephlore Apr 30 2015\n", 0), 0u) << text;
  EXPECT_EQ(text.substr(text.size() - rule.size()), rule);
  EXPECT_EQ(exponentTable[136], 1.0);
  EXPECT_EQ(exponentTable[0], std::ldexp(1.0, -136));
  EXPECT_EQ(noisePermutation[0], 151);
  EXPECT_EQ(noisePermutation[256], 151);
  const Vec2 seeded = pixelRotationTable[3][7];
  Printed([] { Startup(1); });
  ASSERT_EQ(shaders.size(), 1u);
  EXPECT_EQ(shaders[0].name, "undefined");
  EXPECT_EQ(shaders[0].surfaces.at(0)[Element::kLambertian].color, (Vec3{0.85f, 0.85f, 0.85f}));
  EXPECT_EQ(imageSearchPaths, std::vector<std::string>{""});
  EXPECT_EQ(pixelRotationTable[3][7], seeded);
  Shutdown();
  EXPECT_TRUE(haltonTables[0].empty());
  Printed([] { Startup(6); });
  EXPECT_EQ(haltonTables[0].size(), 4096u);
  EXPECT_EQ(haltonTables[1][5], 2.0f / 3 + 1.0f / 9);
  EXPECT_NE(pixelRotationTable[3][7], seeded);
  Shutdown();
}

// The end of a run resets as much as the start of the next.
TEST_F(Lifecycle, WhatCarriesOverToTheNextScene) {
  const RendererSettings before = settings;
  for (const bool atStartup : {true, false}) {
    zpSetRendererClamp(1, 2, 3), zpSetRendererError(4, 5, 6);
    zpSetRendererDistance(7), zpSetRendererResolution(8), zpSetRendererBounce(9);
    zpSetDisplayGamma(10), zpSetPreviewWindow(true);
    zpSetSkyLightImage("sky.hdr");
    zpSetSkyLightBackdrop("backdrop.hdr");
    skyLight.turbidity = 3;
    zpSetRendererRadius(11), zpSetRendererSample(14);
    zpSetRendererRayDepth(12), zpSetRendererPhotonDepth(13);
    zpSetSkyLightColor(0, 0, 0);
    zpSetSkyLightPhoton(15);
    zpAddSkyLightAOV();
    skyLight.link.names = {"a"};
    zpSetGeometryLightSample(16);
    geometryLight.colorWeight = globalVolume.transmittance = kBlack;
    settings.derived.finalGathering = true;
    settings.derived.geometrySampleCopy = 1;
    Printed([&] { atStartup ? Startup() : Finalize(); });
    const RendererSettings& is = settings;
    const SkyLight& sky = skyLight;
    EXPECT_EQ(std::tie(is.said.clamp, is.said.error), std::tuple(Vec3{1, 2, 3}, Vec3{4, 5, 6}));
    EXPECT_EQ(std::tuple(GatherDistance(), CellResolution(), is.said.rendererBounce, is.said.displayGamma,
                         is.said.previewWindow),
              std::tuple(7, 8, 9, 10, true));
    EXPECT_EQ(std::tie(sky.image, sky.backdrop, sky.turbidity), std::tuple("sky.hdr", "backdrop.hdr", 3));
    // And what does not. The radius of photons is only put back at the end.
    EXPECT_EQ(is.said.photonRadius.value_or(1), atStartup ? 11 : 1);
    EXPECT_EQ(std::tie(is.said.rayDepth, is.said.photonDepth, is.said.rendererSample,
                       is.derived.finalGathering, is.derived.geometrySampleCopy),
              std::tuple(8, 8, kUnsaid, false, 64));
    EXPECT_EQ(std::tuple(sky.color, PhotonsOf(sky.photon)), std::tuple(Vec3{0.75f, 0.75f, 0.75f}, 1000000));
    EXPECT_TRUE(sky.aovs.empty() && sky.link.names.empty());
    EXPECT_EQ(geometryLight.sample, kUnsaid);
    EXPECT_EQ(geometryLight.colorWeight, kWhite);
    EXPECT_EQ(globalVolume.transmittance, kWhite);
  }
  Shutdown();
  settings = before;
  skyLight = {};
}

TEST_F(Lifecycle, SearchPaths) {
  const std::string folder =
      (std::filesystem::temp_directory_path() / "zp-lifecycle-no-such-folder").string();
  const std::string text = Printed([&] { EXPECT_FALSE(LoadScene(folder)); });
  EXPECT_NE(text.find("scene parsing"), std::string::npos);
  EXPECT_NE(text.find("cannot be found"), std::string::npos);
  EXPECT_EQ(imageSearchPaths, (std::vector<std::string>{folder + "image", folder, ""}));
  EXPECT_EQ(geometrySearchPaths, (std::vector<std::string>{folder + "geometry", folder, ""}));
  EXPECT_EQ(sceneFolder, folder);
  Printed([] { LoadScene(""); });
  EXPECT_EQ(imageSearchPaths, (std::vector<std::string>{"image", ""}));
  EXPECT_EQ(geometrySearchPaths, (std::vector<std::string>{"geometry", "", ""}));
  EXPECT_EQ(sceneFolder, "");
}

TEST_F(Lifecycle, LightsLastForOneFrame) {
  const TemporaryFolder folder;
  const auto prepare = [&](const char* name) {
    Printed([] { Startup(1); });
    cameras.resize(1);
    cameras[0].width = cameras[0].height = 2;
    cameras[0].sample = 1;
    cameras[0].aovs.at(0).image.fileName = folder / "beauty.hdr";
    pointLights.resize(1);
    pointLights[0].aovs.resize(1);
    pointLights[0].aovs[0].image.fileName = folder / name;
    parallelLights.resize(1);
    skyLight.color = {2, 2, 2};
    return Printed([] { Initialize(); });
  };
  const std::string rows = prepare("frame.hdr");
  const std::size_t geometry = rows.find("geometry light sample"), parallel = rows.find("parallel lights"),
                    renderer = rows.find("renderer sample");
  EXPECT_TRUE(geometry < parallel && parallel < renderer && renderer < rows.size()) << rows;
  EXPECT_EQ(rows.find("geometry light sample", geometry + 1), std::string::npos);
  Printed([] { RenderLoop(); });
  EXPECT_EQ(ReadPixel(cameras[0].aovs[0].image, 0), (Vec3{2, 2, 2}));
  EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
  EXPECT_TRUE(std::filesystem::exists(folder / "frame.hdr"));
  Printed([] { RenderLoop(); });
  EXPECT_EQ(ReadPixel(cameras[0].aovs[0].image, 0), (Vec3{0.75f, 0.75f, 0.75f}));
  Printed([] { Finalize(); });
  // Without a frame the end of the run writes it.
  prepare("end.hdr");
  Printed([] { Finalize(); });
  EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
  EXPECT_TRUE(std::filesystem::exists(folder / "end.hdr"));
  // What cannot be written is told: here the folder is gone.
  prepare("lost.hdr");
  std::filesystem::remove_all(folder.path);
  const std::string lost = Printed([] { Finalize(); });
  for (const char* name : {"lost.hdr", "beauty.hdr"})
    EXPECT_NE(lost.find("error :( \timage - " + (folder / name) + "\tcannot be written: there is no folder"),
              std::string::npos)
        << lost;
  Shutdown();
}

TEST_F(Lifecycle, EverythingRunsToItsEndWithoutAScene) {
  const std::string text = Printed([] { Go("zp-lifecycle-no-such-folder"); });
  EXPECT_NE(text.find("error :( \tcamera - there is no camera"), std::string::npos) << text;
  EXPECT_NE(text.find("geometry light area             0.0000 [ m x m ]"), std::string::npos) << text;
  EXPECT_TRUE(shaders.empty() && images.empty());
  EXPECT_TRUE(haltonTables[0].empty());
}

}  // namespace
}  // namespace zp
