// app/render_command.cpp: a scene folder becomes image files.

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "core/console.h"
#include "core/format.h"
#include "core/stop.h"
#include "frame/frame.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"
#include "imaging/preview.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

namespace zp {
namespace {

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
    if (!enabled) return;
    frameObserver.passDone = [this](const FrameReport& report) { Show(report); };
    frameObserver.rowsDone = [this](const FrameReport& report) {
      if (Clock::now() - shown >= std::chrono::seconds(1)) Show(report);
    };
  }
  ~ProgressLine() {
    frameObserver = {};
    if (openErrorLine) std::fputc('\n', stderr);
    openErrorLine = false;
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  void Show(const FrameReport& report) {
    shown = Clock::now();
    const double elapsed = std::chrono::duration<double>(shown - start).count();
    const double done = static_cast<double>(report.done) + static_cast<double>(report.begun);
    const double remaining = done > 0 ? elapsed / done * (report.total - done) : 0;
    const double speed =  // rays a microsecond are millions a second
        report.microseconds > 0 ? static_cast<double>(report.rays) / static_cast<double>(report.microseconds)
                                : 0;
    char begun[32] = "";
    if (report.begun > 0)
      std::snprintf(begun, sizeof begun, " and %.0f %%", 100 * static_cast<double>(report.begun));
    char text[192];
    const int length = std::snprintf(
        text, sizeof text, "pass %u of %u%s   %.2f M rays/s   elapsed %s   remaining %s", report.done,
        report.total, begun, speed, ClockText(elapsed).c_str(), ClockText(remaining).c_str());
    if (length <= 0) return;
    // Blanks wipe what a longer line left behind.
    std::fprintf(stderr, "\r%-*s", width, text);
    std::fflush(stderr);
    width = std::max(width, length);
    openErrorLine = true;
  }

  Clock::time_point start = Clock::now(), shown = start;
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

// A run that failed before its first pass has nothing to leave behind.
void ForgetNames() {
  for (ImageBuffer* image : OutputImages()) image->fileName.clear();
}

// Better to learn before an hour's render than after it.
int TryOutputs() {
  std::vector<const ImageBuffer*> outputs;
  for (const ImageBuffer* image : OutputImages())
    if (!image->fileName.empty()) outputs.push_back(image);
  if (outputs.empty()) return Fail("no image has a file name: there is nothing to write");
  const std::string obstacle = SaveObstacle(outputs);
  return obstacle.empty() ? kExitDone : Fail("cannot write the image " + obstacle);
}

// "1 image could not be written: 'NAME' (REASON)"
std::string FailureText(const std::vector<SaveFailure>& failures) {
  std::string text = std::to_string(failures.size()) + (failures.size() == 1 ? " image" : " images") +
                     " could not be written: ";
  for (const SaveFailure& failure : failures)
    text += (&failure == failures.data() ? "'" : ", '") + failure.name + "' (" + failure.reason + ")";
  return text;
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

constexpr char kStoppedEarly[] = "stopped before anything was rendered: nothing is written";

// Nothing is lost when the process ends here and now: no sample is taken and no file is being written.
std::atomic<bool> nothingToLose = false;

// Loading and initialising end soon after a stop. This is for what never asks, as the decoder of a large
// picture or a disk that does not answer.
void EndWithNothing(int) {
  constexpr char kText[] = "zephlore: ";
  if (!nothingToLose) return;
  (void)!write(STDERR_FILENO, kText, sizeof kText - 1);
  (void)!write(STDERR_FILENO, kStoppedEarly, sizeof kStoppedEarly - 1);
  (void)!write(STDERR_FILENO, "\n", 1);
  _exit(kExitFailed);
}

// The first signal ends the work and lets the images be written, a second one ends the process at once. What
// the caller has chosen to ignore, as under nohup, stays ignored.
void StopOnSignals() {
  stopRequested = false;
  struct sigaction action = {};
  action.sa_handler = EndWithNothing;
  sigaction(SIGALRM, &action, nullptr);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = [](int signal) {
      if (stopRequested.exchange(true)) {
        std::signal(signal, SIG_DFL);
        raise(signal);
      }
      if (nothingToLose) alarm(1);
    };
    action.sa_flags = static_cast<int>(SA_RESTART);
    sigaction(number, &action, nullptr);
  }
}

// What to say of a frame that a signal has cut short; empty if none has.
std::string StopText() {
  if (!Stopping()) return {};
  const std::uint64_t samples = CountSamples(frameState);
  if (samples == 0 || cameras.empty()) return kStoppedEarly;
  const auto passes = static_cast<std::uint32_t>(cameras.front().sample);
  if (settings.frame.passIndex >= passes) return {};
  if (settings.frame.passIndex > 0)
    return "stopped after pass " + std::to_string(settings.frame.passIndex) + " of " +
           std::to_string(passes) + ": the images hold what was rendered";
  const std::uint64_t pixels =
      static_cast<std::uint64_t>(frameState.right - frameState.left) *
      static_cast<std::uint64_t>(cameras.front().regionYMax - cameras.front().regionYMin);
  return "stopped in pass 1 of " + std::to_string(passes) + ": the images hold " +
         std::to_string(100 * samples / pixels) + " % of their pixels, the others are black";
}

// Reads the scene, which is the current directory. kExitFailed where a check finds an error.
int LoadStrictly(const std::string& scene) {
  std::vector<Finding> findings;
  if (!LoadCheckedScene(findings)) return kExitFailed;
  std::erase_if(findings, [](const Finding& f) { return RowOf(f.code).severity != Severity::kError; });
  if (findings.empty()) return kExitDone;
  const std::string place = FindingPath(scene, findings[0]) + ":" + std::to_string(findings[0].place.line);
  return Fail("errors of the scene (" + std::to_string(findings.size()) + "), the first at " + place + ": " +
              findings[0].text + " ('zephlore check' names all)");
}

// After Startup; the caller finalises whatever the result.
int RenderScene(const RenderOptions& options) {
  // Paths in scene text count from the scene folder, those of images from the caller's directory. The scene
  // is left before anything is written, so image names need no rewriting.
  DirectoryVisit visit;
  if (const std::error_code error = visit.Enter(options.scene))
    return Fail("cannot enter the scene folder '" + options.scene + "': " + error.message());
  if (options.strict) {
    const int status = LoadStrictly(options.scene);
    if (status != kExitDone) return Stopping() ? kExitDone : status;
  } else if (!LoadScene("./") && !Stopping()) {
    return Fail("cannot read the scene folder '" + options.scene + "'");
  }
  if (Stopping()) return kExitDone;
  if (!formatProblem.empty()) return Fail(formatProblem);
  if (cameras.empty()) return Fail("there is no camera in the scene '" + options.scene + "'");
  ApplyOptions(options, cameras.front());
  Initialize();
  if (const std::error_code error = visit.Leave())
    return Fail("cannot return to the current directory: " + error.message());
  nothingToLose = false;
  if (Stopping()) return kExitDone;

  if (const std::string reason = NothingToRender(cameras.front()); !reason.empty()) return Fail(reason);
  if (const int status = TryOutputs(); status != kExitDone) return status;

  TakeFailedSaves();
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
  if (std::string problem; !options.format && FormatOfEnvironment(problem) > 0 && !problem.empty())
    return Fail(problem);
  if (options.preview)
    if (const std::string obstacle = PreviewObstacle(1, 1); !obstacle.empty())
      return Fail("cannot open a preview window: " + obstacle);
  settings.said.previewWindow = settings.said.previewReturns = options.preview;
  omp_set_num_threads(options.threads ? *options.threads : std::min(omp_get_max_threads(), kMaxThreads));
  SetConsoleQuiet(options.quiet);
  TellErrors();
  missingFiles = 0;
  StopOnSignals();
  Startup(options.seed, options.format);
  nothingToLose = true;
  const int status = RenderScene(options);
  nothingToLose = false;
  const std::string stopped = status == kExitDone ? StopText() : "";
  // The last pass has written every image; closing writes those of the cameras again.
  if (status != kExitDone) ForgetNames();
  Finalize();
  const std::vector<SaveFailure> failed = TakeFailedSaves();
  Shutdown();
  if (status == kExitDone && !failed.empty()) return Fail(FailureText(failed));
  if (!stopped.empty()) return Fail(stopped);
  if (status == kExitDone && options.strict && missingFiles > 0)
    return Fail("files of the scene are missing or hold nothing readable ('zephlore check' names them)");
  return status;
}

}  // namespace zp
