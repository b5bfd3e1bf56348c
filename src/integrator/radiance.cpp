// The radiance estimate along one ray, and the pictures it leaves at a first hit.

#include <algorithm>
#include <cmath>

#include "accel/accel.h"
#include "core/index.h"
#include "core/settings.h"
#include "core/stop.h"
#include "geometry/geometry.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "integrator/light_shares.h"
#include "integrator/surface_layers.h"

namespace zp {
namespace {

// The lobes' light, and what the surface adds by itself.
struct HitRadiance {
  LobeRadiance lobes;
  Vec3 emission;
};

template <class T>
bool FindValue(const std::vector<VertexSet<T>>& sets, const std::string& name, std::uint32_t vertex,
               T& value) {
  for (const VertexSet<T>& set : sets) {
    if (set.name != name || vertex >= set.values.size()) continue;
    value = set.values[vertex];
    return true;
  }
  return false;
}

Vec3 VertexUserData(const Part& part, const std::string& name, std::uint32_t vertex) {
  float scalar = 0;
  if (FindValue(part.scalarSets, name, vertex, scalar)) return {scalar, scalar, scalar};
  Vec2 pair;
  if (FindValue(part.uvSets, name, vertex, pair)) return {pair.x, pair.y, 0};
  Vec3 vector;
  FindValue(part.vectorSets, name, vertex, vector);
  return vector;
}

// Vertex data of that name, mixed at the hit.
Vec3 HitUserData(const RayRecord& ray, const std::string& name) {
  const Corners corners =
      HitCorners(*ray.part, ray.kind, static_cast<std::uint32_t>(ray.primitive), ray.barycentric);
  Vec3 sum;
  for (int i = 0; i < corners.count; ++i)
    sum += corners.weight[i] * VertexUserData(*ray.part, name, corners.vertex[i]);
  return sum;
}

Vec3 AovValue(const Aov& aov, const RayRecord& ray, const ShadingPoint& point, const HitRadiance& radiance) {
  // Intended: equality. A word with two bits records nothing.
  for (const LobeRow& row : kLobes) {
    if (aov.channel == row.light) return radiance.lobes[row.lobe];
    if (aov.channel == row.color) return point.color[row.lobe];
  }
  switch (aov.channel) {
    case kChannelEmissive:
      return radiance.emission;
    case kChannelNormal:
      return 0.5f * (kWhite + point.normal);
    case kChannelTangent:
      return 0.5f * (kWhite + point.tangent);
    case kChannelPosition:
      return point.position;
    case kChannelDepth:
      return SafeLength(ray.origin - point.position) * kWhite;
    case kChannelUserData:
      return HitUserData(ray, aov.userData);
    default:
      return kBlack;
  }
}

[[gnu::noinline]] void WriteCameraAovs(Camera& camera, const RayRecord& ray, const ShadingPoint& point,
                                       const HitRadiance& radiance) {
  for (Aov& aov : camera.aovs)
    if (aov.channel > kChannelLightPath && aov.channel < kChannelCover)
      AddToLayer(aov, ray, AovValue(aov, ray, point, radiance));
}

// Whether the cells may answer for this hit at all, as far as the ray knows.
bool MayReadDensity(const RayRecord& ray) {
  if (!settings.derived.finalGathering || !ray.levelZeroHit) return false;
  return (ray.diffuseBounces > 0 && ray.t > GatherDistance() + 1e-6f) ||
         ray.diffuseBounces >= settings.said.rendererBounce;
}

// Whether they do, once the point is known. Intended: hits between distance and 1e-6 behind it fail both.
bool ReadsDensity(const RayRecord& ray, const ShadingPoint& point) {
  if (ray.kind != kKindTriangle && ray.kind != kKindTetragon) return false;
  if (ray.diffuseBounces >= settings.said.rendererBounce) return true;
  return ray.diffuseBounces > 0 && (point.virtualLight || ray.t > GatherDistance());
}

// A point that reads cells asks them, and not the lights, for its diffuse lobes.
bool TakesDirectLight(const RayRecord& ray, const ShadingPoint& point) {
  const bool lobe = std::any_of(std::begin(kLobes), std::end(kLobes), [&](const LobeRow& row) {
    return row.meetsLightSamples && point.has[row.lobe] && !(row.diffuse && point.useDensity);
  });
  return (lobe || IsHair(point)) && IsInOpen(ray);
}

// Whether the hit will most likely have one ray of the Lambertian lobe, of the ray's own number.
bool WillDrawOne(const RayRecord& ray) {
  if (!HasShader(ray.shader) || !LobeRaysLeave(ray)) return false;
  const Shader& shader = ShaderAt(ray.shader);
  return (ray.frontFace ? shader.frontLambertian : shader.backLambertian) &&
         (BounceCount(ray) > 0 || (settings.said.rendererSample == 1 && settings.format >= 2));
}

// Where there will be one ray of the Lambertian lobe that need not wait for its turn.
bool GoesAhead(const RayRecord& ray, const ShadingPoint& point) {
  return point.has[Lobe::kLambertian] && !IsHair(point) && BounceCount(ray) > 0 && LobeRaysLeave(ray);
}

// What a ray brings home.
Vec3 LightOfMiss(const RayRecord& ray) {
  return settings.derived.tracksMedia ? MissRadiance(ray) * Transmission(ray) : MissRadiance(ray);
}
Vec3 SumOfHit(const RayRecord& ray, const HitRadiance& radiance) {
  Vec3 sum;
  for (const Vec3& light : radiance.lobes.values) sum += light;
  sum += radiance.emission;
  return sceneHasMedia ? sum * Transmission(ray) : sum;
}

// The same where layers or light groups want to know of it.
[[gnu::noinline]] Vec3 WatchMiss(const RayRecord& ray) {
  if (layerTargets.any && BounceCount(ray) == 0) WriteMissLayers(ray);
  const Vec3 light = LightOfMiss(ray);
  if (followsShares) AddLight(ray, skyLight.groupIndex, light);
  return light;
}
[[gnu::noinline]] void WatchHit(const RayRecord& ray, const ShadingPoint& point) {
  if (layerTargets.any && BounceCount(ray) == 0) WriteHitLayers(ray, point);
  if (followsShares) EnterHit(ray, point);
}
[[gnu::noinline]] Vec3 SumWithShares(const RayRecord& ray, const ShadingPoint& point, HitRadiance& radiance) {
  LeaveHit(ray, point, radiance.lobes, radiance.emission);
  return SumOfHit(ray, radiance);
}

}  // namespace

void TestElements(ShadingPoint& point) {
  const SurfaceShader& layer = *point.layer;
  if (layer.even.holds && !point.useDensity) {
    point.has = layer.even.has;
    point.color = layer.even.color;
    point.hasDiffusion = layer.even.hasDiffusion;
    point.diffusionColor = layer.even.diffusionColor;
    return;
  }
  const auto test = [&](bool diffuse) {
    for (const LobeRow& row : kLobes)
      if (row.diffuse == diffuse)
        point.has[row.lobe] = TestElement(layer, row.element, point.uv, point.color[row.lobe]);
  };
  if (!point.useDensity) {
    test(true);
    point.hasDiffusion = TestElement(layer, Element::kDiffusion, point.uv, point.diffusionColor);
  }
  test(false);
}

Camera* ActiveCamera() {
  const std::int32_t index = settings.frame.activeCamera;
  return IsIndex(cameras, index) ? &At(cameras, index) : nullptr;
}

void AddToAov(Aov& aov, std::size_t pixel, Vec3 value) {
  const bool odd = HalfOfPass(static_cast<std::uint32_t>(settings.frame.samplePass)) != 0 && !aov.odd.empty();
  ImageBuffer& image = odd ? aov.odd[0].image : aov.image;
  const std::size_t first = pixel * 3;
  if (image.channels != 3 || first + 3 > image.floatPixels.size()) return;
  for (int i = 0; i < 3; ++i) image.floatPixels[first + static_cast<std::size_t>(i)] += value[i];
}

// With the gather functions a level of recursion takes about 1.5 kilobytes of stack, so that all 255 levels
// and a tree walk on top fit a worker of half a megabyte.
Vec3 Radiance(RayRecord& ray) { return IsFollowed(ray) ? RadianceOfTraced(ray, Trace(ray)) : kBlack; }

bool IsFollowed(const RayRecord& ray) {
  return (ray.depth < settings.said.rayDepth || OnlyMeetsLight(ray)) && !IsBlack(ray.throughput) &&
         !Stopping();
}

Vec3 RadianceOfTraced(RayRecord& ray, bool met) {
  const bool scatters = ray.depth < settings.said.rayDepth;
  const bool isWatched = layerTargets.any | followsShares;
  if (!met) {
    if (isWatched) [[unlikely]]
      return WatchMiss(ray);
    return LightOfMiss(ray);
  }

  ShadingPoint point;
  point.useDensity = MayReadDensity(ray);
  if (scatters && !point.useDensity && WillDrawOne(ray)) DrawBeforehand(ray, point);
  if (!SetUpShadingPoint(ray, point)) {
    if (isWatched && BounceCount(ray) == 0) WriteEmptyHitLayers(ray);
    return kBlack;
  }
  point.useDensity = point.useDensity && ReadsDensity(ray, point);
  TestElements(point);
  if (isWatched) [[unlikely]]
    WatchHit(ray, point);

  HitRadiance radiance;
  RayAhead ahead;
  if (scatters && GoesAhead(ray, point)) point.ahead = &ahead;
  if (scatters && TakesDirectLight(ray, point)) SampleLights(ray, point, radiance.lobes);
  for (const LobeRow& row : kLobes)
    if (scatters && point.has[row.lobe])
      radiance.lobes[row.lobe] =
          (radiance.lobes[row.lobe] + Gather(row.lobe, ray, point)) * point.color[row.lobe];
  radiance.emission = EmittedRadiance(ray, point);

  Camera* camera = ActiveCamera();
  if (ray.depth == 0 && camera != nullptr) WriteCameraAovs(*camera, ray, point, radiance);

  if (followsShares) [[unlikely]]
    return SumWithShares(ray, point, radiance);
  return SumOfHit(ray, radiance);
}

}  // namespace zp
