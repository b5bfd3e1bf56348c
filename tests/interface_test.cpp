// The interface that hosts link: every symbol of the library, and every one of them explained in its header.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
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

namespace zp {
namespace {

constexpr const char* kSignatures[] = {
    "zpStartup()",
    "zpShutdown()",
    "zpGo(char const*)",
    "zpInitialize()",
    "zpFinalize()",
    "zpInitializeCameras()",
    "zpFinalizeCameras()",
    "zpInitializeShaders()",
    "zpFinalizeShaders()",
    "zpInitializeGaffer()",
    "zpFinalizeGaffer()",
    "zpInitializeSkyLight()",
    "zpFinalizeSkyLight()",
    "zpInitializeGeometryLight()",
    "zpFinalizeGeometryLight()",
    "zpInitializeAccelerator()",
    "zpFinalizeAccelerator()",
    "zpInitializeRenderer()",
    "zpFinalizeRenderer()",
    "zpRender()",
    "zpRenderPixels(int, float*, int)",
    "zpSetPreviewWindow(bool)",
    "zpSetDisplayGamma(float)",
    "zpSetRendererClamp(float, float, float)",
    "zpSetRendererError(float, float, float)",
    "zpSetRendererRayDepth(int)",
    "zpSetRendererPhotonDepth(int)",
    "zpSetRendererSample(int)",
    "zpSetRendererBounce(int)",
    "zpSetRendererDistance(float)",
    "zpSetRendererResolution(float)",
    "zpSetRendererRadius(float)",
    "zpAddObject()",
    "zpSetObjectName(int, char const*)",
    "zpAddPart(int)",
    "zpSetShaderID(int, int, int)",
    "zpAddPositions(int, int, int, float const*)",
    "zpAddNormals(int, int, int, float const*)",
    "zpAddTangents(int, int, int, float const*)",
    "zpAddUVs(int, int, int, float const*)",
    "zpAddRadii(int, int, int, float const*)",
    "zpAddTriangles(int, int, int, int const*)",
    "zpAddTetragons(int, int, int, int const*)",
    "zpAddCylinders(int, int, int, int const*)",
    "zpAddParticles(int, int, int, int const*)",
    "zpAddVertexData(int, int, char const*, int, int, float const*)",
    "zpAddInstance(int)",
    "zpSetInstance(int, int, int, float const (*) [4], int)",
    "zpAddShader()",
    "zpSetShaderName(int, char const*)",
    "zpSetShaderVisibility(int, Visibility)",
    "zpSetShaderSmoothAngle(int, float)",
    "zpSetShaderRoundCorner(int, float)",
    "zpSetShaderTime(int, float)",
    "zpAddSurfaceShader(int)",
    "zpSetSurfaceColor(int, int, Element, float, float, float)",
    "zpSetSurfaceImage(int, int, Element, char const*, float, float const (*) [4], float const (*) [3])",
    "zpSetSurfaceMaterial(int, int, Material)",
    "zpSetSurfaceSideness(int, int, Sideness)",
    "zpSetSurfaceVirtualLight(int, int, bool)",
    "zpAddDisplacementShader(int)",
    "zpSetDisplacementImage(int, int, char const*, float, float const (*) [4], float const (*) [3])",
    "zpSetDisplacementLevel(int, int, int)",
    "zpSetDisplacementVector(int, int, float, float, float)",
    "zpAddCamera()",
    "zpSetCameraName(int, char const*)",
    "zpSetCameraPosition(int, float, float, float)",
    "zpSetCameraTarget(int, float, float, float)",
    "zpSetCameraUpVector(int, float, float, float)",
    "zpSetCameraBokeh(int, float)",
    "zpSetCameraFOV(int, float)",
    "zpSetCameraAngleMeasure(int, AngleMeasure)",
    "zpSetCameraExposure(int, float, float, float)",
    "zpSetCameraSample(int, int)",
    "zpSetCameraTime(int, float)",
    "zpSetCameraProjection(int, Projection)",
    "zpSetCameraResolution(int, int, int)",
    "zpSetCameraRegion(int, int, int, int, int)",
    "zpAddCameraAOV(int)",
    "zpSetCameraAOVChannel(int, int, Channel)",
    "zpSetCameraAOVName(int, int, char const*)",
    "zpSetCameraAOVUserData(int, int, char const*)",
    "zpAddPointLight()",
    "zpSetPointLightColor(int, float, float, float)",
    "zpSetPointLightPosition(int, float, float, float)",
    "zpSetPointLightDirection(int, float, float, float)",
    "zpSetPointLightBlur(int, float)",
    "zpSetPointLightOffset(int, float)",
    "zpSetPointLightInnerAngle(int, float)",
    "zpSetPointLightOuterAngle(int, float)",
    "zpSetPointLightSample(int, int)",
    "zpSetPointLightPhoton(int, int)",
    "zpSetPointLightShaderLink(int, int)",
    "zpAddPointLightAOV(int)",
    "zpSetPointLightAOVChannel(int, int, Channel)",
    "zpSetPointLightAOVName(int, int, char const*)",
    "zpAddParallelLight()",
    "zpSetParallelLightColor(int, float, float, float)",
    "zpSetParallelLightDirection(int, float, float, float)",
    "zpSetParallelLightBlur(int, float)",
    "zpSetParallelLightOffset(int, float)",
    "zpSetParallelLightSample(int, int)",
    "zpSetParallelLightPhoton(int, int)",
    "zpSetParallelLightShaderLink(int, int)",
    "zpAddParallelLightAOV(int)",
    "zpSetParallelLightAOVChannel(int, int, Channel)",
    "zpSetParallelLightAOVName(int, int, char const*)",
    "zpSetSkyLightColor(float, float, float)",
    "zpSetSkyLightNorth(float, float, float)",
    "zpSetSkyLightZenith(float, float, float)",
    "zpSetSkyLightImage(char const*)",
    "zpSetSkyLightBackdrop(char const*)",
    "zpSetSkyLightSample(int)",
    "zpSetSkyLightPhoton(int)",
    "zpSetSkyLightShaderLink(int)",
    "zpAddSkyLightAOV()",
    "zpSetSkyLightAOVChannel(int, Channel)",
    "zpSetSkyLightAOVName(int, char const*)",
    "zpSetGeometryLightSample(int)",
    "zpSetGeometryLightPhoton(int)",
    "zpSetGeometryLightShaderLink(int)",
    "zpAddGeometryLightAOV()",
    "zpSetGeometryLightAOVChannel(int, Channel)",
    "zpSetGeometryLightAOVName(int, char const*)",
    "zpSetGeometryLightAOVShaderName(int, char const*)",
};
static_assert(std::size(kSignatures) == 125);

using Strings = std::vector<std::string>;

Strings Expected() {
  Strings list(std::begin(kSignatures), std::end(kSignatures));
  std::sort(list.begin(), list.end());
  return list;
}

// What the dynamic library offers, demangled and sorted; what nm could not tell is a failure.
Strings ExportedSymbols() {
  std::string text;
  std::FILE* pipe = popen(("nm -DC --defined-only '" + std::string(kLibrary) + "'").c_str(), "r");
  char buffer[4096];
  for (std::size_t n = 0; pipe != nullptr && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    text.append(buffer, n);
  const int status = pipe == nullptr ? -1 : pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  Strings list;
  std::istringstream rows(text);
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

void ExpectSame(const Strings& found, const char* where) {
  EXPECT_EQ(Surplus(Expected(), found), "") << "missing in " << where;
  EXPECT_EQ(Surplus(found, Expected()), "") << "surplus in " << where;
  EXPECT_EQ(found.size(), std::size(kSignatures)) << "in " << where;
}

TEST(Interface, TheLibraryExportsTheListedFunctionsAndNothingElse) {
  ExpectSame(ExportedSymbols(), "the library");
}

bool BeginsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// A declared argument without its name, in a demangler's order of words: `const float matrix[][4]` becomes
// `float const (*) [4]`.
std::string ArgumentType(std::string argument) {
  std::string bounds;
  if (const std::size_t bracket = argument.find("[]"); bracket != std::string::npos) {
    bounds = " (*) " + argument.substr(bracket + 2);
    argument.resize(bracket);
  }
  std::string type = argument.substr(0, argument.rfind(' '));
  if (BeginsWith(type, "const ")) {
    type.erase(0, 6);
    type.insert(type.find_first_of('*') == std::string::npos ? type.size() : type.find('*'), " const");
  }
  return type + bounds;
}

TEST(Interface, TheHeaderDeclaresAndExplainsEachOfThem) {
  std::ifstream file(std::string(kSources) + "/src/frame/zp.h");
  EXPECT_TRUE(file.is_open());
  Strings declared;
  std::string before;
  for (std::string line; std::getline(file, line); before = line) {
    // Every declaration begins a line with its result.
    if (!BeginsWith(line, "void zp") && !BeginsWith(line, "int zp")) continue;
    EXPECT_TRUE(BeginsWith(before, "///")) << line << " has no explanation";
    for (std::string more; line.find(';') == std::string::npos && std::getline(file, more);)
      line += " " + more.substr(std::min(more.find_first_not_of(' '), more.size()));
    const std::size_t name = line.find("zp"), open = line.find('('), close = line.find(')');
    ASSERT_TRUE(open < close && close < line.size()) << "unreadable: " << line;
    std::string types;
    std::istringstream arguments(line.substr(open + 1, close - open - 1));
    for (std::string argument; std::getline(arguments >> std::ws, argument, ',');)
      types += (types.empty() ? "" : ", ") + ArgumentType(argument);
    declared.push_back(line.substr(name, open - name) + "(" + types + ")");
    // What a symbol does not tell: the result, an index where a record is added and not its data; and that no
    // exception gets through.
    const bool addsRecord = line.find("zpAdd") == name && types.find(',') == std::string::npos;
    EXPECT_EQ(BeginsWith(line, "int"), addsRecord) << line;
    EXPECT_EQ(line.substr(close), ") noexcept;") << line;
  }
  std::sort(declared.begin(), declared.end());
  ExpectSame(declared, "the header");
}

// Hosts as the header tells them to be, in an empty library.
class Host : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    zpFinalize();
    kept_ = settings;
    zpStartup();
    settings.distance = 0;
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
  EXPECT_EQ(zpAddObject(), 0);
  EXPECT_EQ(zpAddObject(), 1);
  EXPECT_EQ(zpAddPart(1), 0);
  EXPECT_EQ(zpAddInstance(1), 0);
  EXPECT_EQ(zpAddSurfaceShader(1), 0);
  EXPECT_EQ(zpAddDisplacementShader(1), 0);
  EXPECT_EQ(zpAddCamera(), 0);
  EXPECT_EQ(zpAddCameraAOV(0), 1);  // behind the beauty image
  EXPECT_EQ(zpAddPointLight(), 0);
  EXPECT_EQ(zpAddPointLightAOV(0), 0);
  EXPECT_EQ(zpAddParallelLight(), 0);
  EXPECT_EQ(zpAddParallelLightAOV(0), 0);
  EXPECT_EQ(zpAddSkyLightAOV(), 0);
  EXPECT_EQ(zpAddGeometryLightAOV(), 0);
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

TEST_F(Host, RenderPixelsGivesOnePassAndLeavesTheMeanAlone) {
  const int object = zpAddObject(), part = zpAddPart(object);
  zpSetShaderID(object, part, AddLamp());
  AddTriangle(object, part);
  const int camera = zpAddCamera(), depth = zpAddCameraAOV(camera);
  zpSetCameraPosition(camera, 0, -4, 0);
  zpSetCameraUpVector(camera, 0, 0, 1);
  zpSetCameraFOV(camera, 5);
  zpSetCameraResolution(camera, 4, 2);
  zpSetCameraSample(camera, 2);
  zpSetCameraRegion(camera, 1, 0, 3, 2);
  zpSetCameraAOVChannel(camera, depth, kZpDepth);
  zpInitialize();
  std::vector<float> out(3 * 6, -1);
  for (const int pass : {0, 3}) zpRenderPixels(5, out.data(), pass);  // 3 is pass 1 of 2
  for (std::size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i], i < 3 * 4 ? 3 : -1) << i;
  zpRenderPixels(1, nullptr, 0);
  zpRenderPixels(0, out.data(), 0);
  const ImageBuffer& beauty = cameras[0].aovs[0].image;
  for (std::size_t pixel = 0; pixel < 8; ++pixel) {
    const bool inside = pixel % 4 == 1 || pixel % 4 == 2;
    EXPECT_EQ(ReadPixel(beauty, pixel), Vec3()) << pixel;
    EXPECT_NEAR(ReadPixel(cameras[0].aovs[1].image, pixel).x, inside ? 4 : 0, 0.02f) << pixel;
  }
}

TEST_F(Host, TheGeometryLightsTwoFunctionsActOnTheSky) {
  zpSetSkyLightColor(0.0009f, 0.0009f, 0.0009f);
  zpSetGeometryLightPhoton(5);
  zpInitializeGeometryLight();
  EXPECT_EQ(skyLight.photon, 0);  // a black sky is readied
  EXPECT_FALSE(geometryLight.initialized);
  zpFinalizeGeometryLight();
  EXPECT_EQ(skyLight.photon, 1000000);
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
  EXPECT_EQ(settings.rendererSample, 4);
  EXPECT_FLOAT_EQ(LightSampleWeight({}, 1, 1, BudgetsOf(skyLight)), 0.2f);
  EXPECT_FLOAT_EQ(LightSampleWeight({}, 1, 1, BudgetsOf(geometryLight)), 0.2f);
}

}  // namespace
}  // namespace zp
