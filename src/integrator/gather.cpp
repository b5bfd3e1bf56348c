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

// Direction number `sample` of the lobe from the ray's Halton dimensions, turned by the pixel.
Vec3 DiffuseDirection(const RayRecord& ray, const ShadingPoint& point, const DiffuseLobe& lobe,
                      std::uint32_t sample) {
  const Vec2 draw = DrawPair(ray, sample);
  const Vec3 local = CosineDirection(draw.x, draw.y);
  return local.x * point.tangent + local.y * point.bitangent + (lobe.side * local.z) * point.normal;
}

// One sample: adds its radiance, times `weight`, to `sum`. False if the direction goes through the surface to
// the wrong side. Not inlined: the child record is the largest local of the recursion, and exists once.
[[gnu::noinline]] bool AddDiffuseSample(const RayRecord& ray, const ShadingPoint& point,
                                        const DiffuseLobe& lobe, Vec3 throughput, std::uint32_t sample,
                                        std::int32_t sampleWeight, Vec3 weight, Vec3& sum) {
  const Vec3 direction = DiffuseDirection(ray, point, lobe, sample);
  if (ray.kind != kKindCylinder && !(lobe.side * Dot(direction, point.geometricNormal) > 0)) return false;
  RayRecord child = MakeChildRay(ray, point, lobe.event, direction, throughput * weight);
  child.sampleNumber = sample;
  child.sampleWeight = sampleWeight;
  ++child.diffuseBounces;
  sum += weight * Radiance(child);
  return true;
}

// The same for light that leaves the body elsewhere than it is seen.
[[gnu::noinline]] bool AddDiffusedSample(const RayRecord& ray, const ShadingPoint& point,
                                         const DiffuseLobe& lobe, Vec3 throughput, std::uint32_t sample,
                                         std::int32_t sampleWeight, Vec3& sum) {
  RayRecord exitRay;
  ShadingPoint exit;
  Vec3 weight;
  DrawExit(ray, point, exitRay, exit, weight);
  return AddDiffuseSample(exitRay, exit, lobe, throughput, sample, sampleWeight, weight, sum);
}

Vec3 GatherDiffuse(const RayRecord& ray, const ShadingPoint& point, const DiffuseLobe& lobe, Vec3 color) {
  const bool hair = ray.kind == kKindCylinder;
  Vec3 throughput = ray.throughput * color;
  if (lobe.weightsThroughput && !hair) throughput *= point.diffuseWeight;
  if (IsBlack(throughput)) return kBlack;

  Vec3 sum;
  if (BounceCount(ray) == 0) {
    const PassShare share = ShareOf(GatherCount(throughput, settings.rendererSample, CameraPasses()));
    const std::int32_t sampleWeight = ray.sampleWeight * share.count;
    const bool diffuses = Diffuses(ray, point);
    int taken = 0;
    for (std::uint32_t i = share.first; i < share.end; i += share.step)
      taken += diffuses ? AddDiffusedSample(ray, point, lobe, throughput, i, sampleWeight, sum)
                        : AddDiffuseSample(ray, point, lobe, throughput, i, sampleWeight, kWhite, sum);
    if (taken > 0) sum *= 1.0f / static_cast<float>(taken);  // a hair takes all of its share
  } else if (BounceCount(ray) < settings.rendererBounce) {
    AddDiffuseSample(ray, point, lobe, throughput, ray.sampleNumber, ray.sampleWeight, kWhite, sum);
  }
  return point.diffuseWeight * sum;
}

// The ray that goes on from a mirror or through a surface, by the glossy lobe or the specular one.
[[gnu::noinline]] Vec3 GlossyChild(const RayRecord& ray, const ShadingPoint& point, Event event,
                                   Vec3 direction, Vec3 throughput, float weight, std::uint32_t sample,
                                   std::int32_t sampleWeight) {
  RayRecord child = MakeChildRay(ray, point, event, direction, throughput * weight);
  if (event == kEventGlossyRefraction) child.ior = RefractedIor(ray.ior, point.iorRatio);
  child.sampleNumber = sample;
  child.sampleWeight = sampleWeight;
  ++child.glossyBounces;
  return weight * Radiance(child);
}

[[gnu::noinline]] Vec3 SpecularChild(const RayRecord& ray, const ShadingPoint& point, Event event,
                                     Vec3 direction, Vec3 throughput, float weight) {
  RayRecord child = MakeChildRay(ray, point, event, direction, throughput * weight);
  child.dimension = ray.dimension;  // a mirror draws no numbers
  ++child.specularBounces;
  if (event == kEventSpecularRefraction) {
    child.ior = RefractedIor(ray.ior, point.iorRatio);
    if (point.material == Material::kThinDielectric) {
      // A thin shell is no bounce: the ray goes on as what it was, also for lights and their links.
      child.event = ray.event;
      child.previousEvent = ray.previousEvent;
      child.parentPoint = ray.parentPoint;
      child.parentShader = ray.parentShader;
    }
  }
  return weight * Radiance(child);
}

// Both ways that light comes from one half vector.
struct GlossySums {
  Vec3 reflected, refracted;
  int reflections = 0, refractions = 0;
};

void AddGlossySample(const RayRecord& ray, const ShadingPoint& point, Vec3 throughput, std::uint32_t sample,
                     std::int32_t sampleWeight, GlossySums& sums) {
  const Vec2 draw = DrawPair(ray, sample);
  const Vec3 half = SampleGlossyHalf(point, draw.x, draw.y);
  const float cosine = -Dot(ray.direction, half);
  if (!(cosine > 0)) return;  // a facet that looks away
  bool total = false;
  if (point.material == Material::kDielectric) {
    Vec3 refracted;
    total = !Refract(ray.direction, half, cosine, point.iorRatio, refracted);
    if (total)
      ++sums.refractions;  // its light is the mirror ray's: left out, the others would take its share
    if (!total && Dot(refracted, point.geometricNormal) < -1e-8f) {
      sums.refracted += GlossyChild(ray, point, kEventGlossyRefraction, refracted, throughput,
                                    point.diffuseWeight, sample, sampleWeight);
      ++sums.refractions;
    }
  }
  const Vec3 mirrored = ray.direction + 2 * cosine * half;
  if (Dot(mirrored, point.geometricNormal) > 0) {
    sums.reflected += GlossyChild(ray, point, kEventGlossy, mirrored, throughput,
                                  total ? 1.0f : point.specularWeight, sample, sampleWeight);
    ++sums.reflections;
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

std::int32_t CameraPasses() {
  const Camera* camera = ActiveCamera();
  return camera != nullptr ? std::max(camera->sample, 1) : 1;
}

// Every number of the sequence is used in one pass only.
PassShare ShareOf(std::int32_t count) {
  const std::int32_t passes = CameraPasses();
  PassShare share;
  share.first = static_cast<std::uint32_t>(settings.samplePass % passes);
  share.end = static_cast<std::uint32_t>(count);
  share.step = static_cast<std::uint32_t>(passes);
  share.count = std::max(count / passes, 1);
  return share;
}

float RefractedIor(float ior, float ratio) {
  const Camera* camera = ActiveCamera();
  const float refracted = ior * ratio;
  return camera != nullptr && std::fabs(refracted - camera->ior) < 1e-5f ? camera->ior : refracted;
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
  child.parentPlace = parent.hitPlace;
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

Vec3 GatherGlossy(const RayRecord& ray, const ShadingPoint& point) {
  const Vec3 throughput = ray.throughput * point.glossyColor;
  if (IsBlack(throughput)) return kBlack;
  GlossySums sums;
  if (BounceCount(ray) == 0) {
    const Vec3 brightest = throughput * MaxOf(point.specularWeight, point.diffuseWeight);
    const PassShare share = ShareOf(GatherCount(brightest, settings.rendererSample, CameraPasses()));
    for (std::uint32_t i = share.first; i < share.end; i += share.step)
      AddGlossySample(ray, point, throughput, i, ray.sampleWeight * share.count, sums);
    if (sums.reflections > 0) sums.reflected *= 1.0f / static_cast<float>(sums.reflections);
    if (sums.refractions > 0) sums.refracted *= 1.0f / static_cast<float>(sums.refractions);
  } else if (BounceCount(ray) < settings.rendererBounce) {
    AddGlossySample(ray, point, throughput, ray.sampleNumber, ray.sampleWeight, sums);
  }
  return sums.reflected + sums.refracted;
}

// A tree of at most two rays at every hit, bounded by the ray depth alone.
Vec3 GatherSpecular(const RayRecord& ray, const ShadingPoint& point) {
  const Vec3 throughput = ray.throughput * point.specularColor;
  if (IsBlack(throughput)) return kBlack;
  Vec3 sum;
  bool total = false;
  if (point.material != Material::kConductor) {
    Vec3 refracted;
    total = !Refract(ray.direction, point.normal, point.reflectCosine, point.iorRatio, refracted);
    if (!total && Dot(refracted, point.geometricNormal) < -1e-8f)
      sum += SpecularChild(ray, point, kEventSpecularRefraction, refracted, throughput, point.diffuseWeight);
  }
  const Vec3 mirrored = ray.direction + 2 * point.reflectCosine * point.normal;
  if (Dot(mirrored, point.geometricNormal) > 0)
    sum +=
        SpecularChild(ray, point, kEventSpecular, mirrored, throughput, total ? 1.0f : point.specularWeight);
  return sum;
}

}  // namespace zp
