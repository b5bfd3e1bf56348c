// Where format 2 renders a scene of format 1 otherwise, so that whoever wrote it can choose. What other
// checks find already says so itself.

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

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
bool IsSampled(const SurfaceShader& layer) { return layer.virtualLight && LightBudget(geometryLight) > 0; }

bool HasFaces(const Part& part) { return !part.triangles.empty() || !part.tetragons.empty(); }
bool HasPrimitives(const Part& part) {
  return HasFaces(part) || !part.particles.empty() || !part.cylinders.empty();
}

// Of every corner of a face that is there, and whether it is the case for one of them.
template <class Faces, class Is>
bool AnyFace(const Part& part, const Faces& faces, Is&& is) {
  return std::any_of(faces.begin(), faces.end(), [&](const auto& face) {
    return std::all_of(std::begin(face.vertex), std::end(face.vertex),
                       [&](std::uint32_t v) { return v < part.positions.size(); }) &&
           is(face);
  });
}

Place FindUnsampledLight(const SceneNotes& notes, const SceneGraph&) {
  const bool sampled = !skyLight.image.empty() && LightBudget(skyLight) > 0;
  if (!IsBlack(skyLight.color) && !sampled) return StatedAt(notes, "sky_light.color", kLightFolder);
  return FirstLayer(notes, [](const SurfaceShader& layer) { return Emits(layer) && !IsSampled(layer); });
}

Place FindSampledEmitter(const SceneNotes& notes, const SceneGraph&) {
  return FirstLayer(notes, [](const SurfaceShader& layer) { return Emits(layer) && IsSampled(layer); });
}

Place FindSharedCount(const SceneNotes& notes, const SceneGraph&) {
  if (cameras.empty() || cameras[0].sample < 2) return {};
  const auto most = [](const auto& lights) {
    std::int32_t sample = 0;
    for (const auto& light : lights)
      if (light.blur > 0) sample = std::max(sample, light.sample);
    return sample;
  };
  const std::pair<std::string_view, std::int32_t> counts[] = {
      {"final_gather.sample", GatherBudget()},
      {"sky_light.sample", skyLight.image.empty() ? 0 : LightBudget(skyLight)},
      {"geometry_light.sample", FirstLayer(notes, IsSampled) ? LightBudget(geometryLight) : 0},
      {"point_light.sample", most(pointLights)},
      {"parallel_light.sample", most(parallelLights)}};
  for (const auto& [keyword, count] : counts)
    if (const Place place = PlaceOf(notes, keyword); place && count > 1) return place;
  return {};
}

Place FindUnsaidGathering(const SceneNotes& notes, const SceneGraph&) {
  const bool said = settings.said.distance && settings.said.resolution;
  return said || !ChoosesFinalGathering() ? Place() : StatedAt(notes, "render.final_gather", kRenderFolder);
}

Place FindUnsaidRadius(const SceneNotes& notes, const SceneGraph&) {
  const auto casts = [](const Light& light) { return light.photon > 0; };
  const auto bends = [](const SurfaceShader& layer) { return !IsBlack(layer[Element::kSpecular].color); };
  const bool gathers =
      FirstLayer(notes, bends) && (std::any_of(pointLights.begin(), pointLights.end(), casts) ||
                                   std::any_of(parallelLights.begin(), parallelLights.end(), casts));
  return settings.said.photonRadius || !gathers ? Place()
                                                : StatedAt(notes, "render.final_gather", kRenderFolder);
}

// What photons leave elsewhere than paths find it: instances, small faces, layers, softened terminators.
Place FindUnevenPhotons(const SceneNotes& notes, const SceneGraph& graph) {
  if (!ChoosesFinalGathering()) return {};
  const TextPlace place = StatedAt(notes, "render.final_gather", kRenderFolder);
  for (const NotedInstance& noted : notes.instances)
    if (graph.drawn[noted.object]) return place;
  const auto layered = [](const Shader& shader) { return shader.surfaces.size() > 1; };
  if (FirstShader(notes, layered)) return place;
  const auto softens = [](const Light& light) { return light.photon > 0 && light.offset != 0; };
  if (std::any_of(pointLights.begin(), pointLights.end(), softens) ||
      std::any_of(parallelLights.begin(), parallelLights.end(), softens))
    return place;
  const auto small = [](const Part& part) {
    constexpr float kLeastFace = 1e-5f;
    return AnyFace(part, part.triangles,
                   [&](const Triangle& face) {
                     return TriangleArea(part, static_cast<std::uint32_t>(&face - part.triangles.data())) <=
                            kLeastFace;
                   }) ||
           AnyFace(part, part.tetragons, [&](const Tetragon& face) {
             return TetragonArea(part, static_cast<std::uint32_t>(&face - part.tetragons.data())) <=
                    kLeastFace;
           });
  };
  return AnyPart(graph, small) ? place : Place();
}

float RadiusOf(const Part& part, std::size_t vertex) {
  const bool known = !part.scalarSets.empty() && vertex < part.scalarSets[0].values.size();
  return known ? part.scalarSets[0].values[vertex] : 0.0f;
}

// The first object with such a Part.
template <class Is>
Place FirstObject(const SceneNotes& notes, const SceneGraph& graph, Is&& is) {
  for (const NotedObject& noted : notes.objects) {
    const std::vector<Part>& parts = objectTable[noted.index].parts;
    if (graph.drawn[noted.index] && std::any_of(parts.begin(), parts.end(), is)) return noted.place;
  }
  return {};
}

Place FindLargeParticles(const SceneNotes& notes, const SceneGraph& graph) {
  return FirstObject(notes, graph, [](const Part& part) {
    return std::any_of(part.particles.begin(), part.particles.end(),
                       [&](std::uint32_t v) { return RadiusOf(part, v) >= 0.1f; });
  });
}

Place FindThickTips(const SceneNotes& notes, const SceneGraph& graph) {
  return FirstObject(notes, graph, [](const Part& part) {
    return std::any_of(part.cylinders.begin(), part.cylinders.end(), [&](std::uint32_t v) {
      return RadiusOf(part, v + std::size_t{1}) > 1.001f * RadiusOf(part, v);
    });
  });
}

Place FindConcaveFaces(const SceneNotes& notes, const SceneGraph&) {
  for (const NotedModel& model : notes.models)
    if (model.report.concave > 0) return model.place;
  return {};
}

Place FindMirroredUvs(const SceneNotes& notes, const SceneGraph& graph) {
  const auto turns = [](const SurfaceShader& layer) {
    return !layer[Element::kNormal].imageName.empty() || !IsBlack(layer[Element::kAnisotropy].color);
  };
  const auto moves = [](const Shader& shader) { return !shader.geometry.vector.empty(); };
  const bool asks = FirstLayer(notes, turns) || FirstShader(notes, moves);
  return asks ? FirstObject(notes, graph,
                            [](const Part& part) {
                              const auto is = [&](const auto& face) { return IsMirrored(part, face.vertex); };
                              return !part.uvSets.empty() &&
                                     part.uvSets[0].values.size() == part.positions.size() &&
                                     (AnyFace(part, part.triangles, is) || AnyFace(part, part.tetragons, is));
                            })
              : Place();
}

// Emitters of an instance count once for each part beside it.
Place FindPartsBesideEmitters(const SceneNotes& notes, const SceneGraph& graph) {
  if (!FirstLayer(notes, Emits)) return {};
  for (const NotedInstance& noted : notes.instances)
    if (graph.drawn[noted.object] && objectTable[noted.object].parts.size() > 1) return noted.place;
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
  return FirstLayer(notes, [](const SurfaceShader& layer) {
    const Vec3 variance = layer[Element::kDiffusion].color;
    return std::min({variance.x, variance.y, variance.z}) > 0;
  });
}

Place FindColorMatrix(const SceneNotes& notes, const SceneGraph&) {
  for (const NotedSlot& noted : notes.slots)
    if (const auto& m = noted.slot.colorMatrix.m; m[3][1] != m[3][2]) return noted.image;
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
    {FindSharedCount,
     "all passes share \"sample\", so that more passes alone keep this noise; in format 2 it counts in each: "
     "divide it by the number of passes"},
    {FindUnsaidGathering,
     "without \"distance\" and \"resolution\" this is final gathering with a million photons of each light; "
     "format 2 traces paths"},
    {FindUnsaidRadius,
     "without \"radius\" caustics are gathered within one scene unit; in format 2 within 0.005 of the scene"},
    {FindUnevenPhotons,
     "on instances, layers, small faces and behind an \"offset\" photons bring other light than paths; in "
     "format "
     "2 the same"},
    {FindPartsBesideEmitters,
     "what emits in this instance counts once for each part of its object; in format 2 once"},
    {FindLargeParticles, "shadows of particles take a wrong length; in format 2 the right one"},
    {FindThickTips, "strands that grow thicker are cut off at their sides; in format 2 they are whole"},
    {FindConcaveFaces, "concave faces of four corners show another area; in format 2 their own"},
    {FindMirroredUvs, "where uvs are mirrored, tangents run against u; in format 2 along it"},
    {FindMedium,
     "a medium dims neither light samples nor photons; in format 2 all light, by the length inside"},
    {FindCameraIor,
     "a camera of another index sees no sampled light; in format 2 it stands in a world of it"},
    {FindDiffusion, "diffusion loses light of the narrower channels; in format 2 none"},
    {FindColorMatrix, "the fourth row of a color_matrix takes green for blue; in format 2 blue for blue"},
};

}  // namespace

void CheckFormat(SceneNotes& notes, const SceneGraph& graph) {
  if (settings.format >= 2 || !AnyPart(graph, HasPrimitives)) return;
  for (const FormatRule& rule : kRules)
    if (const Place place = rule.find(notes, graph))
      Find(notes, *place, FindingCode::kOldFormat, std::string(rule.text), "format 2");
}

}  // namespace zp
