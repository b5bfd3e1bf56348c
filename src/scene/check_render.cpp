// What the settings of the renderer and the lights make of the scene.

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/index.h"
#include "core/settings.h"
#include "geometry/density.h"
#include "geometry/geometry.h"
#include "lights/lights.h"
#include "scene/check_parts.h"

namespace zp {
namespace {

const TextPlace kRenderFolder = {"render", 0};
constexpr double kRaysPerSecond = 2e6;  // of a thread, in a scene of middling size
constexpr double kSecondsPerDay = 86400;

void FindLimit(SceneNotes& notes, std::string_view keyword, double value, double least, double most) {
  const auto stated = notes.stated.find(keyword);
  if (stated == notes.stated.end() || (value >= least && value <= most)) return;
  char text[80];
  std::snprintf(text, sizeof text, ": %g counts as %g", value, value > most ? most : least);
  Find(notes, stated->second, FindingCode::kLimitedValue,
       std::string(keyword.substr(keyword.find('.') + 1)) + text);
}

void CheckLimits(SceneNotes& notes) {
  constexpr double kMost = 2147483647;
  FindLimit(notes, "final_gather.ray_depth", settings.said.rayDepth, 1, kMostDepth);
  FindLimit(notes, "final_gather.photon_depth", settings.said.photonDepth, 1, kMostDepth);
  FindLimit(notes, "final_gather.bounce", settings.said.rendererBounce, 1, kMost);
  FindLimit(notes, "final_gather.sample", GatherBudget(), 0, kMost);
  if (!cameras.empty()) FindLimit(notes, "camera.sample", cameras[0].sample, 1, kMostSamples);
  if (skyLight.image != kAnalyticSky) return;
  FindLimit(notes, "sky_light.turbidity", static_cast<double>(skyLight.turbidity), 1, 10);
  FindLimit(notes, "sky_light.albedo", static_cast<double>(skyLight.albedo), 0, 1);
}

// The first noted shader with virtual_light.
const NotedShader* FindVirtualLight(const SceneNotes& notes) {
  for (const NotedShader& noted : notes.shaders)
    if (noted.virtualLight.line > 0) return &noted;
  return nullptr;
}

// A stated sample of 0 is a decision: the light is found by chance, and casts photons.
void CheckEmitters(SceneNotes& notes) {
  const NotedShader* light = FindVirtualLight(notes);
  const auto stated = notes.stated.find("geometry_light.sample");
  const bool isStated = stated != notes.stated.end();
  if (light != nullptr && LightBudget(geometryLight) <= 0 && !isStated)
    Find(notes, light->virtualLight, FindingCode::kUnsampledEmitter,
         "virtual_light of " + Quoted(light->shader.name) +
             " is not sampled: geometry_light states no \"sample\"");
  if (light == nullptr && LightBudget(geometryLight) > 0 && isStated)
    Find(notes, stated->second, FindingCode::kNoEmitter,
         "no surface with \"virtual_light\" takes these samples");
}

bool HasPrimitives(const Object& object) {
  return std::any_of(object.parts.begin(), object.parts.end(),
                     [](const Part& part) { return !part.triangles.empty() || !part.tetragons.empty(); });
}

bool CastsPhotons() {
  const auto casts = [](const Light& light) { return light.photon > 0; };
  return PhotonsOf(skyLight.photon) > 0 || PhotonsOf(geometryLight.photon) > 0 ||
         std::any_of(pointLights.begin(), pointLights.end(), casts) ||
         std::any_of(parallelLights.begin(), parallelLights.end(), casts);
}

// Format 2 gathers where all is said that it takes.
void CheckHalfGathering(SceneNotes& notes) {
  const TextPlace place = StatedAt(notes, "render.final_gather", kRenderFolder);
  if (ChoosesFinalGathering() && !CastsPhotons())
    Find(notes, place, FindingCode::kHalfGathering,
         "final gathering without photons: the cells stay black, for no light states \"photon\"");
  for (const bool far : {true, false})
    if (far ? GatherDistance() > 0 && !settings.said.resolution
            : CellResolution() > 0 && !settings.said.distance)
      Find(notes, place, FindingCode::kHalfGathering,
           std::string(far ? "distance without \"resolution\"" : "resolution without \"distance\"") +
               ": the mode is path tracing, for format 2 has no default of it");
}

void CheckGathering(SceneNotes& notes, const SceneGraph& graph) {
  if (settings.format >= 2) CheckHalfGathering(notes);
  const TextPlace resolution = StatedAt(notes, "final_gather.resolution", kRenderFolder);
  if (GatherDistance() > 0 && CellResolution() > 0 && !AsksForCells())
    Find(notes, resolution, FindingCode::kTinyCells,
         "resolution: cells below 1e-8 square scene units are none, and the mode is path tracing");
  if (settings.format >= 2 || !ChoosesFinalGathering() || settings.said.rendererBounce > 1) return;
  for (std::size_t i = 0; i < objectTable.size(); ++i) {
    if (!graph.placed[i] || !HasPrimitives(objectTable[i])) continue;
    Find(notes, StatedAt(notes, "final_gather.bounce", StatedAt(notes, "render.final_gather", kRenderFolder)),
         FindingCode::kDarkInstances,
         "final gathering with \"bounce\" 1 finds instances, such as " + Quoted(objectTable[i].name) +
             ", without cells: what they reflect is missing, and black under a plain sky",
         "bounce 2");
    return;
  }
}

// Whether photons of a shader's surfaces are kept, and what displacement makes of a triangle. The flags that
// a render goes by do not exist yet.
struct CellShader {
  bool receives = false;
  double pieces = 1;  // triangles of one
};

std::vector<CellShader> ReadCellShaders() {
  std::vector<CellShader> result(shaders.size());
  for (std::size_t i = 0; i < shaders.size(); ++i) {
    const Shader& shader = shaders[i];
    result[i].receives = shader.surfaces.empty();  // looks like the default
    for (const SurfaceShader& surface : shader.surfaces)
      result[i].receives |=
          !IsBlack(surface[Element::kLambertian].color) || !IsBlack(surface[Element::kTransmissive].color);
    const auto split = [&](const std::vector<ImageSlot>& layers) {
      for (const ImageSlot& layer : layers)
        if (layer.level > 1) result[i].pieces *= static_cast<double>(layer.level) * layer.level;
    };
    split(shader.geometry.vector);
    if (settings.format >= 2) split(shader.geometry.height);
  }
  return result;
}

double CellBytes(const std::vector<CellShader>& looks, std::int32_t shader, float area) {
  if (!IsIndex(looks, shader)) shader = 0;
  const CellShader& look = At(looks, shader);
  const double level = look.receives ? CellLevel(area / static_cast<float>(look.pieces)) : 1;
  return static_cast<double>(kBytesPerCell) * level * level * look.pieces;
}

// Displaced rectangles become triangles.
void CheckCells(SceneNotes& notes, const SceneGraph& graph) {
  if (!AsksForCells() || graph.root == kNone) return;
  const std::vector<CellShader> looks = ReadCellShaders();
  const auto inside = [](const Part& part, const auto& vertices) {
    return std::all_of(std::begin(vertices), std::end(vertices), [&](std::uint32_t v) {
      return v < part.positions.size() && IsFinite(part.positions[v]);
    });
  };
  double most = 0;
  for (const Part& part : At(objectTable, graph.root).parts) {
    double triangles = 0, tetragons = 0;
    for (std::uint32_t i = 0; i < part.triangles.size(); ++i)
      if (inside(part, part.triangles[i].vertex))
        triangles += CellBytes(looks, part.triangles[i].shader, TriangleArea(part, i));
    for (std::uint32_t i = 0; i < part.tetragons.size(); ++i)
      if (inside(part, part.tetragons[i].vertex))
        tetragons += CellBytes(looks, part.tetragons[i].shader, TetragonArea(part, i));
    most = std::max({most, triangles, tetragons});
  }
  if (!(most > static_cast<double>(kMostCellBytes))) return;
  char text[120];
  std::snprintf(text, sizeof text,
                "resolution: the cells of one model take %.1f GB, and the render ends at more than 1 GB",
                most / static_cast<double>(kMostCellBytes));
  Find(notes, StatedAt(notes, "final_gather.resolution", kRenderFolder), FindingCode::kManyCells, text);
}

// Seconds on all threads, told where they are lost.
void FindEndless(SceneNotes& notes, const TextPlace& place, std::string_view what, double rays) {
  const int threads = std::max(omp_get_max_threads(), 1);
  const double days = rays / (kRaysPerSecond * threads * kSecondsPerDay);
  if (!(days > 1)) return;
  char text[200];
  std::snprintf(text, sizeof text, "%.*s: about %.1e rays, %.3g days at two million a second on each of %s",
                static_cast<int>(what.size()), what.data(), rays, days,
                Count(static_cast<std::size_t>(threads), "thread").c_str());
  Find(notes, place, FindingCode::kEndless, text);
}

// Shadow rays of a hit towards point and parallel lights and what is sampled else.
double CountLights(bool emitters) {
  return static_cast<double>(pointLights.size() + parallelLights.size()) +
         (emitters && LightBudget(geometryLight) > 0 ? 1 : 0) +
         (skyLight.image.empty() || LightBudget(skyLight) <= 0 ? 0 : 1);
}

// Indirect rays of a first hit in all passes together, which gather once each at least.
double CountGathered(double passes) {
  const double budget = GatherBudget();
  return settings.format >= 2 ? passes * std::max(budget, 1.0) : std::max(passes, budget);
}

void CheckCost(SceneNotes& notes) {
  if (cameras.empty()) return;
  const Camera& camera = cameras[0];
  const auto side = [](int size, int low, int high) {
    return static_cast<double>(std::max(std::min(size, high) - std::max(low, 0), 0));
  };
  const double pixels = side(camera.width, camera.regionXMin, camera.regionXMax) *
                        side(camera.height, camera.regionYMin, camera.regionYMax);
  const double passes = std::clamp(camera.sample, 1, kMostSamples),
               each = 1 + CountLights(FindVirtualLight(notes) != nullptr);
  const double bounces = ChoosesFinalGathering() ? 1 : std::max(settings.said.rendererBounce, 1);
  const TextPlace cameraPlace = notes.cameras.empty() ? TextPlace{"camera", 0} : notes.cameras[0].place;
  // What is beyond a ray for each pass is the gather sample's.
  const double byPasses = pixels * passes * each * (1 + std::min(bounces, 255.0));
  FindEndless(notes, StatedAt(notes, "camera.sample", cameraPlace), "passes", byPasses);
  FindEndless(notes, StatedAt(notes, "final_gather.sample", kRenderFolder), "sample",
              pixels * (CountGathered(passes) - passes) * each * std::min(bounces, 255.0));
  const auto checkPhotons = [&](std::string_view keyword, double photons) {
    FindEndless(notes, StatedAt(notes, keyword, {"light", 0}), "photon", photons * 2);
  };
  double photons = 0;
  for (const PointLight& light : pointLights) photons += static_cast<double>(light.photon);
  checkPhotons("point_light.photon", photons);
  photons = 0;
  for (const ParallelLight& light : parallelLights) photons += static_cast<double>(light.photon);
  checkPhotons("parallel_light.photon", photons);
}

}  // namespace

const TextPlace& StatedAt(const SceneNotes& notes, std::string_view keyword, const TextPlace& otherwise) {
  const auto found = notes.stated.find(keyword);
  return found == notes.stated.end() ? otherwise : found->second;
}

void CheckRenderer(SceneNotes& notes, const SceneGraph& graph) {
  CheckLimits(notes);
  CheckEmitters(notes);
  CheckGathering(notes, graph);
  CheckCells(notes, graph);
  CheckCost(notes);
}

}  // namespace zp
