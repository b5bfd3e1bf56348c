// Path continuation: which rays leave a hit, and what rays bring home that end there.

#include <algorithm>

#include "core/settings.h"
#include "core/stop.h"
#include "core/tables.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "integrator/light_shares.h"
#include "lights/lights.h"

namespace zp {
namespace {

// By the numbers that a pass takes at a first hit.
void NumberChild(RayRecord& child, std::uint32_t sample) {
  child.sampleNumber = sample;
  SetNumber(child.points, sample);
}

RayRecord MakeDiffuseChild(const RayRecord& ray, const ShadingPoint& point, Event event, Vec3 direction,
                           Vec3 throughput, std::uint32_t sample, std::int32_t sampleWeight) {
  RayRecord child = MakeChildRay(ray, point, event, direction, throughput);
  NumberChild(child, sample);
  child.sampleWeight = sampleWeight;
  ++child.diffuseBounces;
  return child;
}

void AddAhead(const RayRecord& ray, const ShadingPoint& point, RayAhead& ahead, Vec3& sum) {
  if (!ahead.open) return;
  if (followsShares) [[unlikely]]
    ShareWithDiffuse(ray, point, ahead.child, kEventLambertian, kWhite);
  if (ahead.followed) sum += RadianceOfTraced(ahead.child, ahead.met);
}

// One sample: adds its radiance, times `weight`, to `sum`. False if the direction goes through the surface to
// the wrong side. Not inlined: the child record is the largest local of the recursion, and exists once.
[[gnu::noinline]] bool AddDiffuseSample(const RayRecord& ray, const ShadingPoint& point, Event event,
                                        Vec3 throughput, std::uint32_t sample, std::int32_t sampleWeight,
                                        Vec3 weight, Vec3& sum) {
  Vec3 direction;
  if (!DiffuseDirection(ray, point, event, sample, direction)) return false;
  RayRecord child = MakeDiffuseChild(ray, point, event, direction, throughput * weight, sample, sampleWeight);
  if (followsShares) [[unlikely]]
    ShareWithDiffuse(ray, point, child, event, weight);
  sum += weight * Radiance(child);
  return true;
}

// The same for light that leaves the body elsewhere than it is seen.
[[gnu::noinline]] bool AddDiffusedSample(const RayRecord& ray, const ShadingPoint& point, Event event,
                                         Vec3 throughput, std::uint32_t sample, std::int32_t sampleWeight,
                                         Vec3& sum) {
  RayRecord exitRay;
  ShadingPoint exit;
  Vec3 weight;
  DrawExit(ray, point, sample, exitRay, exit, weight);
  return AddDiffuseSample(exitRay, exit, event, throughput, sample, sampleWeight, weight, sum);
}

// Rays of a first hit that would go through the surface take their share with them in format 2, as they do at
// later hits and with samples of lights. In format 1 the others take it over.
bool CountsLostRays() { return settings.format >= 2; }

// That the lobe's rays begin with.
Vec3 DiffuseThroughput(const RayRecord& ray, const ShadingPoint& point, Event event, Vec3 color) {
  const Vec3 throughput = ray.throughput * color;
  return event == kEventLambertian && !IsHair(point) ? throughput * point.diffuseWeight : throughput;
}

// Of the Lambertian or the transmissive lobe, which differ by the side they look to.
Vec3 GatherDiffuse(const RayRecord& ray, const ShadingPoint& point, Event event, Vec3 color) {
  const bool hair = IsHair(point);
  const Vec3 throughput = DiffuseThroughput(ray, point, event, color);
  if (IsBlack(throughput)) return kBlack;

  Vec3 sum;
  if (BounceCount(ray) == 0) {
    const PassShare share = ShareOf(throughput, settings.said.rendererSample);
    const std::int32_t sampleWeight = ray.sampleWeight * share.count;
    const bool diffuses = Diffuses(ray, point);
    if (followsShares) [[unlikely]]
      MarkShares(ray);
    int taken = 0;
    for (std::int32_t i = 0; i < share.count && !Stopping(); ++i) {
      const std::uint32_t sample = share.Number(i);
      taken += diffuses ? AddDiffusedSample(ray, point, event, throughput, sample, sampleWeight, sum)
                        : AddDiffuseSample(ray, point, event, throughput, sample, sampleWeight, kWhite, sum);
    }
    if (CountsLostRays())
      taken = share.count;
    else if (followsShares)
      ScaleFromMark(ray, static_cast<float>(share.count) / static_cast<float>(std::max(taken, 1)));
    if (taken > 0) sum *= 1.0f / static_cast<float>(taken);  // a hair takes all of its share
    if (!hair) sum += GatherCaustics(ray, point, event);
  } else if (LobeRaysLeave(ray)) {
    if (event == kEventLambertian && point.ahead != nullptr && point.ahead->made)
      AddAhead(ray, point, *point.ahead, sum);
    else
      AddDiffuseSample(ray, point, event, throughput, ray.sampleNumber, ray.sampleWeight, kWhite, sum);
    if (!hair) sum += GatherCaustics(ray, point, event);
  }
  return hair ? sum : point.diffuseWeight * sum;  // light samples of hair know no Fresnel weight either
}

// Not inlined, like AddDiffuseSample.
[[gnu::noinline]] Vec3 FollowLobeRay(const RayRecord& ray, const ShadingPoint& point, const LobeRay& way,
                                     Vec3 throughput, std::uint32_t sample, std::int32_t sampleWeight) {
  RayRecord child = MakeLobeChild(ray, point, way, throughput);
  NumberChild(child, sample);
  child.sampleWeight = sampleWeight;
  if (followsShares) [[unlikely]]
    ShareWithLobe(ray, point, child, way.event, way.weight * kWhite);
  return way.weight * Radiance(child);
}

// Both ways that light comes from one half vector.
struct GlossySums {
  Vec3 reflected, refracted;
  int reflections = 0, refractions = 0;
};

void AddGlossySample(const RayRecord& ray, const ShadingPoint& point, Vec3 throughput, std::uint32_t sample,
                     std::int32_t sampleWeight, GlossySums& sums) {
  const LobeRays ways = GlossyRays(ray, point, sample);
  if (ways.total)
    ++sums.refractions;  // its light is the mirror ray's: left out, the others would take its share
  for (int i = 0; i < ways.count; ++i) {
    const bool reflects = ways.ways[i].event == kEventGlossy;
    (reflects ? sums.reflected : sums.refracted) +=
        FollowLobeRay(ray, point, ways.ways[i], throughput, sample, sampleWeight);
    ++(reflects ? sums.reflections : sums.refractions);
  }
}

// One sample of hair's lobes. Not inlined, like AddDiffuseSample.
[[gnu::noinline]] Vec3 FollowFiberRay(const RayRecord& ray, const ShadingPoint& point, Vec3 throughput,
                                      std::uint32_t sample, std::int32_t sampleWeight) {
  Vec3 weight;
  RayRecord child = MakeFiberChild(ray, point, throughput, weight);
  NumberChild(child, sample);
  child.sampleWeight = sampleWeight;
  if (followsShares) [[unlikely]]
    ShareWithLobe(ray, point, child, kEventGlossy, weight);
  return weight * Radiance(child);
}

Vec3 GatherFiber(const RayRecord& ray, const ShadingPoint& point, Vec3 throughput) {
  Vec3 sum;
  if (BounceCount(ray) == 0) {
    const PassShare share = ShareOf(throughput, settings.said.rendererSample);
    for (std::int32_t i = 0; i < share.count && !Stopping(); ++i)
      sum += FollowFiberRay(ray, point, throughput, share.Number(i), ray.sampleWeight * share.count);
    sum *= 1.0f / static_cast<float>(share.count);
  } else if (LobeRaysLeave(ray)) {
    sum = FollowFiberRay(ray, point, throughput, ray.sampleNumber, ray.sampleWeight);
  }
  return sum;
}

// Before the rays of a first hit.
[[gnu::noinline]] void ForetellGlossyRays(const RayRecord& ray, const ShadingPoint& point,
                                          const PassShare& share) {
  if (CountsLostRays()) return;
  int reflections = 0, refractions = 0;
  for (std::int32_t i = 0; i < share.count; ++i) {
    const LobeRays ways = GlossyRays(ray, point, share.Number(i));
    if (ways.total) ++refractions;
    for (int k = 0; k < ways.count; ++k) ++(ways.ways[k].event == kEventGlossy ? reflections : refractions);
  }
  CountGlossyRays(ray, reflections, refractions);
}

Vec3 GatherGlossy(const RayRecord& ray, const ShadingPoint& point) {
  const Vec3 throughput = ray.throughput * point.color[Lobe::kGlossy];
  if (IsBlack(throughput)) return kBlack;
  if (IsHair(point)) return GatherFiber(ray, point, throughput);
  GlossySums sums;
  if (BounceCount(ray) == 0) {
    const Vec3 brightest = throughput * MaxOf(point.specularWeight, point.diffuseWeight);
    const PassShare share = ShareOf(brightest, settings.said.rendererSample);
    if (followsShares) [[unlikely]]
      ForetellGlossyRays(ray, point, share);
    for (std::int32_t i = 0; i < share.count && !Stopping(); ++i)
      AddGlossySample(ray, point, throughput, share.Number(i), ray.sampleWeight * share.count, sums);
    if (CountsLostRays()) sums.reflections = sums.refractions = share.count;
    if (sums.reflections > 0) sums.reflected *= 1.0f / static_cast<float>(sums.reflections);
    if (sums.refractions > 0) sums.refracted *= 1.0f / static_cast<float>(sums.refractions);
  } else if (LobeRaysLeave(ray)) {
    AddGlossySample(ray, point, throughput, ray.sampleNumber, ray.sampleWeight, sums);
  }
  return sums.reflected + sums.refracted;
}

// A tree of at most two rays at every hit, bounded by the ray depth alone.
Vec3 GatherSpecular(const RayRecord& ray, const ShadingPoint& point) {
  const Vec3 throughput = ray.throughput * point.color[Lobe::kSpecular];
  if (IsBlack(throughput)) return kBlack;
  Vec3 sum;
  const LobeRays ways = SpecularRays(ray, point);
  for (int i = 0; i < ways.count; ++i)
    sum += FollowLobeRay(ray, point, ways.ways[i], throughput, ray.sampleNumber, ray.sampleWeight);
  return sum;
}

// Pass p of P takes numbers p, p + P, p + 2 P, ... of one sequence: each is used in one pass only.
PassShare SharedByAllPasses(Vec3 color, std::int32_t budget) {
  const Camera* camera = ActiveCamera();
  const std::int32_t passes = camera != nullptr ? std::max(camera->sample, 1) : 1;
  const std::int32_t count = GatherCount(color, budget, passes);
  PassShare share;
  share.first = static_cast<std::uint32_t>(settings.frame.samplePass % passes);
  share.step = static_cast<std::uint32_t>(passes);
  share.count = count / passes;
  return share;
}

// The next numbers in a row, however many passes are planned. They go by the count and not by the budget:
// darker colours would leave the same ones out in each pass, and use a part of the square only.
PassShare CountedInEachPass(Vec3 color, std::int32_t budget) {
  PassShare share;
  share.count = GatherCount(color, budget, 1);
  const std::uint32_t number = NumberOfPass(static_cast<std::uint32_t>(settings.frame.samplePass));
  share.first = number * static_cast<std::uint32_t>(share.count);
  return share;
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

PassShare ShareOfMany(Vec3 color, std::int32_t budget) {
  return settings.format >= 2 ? CountedInEachPass(color, budget) : SharedByAllPasses(color, budget);
}

void MakeAhead(const RayRecord& ray, const ShadingPoint& point) {
  RayAhead& ahead = *point.ahead;
  const Vec3 throughput = DiffuseThroughput(ray, point, kEventLambertian, point.color[Lobe::kLambertian]);
  if (IsBlack(throughput)) return;
  ahead.made = true;
  Vec3 direction;
  ahead.open = DiffuseDirection(ray, point, kEventLambertian, ray.sampleNumber, direction);
  if (!ahead.open) return;
  ahead.child = MakeDiffuseChild(ray, point, kEventLambertian, direction, throughput, ray.sampleNumber,
                                 ray.sampleWeight);
}

void TraceAhead(RayAhead& ahead) {
  ahead.followed = IsFollowed(ahead.child);
  ahead.met = ahead.followed && Trace(ahead.child);
}

Vec3 Gather(Lobe lobe, const RayRecord& ray, const ShadingPoint& point) {
  switch (lobe) {
    case Lobe::kLambertian:
      return GatherDiffuse(ray, point, kEventLambertian, point.color[lobe]);
    case Lobe::kTransmissive:
      return GatherDiffuse(ray, point, kEventTransmissive, point.color[lobe]);
    case Lobe::kGlossy:
      return GatherGlossy(ray, point);
    case Lobe::kSpecular:
      return GatherSpecular(ray, point);
  }
  return kBlack;
}

}  // namespace zp
