#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "accel/accel.h"
#include "core/random.h"
#include "core/settings.h"
#include "core/tables.h"
#include "frame/frame.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "scene/scene.h"

namespace zp {
namespace {

// Runs what it is given and returns the rows it printed.
template <class Call>
std::string Printed(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

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

TEST_F(Lifecycle, StartupPrintsTheBannerAndFillsTheTables) {
  const std::string rule = std::string(80, '_') + "\n\n";
  const std::string text = Printed([] { Startup(1); });
  EXPECT_EQ(text.rfind(rule + "            zephlore Apr 30 2015\n", 0), 0u) << text;
  EXPECT_EQ(text.substr(text.size() - rule.size()), rule);
  EXPECT_EQ(exponentTable[136], 1.0);
  EXPECT_EQ(exponentTable[0], std::ldexp(1.0, -136));
  EXPECT_EQ(haltonTables[1][5], 2.0f / 3 + 1.0f / 9);
  EXPECT_EQ(noisePermutation[0], 151);
  EXPECT_EQ(noisePermutation[256], 151);
  ASSERT_EQ(shaders.size(), 1u);
  EXPECT_EQ(shaders[0].name, "undefined");
  EXPECT_EQ(shaders[0].surfaces.at(0)[Element::kLambertian].color, (Vec3{0.85f, 0.85f, 0.85f}));
  Printed([] { Shutdown(); });
}

TEST_F(Lifecycle, StartupTwice) {
  Printed([] { Startup(5); });
  const Vec2 seeded = pixelRotationTable[3][7];
  Printed([] { Startup(5); });
  EXPECT_EQ(shaders.size(), 1u);
  EXPECT_EQ(imageSearchPaths, std::vector<std::string>{""});
  EXPECT_EQ(pixelRotationTable[3][7], seeded);
  Shutdown();
  EXPECT_TRUE(haltonTables[0].empty());
  Printed([] { Startup(6); });
  EXPECT_EQ(haltonTables[0].size(), 4096u);
  EXPECT_EQ(haltonTables[0][1], 0.5f);
  EXPECT_NE(pixelRotationTable[3][7], seeded);
  Shutdown();
}

TEST_F(Lifecycle, Resets) {
  const RendererSettings before = settings;
  settings.rayDepth = 3;
  settings.photonDepth = 99;
  settings.rendererSample = 2;
  settings.finalGathering = true;
  settings.rendererBounce = 4;
  settings.distance = 7;
  settings.clamp = kWhite;
  skyLight.color = kBlack;
  skyLight.turbidity = 3;
  skyLight.image = "sky.hdr";
  skyLight.link.names = {"a"};
  skyLight.aovs.resize(2);
  globalVolume.transmittance = kBlack;
  geometryLight.sample = 5;
  geometryLight.colorWeight = kBlack;
  settings.geometrySampleCopy = 1;
  Printed([] { Startup(); });
  EXPECT_EQ(settings.rayDepth, 8);
  EXPECT_EQ(settings.photonDepth, 8);
  EXPECT_EQ(settings.rendererSample, 64);
  EXPECT_FALSE(settings.finalGathering);
  EXPECT_EQ(settings.geometrySampleCopy, 64);
  EXPECT_EQ(skyLight.color, (Vec3{0.75f, 0.75f, 0.75f}));
  EXPECT_TRUE(skyLight.link.names.empty());
  EXPECT_TRUE(skyLight.aovs.empty());
  EXPECT_EQ(globalVolume.transmittance, kWhite);
  EXPECT_EQ(geometryLight.sample, 0);
  EXPECT_EQ(geometryLight.colorWeight, kWhite);
  // What no reset touches goes over to the next run.
  EXPECT_EQ(settings.rendererBounce, 4);
  EXPECT_EQ(settings.distance, 7);
  EXPECT_EQ(settings.clamp, kWhite);
  EXPECT_EQ(skyLight.turbidity, 3);
  EXPECT_EQ(skyLight.image, "sky.hdr");
  Shutdown();
  settings = before;
  skyLight = {};
}

TEST_F(Lifecycle, SearchPaths) {
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / "zp-lifecycle-no-such-folder";
  const std::string text = Printed([&] { EXPECT_FALSE(LoadScene(folder.string())); });
  EXPECT_NE(text.find("scene parsing"), std::string::npos);
  EXPECT_NE(text.find("cannot be found"), std::string::npos);
  EXPECT_EQ(imageSearchPaths, (std::vector<std::string>{folder.string() + "image", folder.string(), ""}));
  EXPECT_EQ(geometrySearchPaths,
            (std::vector<std::string>{folder.string() + "geometry", folder.string(), ""}));
  EXPECT_EQ(sceneFolder, folder.string());
}

TEST_F(Lifecycle, SearchPathsOfAnEmptyFolderString) {
  Printed([] { LoadScene(""); });
  EXPECT_EQ(imageSearchPaths, (std::vector<std::string>{"image", ""}));
  EXPECT_EQ(geometrySearchPaths, (std::vector<std::string>{"geometry", "", ""}));
  EXPECT_EQ(sceneFolder, "");
}

TEST_F(Lifecycle, PlainLights) {
  rootObject = kNone;
  skyLight.color = {0.5f, 0.25f, 0};
  skyLight.sample = 64;
  geometryLight.photon = 1000;
  const std::string sky = Printed([] { InitializeSky(); });
  EXPECT_EQ(SkyRadiance({0, 0, 1}), (Vec3{0.5f, 0.25f, 0}));
  EXPECT_EQ(skyLight.photon, 1000000);
  EXPECT_EQ(skyLight.sample, 0);
  EXPECT_NE(sky.find("sky light map width                   0 [ n/a ]"), std::string::npos) << sky;
  skyLight.color = 0.0009f * kWhite;
  const std::string light = Printed([] {
    InitializeSky();
    InitializeGeometryLight();
  });
  EXPECT_EQ(skyLight.photon, 0);
  EXPECT_EQ(geometryLight.photon, 0);
  EXPECT_NE(light.find("geometry light area             0.0000 [ m x m ]"), std::string::npos) << light;
  FinalizeSky();
  FinalizeGeometryLight();
  EXPECT_EQ(skyLight.photon, 1000000);
  EXPECT_EQ(geometryLight.photon, 1000000);
}

TEST_F(Lifecycle, PointAndParallelLightsLastForOneFrame) {
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("zp-lifecycle-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  const auto prepare = [&](const char* name) {
    Printed([] { Startup(1); });
    cameras.resize(1);
    cameras[0].width = cameras[0].height = 2;
    cameras[0].sample = 1;
    cameras[0].aovs.at(0).image.fileName = (folder / "beauty.hdr").string();
    pointLights.resize(1);
    pointLights[0].aovs.resize(1);
    pointLights[0].aovs[0].image.fileName = (folder / name).string();
    parallelLights.resize(1);
    return Printed([] { Initialize(); });
  };
  const std::string rows = prepare("frame.hdr");
  const std::size_t geometry = rows.find("geometry light sample"), parallel = rows.find("parallel lights"),
                    renderer = rows.find("renderer sample");
  EXPECT_TRUE(geometry < parallel && parallel < renderer && renderer < rows.size()) << rows;
  EXPECT_EQ(rows.find("geometry light sample", geometry + 1), std::string::npos);
  Printed([] { RenderLoop(); });
  EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
  EXPECT_TRUE(std::filesystem::exists(folder / "frame.hdr"));
  Printed([] { Finalize(); });
  // Without a frame the end of the run writes it.
  prepare("end.hdr");
  Printed([] { Finalize(); });
  EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
  EXPECT_TRUE(std::filesystem::exists(folder / "end.hdr"));
  // What cannot be written is told: here the folder is gone.
  prepare("lost.hdr");
  std::filesystem::remove_all(folder);
  const std::string lost = Printed([] { Finalize(); });
  for (const char* name : {"lost.hdr", "beauty.hdr"})
    EXPECT_NE(lost.find("error :( \timage - " + (folder / name).string() + "\tcannot be written\n"),
              std::string::npos)
        << lost;
  Shutdown();
  std::filesystem::remove_all(folder);
}

TEST_F(Lifecycle, EverythingRunsToItsEndWithoutAScene) {
  const std::string text = Printed([] { Go("zp-lifecycle-no-such-folder"); });
  EXPECT_NE(text.find("error :( \tcamera - there is no camera"), std::string::npos) << text;
  EXPECT_TRUE(shaders.empty());
  EXPECT_TRUE(images.empty());
  EXPECT_TRUE(haltonTables[0].empty());
}

}  // namespace
}  // namespace zp
