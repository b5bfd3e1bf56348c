// Which share of a light belongs to its own samples, and which to the rays that find it.

#include "integrator/estimator.h"

namespace zp {
namespace {

// Shares of a light by its samples and by the lobe's rays; they add up to 1.
float Share(float mine, float others) {
  const float sum = mine + others;
  return sum > 0 ? mine / sum : 0.0f;
}

bool LobeRayFollows(const RayRecord& ray) {
  return BounceCount(ray) < settings.rendererBounce && ray.depth + 1 < settings.rayDepth;
}

// Of hair. Its Lambertian rays leave the one place that was hit, but light samples show the mean over the
// width: with that mean's density the two complete each other in the mean.
float FiberLobeDensity(const ShadingPoint& point, std::uint8_t event, Vec3 direction) {
  switch (event) {
    case kEventLambertian:
      return FiberDiffuse(point.outgoing, direction, point.tangent);
    case kEventGlossy:
      return DrawnDensity(*point.fiber,
                          EvaluateFiber(*point.fiber, point.outgoing, direction, point.tangent));
    default:
      return 0;
  }
}

}  // namespace

float LobeDensity(const ShadingPoint& point, std::uint8_t event, Vec3 direction) {
  if (point.fiber != nullptr) return FiberLobeDensity(point, event, direction);
  switch (event) {
    case kEventLambertian:
    case kEventTransmissive:
      return std::fabs(Dot(point.normal, direction)) / kPi;
    case kEventGlossy:
      return GlossyD(point, direction);
    default:
      return 0;
  }
}

float LightSampleWeight(const RayRecord& ray, float lightDensity, float lobeDensity, RayBudgets budgets) {
  if (!LobeRayFollows(ray)) return 1;
  if (BounceCount(ray) > 0) return Share(lightDensity, lobeDensity);
  return Share(static_cast<float>(budgets.light) * lightDensity,
               static_cast<float>(budgets.lobe) * lobeDensity);
}

float LobeRayWeight(const RayRecord& ray, float lightDensity, float lobeDensity, RayBudgets budgets) {
  if (BounceCount(ray) > 1) return Share(lobeDensity, lightDensity);
  return Share(static_cast<float>(budgets.lobe) * lobeDensity,
               static_cast<float>(budgets.light) * lightDensity);
}

}  // namespace zp
