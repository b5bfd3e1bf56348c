// app/render_command.cpp: a scene folder becomes image files.

#include <omp.h>

#include <algorithm>
#include <vector>

#include "camera_choice.h"
#include "commands.h"
#include "core/console.h"
#include "core/format.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/words.h"
#include "frame/frame.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"
#include "imaging/output_file.h"
#include "imaging/preview.h"
#include "integrator/integrator.h"
#include "job/checkpoint.h"
#include "job/keeper.h"
#include "layered_output.h"
#include "lights/lights.h"
#include "render_page.h"
#include "resume.h"
#include "run_log.h"
#include "stop_signals.h"

namespace zp {
namespace {

// The cameras that are rendered, one after the other. Each is a run of its own, from reading the scene on: a
// finished frame leaves no lights behind.
struct Turns {
  std::vector<std::size_t> cameras;  // known once the scene is read
  std::size_t index = 0;             // of the one at hand

  bool AreMore() const { return index + 1 < cameras.size(); }
};

// Sets `turns` where it is the first one. Empty if there is a camera to render, else why not.
std::string ChooseTurns(const RenderOptions& options, Turns& turns) {
  if (cameras.empty()) return "there is no camera in the scene '" + options.scene + "'";
  if (turns.index == 0) turns.cameras = ChooseCameras(options.camera);
  if (turns.index < turns.cameras.size() && turns.cameras[turns.index] < cameras.size()) return {};
  std::vector<std::string_view> names;
  for (const Camera& camera : cameras)
    if (!camera.name.empty()) names.push_back(camera.name);
  const std::string_view nearest = NearestWord(options.camera, names);
  return "there is no camera '" + options.camera + "' among the " + std::to_string(cameras.size()) +
         " of the scene" + (nearest.empty() ? "" : ", did you mean '" + std::string(nearest) + "'?");
}

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

template <class Visit>
void ForEachLightAov(const Visit& visit) {
  const auto visitAll = [&visit](std::vector<Aov>& aovs) {
    for (Aov& aov : aovs) visit(aov.image);
  };
  for (PointLight& light : pointLights) visitAll(light.aovs);
  for (ParallelLight& light : parallelLights) visitAll(light.aovs);
  visitAll(skyLight.aovs);
  visitAll(geometryLight.aovs);
}

// A run that failed before its first pass has nothing to leave behind.
void ForgetNames() {
  for (Camera& camera : cameras)
    for (Aov& aov : camera.aovs) aov.image.fileName.clear();
  ForEachLightAov([](ImageBuffer& image) { image.fileName.clear(); });
}

// In format 1 the cameras that are not rendered write black images, unless a camera was asked for.
bool WritesIdleCameras(const RenderOptions& options) { return settings.format < 2 && options.camera.empty(); }

// Names and sizes, without pixels, of all that will be written: by the cameras to render, or by all.
std::vector<ImageBuffer> PlanOutputs(const RenderOptions& options, const Turns& turns,
                                     const std::vector<std::string>& labels) {
  std::vector<ImageBuffer> outputs;
  const auto add = [&](const ImageBuffer& image, std::size_t index, const std::string& label) {
    ImageBuffer output;
    output.fileName = LabelledName(image.fileName, label);
    output.width = cameras[index].width;
    output.height = cameras[index].height;
    if (!output.fileName.empty()) outputs.push_back(std::move(output));
  };
  for (std::size_t i = 0; i < cameras.size(); ++i) {
    const bool renders = std::find(turns.cameras.begin(), turns.cameras.end(), i) != turns.cameras.end();
    if (!renders && !WritesIdleCameras(options)) continue;
    for (const Aov& aov : cameras[i].aovs) add(aov.image, i, labels[i]);
    if (renders) ForEachLightAov([&](const ImageBuffer& image) { add(image, i, labels[i]); });
  }
  return outputs;
}

// Names the images of the camera at hand and those of the lights, and keeps the others from being written.
void NameOutputs(const RenderOptions& options, std::size_t active, const std::string& label) {
  const auto name = [&label](ImageBuffer& image) { image.fileName = LabelledName(image.fileName, label); };
  for (std::size_t i = 0; i < cameras.size(); ++i)
    for (Aov& aov : cameras[i].aovs) {
      if (i == active) name(aov.image);
      if (i != active && !WritesIdleCameras(options)) aov.image.fileName.clear();
    }
  ForEachLightAov(name);
}

// Better to learn before an hour's render than after it.
int TryOutputs(const std::vector<ImageBuffer>& planned) {
  std::vector<const ImageBuffer*> outputs;
  for (const ImageBuffer& image : planned) outputs.push_back(&image);
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

int FailSaves(const std::vector<SaveFailure>& failures) {
  return Fail(FailureText(failures), kExitFailed, "image-unwritten");
}

// Why the initialised scene has nothing to show; empty if it has.
std::string NothingToRender(const Camera& camera) {
  if (camera.width < 1 || camera.height < 1) return "the camera has no pixels";
  for (const Aov& aov : camera.aovs)
    if (PixelBytes(aov.image) == 0 && aov.matte.Height() == 0)
      return "not enough memory for the camera's images";
  if (camera.regionXMin >= camera.regionXMax || camera.regionYMin >= camera.regionYMax)
    return "the region holds no pixels of the picture";
  return {};
}

constexpr char kStoppedEarly[] = "stopped before anything was rendered: nothing is written";
constexpr char kStoppedBetween[] =
    "stopped before all cameras were rendered: the images of the others are written";
const char* stoppedEarly = kStoppedEarly;

// What to say of a frame that a signal has cut short; empty if none has.
std::string StopText(const RenderOptions& options, const Turns& turns) {
  if (!Stopping()) return {};
  const std::uint64_t samples = CountSamples(frameState);
  if (ViewerStopped() && samples > 0) return {};
  if (samples == 0 || cameras.empty()) return stoppedEarly;
  const Camera& camera = cameras[turns.cameras[turns.index]];
  const PassRange range = PassesToRender();
  const std::uint32_t passes = range.end - range.begin;
  const std::uint32_t done = settings.frame.passIndex - std::min(settings.frame.passIndex, range.begin);
  if (done >= passes) return turns.AreMore() ? kStoppedBetween : "";
  if (done > 0)
    return "stopped after pass " + std::to_string(done) + " of " + std::to_string(passes) +
           (LacksImages(options) ? ": the checkpoint holds" : ": the images hold") + " what was rendered";
  const std::uint64_t pixels = static_cast<std::uint64_t>(frameState.right - frameState.left) *
                               static_cast<std::uint64_t>(camera.regionYMax - camera.regionYMin);
  return "stopped in pass 1 of " + std::to_string(passes) +
         (LacksImages(options) ? ": the checkpoint holds " : ": the images hold ") +
         std::to_string(100 * samples / pixels) + " % of their pixels, the others are black";
}

// Reads the scene, which is the current directory. kExitFailed where a check finds an error.
int LoadStrictly(const std::string& scene) {
  std::vector<Finding> findings;
  if (!LoadCheckedScene(findings)) return kExitFailed;
  std::erase_if(findings, [](const Finding& f) { return RowOf(f.code).severity != Severity::kError; });
  if (findings.empty()) return kExitDone;
  for (const Finding& finding : findings)
    Note({TroubleKind::kError, std::string(RowOf(finding.code).word), finding.text,
          FindingPath(scene, finding), finding.place.line});
  const std::string place = FindingPath(scene, findings[0]) + ":" + std::to_string(findings[0].place.line);
  return Fail("errors of the scene (" + std::to_string(findings.size()) + "), the first at " + place + ": " +
                  findings[0].text + " ('zephlore check' names all)",
              kExitFailed, "scene-errors");
}

// Renders the frame of the initialised scene, from where `resumed` stands, if there is such.
//   files  that the scene was read from, where a checkpoint has to know them
int RenderFrame(const RenderOptions& options, std::vector<SceneFile> files, Checkpoint* resumed) {
  Checkpoint base = DescribeFrame(options.seed.value_or(0));
  if (LacksImages(options)) ForgetNames();
  if (resumed != nullptr) {
    if (const std::string reason = RestoreFrame(*resumed, base.plan, files); !reason.empty())
      return Fail("cannot resume from '" + options.resume + "': " + reason);
    base.seconds = resumed->seconds;
  }
  const bool resumesWhole = resumed != nullptr && !HasBegunPass(frameState, resumed->passes);
  base.options =
      WithCameraFacts(KeptOptions(options), cameras[static_cast<std::size_t>(settings.frame.activeCamera)]);
  base.files = std::move(files);
  constexpr double kSaveEvery = 60;
  const std::uint32_t first = resumed != nullptr ? resumed->passes : 0;
  BeginFrame(base.plan, first);
  BeginPageFrame();
  FrameKeeper keeper(
      {options.saveEvery.value_or(kSaveEvery), options.checkpoint, options.noise, options.time}, base);
  WriteFramesWithLayers(options, base, [&keeper] { return keeper.Seconds(); });
  const auto standing = [&] {
    return FrameStanding{keeper.Seconds(), keeper.Error(), options.time, options.noise};
  };
  frameObserver.passDone = [&](const FrameReport& report) {
    keeper.PassDone(report);
    TellFrame(report, standing());
    PagePassDone();
  };
  frameObserver.rowsDone = [&](const FrameReport& report) {
    TellFrame(report, standing());
    keeper.RowsDone();
    PageRowsDone();
  };
  frameObserver.paused = [&](const FrameReport&) {
    keeper.Paused();
    PagePaused();
  };
  frameObserver.finish =
      first > 0 && (!keeper.HasTimeLeft() || (resumesWhole && keeper.HasReachedNoise(first)));
  RenderLoop(first);
  frameObserver = {};
  FinishLayers(options.denoise && !Stopping());
  EndFrame(standing());
  EndPageFrame();
  if (Stopping() && CountSamples(frameState) > 0) keeper.SaveCheckpoint();
  if (keeper.CheckpointTrouble().empty()) return kExitDone;
  return Fail(
      "the checkpoint '" + options.checkpoint + "' could not be written: " + keeper.CheckpointTrouble(),
      kExitFailed, "checkpoint-unwritten");
}

// A file can be made. The rest of a sentence that says why not, else empty.
std::string FileObstacle(const std::string& name) {
  OutputFile file;
  return name.empty() ? "" : file.Open(name);
}
int TryCheckpoint(const std::string& name) {
  const std::string reason = FileObstacle(name);
  return reason.empty() ? kExitDone : Fail("cannot write the checkpoint '" + name + "': " + reason);
}

// In the scene's folder: reads and initialises it, with the outputs named and listed in `planned`.
int PrepareScene(const RenderOptions& options, Turns& turns, std::vector<ImageBuffer>& planned) {
  if (options.strict && turns.index == 0) {
    const int status = LoadStrictly(options.scene);
    if (status != kExitDone) return Stopping() ? kExitDone : status;
  } else if (!LoadScene("./") && !Stopping()) {
    return Fail("cannot read the scene folder '" + options.scene + "'");
  }
  if (Stopping()) return kExitDone;
  if (!formatProblem.empty()) return Fail(formatProblem);
  if (const std::string reason = ChooseTurns(options, turns); !reason.empty()) return Fail(reason);
  const std::size_t active = turns.cameras[turns.index];
  settings.frame.activeCamera = static_cast<std::int32_t>(active);
  for (const std::size_t chosen : turns.cameras) {
    ApplyOptions(options, cameras[chosen]);
    AskForLayers(options, chosen);
  }
  const std::vector<std::string> labels =
      options.camera == kAllCameras ? CameraLabels() : std::vector<std::string>(cameras.size());
  planned = PlanOutputs(options, turns, labels);
  NameOutputs(options, active, labels[active]);
  Initialize();
  return kExitDone;
}

// After Startup; the caller finalises whatever the result.
int RenderScene(const RenderOptions& options, Turns& turns, Checkpoint* resumed) {
  // Paths in scene text count from the scene folder, those of images from the caller's directory. The scene
  // is left before anything is written, so image names need no rewriting.
  DirectoryVisit visit;
  if (const std::error_code error = visit.Enter(options.scene))
    return Fail("cannot enter the scene folder '" + options.scene + "': " + error.message());
  std::vector<ImageBuffer> planned;
  const int prepared = PrepareScene(options, turns, planned);
  std::vector<SceneFile> files;
  if (!options.checkpoint.empty() || !options.report.empty() || WantsLayers(options))
    files = HashSceneFiles();
  WithRecord([&](RunRecord& record) {
    record.files = files;
    record.format = settings.format;
  });
  if (const std::error_code error = visit.Leave())
    return Fail("cannot return to the current directory: " + error.message());
  SetNothingToLose(false, stoppedEarly);
  if (prepared != kExitDone || Stopping()) return prepared;

  const std::size_t active = turns.cameras[turns.index];
  if (const std::string reason = NothingToRender(cameras[active]); !reason.empty()) return Fail(reason);
  if (options.passes && options.passes->end > cameras[active].sample)
    return Fail("--passes goes beyond the " + std::to_string(cameras[active].sample) + " of the camera");
  if (turns.index == 0) {
    if (const int status = LacksImages(options) ? kExitDone : TryOutputs(planned); status != kExitDone)
      return status;
    if (const int status = TryCheckpoint(options.checkpoint); status != kExitDone) return status;
  }
  return RenderFrame(options, std::move(files), resumed);
}

// One camera, from the start of the library to its end.
int RenderTurn(const RenderOptions& options, Turns& turns, Checkpoint* resumed) {
  frameState = {};
  Startup(options.seed, options.format);
  SetNothingToLose(true, stoppedEarly);
  const int status = RenderScene(options, turns, resumed);
  SetNothingToLose(false, stoppedEarly);
  const std::string stopped = status == kExitDone ? StopText(options, turns) : "";
  // The last pass has written every image; closing writes those of the cameras again.
  if (status != kExitDone) ForgetNames();
  Finalize();
  Shutdown();
  if (stopped.empty()) return status;
  const std::vector<SaveFailure> failed = TakeFailedSaves();
  return failed.empty() ? Fail(stopped, kExitFailed, "stopped") : FailSaves(failed);
}

// All cameras that were asked for.
int RenderTurns(const RenderOptions& options, Checkpoint* resumed) {
  Turns turns;
  int status = RenderTurn(options, turns, resumed);
  while (status == kExitDone && turns.AreMore() && !ViewerStopped()) {
    ++turns.index;
    stoppedEarly = kStoppedBetween;
    status = RenderTurn(options, turns, nullptr);
  }
  const std::vector<SaveFailure> failed = TakeFailedSaves();
  if (status == kExitDone && !failed.empty()) return FailSaves(failed);
  if (status == kExitDone && options.strict && missingFiles > 0)
    return Fail("files of the scene are missing or hold nothing readable ('zephlore check' names them)");
  return status;
}

}  // namespace

int RunRender(const RenderOptions& given) {
  RenderOptions options = given;
  StartRunLog(options.progress);
  if (const std::string reason = FileObstacle(options.report); !reason.empty())
    return Fail("cannot write the report '" + options.report + "': " + reason);
  Checkpoint resumed;
  const bool resumes = !options.resume.empty();
  if (resumes) {
    if (const std::string reason = ReadCheckpoint(options.resume, resumed); !reason.empty())
      return Fail("cannot resume: '" + options.resume + "' " + reason);
    TakeKeptOptions(resumed, options);
  }
  if (!options.checkpoint.empty() && options.camera == kAllCameras)
    return Fail("--checkpoint keeps one camera, not all", kExitUsage);
  if (const std::string reason = ChooseShare(options, resumes ? &resumed : nullptr); !reason.empty())
    return Fail(reason, kExitUsage);
  if (const std::string reason = SettleHalfLayers(options); !reason.empty()) return Fail(reason, kExitUsage);
  if ((!options.checkpoint.empty() || !options.report.empty() || WantsLayers(options)) && !options.seed)
    options.seed = DrawSeed();
  if ((options.time || options.noise) && !options.sample && !options.passes) options.sample = kMostSamples;
  settings.said.halfSets = options.noise.has_value() || HasHalfLayers(options);
  std::error_code error;
  if (!std::filesystem::is_directory(options.scene, error))
    return Fail("there is no scene folder '" + options.scene + "'");
  if (std::string problem; !options.format && FormatOfEnvironment(problem) > 0 && !problem.empty())
    return Fail(problem);
  if (options.preview && options.camera == kAllCameras)
    return Fail("--preview shows one camera, not all", kExitUsage);
  if (options.preview)
    if (const std::string obstacle = PreviewObstacle(1, 1); !obstacle.empty())
      return Fail("cannot open a preview window: " + obstacle);
  settings.said.previewWindow = settings.said.previewReturns = options.preview;
  omp_set_num_threads(options.threads ? *options.threads : std::min(omp_get_max_threads(), kMaxThreads));
  settings.said.linearFiles = options.linear;
  settings.said.transparentSky = options.transparentSky;
  SetConsoleQuiet(options.quiet);
  WithRecord([&](RunRecord& record) {
    record.scene = options.scene;
    record.options = ReportedOptions(options);
    record.threads = omp_get_max_threads();
  });
  missingFiles = 0;
  StopOnSignals();
  TakeFailedSaves();
  if (const std::string reason = OpenPage(options.serve, options.scene); !reason.empty()) return Fail(reason);
  const int status = RenderTurns(options, resumes ? &resumed : nullptr);
  ClosePage(status);
  return status;
}

}  // namespace zp
