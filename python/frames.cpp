// A frame from the tables of a scene to a picture in memory, for the objects of the package. What zp.h has no
// function for stands here and in pictures.cpp: a seed, layers, troubles, an answer after each pass.

#include <omp.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "core/console.h"
#include "core/files.h"
#include "core/format.h"
#include "core/index.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/stop.h"
#include "frame/frame.h"
#include "frame/host_signals.h"
#include "geometry/motion.h"
#include "geometry/object.h"
#include "imaging/camera_matrices.h"
#include "imaging/frame_layers.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "lights/mix_groups.h"
#include "pictures.h"
#include "post/frame_layers.h"
#include "scene/notes.h"
#include "scene/scene.h"
#include "tables.h"

namespace zp::python {
namespace {

using namespace py::literals;

struct HeardTrouble {
  std::string kind, text, code, file;
};
std::vector<HeardTrouble> heard;
bool loud = false;

// Ends the work in the place of the process.
struct FatalTrouble : std::exception {};

bool Hear(const Trouble& trouble) {
  constexpr const char* kKinds[] = {"warning", "error", "fatal", "note"};
  heard.push_back({kKinds[static_cast<int>(trouble.kind)], std::string(trouble.text),
                   std::string(trouble.code), std::string(trouble.file)});
  if (trouble.kind == TroubleKind::kFatal) throw FatalTrouble();
  return !loud;
}

// What scenes hand on to the next one in the process, as the functions of zp.h had left it.
struct KeptState {
  SaidSettings said;
  SkyLight sky;
};
std::optional<KeptState> kept;  // while a frame is at hand

void RequireNoScene() {
  if (!kept && shaders.empty() && objectTable.empty() && cameras.empty() && pointLights.empty() &&
      parallelLights.empty())
    return;
  throw std::runtime_error(kept ? "zp: another scene is being rendered"
                                : "zp: the functions hold a scene, which zp.finalize() lets go of");
}

// Runs `work` while other threads may run Python; signals end it.
template <class Work>
void RunLong(const Work& work) {
  {
    const LongCall call;
    const HostSignals signals;
    try {
      work();
    } catch (const FatalTrouble&) {  // heard
    }
  }
  RaiseOfSignals();
}

// A fresh library, whatever came before, with the scene of the folder if there is one.
void Begin(std::optional<std::int32_t> format, std::optional<std::uint64_t> seed,
           const std::optional<std::string>& folder, bool isLoud) {
  RequireIdle();
  RequireNoScene();
  kept = {settings.said, skyLight};
  settings.said = {};
  skyLight = {};
  frameState = {};
  heard.clear();
  loud = isLoud;
  SetConsoleQuiet(!loud);
  SetTroubleSink(Hear);
  RunLong([&] {
    Startup(seed, format);
    SceneNotes notes;
    sceneNotes = folder ? &notes : nullptr;
    if (folder) LoadScene(*folder + "/");
    sceneNotes = nullptr;
    for (const Finding& finding : notes.findings)
      if (RowOf(finding.code).severity == Severity::kError)
        heard.push_back({"warning",
                         finding.place.file + ":" + std::to_string(finding.place.line) + ": " + finding.text,
                         std::string(RowOf(finding.code).word), finding.place.file});
    if (!formatProblem.empty()) heard.push_back({"error", formatProblem, "format-unknown", ""});
  });
}

// What is wrong with the text, as lines and sentences; what is right of it is read.
//   hidesFiles  for its words alone: it finds no file
std::vector<std::pair<int, std::string>> ReadText(const std::string& text, bool hidesFiles) {
  RequireIdle();
  SceneNotes notes;
  RunLong([&] {
    sceneNotes = &notes;
    filesHidden = hidesFiles;
    std::istringstream stream(text);
    ReadScene(stream);
    filesHidden = false;
    sceneNotes = nullptr;
  });
  std::vector<std::pair<int, std::string>> wrong;
  for (const Finding& finding : notes.findings) {
    if (RowOf(finding.code).severity != Severity::kError) continue;
    const std::string& word = finding.suggestion;
    wrong.emplace_back(finding.place.line,
                       finding.text + (word.empty() ? "" : "; did you mean \"" + word + "\"?"));
  }
  return wrong;
}

void End() {
  if (!kept) return;
  RequireIdle();
  {
    const LongCall call;
    for (Camera& camera : cameras)
      for (Aov& aov : camera.aovs) aov.image.fileName.clear();
    Finalize();
    Shutdown();
    Release(imageSearchPaths);
    sceneFolder.clear();
    SetTroubleSink(nullptr);
    SetConsoleQuiet(false);
  }
  settings.said = kept->said;
  settings.formatIsSettled = false;
  settings.frame.activeCamera = 0;
  skyLight = std::move(kept->sky);
  kept.reset();
  stopRequested = false;
}

py::list TakeTroubles() {
  py::list troubles;
  for (const HeardTrouble& trouble : heard)
    troubles.append(py::make_tuple(trouble.kind, trouble.text, trouble.code, trouble.file));
  heard.clear();
  return troubles;
}

template <class Record>
std::vector<std::string> NamesIn(const std::vector<Record>& table) {
  std::vector<std::string> names;
  for (const Record& record : table) names.push_back(record.name);
  return names;
}

// Objects that nothing in the tables places.
std::vector<std::int32_t> Roots() {
  std::set<std::int32_t> placed;
  std::set<std::string> placedNames;
  for (const Object& object : objectTable)
    for (const Instance& instance : object.instances) {
      placed.insert(instance.object);
      placedNames.insert(instance.objectName.Text());
    }
  std::vector<std::int32_t> roots;
  for (std::int32_t i = 0; i < static_cast<std::int32_t>(objectTable.size()); ++i)
    if (placed.count(i) == 0 && placedNames.count(At(objectTable, i).name) == 0) roots.push_back(i);
  return roots;
}

// A Shader of that name without layers: a new one, or what scene text knows by the name, emptied.
std::int32_t PutShader(const std::string& name) {
  const std::int32_t index = FindOrCreateShader(name);
  Shader fresh;
  fresh.name = name;
  ShaderAt(index) = std::move(fresh);
  return index;
}

void SetInstanceEnd(std::int32_t object, std::int32_t instance, const ArrayLike& matrix) {
  RequireRecord("instance", kInstances, {object, instance});
  const auto given = ToMatrix<4>(matrix, {"instance", "matrix_end"});
  Mat4 close;
  for (int row = 0; row < 4; ++row)
    for (int column = 0; column < 4; ++column) close.m[row][column] = given.rows[row][column];
  SetMatrixEnd(At(At(objectTable, object).instances, instance), close);
}

// The light group of a light, or of what a Shader emits.
void SetGroup(const std::string& kind, std::int32_t index, const std::string& group) {
  if (kind == "point") At(pointLights, index).group = group;
  if (kind == "parallel") At(parallelLights, index).group = group;
  if (kind == "sky") skyLight.group = group;
  if (kind == "geometry") geometryLight.group = group;
  if (kind == "shader") ShaderAt(index).group = group;
}

// What a render asks of its camera, where it is not as the camera says.
struct FrameWish {
  std::int32_t camera = 0;
  std::optional<std::int32_t> passes;
  std::optional<std::pair<std::int32_t, std::int32_t>> resolution;
  std::optional<std::array<std::int32_t, 4>> region;
  std::vector<std::string> layers, halfLayers;
  bool transparentSky = false;
};
constexpr const char* kHalfLayers[] = {"half0", "half1", "variance"};
constexpr const char* kLights = "lights";

// Words that a camera's layers have.
std::vector<std::string> LayerWords() {
  std::vector<std::string> words(std::begin(kHalfLayers), std::end(kHalfLayers));
  words.emplace_back(kLights);
  for (const LayerRow& row : kLayerRows) words.emplace_back(row.word);
  for (const ChannelWord& row : kChannelWords)
    if (FindLayerRow(row.word) == nullptr) words.emplace_back(row.word);
  return words;
}

template <class Visit>
void ForEachLight(const Visit& visit) {
  for (std::size_t i = 0; i < pointLights.size(); ++i)
    visit("point" + std::to_string(i), pointLights[i].aovs);
  for (std::size_t i = 0; i < parallelLights.size(); ++i)
    visit("parallel" + std::to_string(i), parallelLights[i].aovs);
  visit("sky", skyLight.aovs);
  visit("geometry", geometryLight.aovs);
}

// No files are written: what scene text names files for becomes layers, too.
void AskForLayers(Camera& camera, const std::vector<std::string>& words) {
  for (Camera& each : cameras)
    for (Aov& aov : each.aovs) aov.image.fileName.clear();
  ForEachLight([](const std::string&, std::vector<Aov>& aovs) {
    for (Aov& aov : aovs) aov.image.fileName.clear();
  });
  AddLayers(camera, words);
  const std::vector<std::string> groups = NamedGroups();
  if (!groups.empty() || std::find(words.begin(), words.end(), kLights) != words.end())
    AddGroupLayers(camera, groups);
  ForEachLight(
      [&](const std::string& light, std::vector<Aov>& aovs) { NameLightLayers(camera, aovs, light); });
  camera.aovs.front().image.fileName = "picture.exr";  // so that layerWriter is called; nothing writes it
  camera.aovs.front().withLayers = true;
}

void ApplyWish(const FrameWish& wish, Camera& camera) {
  if (wish.passes) camera.sample = *wish.passes;
  if (wish.resolution) {
    camera.width = wish.resolution->first;
    camera.height = wish.resolution->second;
  }
  if (wish.region) {
    camera.regionXMin = (*wish.region)[0];
    camera.regionYMin = (*wish.region)[1];
    camera.regionXMax = (*wish.region)[2];
    camera.regionYMax = (*wish.region)[3];
  }
}

// Initialises the scene. False if the camera has no pixels to render.
bool Prepare(const FrameWish& wish) {
  RequireIdle();
  RequireRecord("render", kCameras, {wish.camera, 0});
  settings.frame.activeCamera = wish.camera;
  settings.said.halfSets = !wish.halfLayers.empty();
  settings.said.transparentSky = wish.transparentSky;
  settings.said.previewWindow = false;
  Camera& camera = At(cameras, wish.camera);
  ApplyWish(wish, camera);
  AskForLayers(camera, wish.layers);
  RunLong(Initialize);
  return camera.width > 0 && camera.height > 0 && camera.regionXMin < camera.regionXMax &&
         camera.regionYMin < camera.regionYMax;
}

PixelWindow RegionOf(const Camera& camera) {
  return {camera.regionXMin, camera.regionYMin, camera.regionXMax, camera.regionYMax};
}

// As the program writes it into files of layers: in the middle of the shutter.
void AddMatrices(const Camera& camera, LayeredPicture& picture) {
  const CameraPose pose = CameraAtTime(camera, 0.5f);
  SetAttribute(picture, "worldToCamera", WorldToCamera(pose));
  if (camera.projection != zp::Projection::kPerspective) return;
  SetAttribute(picture, "worldToNDC", WorldToScreen(camera, pose));
  SetAttribute(picture, "zephlore:fieldOfView", pose.fieldOfView);
}

LayeredPicture TakePicture(Camera& camera, const std::vector<std::string>& halfLayers) {
  FrameSource source;
  VisitFrameAovs(camera, [&source](const Aov& aov) { source.aovs.push_back(&aov); });
  source.picture = [&source](std::size_t i) { return FinishedPicture(*source.aovs[i], frameState); };
  source.samples = [](int x, int y) { return SamplesOf(frameState, x, y); };
  source.display = {0, 0, camera.width, camera.height};
  source.region = RegionOf(camera);
  source.halfLayers = halfLayers;
  source.half = [&camera](int x, int y, int half) {
    return HalfPixel(camera.aovs.front(), frameState, x, y, static_cast<std::uint32_t>(half));
  };
  LayeredPicture picture = MakeFrameLayers(source);
  AddMatrices(camera, picture);
  return picture;
}

// The beauty image as it stands, of the region.
py::array_t<float> ImageSoFar(const Camera& camera) {
  const PixelWindow region = RegionOf(camera);
  const ImageBuffer picture = FinishedPicture(camera.aovs.front(), frameState);
  py::array_t<float> image({region.Height(), region.Width(), 3});
  const auto width = static_cast<std::size_t>(camera.width);
  float* out = image.mutable_data();
  for (std::int32_t y = region.top; y < region.bottom; ++y) {
    const std::size_t first = static_cast<std::size_t>(y) * width + static_cast<std::size_t>(region.left);
    out = std::copy_n(&picture.floatPixels[3 * first], 3 * static_cast<std::size_t>(region.Width()), out);
  }
  return image;
}

// Asks `callback` after a pass; False, or what it raises, makes that pass the last.
void AskCallback(const py::function& callback, const Camera& camera, std::uint32_t done,
                 std::optional<py::error_already_set>& raised) {
  const py::gil_scoped_acquire lock;
  try {
    const py::object answer = callback(done, ImageSoFar(camera));
    if (answer.is_none()) return;
    const int goesOn = PyObject_IsTrue(answer.ptr());
    if (goesOn < 0) throw py::error_already_set();
    if (goesOn == 0) frameObserver.finish = true;
  } catch (py::error_already_set& error) {
    raised.emplace(std::move(error));
    frameObserver.finish = true;
  }
}

// All passes. Returns the picture, None without a sample, the number of whole passes, and what the callback
// has raised, or None.
py::tuple Run(const py::object& callback, const FrameWish& wish) {
  RequireIdle();
  Camera& camera = At(cameras, wish.camera);
  std::optional<py::error_already_set> raised;
  std::unique_ptr<LayeredPicture> picture;
  const auto take = [&] { picture = std::make_unique<LayeredPicture>(TakePicture(camera, wish.halfLayers)); };
  layerWriter = [&](const Aov&) { return take(), std::string(); };
  if (!callback.is_none())
    frameObserver.passDone = [&](const FrameReport& report) {
      AskCallback(py::reinterpret_borrow<py::function>(callback), camera, report.done, raised);
    };
  bool stopped = false;
  {
    const LongCall call;
    const HostSignals signals;
    settings.frame.passIndex = 0;
    RenderLoop();
    stopped = Stopping();
    if (!picture && CountSamples(frameState) > 0) take();
  }
  frameObserver = {};
  layerWriter = nullptr;
  camera.aovs.front().image.fileName.clear();
  if (PyErr_CheckSignals() != 0 && !raised) raised.emplace();
  return py::make_tuple(picture ? py::cast(std::move(picture)) : py::none(), settings.frame.passIndex,
                        raised ? py::object(raised->value()) : py::none(), stopped);
}

// Of this thread's work; returns what there were.
int SetThreads(int threads) {
  const int before = omp_get_max_threads();
  omp_set_num_threads(threads);
  return before;
}

}  // namespace

void DefineFrames(py::module_& m) {
  py::class_<FrameWish>(m, "_FrameWish")
      .def(py::init<>())
      .def_readwrite("camera", &FrameWish::camera)
      .def_readwrite("passes", &FrameWish::passes)
      .def_readwrite("resolution", &FrameWish::resolution)
      .def_readwrite("region", &FrameWish::region)
      .def_readwrite("layers", &FrameWish::layers)
      .def_readwrite("half_layers", &FrameWish::halfLayers)
      .def_readwrite("transparent_sky", &FrameWish::transparentSky);
  m.def("_begin", Begin);
  m.def("_read_text", ReadText);
  m.def("_put_shader", PutShader);
  m.def("_roots", Roots);
  m.def("_set_instance_end", SetInstanceEnd);
  m.def("_set_group", SetGroup);
  m.def("_set_shadow_catcher", [](std::int32_t shader, std::int32_t layer) {
    RequireRecord("layer", kSurfaces, {shader, layer});
    At(ShaderAt(shader).surfaces, layer).shadowCatcher = true;
  });
  m.def("_set_renderer_clamp_indirect", [](float r, float g, float b) {
    settings.said.clampIndirect = {r, g, b};
  });
  m.def("_prepare", Prepare);
  m.def("_run", Run);
  m.def("_end", End);
  m.def("_take_troubles", TakeTroubles);
  m.def("_layer_words", LayerWords);
  m.def("_set_threads", SetThreads);
  m.def("_format", [] { return settings.format; });
  m.def("_shader_names", [] { return NamesIn(shaders); });
  m.def("_object_names", [] { return NamesIn(objectTable); });
  m.def("_camera_names", [] { return NamesIn(cameras); });
  m.def("_camera_exposure", [](std::int32_t camera) {
    const Vec3 exposure = At(cameras, camera).exposure;
    return py::make_tuple(exposure.x, exposure.y, exposure.z);
  });
}

}  // namespace zp::python
