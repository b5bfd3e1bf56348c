#include <algorithm>

#include "accel/accel.h"
#include "core/console.h"
#include "core/files.h"
#include "core/format.h"
#include "core/random.h"
#include "core/release.h"
#include "core/sample_points.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/tables.h"
#include "frame/frame.h"
#include "imaging/imaging.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "scene/scene.h"
#include "shading/shading.h"

namespace zp {
namespace {

void AddImageSearchPath(const std::string& folder) {
  if (std::find(imageSearchPaths.begin(), imageSearchPaths.end(), folder) == imageSearchPaths.end())
    imageSearchPaths.push_back(folder);
}

void SetSearchPaths(const std::string& folder) {
  Release(imageSearchPaths);
  AddImageSearchPath(SceneImageFolder());
  AddImageSearchPath(folder);
  AddImageSearchPath("");
  geometrySearchPaths = {folder + "geometry", folder, ""};
}

void StartFormat(std::optional<std::int32_t> chosen) {
  std::string problem;
  settings.format = chosen ? *chosen : FormatOfEnvironment(problem);
  settings.formatIsSettled = chosen.has_value();
  formatProblem.clear();
  if (!problem.empty()) PrintError("settings - " + problem, {"format-unknown"});
}

}  // namespace

void Startup(std::optional<std::uint64_t> seed, std::optional<std::int32_t> format) {
  PrintRule();
  PrintLine("            zephlore Apr 30 2015");
  PrintLine("            light, patiently followed");
  PrintRule();
  StartFormat(format);
  ForgetReadPaths();
  FillExponentTable();
  StartImageFiles();
  AddImageSearchPath("");
  StartRandom(seed);
  FillHaltonTables();
  FillPixelRotationTable();
  StartSamplePoints();
  FillNoisePermutation();
  ResetGeometryLight();
  ResetSky();
  ResetRenderer();
  AddUndefinedShader();
}

bool LoadScene(const std::string& folder) {
  sceneFolder = folder;
  SetSearchPaths(folder);
  const std::int64_t start = ProcessorMilliseconds();
  const bool found = ReadSceneFolder(folder);
  const std::int64_t end = ProcessorMilliseconds();
  if (!found) PrintError("scene - " + folder + "\tcannot be found", {"scene-missing", folder});
  PrintFloatRow("scene parsing", static_cast<float>(static_cast<double>(end - start) / 1000.0), "seconds");
  PrintRule();
  return found;
}

void PrepareCameras() {
  InitializeCameras();
  for (Camera& camera : cameras)
    for (Aov& aov : camera.aovs) BindAovShader(aov);
}

void Initialize() {
  for (void (*const step)() : {PrepareCameras, InitializeShaders, InitializeAccelerator, InitializeSky,
                               InitializeGeometryLight, InitializeGaffer, InitializeRenderer})
    if (!Stopping()) step();
}

void Finalize() {
  FinalizeRenderer();
  FinalizeGaffer();
  FinalizeGeometryLight();
  FinalizeSky();
  FinalizeAccelerator();
  FinalizeCameras();
  FinalizeShaders();
  Release(images);
}

void Shutdown() {
  EmptyHaltonTables();
  StopImageFiles();
}

void Go(const std::string& folder) {
  Startup();
  LoadScene(folder);
  if (!formatProblem.empty()) PrintError("settings - " + formatProblem, {"format-unknown"});
  Initialize();
  settings.frame.passIndex = 0;
  RenderLoop();
  if (settings.said.previewWindow) {
    PrintLine("         click to close the preview window. happy rendering. thank you!         ");
    PrintRule();
  }
  Finalize();
  Shutdown();
}

}  // namespace zp
