// Which share of a light belongs to its own samples, and which to the rays that find it.

#include "integrator/estimator.h"
#include "integrator/hair_response.h"
#include "integrator/surface_response.h"

namespace zp {
namespace {

// Shares of a light by its samples and by the lobe's rays; they add up to 1.
float Share(float mine, float others) {
  const float sum = mine + others;
  return sum > 0 ? mine / sum : 0.0f;
}

bool LobeRayFollows(const RayRecord& ray) {
  return LobeRaysLeave(ray) && ray.depth + 1 < settings.said.rayDepth;
}

}  // namespace

float LobeDensity(const ShadingPoint& point, std::uint8_t event, Vec3 direction) {
  return IsHair(point) ? HairDensity(point, event, direction) : SurfaceDensity(point, event, direction);
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
