// Where format 2 renders a scene of format 1 otherwise, so that whoever wrote it can choose. What other
// checks find already says so itself.

#include <algorithm>
#include <cmath>
#include <optional>

#include "core/index.h"
#include "core/settings.h"
#include "geometry/density.h"
#include "geometry/geometry.h"
#include "lights/lights.h"
#include "scene/check_parts.h"

namespace zp {
namespace {

const TextPlace kLightFolder = {"light", 0}, kRenderFolder = {"render", 0};

using Place = std::optional<TextPlace>;

Place PlaceOf(const SceneNotes& notes, std::string_view keyword) {
  const auto found = notes.stated.find(keyword);
  return found == notes.stated.end() ? Place() : found->second;
}

// The first layer, or shader, that is such a one.
template <class Is>
Place FirstLayer(const SceneNotes& notes, Is&& is) {
  for (const NotedShader& noted : notes.shaders)
    for (std::size_t i = 0; i < noted.layers.size(); ++i)
      if (is(noted.shader.surfaces[i])) return noted.layers[i];
  return {};
}
template <class Is>
Place FirstShader(const SceneNotes& notes, Is&& is) {
  for (const NotedShader& noted : notes.shaders)
    if (is(noted.shader)) return noted.place;
  return {};
}

template <class Is>
bool AnyPart(const SceneGraph& graph, Is&& is) {
  for (std::size_t i = 0; i < objectTable.size(); ++i)
    if (graph.drawn[i] && std::any_of(objectTable[i].parts.begin(), objectTable[i].parts.end(), is))
      return true;
  return false;
}

bool Emits(const SurfaceShader& layer) { return !IsBlack(layer[Element::kEmissive].color) || layer.window; }
bool IsSampled(const SurfaceShader& layer) { return layer.virtualLight && geometryLight.sample > 0; }
bool SkyShines() { return !IsBlack(skyLight.color); }

Place FindUnsampledLight(const SceneNotes& notes, const SceneGraph&) {
  const bool sampled = !skyLight.image.empty() && skyLight.sample > 0;
  if (SkyShines() && !sampled) return StatedAt(notes, "sky_light.color", kLightFolder);
  return FirstLayer(notes, [](const SurfaceShader& layer) { return Emits(layer) && !IsSampled(layer); });
}

Place FindSampledEmitter(const SceneNotes& notes, const SceneGraph&) {
  return FirstLayer(notes, [](const SurfaceShader& layer) { return Emits(layer) && IsSampled(layer); });
}

// Counts of a light that is not sampled do nothing.
Place FindFixedCount(const SceneNotes& notes, const SceneGraph&) {
  if (cameras.empty() || cameras[0].sample < 2) return {};
  for (const std::string_view keyword : {"final_gather.sample", "sky_light.sample", "geometry_light.sample",
                                         "point_light.sample", "parallel_light.sample"})
    if (const Place place = PlaceOf(notes, keyword)) return place;
  return {};
}

Place FindUnsaidGathering(const SceneNotes& notes, const SceneGraph&) {
  const bool said = PlaceOf(notes, "final_gather.distance") && PlaceOf(notes, "final_gather.resolution");
  return said || !ChoosesFinalGathering() ? Place() : StatedAt(notes, "render.final_gather", kRenderFolder);
}

Place FindGatheredInstances(const SceneNotes& notes, const SceneGraph& graph) {
  if (!ChoosesFinalGathering()) return {};
  for (const NotedInstance& noted : notes.instances)
    if (graph.drawn[noted.object]) return StatedAt(notes, "final_gather.distance", kRenderFolder);
  return {};
}

Place FindParticles(const SceneNotes& notes, const SceneGraph& graph) {
  const auto shadows = [](const Part& part) {
    return !part.particles.empty() && !part.scalarSets.empty() &&
           std::any_of(part.scalarSets[0].values.begin(), part.scalarSets[0].values.end(),
                       [](float radius) { return radius >= 1; });
  };
  for (const NotedObject& noted : notes.objects)
    if (graph.drawn[noted.index] && AnyPart(graph, shadows)) return noted.place;
  return {};
}

Place FindMedium(const SceneNotes& notes, const SceneGraph&) {
  if (globalVolume.transmittance != kWhite) return StatedAt(notes, "sky_light.volume_shader", kLightFolder);
  return FirstShader(notes, [](const Shader& shader) { return shader.volume.transmittance != kWhite; });
}

Place FindCameraIor(const SceneNotes& notes, const SceneGraph&) {
  const bool inAir = cameras.empty() || IsSameMedium(cameras[0].ior, 1);
  return inAir ? Place() : StatedAt(notes, "camera.ior", {"camera", 0});
}

Place FindDiffusion(const SceneNotes& notes, const SceneGraph&) {
  return FirstLayer(notes,
                    [](const SurfaceShader& layer) { return !IsBlack(layer[Element::kDiffusion].color); });
}

Place FindColorMatrix(const SceneNotes& notes, const SceneGraph&) {
  for (const NotedSlot& noted : notes.slots)
    if (const auto& m = noted.slot.colorMatrix.m; m[3][1] != 0 || m[3][2] != 0) return noted.image;
  return {};
}

struct FormatRule {
  Place (*find)(const SceneNotes&, const SceneGraph&);
  std::string_view text;
};
constexpr FormatRule kRules[] = {
    {FindUnsampledLight,
     "light that is found by chance is not seen from the last of the bounces; in format 2 all light is"},
    {FindSampledEmitter,
     "the light of a sampled virtual_light depends on its size and its faces; in format 2 it is what it "
     "emits"},
    {FindFixedCount,
     "\"sample\" is shared by all passes, so that more passes alone keep this noise; in format 2 it counts "
     "in each"},
    {FindUnsaidGathering,
     "without \"distance\" and \"resolution\" this is final gathering with photons; format 2 traces paths"},
    {FindGatheredInstances,
     "final gathering finds no cells on instances; in format 2 rays go on until there are some"},
    {FindParticles,
     "particles with a radius of 1 or more cast wrong shadows; in format 2 they cast right ones"},
    {FindMedium,
     "a medium does not dim light samples and photons; in format 2 it does, by the length inside"},
    {FindCameraIor,
     "a camera in a medium sees no sampled lights; in format 2 it stands in a world of its ior"},
    {FindDiffusion, "diffusion loses light or gains some; in format 2 it keeps it"},
    {FindColorMatrix, "the fourth row of a color_matrix takes green for blue; in format 2 it takes blue"},
};

}  // namespace

void CheckFormat(SceneNotes& notes, const SceneGraph& graph) {
  if (settings.format >= 2) return;
  for (const FormatRule& rule : kRules)
    if (const Place place = rule.find(notes, graph))
      Find(notes, *place, FindingCode::kOldFormat, std::string(rule.text), "format 2");
}

}  // namespace zp
