// app/render_command.cpp: a scene folder becomes image files.

#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "core/console.h"
#include "frame/frame.h"
#include "imaging/imaging.h"
#include "imaging/preview.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// "1:02:03" or "2:03".
std::string ClockText(double seconds) {
  const auto whole = static_cast<long long>(std::clamp(seconds, 0.0, 1e9) + 0.5);
  char text[64];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  return text;
}

// Keeps one line on the error stream up to date while it lives.
class ProgressLine {
 public:
  explicit ProgressLine(bool enabled) {
    if (enabled) passReporter = [this](const PassReport& report) { Show(report); };
  }
  ~ProgressLine() {
    passReporter = nullptr;
    if (openErrorLine) std::fputc('\n', stderr);
    openErrorLine = false;
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  void Show(const PassReport& report) {
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const double remaining = report.done > 0 ? elapsed / report.done * (report.total - report.done) : 0;
    const double speed =  // rays a microsecond are millions a second
        report.microseconds > 0 ? static_cast<double>(report.rays) / static_cast<double>(report.microseconds)
                                : 0;
    char text[160];
    const int length = std::snprintf(
        text, sizeof text, "pass %u of %u   %.2f M rays/s   elapsed %s   remaining %s", report.done,
        report.total, speed, ClockText(elapsed).c_str(), ClockText(remaining).c_str());
    if (length <= 0) return;
    // Blanks wipe what a longer line left behind.
    std::fprintf(stderr, "\r%-*s", width, text);
    std::fflush(stderr);
    width = std::max(width, length);
    openErrorLine = true;
  }

  Clock::time_point start = Clock::now();
  int width = 0;  // of the longest line so far
};

void ApplyOptions(const RenderOptions& options, Camera& camera) {
  if (options.sample) camera.sample = *options.sample;
  if (options.width) camera.width = *options.width;
  if (options.height) camera.height = *options.height;
  if (options.region) {
    camera.regionXMin = options.region->left;
    camera.regionYMin = options.region->top;
    camera.regionXMax = options.region->right;
    camera.regionYMax = options.region->bottom;
  }
  if (!options.output.empty()) camera.aovs.front().image.fileName = options.output;
}

// All images that closing a run writes, if they have a name.
std::vector<ImageBuffer*> OutputImages() {
  std::vector<ImageBuffer*> outputs;
  const auto add = [&outputs](std::vector<Aov>& aovs) {
    for (Aov& aov : aovs) outputs.push_back(&aov.image);
  };
  for (Camera& camera : cameras) add(camera.aovs);
  for (PointLight& light : pointLights) add(light.aovs);
  for (ParallelLight& light : parallelLights) add(light.aovs);
  add(skyLight.aovs);
  add(geometryLight.aovs);
  return outputs;
}

std::vector<std::string> OutputNames() {
  std::vector<std::string> names;
  for (const ImageBuffer* image : OutputImages())
    if (!image->fileName.empty()) names.push_back(image->fileName);
  return names;
}

// A run that failed before its first pass has nothing to leave behind.
void ForgetNames() {
  for (ImageBuffer* image : OutputImages()) image->fileName.clear();
}

// True if a picture can be written under a name like this one. Tries it on a neighbour, so that nothing that
// exists is touched: better to learn of a missing folder before an hour's render than after it.
bool CanWrite(const std::string& name) {
  const fs::path target(name);
  std::error_code error;
  if (!target.has_filename() || fs::is_directory(target, error)) return false;
  Aov probe;
  InitializeAov(probe, 2, 2);
  const std::string file = "probe-" + std::to_string(getpid()) + "-" + target.filename().string();
  probe.image.fileName = (target.parent_path() / file).string();
  const bool written = SaveImage(probe.image);
  fs::remove(probe.image.fileName, error);
  return written;
}

// Why the initialised scene has nothing to show; empty if it has.
std::string NothingToRender(const Camera& camera) {
  if (camera.width < 1 || camera.height < 1) return "the camera has no pixels";
  for (const Aov& aov : camera.aovs)
    if (PixelBytes(aov.image) == 0) return "not enough memory for the camera's images";
  if (camera.regionXMin >= camera.regionXMax || camera.regionYMin >= camera.regionYMax)
    return "the region holds no pixels of the picture";
  return {};
}

// The first signal lets the pass end and the images be written, a second one ends the process at once. What
// the caller has chosen to ignore, as under nohup, stays ignored.
void StopOnSignals() {
  stopRequested = false;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = [](int) { stopRequested = true; };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(number, &action, nullptr);
  }
}

// What to say of a frame that a signal has cut short; empty if none has.
std::string StopText() {
  if (!stopRequested || cameras.empty()) return {};
  const auto passes = static_cast<std::uint32_t>(cameras.front().sample);
  if (settings.passIndex >= passes) return {};
  if (settings.passIndex == 0) return "stopped before the end of the first pass: nothing is written";
  return "stopped after pass " + std::to_string(settings.passIndex) + " of " + std::to_string(passes) +
         ": the images hold what was rendered";
}

// After Startup; the caller finalises whatever the result.
int RenderScene(const RenderOptions& options) {
  // Paths in scene text count from the scene folder, those of images from the caller's directory. The scene
  // is left before anything is written, so image names need no rewriting.
  DirectoryVisit visit;
  if (const std::error_code error = visit.Enter(options.scene))
    return Fail("cannot enter the scene folder '" + options.scene + "': " + error.message());
  if (!LoadScene("./")) return Fail("cannot read the scene folder '" + options.scene + "'");
  if (cameras.empty()) return Fail("there is no camera in the scene '" + options.scene + "'");
  ApplyOptions(options, cameras.front());
  Initialize();
  if (const std::error_code error = visit.Leave())
    return Fail("cannot return to the current directory: " + error.message());

  if (const std::string reason = NothingToRender(cameras.front()); !reason.empty()) return Fail(reason);
  const std::vector<std::string> names = OutputNames();
  if (names.empty()) return Fail("no image has a file name: there is nothing to write");
  for (const std::string& name : names)
    if (!CanWrite(name)) return Fail("cannot write the image '" + name + "'");

  FailedSaves(true);
  {
    const ProgressLine progress(options.progress);
    RenderLoop();
  }
  return kExitDone;
}

}  // namespace

int RunRender(const RenderOptions& options) {
  std::error_code error;
  if (!std::filesystem::is_directory(options.scene, error))
    return Fail("there is no scene folder '" + options.scene + "'");
  if (options.preview)
    if (const std::string obstacle = PreviewObstacle(1, 1); !obstacle.empty())
      return Fail("cannot open a preview window: " + obstacle);
  settings.previewWindow = settings.previewReturns = options.preview;
  omp_set_num_threads(options.threads ? *options.threads : std::min(omp_get_max_threads(), kMaxThreads));
  SetConsoleQuiet(options.quiet);
  TellErrors();
  missingFiles = 0;
  StopOnSignals();
  Startup(options.seed);
  const int status = RenderScene(options);
  const std::string stopped = status == kExitDone ? StopText() : "";
  // The last pass has written every image; closing writes those of the cameras again.
  int failed = FailedSaves(true);
  if (status != kExitDone || (!stopped.empty() && settings.passIndex == 0)) ForgetNames();
  Finalize();
  failed = std::max(failed, FailedSaves(true));
  Shutdown();
  if (status == kExitDone && failed > 0)
    return Fail(std::to_string(failed) + (failed == 1 ? " image" : " images") + " could not be written");
  if (!stopped.empty()) return Fail(stopped);
  if (status == kExitDone && options.strict && missingFiles > 0)
    return Fail("files of the scene are missing or hold nothing readable ('zephlore check' names them)");
  return status;
}

}  // namespace zp
