// The interface that hosts link: every symbol of the library, and every one of them explained in its header.

#include <cxxabi.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "frame/zp.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZP_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZP_SANITIZED
#endif

namespace zp {
namespace {

// What a symbol does not tell: the results. No function lets an exception through.
static_assert(std::is_same_v<decltype(&zpAddObject), int (*)() noexcept>);
static_assert(std::is_same_v<decltype(&zpAddPart), int (*)(int) noexcept>);
static_assert(std::is_same_v<decltype(&zpAddSurfaceShader), int (*)(int) noexcept>);
static_assert(std::is_same_v<decltype(&zpAddCameraAOV), int (*)(int) noexcept>);
static_assert(std::is_same_v<decltype(&zpAddSkyLightAOV), int (*)() noexcept>);
static_assert(std::is_same_v<decltype(&zpGo), void (*)(const char*) noexcept>);
static_assert(std::is_same_v<decltype(&zpRenderPixels), void (*)(int, float*, int) noexcept>);
static_assert(
    std::is_same_v<decltype(&zpSetInstance), void (*)(int, int, int, const float (*)[4], int) noexcept>);

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

std::string Demangle(const std::string& symbol) {
  int status = -1;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), std::free);
  return status == 0 ? name.get() : symbol;
}

// Instrumented code keeps some of the run-time library's own templates and the linker's marks visible.
bool ComesFromSanitizer([[maybe_unused]] const std::string& name) {
#ifdef ZP_SANITIZED
  for (const char* prefix : {"std::", "__gnu_cxx::", "typeinfo for std::", "typeinfo name for std::",
                             "vtable for std::", "__", "_edata", "_end"})
    if (name.rfind(prefix, 0) == 0) return true;
#endif
  return false;
}

// What the dynamic library offers, demangled and sorted; what nm could not tell is a failure.
Strings ExportedSymbols() {
  Strings list;
  std::FILE* pipe = popen("nm -D --defined-only '" ZP_LIBRARY "'", "r");
  EXPECT_NE(pipe, nullptr);
  if (pipe == nullptr) return list;
  std::string text;
  char buffer[4096];
  for (std::size_t n = 0; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
  const int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  std::istringstream rows(text);
  for (std::string address, kind, symbol; rows >> address >> kind >> symbol;) {
    const std::string name = Demangle(symbol);
    if (ComesFromSanitizer(name)) continue;
    EXPECT_EQ(kind, "T") << name << " is no ordinary function";
    list.push_back(name);
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

struct Declaration {
  std::string signature;  // as a demangler writes it
  std::string before;     // the line above
  bool noThrow = false;
};

// A declared argument without its name, in a demangler's order of words.
std::string ArgumentType(const std::string& argument) {
  std::smatch m;
  static const std::regex matrix(R"(const (\w+) \w+\[\]\[(\d)\])"), pointer(R"(const (\w+)\* \w+)"),
      other(R"((\w+\*?) \w+)");
  if (std::regex_match(argument, m, matrix)) return m[1].str() + " const (*) [" + m[2].str() + "]";
  if (std::regex_match(argument, m, pointer)) return m[1].str() + " const*";
  if (std::regex_match(argument, m, other)) return m[1].str();
  return "unreadable: " + argument;
}

std::vector<Declaration> HeaderDeclarations() {
  std::ifstream file(ZP_SOURCES "/src/frame/zp.h");
  EXPECT_TRUE(file.is_open());
  std::vector<Declaration> list;
  static const std::regex start(R"(^(void|int) zp\w+\(.*)");
  static const std::regex whole(R"(\w+ (\w+)\((.*)\)( noexcept)?;)");
  std::string before;
  for (std::string line; std::getline(file, line); before = line) {
    if (!std::regex_match(line, start)) continue;
    Declaration declaration;
    declaration.before = before;
    for (std::string more; line.find(';') == std::string::npos && std::getline(file, more);)
      line += " " + more.substr(more.find_first_not_of(' '));
    std::smatch m;
    if (!std::regex_match(line, m, whole)) {
      ADD_FAILURE() << "unreadable: " << line;
      continue;
    }
    std::string types;
    std::istringstream arguments(m[2].str());
    for (std::string argument; std::getline(arguments >> std::ws, argument, ',');)
      types += (types.empty() ? "" : ", ") + ArgumentType(argument);
    declaration.signature = m[1].str() + "(" + types + ")";
    declaration.noThrow = m[3].matched;
    list.push_back(std::move(declaration));
  }
  return list;
}

TEST(Interface, TheHeaderDeclaresAndExplainsEachOfThem) {
  Strings declared;
  for (const Declaration& d : HeaderDeclarations()) {
    declared.push_back(d.signature);
    EXPECT_EQ(d.before.rfind("///", 0), 0u) << d.signature << " has no explanation";
    EXPECT_TRUE(d.noThrow) << d.signature;
  }
  std::sort(declared.begin(), declared.end());
  ExpectSame(declared, "the header");
}

}  // namespace
}  // namespace zp
