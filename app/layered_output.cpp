#include "layered_output.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "core/index.h"
#include "core/settings.h"
#include "core/words.h"
#include "imaging/camera_matrices.h"
#include "imaging/frame_layers.h"
#include "imaging/frame_state.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "lights/mix_groups.h"
#include "post/denoise.h"
#include "post/frame_layers.h"
#include "run_log.h"

namespace zp {
namespace {

using Json = nlohmann::json;

// The frame that layerWriter finds.
struct Frame {
  Checkpoint head;  // what the file tells, without sums
  std::function<double()> seconds;
  std::function<FrameSource()> source;
  std::function<std::int32_t()> passes;
  std::uint64_t written = 0;  // samples that the last file of layers holds
  std::vector<std::string> halfLayers = {};
  bool denoises = false;  // the next file
  DenoiseOptions denoising = {};
};
Frame frame;

constexpr std::string_view kHalfLayers[] = {"half0", "half1", "variance"};
constexpr std::string_view kLights = "lights";
bool IsHalfLayer(std::string_view word) {
  return std::find(std::begin(kHalfLayers), std::end(kHalfLayers), word) != std::end(kHalfLayers);
}

Json OptionsOf(const Checkpoint& head) {
  return Json::parse(head.options.empty() ? "{}" : head.options, nullptr, false);
}

PixelWindow DisplayOf(const FramePlan& plan) { return {0, 0, plan.width, plan.height}; }
PixelWindow RegionOf(const FramePlan& plan) { return {plan.left, plan.top, plan.right, plan.bottom}; }

std::string UserName() {
  const passwd* entry = getpwuid(getuid());
  return entry == nullptr ? "" : entry->pw_name;
}

void AddDate(LayeredPicture& picture) {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  char text[32];
  SetAttribute(picture, "capDate",
               std::string(text, std::strftime(text, sizeof text, "%Y:%m:%d %H:%M:%S", &local)));
  SetAttribute(picture, "utcOffset", static_cast<float>(-local.tm_gmtoff));
}

void AddCameraFacts(const Json& facts, LayeredPicture& picture) {
  for (const char* name : {"worldToCamera", "worldToNDC"}) {
    if (!facts.contains(name)) continue;
    std::array<float, 16> matrix = {};
    for (std::size_t i = 0; i < matrix.size(); ++i) matrix[i] = facts[name].at(i);
    SetAttribute(picture, name, matrix);
  }
  if (facts.contains("fieldOfView"))
    SetAttribute(picture, "zephlore:fieldOfView", facts["fieldOfView"].get<float>());
}

bool IsMatteLayer(std::string_view word) {
  const LayerRow* row = FindLayerRow(word);
  return row != nullptr && (row->channel == kChannelObject || row->channel == kChannelShader);
}

std::string HexText(std::uint32_t number) {
  char text[16];
  return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%08x", number))};
}

// Cryptomatte 1.2.0, by the first seven digits of the layer's own hash.
void AddManifests(const Json& manifests, LayeredPicture& picture) {
  for (const auto& [layer, names] : manifests.items()) {
    const std::string start = "cryptomatte/" + HexText(IdOf(layer)).substr(0, 7) + '/';
    SetAttribute(picture, start + "name", layer);
    SetAttribute(picture, start + "hash", std::string("MurmurHash3_32"));
    SetAttribute(picture, start + "conversion", std::string("uint32_to_float32"));
    SetAttribute(picture, start + "manifest", names.dump());
  }
}

void AddAttributes(LayeredPicture& picture) {
  const Json options = OptionsOf(frame.head);
  AddCameraFacts(options.value("facts", Json::object()), picture);
  AddManifests(options.value("mattes", Json::object()), picture);
  AddDate(picture);
  SetAttribute(picture, "owner", UserName());
  const std::string scene = std::filesystem::path(options.value("scene", "")).filename().string();
  SetAttribute(picture, "comments", "zephlore " ZP_VERSION + (scene.empty() ? "" : ", scene " + scene));
  SetAttribute(picture, "zephlore:version", std::string(ZP_VERSION));
  SetAttribute(picture, "zephlore:seed", std::to_string(frame.head.plan.seed));
  SetAttribute(picture, "zephlore:passes", frame.passes());
  SetAttribute(picture, "zephlore:seconds", frame.seconds());
  SetAttribute(picture, "zephlore:sceneHash", SceneHash(frame.head.files, frame.head.plan.format));
}

std::string WriteAll(const Aov& beauty) {
  const FrameSource source = frame.source();
  frame.written = CountSamples(frameState);
  std::size_t held = 0;
  std::string reason;
  try {
    LayeredPicture picture = MakeFrameLayers(source);
    if (frame.denoises && MissingForDenoise(picture).empty()) Denoise(picture, frame.denoising);
    AddAttributes(picture);
    reason = WriteLayers(beauty.image.fileName, picture, &held, true);
  } catch (const std::bad_alloc&) {
    reason = "not enough memory";
  }
  WithRecord([held](RunRecord& record) {
    if (!record.frames.empty()) record.frames.back().held = held;
  });
  return reason;
}

// Numbers that are no light, as the file can hold them.
std::string WriteOne(const Aov& aov) {
  const FrameSource source = frame.source();
  const auto found = std::find_if(source.aovs.begin(), source.aovs.end(),
                                  [&](const Aov* other) { return other->layer == aov.layer; });
  if (found == source.aovs.end()) return "the layer is gone";
  LayeredPicture picture = MakeFrameLayer(source, static_cast<std::size_t>(found - source.aovs.begin()));
  picture.isEncoded = KeepsBytes(aov.image.fileName);
  const float most = aov.image.fileName.ends_with(".pfm") ? HUGE_VALF : kFarthest / 4;
  for (float& number : picture.layers[0].numbers) {
    if (picture.isEncoded && aov.channel == kChannelFacing) number = 0.5f + 0.5f * number;
    number = std::min(number, most);
  }
  return WriteLayers(aov.image.fileName, picture);
}

std::string WriteFrame(const Aov& aov) {
  const std::string reason = aov.channel == kChannelLightGroup || !aov.mean ? WriteOne(aov) : WriteAll(aov);
  KeepSave(aov.image.fileName, reason);
  return reason;
}

void NameAllLightLayers(Camera& camera) {
  for (std::size_t i = 0; i < pointLights.size(); ++i)
    NameLightLayers(camera, pointLights[i].aovs, "point" + std::to_string(i));
  for (std::size_t i = 0; i < parallelLights.size(); ++i)
    NameLightLayers(camera, parallelLights[i].aovs, "parallel" + std::to_string(i));
  NameLightLayers(camera, skyLight.aovs, "sky");
  NameLightLayers(camera, geometryLight.aovs, "geometry");
}

bool AsksForGroups(const RenderOptions& options) {
  return std::find(options.aov.begin(), options.aov.end(), kLights) != options.aov.end();
}

// Where the scene names groups, files that hold all layers have theirs without being asked, and so have parts
// of them.
bool WantsGroups(const RenderOptions& options, const Camera& camera) {
  if (options.groups || AsksForGroups(options)) return true;
  const bool holdsAll = HoldsLayers(camera.aovs.front().image.fileName) || options.passes;
  return holdsAll && options.resume.empty() && !NamedGroups().empty();
}

bool IsDivided(const Aov& aov) {
  const LayerRow* row = FindLayerRowOf(aov.layer);
  return row != nullptr && row->channel == aov.channel && (row->ofHits || aov.channel == kChannelSamples);
}

// Where the beauty's format holds one picture, layers go to files of their own.
void NameBesideBeauty(Aov& aov, const std::string& beauty) {
  if (beauty.empty() || IsMatte(aov)) return;
  aov.image.fileName = NameBeside(beauty, aov.layer);
  aov.withLayers = IsDivided(aov);
}

FrameSource LiveSource() {
  FrameSource source;
  Camera& camera = At(cameras, frame.head.plan.camera);
  VisitFrameAovs(camera, [&source](const Aov& aov) { source.aovs.push_back(&aov); });
  source.picture = [aovs = source.aovs](std::size_t i) { return FinishedPicture(*aovs[i], frameState); };
  source.samples = [](int x, int y) { return SamplesOf(frameState, x, y); };
  source.display = DisplayOf(frame.head.plan);
  source.region = RegionOf(frame.head.plan);
  source.floats = OptionsOf(frame.head).value("float", false);
  source.halfLayers = frame.halfLayers;
  source.half = [&camera](int x, int y, int half) {
    return HalfPixel(camera.aovs.front(), frameState, x, y, static_cast<std::uint32_t>(half));
  };
  return source;
}

}  // namespace

bool HasHalfLayers(const RenderOptions& options) {
  return std::any_of(options.aov.begin(), options.aov.end(), IsHalfLayer);
}

std::string SettleHalfLayers(RenderOptions& options) {
  for (const char* word : {"albedo", "normal", "depth", "half0", "half1"})
    if ((options.denoise || options.denoiseLayers) &&
        std::find(options.aov.begin(), options.aov.end(), word) == options.aov.end())
      options.aov.push_back(word);
  if (std::any_of(options.aov.begin(), options.aov.end(), IsMatteLayer) && !HoldsLayers(options.output) &&
      (!options.passes || !options.output.empty()))
    return "mattes are layers of a file: --output FILE.exr is missing";
  if (!HasHalfLayers(options)) return {};
  if (options.passes) return "--passes cannot keep half sets of passes";
  return HoldsLayers(options.output)
             ? ""
             : "half sets of passes are layers of a file: --output FILE.exr is missing";
}

bool HoldsLayers(const std::string& name) {
  const std::string extension = std::filesystem::path(name).extension().string();
  return extension == ".exr" || extension == ".EXR";
}

std::string LayerObstacle(const std::string& word) {
  std::vector<std::string_view> words(std::begin(kHalfLayers), std::end(kHalfLayers));
  words.push_back(kLights);
  for (const LayerRow& row : kLayerRows) words.push_back(row.word);
  for (const ChannelWord& row : kChannelWords)
    if (FindLayerRow(row.word) == nullptr) words.push_back(row.word);
  if (std::find(words.begin(), words.end(), word) != words.end()) return {};
  const std::string_view nearest = NearestWord(word, words);
  std::string all;
  for (const std::string_view known : words) all += (all.empty() ? "" : ", ") + std::string(known);
  return "there is no layer '" + word +
         (nearest.empty() ? "' (there are " + all + ")" : "', did you mean '" + std::string(nearest) + "'?");
}

bool WantsLayers(const RenderOptions& options) {
  return options.layers || options.passes || !options.aov.empty() || options.aovNearest ||
         HoldsLayers(options.output);
}

void AskForLayers(const RenderOptions& options, std::size_t index) {
  if (!WantsLayers(options)) return;
  Camera& camera = cameras[index];
  AddLayers(camera, options.aov, options.aovNearest);
  if (WantsGroups(options, camera)) AddGroupLayers(camera, NamedGroups());
  NameAllLightLayers(camera);
  Aov& beauty = camera.aovs.front();
  const std::string& name = beauty.image.fileName;
  if (HoldsLayers(name)) {
    beauty.withLayers = !options.output.empty() || !options.aov.empty();
    return;
  }
  for (const std::string& word : options.aov) {
    const LayerRow* row = FindLayerRow(word);
    const std::string layer = row == nullptr ? word : std::string(row->layer);
    for (Aov& aov : camera.aovs)
      if (aov.layer == layer || (word == kLights && aov.channel == kChannelLightGroup))
        NameBesideBeauty(aov, name);
  }
}

std::string WithCameraFacts(const std::string& options, const Camera& camera) {
  const CameraPose pose = CameraAtTime(camera, 0.5f);
  const auto isFinite = [](const std::array<float, 16>& m) {
    return std::all_of(m.begin(), m.end(), [](float number) { return std::isfinite(number); });
  };
  Json all = Json::parse(options), facts = Json::object();
  const std::array<float, 16> view = WorldToCamera(pose), screen = WorldToScreen(camera, pose);
  if (isFinite(view)) facts["worldToCamera"] = view;
  if (camera.projection == Projection::kPerspective && isFinite(screen)) facts["worldToNDC"] = screen;
  if (camera.projection == Projection::kPerspective && std::isfinite(pose.fieldOfView))
    facts["fieldOfView"] = pose.fieldOfView;
  all["facts"] = facts;
  all["groups"] = std::any_of(camera.aovs.begin(), camera.aovs.end(),
                              [](const Aov& aov) { return aov.channel == kChannelLightGroup; });
  for (const Aov& aov : camera.aovs)
    if (IsMatte(aov))
      for (const MatteName& name : MatteNames(static_cast<Channel>(aov.channel)))
        all["mattes"][aov.layer][name.name] = HexText(name.id);
  return all.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void WriteFramesWithLayers(const RenderOptions& options, const Checkpoint& base,
                           std::function<double()> seconds) {
  frame = {base, std::move(seconds), LiveSource, nullptr};
  std::copy_if(options.aov.begin(), options.aov.end(), std::back_inserter(frame.halfLayers), IsHalfLayer);
  frame.denoising.lightGroups = AsksForGroups(options);
  frame.passes = [] {
    const std::uint32_t next = settings.frame.passIndex, begin = PassesToRender().begin;
    return static_cast<std::int32_t>(next - std::min(next, begin));
  };
  layerWriter = WriteFrame;
}

void FinishLayers(bool denoises) {
  Camera& camera = At(cameras, settings.frame.activeCamera);
  Aov& beauty = camera.aovs.front();
  const double seconds = frame.seconds();
  const std::int32_t passes = frame.passes();
  frame.seconds = [seconds] { return seconds; };
  frame.passes = [passes] { return passes; };
  if (!beauty.withLayers) return;
  const std::uint64_t samples = CountSamples(frameState);
  frame.denoises = denoises;
  if (samples > 0 && (frame.written != samples || denoises) && IsSaved(beauty)) SaveAov(beauty);
  beauty.image.fileName.clear();  // the lights' layers are gone when cameras are written once more
}

void WriteMergeWithLayers(MergedFrame& merged, const std::string& output) {
  std::vector<Aov>& aovs = merged.head.aovs;
  aovs.front().withLayers = HoldsLayers(output);
  for (Aov& aov : aovs)
    if (!HoldsLayers(output) && !aov.layer.empty() && !aov.ofLight) NameBesideBeauty(aov, output);
  frame = {merged.head, [&merged] { return merged.head.seconds; }, nullptr, nullptr};
  frame.passes = [&merged] {
    std::uint32_t passes = 0;
    for (const PassRange range : merged.head.whole) passes += range.end - range.begin;
    return static_cast<std::int32_t>(passes);
  };
  frame.source = [&merged] {
    FrameSource source;
    for (const Aov& aov : merged.head.aovs) source.aovs.push_back(&aov);
    source.picture = [&merged](std::size_t i) { return MergedPicture(merged, i); };
    const FramePlan& plan = merged.head.plan;
    source.samples = [&merged, width = static_cast<std::size_t>(plan.width)](int x, int y) {
      return merged.samples[static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x)];
    };
    source.display = DisplayOf(plan);
    source.region = RegionOf(plan);
    source.floats = OptionsOf(merged.head).value("float", false);
    return source;
  };
  layerWriter = WriteFrame;
}

}  // namespace zp
