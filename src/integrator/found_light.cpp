// Light that a ray finds by itself: the sky behind a miss, and emission at a hit.

#include <algorithm>

#include "core/index.h"
#include "geometry/density.h"
#include "integrator/estimator.h"
#include "integrator/surface_layers.h"
#include "lights/lights.h"

namespace zp {
namespace {

// Whether samples of a light at the ray's start compete with it: it was drawn from a lobe, in the open.
bool MeetsLightSamples(const RayRecord& ray) {
  const bool lobe = std::any_of(std::begin(kLobes), std::end(kLobes), [&](const LobeRow& row) {
    return row.meetsLightSamples && row.event == ray.event;
  });
  return lobe && ray.parentPoint != nullptr && IsInOpen(ray);
}

// Light samples do not look through hair: the rays of its transmissive lobe bring all of that light.
bool LooksThroughHair(const RayRecord& ray) {
  return ray.event == kEventTransmissive && ray.parentPoint != nullptr && IsHair(*ray.parentPoint);
}

// The share of the sky that belongs to the ray, and not to samples of the sky.
float SkyHitWeight(const RayRecord& ray) {
  if (skyLight.sample <= 0 || BounceCount(ray) == 0 || !MeetsLightSamples(ray)) return 1;
  if (LooksThroughHair(ray)) return 1;
  return LobeRayWeight(ray, SkyDensity(ray.direction),
                       LobeDensity(*ray.parentPoint, ray.event, ray.direction), BudgetsOf(skyLight));
}

// Whether the samples of the virtual lights can pick the primitive that was hit. The emission lists hold
// triangles and tetragons by what they show; in format 1 by their own Shaders, whatever an Instance makes of
// them.
bool IsInEmissionLists(const RayRecord& ray) {
  std::int32_t shown = kNone;
  if (ray.kind == kKindTriangle) shown = At(ray.part->triangles, ray.primitive).shader;
  if (ray.kind == kKindTetragon) shown = At(ray.part->tetragons, ray.primitive).shader;
  if (shown != kNone && settings.format >= 2) shown = ray.shader;
  if (!HasShader(shown)) return false;
  const Shader& shader = ShaderAt(shown);
  return ray.frontFace ? shader.frontVirtualLight : shader.backVirtualLight;
}

// Whether light that came by mirrors or glass belongs to caustic photons, which diffuse surfaces gather.
bool PhotonsBring(const RayRecord& ray) {
  const bool diffuse = ray.scattering == kEventLambertian || ray.scattering == kEventTransmissive;
  return diffuse && PhotonsOf(geometryLight.photon) > 0 && settings.derived.photonRadiusSquared > 0 &&
         IsInEmissionLists(ray);
}

// The share of an emitter, as SkyHitWeight. Format 1 knows of mirrors just behind the lobe alone, and leaves
// out what neither they nor samples bring.
float EmitterHitWeight(const RayRecord& ray, const ShadingPoint& point) {
  if (!point.virtualLight || BounceCount(ray) == 0) return 1;
  const bool mirrored = ray.event == kEventSpecular || ray.event == kEventSpecularRefraction;
  if (mirrored && settings.format >= 2) return PhotonsBring(ray) ? 0.0f : 1.0f;
  if (!SamplesEmitters() || !IsInEmissionLists(ray) || LooksThroughHair(ray)) return 1;
  if (mirrored) {
    const bool diffuse = ray.previousEvent == kEventLambertian || ray.previousEvent == kEventTransmissive;
    if (diffuse && PhotonsOf(geometryLight.photon) == 0) return 1;  // else caustic photons bring it
    if (ray.previousEvent == kEventGlossy) return 1;
  }
  if (!MeetsLightSamples(ray)) return settings.format >= 2 ? 1.0f : 0.0f;
  const float cosine = Dot(point.outgoing, point.geometricNormal);
  const float lobe = LobeDensity(*ray.parentPoint, ray.event, ray.direction);
  if (!(cosine > 0) || !(lobe > 0)) return 0;
  // From where the lobe was left: thin panes on the way count as nothing.
  const Vec3 way = point.position - ray.parentPoint->position;
  const float density =
      settings.format >= 2 ? point.pickDensity : Dot(way, way) / (cosine * geometryLight.area);
  return LobeRayWeight(ray, density, lobe, BudgetsOf(geometryLight));
}

// The channel of a light's AOV that records paths by their last scattering.
std::uint32_t PathChannel(std::uint8_t event) {
  for (const LobeRow& row : kLobes)
    if (event == row.event || event == row.refraction) return row.light;
  return 0;
}

// A ray that comes from the camera, if only through thin panes, sees lights whatever they are linked to.
bool IsCameraRay(const RayRecord& ray) { return ray.parentPoint == nullptr; }

// The light of emission alone: that of the cells is not only the geometry light's.
void WriteEmissionAovs(const RayRecord& ray, Vec3 emission) {
  const std::uint32_t channel = PathChannel(ray.event);
  for (Aov& aov : geometryLight.aovs)
    if ((aov.channel & channel) != 0 && (aov.shaderIndex == kNone || aov.shaderIndex == ray.shader))
      AddToAov(aov, threadSlots[ray.thread].pixel,
               emission * ray.throughput / static_cast<float>(ray.sampleWeight));
}

Vec3 Emission(const RayRecord& ray, const ShadingPoint& point) {
  if (!IsCameraRay(ray) && !IsLinked(geometryLight.link, ray.parentShader)) return kBlack;
  const float weight = EmitterHitWeight(ray, point);
  if (weight == 0) return kBlack;
  const Vec3 emission =
      point.layer->window ? SkyRadiance(ray.direction) : LookUp((*point.layer)[Element::kEmissive], point.uv);
  return weight * emission;
}

// What a ray sees of the sky that left the camera. `share`: of it that can be seen.
Vec3 SeenBackground(const RayRecord& ray, float share) {
  const Vec3 radiance = share * BackgroundRadiance(ray.direction);
  if (ray.depth == 0)
    for (Aov& aov : skyLight.aovs)
      AddToAov(aov, threadSlots[ray.thread].pixel, radiance / static_cast<float>(ray.sampleWeight));
  return settings.said.transparentSky && ray.depth == 0 ? kBlack : radiance;
}

// All of the sky behind a catcher belongs to the ray: samples of it end at the surface.
Vec3 CatcherRadiance(const RayRecord& ray, const ShadingPoint& point) {
  const float left = 1 - LightDenied(ray, point);
  if (layerTargets.any) WriteCatcherLayer(ray, left);
  if (IsCameraRay(ray)) return SeenBackground(ray, left);
  return IsLinked(skyLight.link, ray.parentShader) ? left * SkyRadiance(ray.direction) : kBlack;
}

// What the cells answer for a layer that paints them. All layers of the side have painted them, each as often
// as it is drawn: in format 2 those that answer do so for the rest.
Vec3 CellRadiance(const RayRecord& ray, const ShadingPoint& point, std::int32_t slot = kNone) {
  const bool paints = point.layer->has[Lobe::kLambertian] || point.layer->has[Lobe::kTransmissive];
  if (!point.useDensity || !paints) return kBlack;
  const Vec3 density = ReadDensity(ray, slot);
  const Shader& shader = ShaderAt(ray.shader);
  if (settings.format < 2 || shader.surfaces.size() < 2) return density;
  return density / DiffuseLayerShare(shader, ray.frontFace, point.uv);
}

}  // namespace

// In format 1 an Object without Parts of its own has empty lists, whatever its Instances hold.
bool SamplesEmitters() { return geometryLight.sample > 0 && geometryLight.area > 0; }

LightReceiver ReceiverOf(const ShadingPoint& point) {
  const bool front = point.has[Lobe::kLambertian] || point.has[Lobe::kGlossy];
  const bool back = point.has[Lobe::kTransmissive];
  if (IsHair(point) || front == back) return {.position = point.position};
  return {point.position, front ? point.normal : -point.normal, false};
}

float PickDensity(const RayRecord& ray) {
  if (settings.format < 2 || ray.photonIndirect || BounceCount(ray) == 0 || !SamplesEmitters() ||
      !MeetsLightSamples(ray))
    return 0;
  return EmitterDensity(ReceiverOf(*ray.parentPoint), ray);
}

bool SeeksLightByChance() {
  if (skyLight.sample <= 0 && !(skyLight.color == kBlack)) return true;
  const bool rounds = std::any_of(objectTable.begin(), objectTable.end(), [](const Object& object) {
    return std::any_of(object.parts.begin(), object.parts.end(),
                       [](const Part& part) { return !part.particles.empty() || !part.cylinders.empty(); });
  });
  return std::any_of(shaders.begin(), shaders.end(), [&](const Shader& shader) {
    return std::any_of(shader.surfaces.begin(), shader.surfaces.end(), [&](const SurfaceShader& layer) {
      const bool emits = layer.window || layer.shadowCatcher || !(layer[Element::kEmissive].color == kBlack);
      if (emits && (rounds || !layer.virtualLight || !SamplesEmitters())) return true;
      // Samples do not reach through mirrors and glass, nor through hair.
      return layer.has[Lobe::kSpecular] || (rounds && layer.has[Lobe::kTransmissive]) ||
             (layer.has[Lobe::kGlossy] && layer.material == Material::kDielectric);
    });
  });
}

Vec3 MissRadiance(const RayRecord& ray) {
  if (!IsCameraRay(ray)) {
    if (!IsLinked(skyLight.link, ray.parentShader)) return kBlack;
    return SkyHitWeight(ray) * SkyRadiance(ray.direction);
  }
  return SeenBackground(ray, 1);
}

Vec3 CellLight(const RayRecord& ray, const ShadingPoint& point, std::int32_t slot) {
  return point.diffuseWeight * CellRadiance(ray, point, slot);
}

Vec3 EmittedRadiance(const RayRecord& ray, const ShadingPoint& point) {
  if (point.layer->even.holds && !point.layer->even.emits && !point.useDensity) return kBlack;
  if (point.layer->shadowCatcher) [[unlikely]]
    return CatcherRadiance(ray, point);
  const Vec3 emission = Emission(ray, point);
  if (!geometryLight.aovs.empty()) WriteEmissionAovs(ray, emission);
  return point.diffuseWeight * (CellRadiance(ray, point) + emission);
}

}  // namespace zp
