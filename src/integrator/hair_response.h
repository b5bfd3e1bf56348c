// integrator/hair_response.h: the same as surface_response.h for hair, which takes light from all sides.

#pragma once

#include "integrator/surface_response.h"

namespace zp {

struct HairReceiver {
  const RayRecord& ray;
  const ShadingPoint& point;
};

// Rays are drawn from some of hair's lobes only: no others compete with light samples.
struct HairResponse {
  float lambertian = 0;
  Vec3 drawn, undrawn;  // of the lobes that give the glossy light
  float glossyDensity = 0;
};

// Fibres have no terminator that an offset could soften, and their lobes one scale.
inline HairResponse Respond(const HairReceiver& receiver, Vec3 direction, float, GlossyScale) {
  const ShadingPoint& point = receiver.point;
  HairResponse response;
  if (point.has[Lobe::kLambertian])
    response.lambertian = FiberDiffuse(point.outgoing, direction, point.tangent);
  if (point.has[Lobe::kGlossy]) {
    const FiberScattering lobes = EvaluateFiber(*point.fiber, point.outgoing, direction, point.tangent);
    response.drawn = DrawnLobes(*point.fiber, lobes);
    response.undrawn = UndrawnLobes(*point.fiber, lobes);
    response.glossyDensity = DrawnDensity(*point.fiber, lobes);
  }
  return response;
}

// The Lambertian rays of hair leave the one place that was hit, but light samples show the mean over the
// width: with that mean's density the two complete each other in the mean.
inline float HairDensity(const ShadingPoint& point, std::uint8_t event, Vec3 direction) {
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

inline bool IsZero(const HairResponse& r) {
  return r.lambertian == 0 && r.drawn == kBlack && r.undrawn == kBlack;
}

inline void Reflect(const HairReceiver&, const HairResponse& response, Vec3 light, LobeRadiance& sum) {
  sum[Lobe::kLambertian] += response.lambertian * light;
  sum[Lobe::kGlossy] += (response.drawn + response.undrawn) * light;
}

inline HairResponse Weighted(const HairReceiver& receiver, HairResponse response, const LightSample& sample,
                             RayBudgets budgets) {
  const auto weight = [&](float density) {
    return LightSampleWeight(receiver.ray, sample.pdf, density, budgets);
  };
  response.lambertian *= weight(response.lambertian);  // which is its own density
  response.drawn *= weight(response.glossyDensity);
  return response;
}

}  // namespace zp
