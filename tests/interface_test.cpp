// The interface that hosts link: every symbol of the library, and every one of them explained in its header.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "built_files.h"
#include "core/console.h"
#include "core/settings.h"
#include "frame/zp.h"
#include "geometry/object.h"
#include "imaging/imaging.h"
#include "integrator/estimator.h"
#include "lights/lights.h"
#include "shading/shading.h"
#include "surroundings.h"

namespace zp {
namespace {

using Strings = std::vector<std::string>;

// What the dynamic library offers, demangled and sorted.
Strings ExportedFunctions() {
  Strings list;
  std::istringstream rows(OutputOf("nm -DC --defined-only '" + std::string(kLibrary) + "'"));
  std::string address, kind, symbol;
  while (rows >> address >> kind && std::getline(rows >> std::ws, symbol)) {
    EXPECT_EQ(kind, "T") << symbol << " is no ordinary function";
    list.push_back(symbol);
  }
  std::sort(list.begin(), list.end());
  return list;
}

// Those of `a` that are not in `b`, one a line. Both are sorted.
std::string Surplus(const Strings& a, const Strings& b) {
  Strings rest;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(rest));
  std::string text;
  for (const std::string& s : rest) text += s + "\n";
  return text;
}

// A declared argument without its name, in a demangler's order of words: `const float matrix[][4]` becomes
// `float const (*) [4]`.
std::string ArgumentType(std::string argument) {
  std::string bounds;
  if (const std::size_t bracket = argument.find("[]"); bracket != std::string::npos) {
    bounds = " (*) " + argument.substr(bracket + 2);
    argument.resize(bracket);
  }
  std::string type = argument.substr(0, argument.rfind(' '));
  if (type.starts_with("const ")) {
    type.erase(0, 6);
    type.insert(type.find_first_of('*') == std::string::npos ? type.size() : type.find('*'), " const");
  }
  return type + bounds;
}

// Likewise of what the header declares, each of them behind its explanation.
Strings DeclaredFunctions() {
  std::ifstream file(std::string(kSources) + "/src/frame/zp.h");
  EXPECT_TRUE(file.is_open());
  Strings declared;
  std::string before;
  for (std::string line; std::getline(file, line); before = line) {
    // Every declaration begins a line with its result.
    if (!line.starts_with("void zp") && !line.starts_with("int zp")) continue;
    EXPECT_TRUE(before.starts_with("///")) << line << " has no explanation";
    for (std::string more; line.find(';') == std::string::npos && std::getline(file, more);)
      line += " " + more.substr(std::min(more.find_first_not_of(' '), more.size()));
    const std::size_t name = line.find("zp"), open = line.find('('), close = line.find(')');
    EXPECT_TRUE(open < close && close < line.size()) << "unreadable: " << line;
    std::string types;
    std::istringstream arguments(line.substr(open + 1, close - open - 1));
    for (std::string argument; std::getline(arguments >> std::ws, argument, ',');)
      types += (types.empty() ? "" : ", ") + ArgumentType(argument);
    declared.push_back(line.substr(name, open - name) + "(" + types + ")");
    // What a symbol does not tell: the result, an index where a record is added and not its data; and that no
    // exception gets through.
    const bool addsRecord = line.find("zpAdd") == name && types.find(',') == std::string::npos;
    EXPECT_EQ(line.starts_with("int"), addsRecord) << line;
    EXPECT_EQ(line.substr(close), ") noexcept;") << line;
  }
  std::sort(declared.begin(), declared.end());
  return declared;
}

TEST(Interface, TheLibraryExportsWhatTheHeaderDeclares) {
  const Strings declared = DeclaredFunctions(), exported = ExportedFunctions();
  EXPECT_EQ(Surplus(declared, exported), "") << "missing in the library";
  EXPECT_EQ(Surplus(exported, declared), "") << "missing in the header";
  EXPECT_EQ(exported.size(), 125U);
}

// Hosts as the header tells them to be, in an empty library.
class Host : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    zpFinalize();
    kept_ = settings;
    zpStartup();
    settings.said.distance = 0;
  }
  void TearDown() override {
    zpFinalize();
    zpShutdown();
    settings = kept_;
    skyLight = {};
    imageSearchPaths = {};
    SetConsoleQuiet(false);
  }

  static int AddLamp() {
    const int shader = zpAddShader();
    zpSetShaderName(shader, "lamp");
    zpSetSurfaceColor(shader, zpAddSurfaceShader(shader), ::Element::kEmissive, 3, 3, 3);
    return shader;
  }
  static void AddTriangle(int object, int part) {
    const float corners[3][3] = {{-1, 0, -1}, {1, 0, -1}, {0, 0, 1}};
    const int triangle[3] = {0, 1, 2};
    zpAddPositions(object, part, 3, corners[0]);
    zpAddTriangles(object, part, 1, triangle);
  }

 private:
  RendererSettings kept_;
};

TEST_F(Host, IndicesCountFromTheFirstRecord) {
  EXPECT_EQ(zpAddShader(), 1);  // behind "undefined"
  for (const auto add : {zpAddObject, zpAddCamera, zpAddPointLight, zpAddParallelLight, zpAddSkyLightAOV,
                         zpAddGeometryLightAOV})
    for (const int index : {0, 1}) EXPECT_EQ(add(), index);
  for (const auto add : {zpAddPart, zpAddInstance, zpAddSurfaceShader, zpAddDisplacementShader,
                         zpAddPointLightAOV, zpAddParallelLightAOV})
    for (const int index : {0, 1}) EXPECT_EQ(add(1), index);
  EXPECT_EQ(zpAddCameraAOV(0), 1);  // behind the beauty image
}

TEST_F(Host, WrongIndicesCountsAndNullsChangeNothing) {
  const int object = zpAddObject(), part = zpAddPart(object), camera = zpAddCamera();
  const float numbers[16] = {};
  const int vertices[4] = {};
  for (const int wrong : {-1, 1, 1 << 30}) {
    for (const auto add : {zpAddPart, zpAddInstance, zpAddSurfaceShader, zpAddDisplacementShader,
                           zpAddCameraAOV, zpAddPointLightAOV, zpAddParallelLightAOV})
      EXPECT_EQ(add(wrong), -1);
    zpAddPositions(object, wrong, 1, numbers);
    zpAddTetragons(wrong, part, 1, vertices);
    zpAddVertexData(object, wrong, "x", 1, 3, numbers);
    zpSetInstance(object, wrong, 0, nullptr, -1);
    zpSetSurfaceColor(0, wrong, ::Element::kLambertian, 9, 9, 9);
    zpSetSurfaceColor(0, 0, static_cast<::Element>(wrong == 1 ? 16 : wrong), 9, 9, 9);
    zpSetDisplacementLevel(0, wrong, 3);
    zpSetCameraPosition(wrong, 1, 2, 3);
    zpSetCameraAOVName(camera, wrong, "x");
    zpSetPointLightPhoton(wrong, 1);
    zpSetParallelLightShaderLink(wrong, 1);
    zpSetSkyLightAOVName(wrong, "x");
    zpSetGeometryLightAOVShaderName(wrong, "x");
  }
  for (const int count : {0, -5}) {
    for (const auto add : {zpAddPositions, zpAddNormals, zpAddTangents, zpAddUVs, zpAddRadii})
      add(object, part, count, numbers);
    for (const auto add : {zpAddTriangles, zpAddTetragons, zpAddCylinders, zpAddParticles})
      add(object, part, count, vertices);
    zpAddVertexData(object, part, "heat", count, 1, numbers);
  }
  for (const auto add : {zpAddPositions, zpAddNormals, zpAddTangents, zpAddUVs, zpAddRadii})
    add(object, part, 1, nullptr);
  zpSetObjectName(object, nullptr);
  const Part& kept = objectTable[0].parts[0];
  EXPECT_TRUE(kept.positions.empty() && kept.triangles.empty() && kept.tetragons.empty());
  EXPECT_TRUE(kept.uvSets[0].values.empty());
  EXPECT_EQ(shaders[0].surfaces[0][zp::Element::kLambertian].color, (Vec3{0.85f, 0.85f, 0.85f}));
  EXPECT_EQ(cameras[0].poses[0].position, Vec3());
  EXPECT_EQ(objectTable[0].name, "");
}

TEST_F(Host, ShadersThatCountAsNone) {
  const int named = AddLamp();
  const int unnamed = zpAddShader();
  zpAddSurfaceShader(unnamed);
  const int bare = zpAddShader();  // a name, but no layer
  zpSetShaderName(bare, "bare");
  const int object = zpAddObject(), part = zpAddPart(object);
  for (const int shader : {unnamed, bare, 1 << 20, named}) {
    zpSetShaderID(object, part, shader);
    AddTriangle(object, part);
  }
  zpInitialize();
  for (const Triangle& triangle : objectTable[0].parts[0].triangles) EXPECT_EQ(triangle.shader, named);
}

TEST_F(Host, AnInstanceWithoutTargetFindsTheFirstObjectWithoutName) {
  const int root = zpAddObject(), other = zpAddObject(), blank = zpAddObject();
  zpSetObjectName(root, "root");
  zpSetObjectName(other, "other");
  const float moved[4][4] = {{1, 0, 0, 7}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
  zpSetInstance(root, zpAddInstance(root), other, moved, -1);
  zpSetInstance(root, 0, other, nullptr, -1);  // keeps the matrix
  zpAddInstance(root);
  zpInitialize();
  EXPECT_EQ(objectTable[0].instances[0].object, other);
  EXPECT_EQ(objectTable[0].instances[0].matrix.m[0][3], 7);
  EXPECT_EQ(objectTable[0].instances[1].object, blank);
}

TEST_F(Host, ChannelsReplaceOnCamerasAndAddUpOnLights) {
  const int camera = zpAddCamera(), aov = zpAddCameraAOV(camera);
  const int light = zpAddPointLight(), image = zpAddPointLightAOV(light);
  for (const ::Channel channel : {kZpLambertian, kZpGlossy}) {
    zpSetCameraAOVChannel(camera, aov, channel);
    zpSetPointLightAOVChannel(light, image, channel);
  }
  EXPECT_EQ(cameras[0].aovs[1].channel, 64u);
  EXPECT_EQ(pointLights[0].aovs[0].channel, 1u + 4 + 64);
}

TEST_F(Host, TheGeometryLightsTwoFunctionsActOnTheSky) {
  zpSetSkyLightColor(0.0009f, 0.0009f, 0.0009f);
  zpSetGeometryLightPhoton(5);
  zpInitializeGeometryLight();
  EXPECT_EQ(skyLight.photon, 0);  // a black sky is readied
  EXPECT_FALSE(geometryLight.initialized);
  zpFinalizeGeometryLight();
  EXPECT_EQ(PhotonsOf(skyLight.photon), 1000000);
  EXPECT_EQ(geometryLight.photon, 5);
  zpInitializeRenderer();  // readies what no function of its own does
  EXPECT_TRUE(geometryLight.initialized);
  EXPECT_EQ(geometryLight.photon, 0);  // nothing emits
}

// The gather obeys at once; what light samples weigh stays as it was.
TEST_F(Host, SamplesSetAfterInitialisation) {
  zpSetRendererSample(16);
  zpSetRendererBounce(2);
  zpInitialize();
  skyLight.sample = geometryLight.sample = 4;  // without a picture or emitters none is drawn
  zpSetRendererSample(4);
  EXPECT_EQ(settings.said.rendererSample, 4);
  EXPECT_FLOAT_EQ(LightSampleWeight({}, 1, 1, BudgetsOf(skyLight)), 0.2f);
  EXPECT_FLOAT_EQ(LightSampleWeight({}, 1, 1, BudgetsOf(geometryLight)), 0.2f);
}

}  // namespace
}  // namespace zp
