// Path continuation: which rays leave a hit, and what rays bring home that end there.

#include <algorithm>

#include "core/settings.h"
#include "core/tables.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

namespace zp {
namespace {

// The two cosine lobes differ by the side they look to.
struct DiffuseLobe {
  Event event;
  float side;              // 1 along the normal, -1 against it
  bool weightsThroughput;  // the diffuse weight is part of the lobe's throughput
};
constexpr DiffuseLobe kLambertianLobe = {kEventLambertian, 1.0f, true};
constexpr DiffuseLobe kTransmissiveLobe = {kEventTransmissive, -1.0f, false};

// Direction number `sample` of the lobe from Halton dimensions `dimension` and the next, turned by the pixel.
Vec3 DiffuseDirection(const RayRecord& ray, const ShadingPoint& point, const DiffuseLobe& lobe,
                      std::uint32_t sample, std::int32_t dimension) {
  const float u = Rotate(Halton(sample, dimension), ray.rotation.x);
  const float v = Rotate(Halton(sample, dimension + 1), ray.rotation.y);
  const Vec3 local = CosineDirection(u, v);
  return local.x * point.tangent + local.y * point.bitangent + (lobe.side * local.z) * point.normal;
}

// One sample: adds its radiance to `sum`. False if the direction goes through the surface to the wrong side.
// Not inlined: the child record is the largest local of the recursion, and exists once.
[[gnu::noinline]] bool AddDiffuseSample(const RayRecord& ray, const ShadingPoint& point,
                                        const DiffuseLobe& lobe, Vec3 throughput, std::uint32_t sample,
                                        std::int32_t dimension, std::int32_t sampleWeight, Vec3& sum) {
  const Vec3 direction = DiffuseDirection(ray, point, lobe, sample, dimension);
  if (ray.kind != kKindCylinder && !(lobe.side * Dot(direction, point.geometricNormal) > 0)) return false;
  RayRecord child = MakeChildRay(ray, point, lobe.event, direction, throughput);
  child.sampleNumber = sample;
  child.sampleWeight = sampleWeight;
  ++child.diffuseBounces;
  sum += Radiance(child);
  return true;
}

Vec3 GatherDiffuse(const RayRecord& ray, const ShadingPoint& point, const DiffuseLobe& lobe, Vec3 color) {
  const bool hair = ray.kind == kKindCylinder;
  Vec3 throughput = ray.throughput * color;
  if (lobe.weightsThroughput && !hair) throughput *= point.diffuseWeight;
  if (IsBlack(throughput)) return kBlack;

  Vec3 sum;
  const int bounces = BounceCount(ray);
  if (bounces == 0) {
    const Camera* camera = ActiveCamera();
    const std::int32_t passes = camera != nullptr ? std::max(camera->sample, 1) : 1;
    const std::int32_t count = GatherCount(throughput, settings.rendererSample, passes);
    const std::int32_t share = count / passes;
    std::int32_t taken = 0;
    // This pass's share of one sequence: every number is used in one pass only.
    for (std::int64_t i = settings.samplePass % passes; i < count; i += passes)
      taken += AddDiffuseSample(ray, point, lobe, throughput, static_cast<std::uint32_t>(i), bounces,
                                ray.sampleWeight * share, sum);
    if (taken > 0) sum *= 1.0f / static_cast<float>(taken);  // a hair takes all of its share
  } else if (bounces < settings.rendererBounce) {
    AddDiffuseSample(ray, point, lobe, throughput, ray.sampleNumber, ray.dimension, ray.sampleWeight, sum);
  }
  return point.diffuseWeight * sum;
}

// The part of what a ray found that belongs to the ray, and not to samples of the light it found.
// Lights are not sampled yet, so that the ray has all of it.
float SkyHitWeight(const RayRecord&) { return 1.0f; }
float EmitterHitWeight(const RayRecord&, const ShadingPoint&) { return 1.0f; }

// The channel of a light's AOV that records paths by their last scattering.
std::uint32_t PathChannel(std::uint8_t event) {
  switch (event) {
    case kEventLambertian:
      return kChannelLambertian;
    case kEventTransmissive:
      return kChannelTransmissive;
    case kEventGlossy:
    case kEventGlossyRefraction:
      return kChannelGlossy;
    case kEventSpecular:
    case kEventSpecularRefraction:
      return kChannelSpecular;
    default:
      return 0;
  }
}

}  // namespace

std::int32_t GatherCount(Vec3 color, std::int32_t budget, std::int32_t passes) {
  passes = std::max(passes, 1);
  const float wanted = Mean(color) * static_cast<float>(budget);
  std::int32_t count = 0;
  if (wanted > 0) count = wanted < static_cast<float>(budget) ? static_cast<std::int32_t>(wanted) : budget;
  count = std::max(count, passes);
  return count - count % passes;
}

RayRecord MakeChildRay(const RayRecord& parent, const ShadingPoint& point, Event event, Vec3 direction,
                       Vec3 throughput) {
  RayRecord child = parent;
  child.dimension = parent.dimension + 2;
  child.origin = point.position;
  child.direction = direction;
  child.throughput = throughput;
  child.t = kFarthest;
  child.parentPoint = &point;
  child.part = nullptr;
  child.primitive = kNone;
  child.kind = kKindUnset;
  child.hitSide = 0;
  child.matrixDepth = child.hitMatrixDepth = 0;
  child.frontFace = child.levelZeroHit = false;
  child.parentShader = parent.shader;
  child.parentPrimitive = parent.primitive;
  child.parentPart = parent.part;
  child.parentKind = parent.kind;
  child.parentHitSide = parent.hitSide;
  child.depth = static_cast<std::uint8_t>(parent.depth + 1);
  child.event = event;
  child.previousEvent = parent.event == event ? parent.previousEvent : parent.event;
  return child;
}

Vec3 GatherLambertian(const RayRecord& ray, const ShadingPoint& point) {
  return GatherDiffuse(ray, point, kLambertianLobe, point.lambertianColor);
}

Vec3 GatherTransmissive(const RayRecord& ray, const ShadingPoint& point) {
  return GatherDiffuse(ray, point, kTransmissiveLobe, point.transmissiveColor);
}

Vec3 MissRadiance(const RayRecord& ray) {
  const bool fromCamera = ray.depth == 0;  // sees the background, whatever the sky is linked to
  if (!fromCamera && !IsLinked(skyLight.link, ray.parentShader)) return kBlack;
  const Vec3 radiance = SkyHitWeight(ray) * SkyRadiance(ray.direction);
  if (fromCamera)
    for (Aov& aov : skyLight.aovs)
      AddToAov(aov, threadSlots[ray.thread].pixel, radiance / static_cast<float>(ray.sampleWeight));
  return radiance;
}

Vec3 EmittedRadiance(const RayRecord& ray, const ShadingPoint& point) {
  if (ray.depth != 0 && !IsLinked(geometryLight.link, ray.parentShader)) return kBlack;
  Vec3 emission =
      point.layer->window ? SkyRadiance(ray.direction) : LookUp((*point.layer)[Element::kEmissive], point.uv);
  emission *= EmitterHitWeight(ray, point);
  const std::uint32_t channel = PathChannel(ray.event);
  for (Aov& aov : geometryLight.aovs)
    if ((aov.channel & channel) != 0 && (aov.shaderIndex == kNone || aov.shaderIndex == ray.shader))
      AddToAov(aov, threadSlots[ray.thread].pixel,
               emission * ray.throughput / static_cast<float>(ray.sampleWeight));
  return point.diffuseWeight * emission;
}

}  // namespace zp
