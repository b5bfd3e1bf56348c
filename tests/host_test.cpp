// A host's view: scenes built by the exported functions beside the same scenes as text, several in one
// process, and calls that no host should make.

#include <gtest/gtest.h>
#include <omp.h>

#include <filesystem>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "accel/accel.h"
#include "built_files.h"
#include "core/console.h"
#include "core/settings.h"
#include "core/tables.h"
#include "frame/frame.h"
#include "frame/zp.h"
#include "lights/lights.h"
#include "lights/photon_store.h"
#include "scene/scene.h"
#include "surroundings.h"

namespace zp {
namespace {

namespace fs = std::filesystem;
using Pictures = std::map<std::string, std::string>;  // bytes by file name

// Several functions at a time.
using Colors = std::initializer_list<std::pair<::Element, Vec3>>;

void Paint(int shader, int layer, Colors colors) {
  for (const auto& [element, c] : colors) zpSetSurfaceColor(shader, layer, element, c.x, c.y, c.z);
}

int AddNamedShader(const char* name, Colors colors) {
  const int shader = zpAddShader();
  zpSetShaderName(shader, name);
  Paint(shader, zpAddSurfaceShader(shader), colors);
  return shader;
}

// With a part if there are points for it.
int AddNamedObject(const char* name, const std::vector<float>& points) {
  const int object = zpAddObject();
  zpSetObjectName(object, name);
  if (!points.empty())
    zpAddPositions(object, zpAddPart(object), static_cast<int>(points.size() / 3), points.data());
  return object;
}

void AddFaces(int object, int shader, const std::vector<int>& vertices) {
  zpSetShaderID(object, 0, shader);
  zpAddTriangles(object, 0, static_cast<int>(vertices.size() / 3), vertices.data());
}

void Place(int scene, int object, const float matrix[][4], int shader) {
  zpSetInstance(scene, zpAddInstance(scene), object, matrix, shader);
}

// The scene of tests/host/studio: a displaced table under all kinds of light, with things of several
// materials on it, two instance levels deep. Gathered, it is lit by density cells and the sky's model, and
// its camera sees all around and moves.
void BuildStudio(bool gathered) {
  using E = ::Element;
  const int cloth = AddNamedShader("cloth", {{E::kLambertian, {0.7f, 0.7f, 0.7f}}});
  zpSetSurfaceImage(cloth, 0, E::kLambertian, "image/paint.pfm", 1.5f, nullptr, nullptr);
  zpSetDisplacementVector(cloth, zpAddDisplacementShader(cloth), 0, 0, 0.1f);
  zpSetDisplacementLevel(cloth, 0, 2);
  const int metal = AddNamedShader("metal", {{E::kGlossy, {0.9f, 0.6f, 0.3f}},
                                             {E::kRoughness, {0.3f, 0.3f, 0.3f}},
                                             {E::kAnisotropy, {0.5f, 0.5f, 0.5f}},
                                             {E::kIor, {8, 8, 8}}});
  zpSetSurfaceMaterial(metal, 0, ::Material::kConductor);
  const int glass = AddNamedShader("glass", {{E::kSpecular, {1, 1, 1}},
                                             {E::kIor, {1.5f, 1.5f, 1.5f}},
                                             {E::kWeight, {2, 2, 2}},
                                             {E::kShadowTransparency, {0.8f, 0.9f, 0.8f}}});
  zpSetSurfaceMaterial(glass, 0, ::Material::kThinDielectric);
  zpSetSurfaceSideness(glass, 0, ::Sideness::kBoth);
  Paint(glass, zpAddSurfaceShader(glass), {{E::kTransmissive, {0.2f, 0.5f, 0.2f}}, {E::kWeight, {1, 1, 1}}});
  zpSetShaderSmoothAngle(glass, 40);
  const int lamp = AddNamedShader("lamp", {{E::kEmissive, {3, 2, 1}}});
  zpSetSurfaceVirtualLight(lamp, 0, true);
  zpSetShaderVisibility(lamp, ::Visibility::kNotCameraPrimary);
  const int blade = AddNamedShader("blade", {{E::kLambertian, {0.2f, 0.5f, 0.1f}},
                                             {E::kGlossy, {0.3f, 0.3f, 0.3f}},
                                             {E::kRoughness, {0.3f, 0.3f, 0.3f}}});

  zpSetRendererClamp(40, 40, 40);
  zpSetRendererError(1, 0, 1);
  zpSetRendererRayDepth(6);
  zpSetRendererPhotonDepth(5);
  zpSetRendererSample(8);
  zpSetRendererBounce(2);
  zpSetRendererDistance(gathered ? 0.3f : 0);
  zpSetRendererResolution(gathered ? 0.05f : 0);
  zpSetRendererRadius(0.5f);

  const int point = zpAddPointLight(), sun = zpAddParallelLight();
  zpSetPointLightColor(point, 6, 5, 4);
  zpSetPointLightPosition(point, -1, -2, 3);
  zpSetPointLightBlur(point, 0.2f);
  zpSetPointLightDirection(point, 0, 0, -1);
  zpSetPointLightInnerAngle(point, 30);
  zpSetPointLightOuterAngle(point, 120);
  zpSetPointLightOffset(point, 0.05f);
  zpSetPointLightSample(point, 8);
  zpSetPointLightPhoton(point, 2000);
  zpSetPointLightAOVName(point, zpAddPointLightAOV(point), "point.pfm");
  zpSetPointLightAOVChannel(point, 0, kZpLambertian);
  zpSetParallelLightColor(sun, 0.5f, 0.5f, 0.4f);
  zpSetParallelLightDirection(sun, 1, 1, -2);
  zpSetParallelLightBlur(sun, 2);
  zpSetParallelLightOffset(sun, 0);
  zpSetParallelLightSample(sun, 4);
  zpSetParallelLightPhoton(sun, 500);
  zpSetParallelLightShaderLink(sun, cloth);
  zpSetParallelLightAOVName(sun, zpAddParallelLightAOV(sun), "sun.pfm");
  zpSetParallelLightAOVChannel(sun, 0, kZpLambertian);
  zpSetParallelLightAOVChannel(sun, 0, kZpGlossy);
  zpSetSkyLightImage(gathered ? "analytic" : "image/paint.pfm");
  zpSetSkyLightColor(0.2f, 0.3f, 0.4f);
  zpSetSkyLightPhoton(1000);
  zpSetSkyLightSample(4);
  zpSetSkyLightNorth(1, 0, 0);
  zpSetSkyLightZenith(0, 0, 1);
  zpSetSkyLightAOVName(zpAddSkyLightAOV(), "sky.pfm");
  zpSetSkyLightAOVChannel(0, kZpLambertian);
  zpSetGeometryLightPhoton(1000);
  zpSetGeometryLightSample(4);
  zpSetGeometryLightAOVName(zpAddGeometryLightAOV(), "lamp.pfm");
  zpSetGeometryLightAOVChannel(0, kZpLambertian);
  zpSetGeometryLightAOVShaderName(0, "lamp");

  const int camera = zpAddCamera();
  zpSetCameraName(camera, "main");
  zpSetCameraResolution(camera, 24, 18);
  zpSetCameraSample(camera, 3);
  zpSetCameraRegion(camera, 2, 1, 23, 18);
  zpSetCameraProjection(camera, gathered ? ::Projection::kSpherical : ::Projection::kPerspective);
  zpSetCameraAOVName(camera, zpAddCameraAOV(camera), "uv.pfm");
  zpSetCameraAOVChannel(camera, 1, kZpUserData);
  zpSetCameraAOVUserData(camera, 1, "uv");
  for (int time = 0; time <= (gathered ? 1 : 0); ++time) {
    zpSetCameraTime(camera, static_cast<float>(time));
    zpSetCameraPosition(camera, 0.1f * static_cast<float>(time), -7, 4);
    zpSetCameraTarget(camera, 0, 0, 0.5f);
    zpSetCameraUpVector(camera, 0, 0, 1);
    zpSetCameraBokeh(camera, 0.5f);
    zpSetCameraFOV(camera, 50);
  }

  const int grass =
      AddNamedObject("grass", {-0.2f, 0, 0, -0.1f, 0, 0.5f, 0.1f, 0, 0.8f, 0.3f, 0.1f, 0, 0.2f, 0, 0.7f});
  const float radii[] = {0.003f, 0.003f, 0.003f, 0.003f, 0.003f};
  const float along[10] = {};
  const int segments[] = {0, 1, 3};
  zpAddRadii(grass, 0, 5, radii);
  zpAddUVs(grass, 0, 5, along);
  zpAddCylinders(grass, 0, 3, segments);
  const int spike = AddNamedObject("spike", {-1, -1, 0, 1, -1, 0, 0, 0, 2, 0, 1, 0});
  AddFaces(spike, metal, {0, 1, 2, 1, 3, 2});
  AddFaces(spike, glass, {3, 0, 2});
  AddFaces(spike, lamp, {0, 3, 1});
  const int pair = AddNamedObject("pair", {});
  const int all = AddNamedObject("all", {-3, -3, 0, 3, -3, 0, 3, 3, 0, -3, 3, 0});
  const float uvs[] = {0, 0, 1, 0, 1, 1, 0, 1}, up[] = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
  zpAddUVs(all, 0, 4, uvs);
  zpAddNormals(all, 0, 4, up);
  AddFaces(all, cloth, {0, 1, 2, 0, 2, 3});
  const float left[4][4] = {{1, 0, 0, -1}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
  const float right[4][4] = {{0.5f, 0, 0, 1}, {0, 0.5f, 0, 0}, {0, 0, 0.5f, 0}, {0, 0, 0, 1}};
  const float tall[4][4] = {{8, 0, 0, 0}, {0, 8, 0, 0}, {0, 0, 8, 0}, {0, 0, 0, 1}};
  const float turned[4][4] = {{0, -1, 0, 0}, {1, 0, 0, 0}, {0, 0, 1, 1.5f}, {0, 0, 0, 1}};
  Place(pair, spike, left, -1);
  Place(pair, spike, right, metal);
  Place(all, grass, tall, blade);
  Place(all, pair, turned, -1);
}

class HostScenes : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    settings = {};
    skyLight = {};
    omp_set_num_threads(1);
  }
  void TearDown() override {
    omp_set_num_threads(threads_);
    fs::current_path(before_);
    settings = {};
    skyLight = {};
    SetConsoleQuiet(false);
  }

  // A new folder with the scene as text, where the process then works.
  void Enter(bool gathered) {
    const fs::path folder = root_.path / std::to_string(count_++), host = fs::path(kSources) / "tests/host";
    fs::copy(host / "studio", folder, fs::copy_options::recursive);
    const auto over = fs::copy_options::recursive | fs::copy_options::overwrite_existing;
    if (gathered) fs::copy(host / "gathered", folder, over);
    fs::current_path(folder);
  }

  // The pictures that a run left in the current folder.
  static Pictures Written() {
    Pictures pictures;
    for (const fs::directory_entry& entry : fs::directory_iterator("."))
      if (entry.is_regular_file()) pictures[entry.path().filename().string()] = ReadFile(entry.path());
    return pictures;
  }

  // Everything from a seeded start-up to the shut-down. What no reset touches is put back first, so that runs
  // can be compared. Functions initialise in their finer steps: photons of all lights are aimed at bounds
  // that are known by then.
  Pictures Run(bool gathered, bool byText) {
    Enter(gathered);
    settings = {};
    skyLight = {};
    Startup(7);
    if (byText)
      EXPECT_TRUE(LoadScene("./"));
    else
      BuildStudio(gathered);
    zpSetCameraAOVName(0, 0, "beauty.pfm");
    for (const auto step :
         {zpInitializeCameras, zpInitializeShaders, zpInitializeGaffer, zpInitializeSkyLight,
          zpInitializeGeometryLight, zpInitializeAccelerator, zpInitializeRenderer})
      if (!byText) step();
    if (byText) zpInitialize();
    zpRender();
    zpFinalize();
    zpShutdown();
    ExpectNothingLeft();
    return Written();
  }

  static void ExpectNothingLeft() {
    EXPECT_TRUE(cameras.empty() && shaders.empty() && objectTable.empty() && images.empty());
    EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
    EXPECT_TRUE(skyLight.aovs.empty() && skyLight.link.shaders.empty() && geometryLight.aovs.empty());
    EXPECT_TRUE(photonStore.photons.empty() && photonStore.nodes.empty());
  }

 private:
  const TemporaryFolder root_;
  const fs::path before_ = fs::current_path();
  const int threads_ = omp_get_max_threads();
  int count_ = 0;
};

// Nothing of a scene shows in those that follow it in the same process: the second time each has another one
// before it.
TEST_F(HostScenes, FunctionsAndTextGiveTheSamePictures) {
  Pictures byText[2];
  for (const bool gathered : {false, true}) byText[gathered] = Run(gathered, true);
  for (const bool gathered : {true, false}) {
    const Pictures byFunctions = Run(gathered, false);
    ASSERT_EQ(byFunctions.size(), 6U);
    ASSERT_EQ(byText[gathered].size(), byFunctions.size());
    for (const auto& [name, bytes] : byFunctions) {
      EXPECT_TRUE(byText[gathered][name] == bytes) << gathered << name;
      EXPECT_GT(std::set<char>(bytes.begin(), bytes.end()).size(), 20U) << gathered << name << " is blank";
    }
  }
}

TEST_F(HostScenes, GoesThroughFoldersInARow) {
  for (const bool gathered : {false, true}) {
    Enter(gathered);
    zpGo("./");
    ExpectNothingLeft();
    EXPECT_TRUE(haltonTables[0].empty());
    const Pictures written = Written();
    EXPECT_EQ(written.size(), 6U);
    EXPECT_TRUE(written.begin()->first.starts_with("beauty-"));
  }
}

TEST_F(HostScenes, CallsOutOfPlace) {
  zpFinalize();
  zpShutdown();
  zpRender();
  float pixels[12] = {};
  zpRenderPixels(4, pixels, 0);
  EXPECT_EQ(pixels[0], 0);
  zpStartup();
  zpRender();
  zpInitialize();
  zpRender();
  zpAddPart(zpAddObject());
  zpInitialize();
  EXPECT_TRUE(sceneBounds.min.x > sceneBounds.max.x);
  zpFinalize();
  zpFinalize();
  zpShutdown();
  ExpectNothingLeft();
}

}  // namespace
}  // namespace zp
