// A host's view: scenes built by the exported functions beside the same scenes as text, several in one
// process, and calls that no host should make.

#include <gtest/gtest.h>
#include <omp.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "accel/accel.h"
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

// One scene, said twice.
struct TwofoldScene {
  std::map<std::string, std::string> files;  // of the scene folder, by path
  std::function<void()> build;               // between start-up and initialisation
};

// The functions of a few scenes, several at a time.
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

// A displaced table under all kinds of light, with things of several materials on it, two instance levels
// deep. Gathered, it is lit by density cells and the sky's model, and its camera sees all around and moves.
TwofoldScene Studio(bool gathered) {
  TwofoldScene scene;
  scene.files["model/table.obj"] =
      "v -3 -3 0\nv 3 -3 0\nv 3 3 0\nv -3 3 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvn 0 0 1\n"
      "usemtl cloth\nf 1/1/1 2/2/1 3/3/1\nf 1/1/1 3/3/1 4/4/1\n";
  scene.files["model/spike.obj"] =
      "v -1 -1 0\nv 1 -1 0\nv 0 1 0\nv 0 0 2\n"
      "usemtl metal\nf 1 2 4\nf 2 3 4\nusemtl glass\nf 3 1 4\nusemtl lamp\nf 1 3 2\n";
  scene.files["model/grass.fur"] =
      "segment 2\nposition -0.2 0 0\nposition -0.1 0 0.5\nposition 0.1 0 0.8\n"
      "segment 1\nposition 0.3 0.1 0\nposition 0.2 0 0.7\n";
  scene.files["image/paint.pfm"] = "PF\n2 1\n-1.0\n" + std::string("\0\0\0\x3f\0\0\x80\x3f\0\0\x80\x3e", 12) +
                                   std::string("\0\0\0\x3e\0\0\0\x3f\0\0\x80\x3f", 12);
  scene.files["shader/a.zp"] =
      "shader\nname \"cloth\"\nsurface_shader\nlambertian\ncolor 0.7 0.7 0.7\nimage \"image/paint.pfm\"\n"
      "sampler\ngamma 1.5\nend\nend\nend\ngeometry_shader\nvector\ncolor 0 0 0.1\nlevel 2\nend\nend\nend\n"
      "shader\nname \"metal\"\nsurface_shader\nconductor\nglossy\ncolor 0.9 0.6 0.3\nend\n"
      "roughness\ncolor 0.3 0.3 0.3\nend\nanisotropy\ncolor 0.5 0.5 0.5\nend\nior\ncolor 8 8 "
      "8\nend\nend\nend\n"
      "shader\nname \"glass\"\nsurface_shader\nthin_dielectric\nsideness \"both\"\n"
      "specular\ncolor 1 1 1\nend\nior\ncolor 1.5 1.5 1.5\nend\nweight\ncolor 2 2 2\nend\n"
      "shadow_transparency\ncolor 0.8 0.9 0.8\nend\nend\n"
      "surface_shader\ntransmissive\ncolor 0.2 0.5 0.2\nend\nweight\ncolor 1 1 1\nend\nend\n"
      "geometry_shader\nsmooth_angle 40\nend\nend\n"
      "shader\nname \"lamp\"\nsurface_shader\nvirtual_light\nemissive\ncolor 3 2 1\nend\nend\n"
      "geometry_shader\ncamera_primary 0\nend\nend\n"
      "shader\nname \"blade\"\nsurface_shader\nlambertian\ncolor 0.2 0.5 0.1\nend\n"
      "glossy\ncolor 0.3 0.3 0.3\nend\nroughness\ncolor 0.3 0.3 0.3\nend\nend\nend\n";
  scene.files["render/a.zp"] =
      "render\nclamp 40 40 40\nerror 1 0 1\nfinal_gather\nray_depth 6\nphoton_depth 5\nsample 8\nbounce 2\n" +
      std::string(gathered ? "distance 0.3\nresolution 0.05\n" : "distance 0\nresolution 0\n") +
      "radius 0.5\nend\nend\n";
  const std::string sky = gathered ? "analytic" : "image/paint.pfm";
  scene.files["light/a.zp"] =
      "point_light\ncolor 6 5 4\nposition -1 -2 3\nblur 0.2\ndirection 0 0 -1\ninner_angle 30\n"
      "outer_angle 120\noffset 0.05\nsample 8\nphoton 2000\naov\nimage \"point.pfm\"\ntype "
      "\"lambertian\"\nend\n"
      "end\n"
      "parallel_light\ncolor 0.5 0.5 0.4\ndirection 1 1 -2\nblur 2\noffset 0\nsample 4\nphoton 0\n"
      "link\nshader \"cloth\"\nend\naov\nimage \"sun.pfm\"\ntype \"lambertian\"\ntype \"glossy\"\nend\nend\n"
      "sky_light\nimage \"" +
      sky +
      "\"\ncolor 0.2 0.3 0.4\nphoton 1000\nsample 4\nnorth 1 0 0\nzenith 0 0 1\n"
      "aov\nimage \"sky.pfm\"\ntype \"lambertian\"\nend\nend\n"
      "geometry_light\nphoton 1000\nsample 4\naov\nimage \"lamp.pfm\"\ntype \"lambertian\"\n"
      "shader \"lamp\"\nend\nend\n";
  const std::string pose = " -7 4\ntarget 0 0 0.5\nup_vector 0 0 1\nbokeh 0.5\nfield_of_view 50\nend\n";
  scene.files["camera/a.zp"] =
      "camera\nname \"main\"\nresolution 24 18\nregion 2 1 23 18\nsample 3\nprojection \"" +
      std::string(gathered ? "spherical" : "perspective") +
      "\"\naov\nimage \"uv.pfm\"\ntype \"uv\"\nend\npose\nposition 0" + pose +
      (gathered ? "pose\nposition 0.1" + pose : "") + "end\n";
  scene.files["geometry/a.zp"] =
      "object\nname grass\nfur \"model/grass.fur\"\nend\nobject\nname spike\nobj \"model/spike.obj\"\nend\n"
      "object\nname pair\ninstance\nobject spike\nmatrix 1 0 0 -1  0 1 0 0  0 0 1 0  0 0 0 1\nend\n"
      "instance\nobject spike\nshader \"metal\"\nmatrix 0.5 0 0 1  0 0.5 0 0  0 0 0.5 0  0 0 0 1\nend\nend\n"
      "object\nname all\nobj \"model/table.obj\"\ninstance\nobject grass\nshader \"blade\"\nend\n"
      "instance\nobject pair\nmatrix 0 -1 0 0  1 0 0 0  0 0 1 1.5  0 0 0 1\nend\nend\n";
  scene.build = [gathered, sky] {
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
    Paint(glass, zpAddSurfaceShader(glass),
          {{E::kTransmissive, {0.2f, 0.5f, 0.2f}}, {E::kWeight, {1, 1, 1}}});
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
    zpSetParallelLightPhoton(sun, 0);
    zpSetParallelLightShaderLink(sun, cloth);
    zpSetParallelLightAOVName(sun, zpAddParallelLightAOV(sun), "sun.pfm");
    zpSetParallelLightAOVChannel(sun, 0, kZpLambertian);
    zpSetParallelLightAOVChannel(sun, 0, kZpGlossy);
    zpSetSkyLightImage(sky.c_str());
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
    const float along[] = {0, 0, 0, 0.5f, 0, 1, 0, 0, 0, 1};
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
    const float turned[4][4] = {{0, -1, 0, 0}, {1, 0, 0, 0}, {0, 0, 1, 1.5f}, {0, 0, 0, 1}};
    Place(pair, spike, left, -1);
    Place(pair, spike, right, metal);
    Place(all, grass, nullptr, blade);
    Place(all, pair, turned, -1);
  };
  return scene;
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

  // A new folder with the files of a scene, where the process then works.
  void Enter(const TwofoldScene& scene) {
    const fs::path folder = root_.path / std::to_string(count_++);
    for (const auto& [name, bytes] : scene.files) WriteFile(folder / name, bytes);
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
  // can be compared.
  Pictures Run(const TwofoldScene& scene, bool byText) {
    Enter(scene);
    settings = {};
    skyLight = {};
    Startup(7);
    if (byText)
      EXPECT_TRUE(LoadScene("./"));
    else
      scene.build();
    zpSetCameraAOVName(0, 0, "beauty.pfm");
    zpInitialize();
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
  const TwofoldScene scenes[] = {Studio(false), Studio(true)};
  Pictures byText[2];
  for (int i : {0, 1}) byText[i] = Run(scenes[i], true);
  for (int i : {1, 0}) {
    const Pictures byFunctions = Run(scenes[i], false);
    ASSERT_EQ(byFunctions.size(), 6U);
    ASSERT_EQ(byText[i].size(), byFunctions.size());
    for (const auto& [name, bytes] : byFunctions) {
      EXPECT_TRUE(byText[i][name] == bytes) << i << name;
      EXPECT_GT(std::set<char>(bytes.begin(), bytes.end()).size(), 20U) << i << name << " is blank";
    }
  }
}

TEST_F(HostScenes, GoesThroughFoldersInARow) {
  for (const bool gathered : {false, true}) {
    Enter(Studio(gathered));
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
