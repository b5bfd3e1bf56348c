// app/model_render.cpp: a model is rendered as it is, in a scene that is made for it.

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>

#include "commands.h"
#include "core/stop.h"
#include "imaging/imaging.h"
#include "import_run.h"
#include "scene/scene_writer.h"
#include "stop_signals.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// What the picture's light is multiplied by for the eye: its mean becomes a middle grey, but what is nearly
// brightest stays below white.
float ExposureOf(const ImageBuffer& picture) {
  constexpr float kMiddle = 0.3f, kBright = 0.95f;
  std::vector<float> lights;
  const std::size_t pixels =
      static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height);
  for (std::size_t p = 0; p < pixels; ++p)
    if (const float light = Mean(ReadPixel(picture, p)); light > 0 && std::isfinite(light))
      lights.push_back(light);
  if (lights.empty()) return 1;
  std::sort(lights.begin(), lights.end());
  double logarithms = 0;
  for (const float light : lights) logarithms += std::log(static_cast<double>(light));
  const double mean = std::exp(logarithms / static_cast<double>(lights.size()));
  const float bright = lights[lights.size() * 97 / 100];
  return std::min(static_cast<float>(kMiddle / mean), kBright / bright);
}

// Renders a small picture of the scene. None where that fails: the render itself will say why.
std::optional<float> MeasureExposure(const RenderOptions& options, const fs::path& scene) {
  const std::string name = (scene / "exposure.pfm").string();
  std::vector<std::string> words = {
      "/proc/self/exe", "render", scene.string(), "--output", name,     "--sample", "8",
      "--resolution",   "96x96",  "--seed",       "1",        "--quiet"};
  if (!options.camera.empty() && options.camera != "all")
    words.insert(words.end(), {"--camera", options.camera});
  if (options.threads) words.insert(words.end(), {"--threads", std::to_string(*options.threads)});
  std::string output, errors;
  const std::optional<int> status = RunProgram(words, output, errors);
  ImageBuffer picture;
  picture.allowPacked = false;
  StartImageFiles();
  const bool read = status && *status == 0 && LoadImage(picture, name);
  StopImageFiles();
  std::error_code error;
  fs::remove(name, error);
  if (!read) return {};
  return ExposureOf(picture);
}

// Says it in all cameras of the scene; false if they cannot be written.
bool WriteExposure(const fs::path& scene, float exposure) {
  const fs::path path = scene / "camera/cameras.zp";
  std::ifstream stream(path);
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  std::string changed;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
    const std::string line = text.substr(at, end - at);
    changed += line;
    if (line == "camera\n") {
      SceneWriter writer{.text = {}, .depth = 1};
      WriteTriple(writer, "exposure", {exposure, exposure, exposure});
      changed += writer.text;
    }
    at = end;
  }
  std::ofstream file(path);
  file << changed;
  file.close();
  return file.good();
}

// "teapot-20261122-123015.png" in the current directory, of a name that nobody has.
std::string PictureName(const std::string& model) {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  std::array<char, 32> date = {};
  std::strftime(date.data(), date.size(), "-%Y%m%d-%H%M%S", &local);
  const std::string stem = TokenOf(fs::path(model).stem().string()) + date.data();
  std::string name = stem + ".png";
  std::error_code error;
  for (int i = 2; fs::exists(name, error); ++i) name = stem + '-' + std::to_string(i) + ".png";
  return name;
}

}  // namespace

int RunModelRender(const RenderOptions& given) {
  std::error_code error;
  RenderOptions options = given;
  if (!fs::is_regular_file(options.scene, error))
    return Fail(fs::exists(options.scene, error)
                    ? "--keep goes with a model, and '" + options.scene + "' is none"
                    : "there is no model '" + options.scene + "'",
                kExitUsage);
  const bool keeps = !options.model.keep.empty();
  if (!options.checkpoint.empty() && !keeps)
    return Fail("--checkpoint of a model needs --keep, for its scene is gone behind the render", kExitUsage);
  const fs::path target = SceneNamed(options.model.keep);
  if (keeps)
    if (const std::string obstacle = TargetObstacle(target); !obstacle.empty())
      return Fail("cannot write the scene '" + options.model.keep + "': " + obstacle);
  StopOnSignals();
  const ScratchFolder scratch(keeps ? target.parent_path() : fs::temp_directory_path(error));
  if (scratch.Path().empty()) return Fail("there is no folder to write a scene to");
  const ImportWish wish = {{options.scene}, options.model.up, options.model.unit, {}, true, true};
  if (const std::string reason = FillByImport(wish, scratch.Path()); !reason.empty()) return Fail(reason);
  const std::optional<float> exposure = MeasureExposure(options, scratch.Path());
  if (exposure && !WriteExposure(scratch.Path(), *exposure)) {
    const std::string reason = "its cameras cannot be written";
    return Fail("cannot write the scene '" + scratch.Path().string() + "': " + reason);
  }
  if (Stopping())
    return Fail("stopped before anything was rendered: nothing is written", kExitFailed, "stopped");
  if (keeps) {
    if (const std::string reason = MoveScene(scratch.Path(), target, false); !reason.empty())
      return Fail("cannot write the scene '" + options.model.keep + "': " + reason);
  }
  if (options.output.empty()) options.output = PictureName(options.scene);
  options.scene = keeps ? target.string() : scratch.Path().string();
  const int status = RunRender(options);
  if (status == kExitDone && given.output.empty() && !options.quiet)
    std::printf("the picture is '%s'\n", options.output.c_str());
  return status;
}

}  // namespace zp
