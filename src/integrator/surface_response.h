// integrator/surface_response.h: how the lobes of a surface answer light, and the densities of their own
// rays. A lobe's response and its density stand side by side: the balance heuristic is right only while they
// agree.

#pragma once

#include <cmath>

#include "integrator/estimator.h"

namespace zp {

// How many times D the glossy lobe sends back, cosine included. Point and parallel lights meet the BRDF, 4 D.
// Lights that rays of the lobe find as well meet the density of those rays: the two are one integral only
// then, and with 4 D a rough lobe seen at a grazing angle would show more than there is.
enum class GlossyScale : std::uint8_t { kBrdf, kRays };

// Where a light meets the surface: the hit, or, where light leaves elsewhere than it enters, its exit.
struct SurfaceReceiver {
  const RayRecord& ray;
  const ShadingPoint& point;
  Vec3 diffuseWeight = kWhite;         // colour that the way through the body costs
  bool diffuse = true, glossy = true;  // lobes that are asked for
};

// BSDF times cosine times Fresnel weight of each lobe for light from one direction.
using SurfaceResponse = PerLobe<float>;

// Light from behind the true surface does not reach a lobe that a bent normal turns to it. `offset` is the
// light's: see SoftCosine.
inline SurfaceResponse Respond(const SurfaceReceiver& receiver, Vec3 direction, float offset,
                               GlossyScale scale) {
  const ShadingPoint& point = receiver.point;
  const float cosine = Dot(direction, point.normal);
  const bool above = Dot(direction, point.geometricNormal) > 0;
  SurfaceResponse response;
  if (receiver.diffuse && point.has[Lobe::kLambertian] && above)
    response[Lobe::kLambertian] = SoftCosine(cosine, offset) * point.diffuseWeight / kPi;
  if (receiver.diffuse && point.has[Lobe::kTransmissive] && !above)
    response[Lobe::kTransmissive] = SoftCosine(-cosine, offset) * point.diffuseWeight / kPi;
  if (receiver.glossy && point.has[Lobe::kGlossy] && above && cosine > 0) {
    const float fourCosines = scale == GlossyScale::kBrdf
                                  ? 4 * cosine
                                  : 2 * (cosine + MaxOf(Dot(point.outgoing, point.normal), 0.0f));
    response[Lobe::kGlossy] = GlossyD(point, direction) * fourCosines * point.specularWeight;
  }
  return response;
}

// Density per solid angle with which rays of the lobe that `event` names go to a unit direction.
inline float SurfaceDensity(const ShadingPoint& point, std::uint8_t event, Vec3 direction) {
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

inline bool IsZero(const SurfaceResponse& response) {
  for (const float value : response.values)
    if (value != 0) return false;
  return true;
}

// Adds what the lobes send back of the light.
inline void Reflect(const SurfaceReceiver& receiver, const SurfaceResponse& response, Vec3 light,
                    LobeRadiance& sum) {
  for (const LobeRow& row : kLobes)
    if (response[row.lobe] != 0)
      sum[row.lobe] +=
          row.diffuse ? response[row.lobe] * light * receiver.diffuseWeight : response[row.lobe] * light;
}

// The balance heuristic of each lobe against samples of the light.
inline SurfaceResponse Weighted(const SurfaceReceiver& receiver, SurfaceResponse response,
                                const LightSample& sample, RayBudgets budgets) {
  for (const LobeRow& row : kLobes)
    if (response[row.lobe] > 0)
      response[row.lobe] *= LightSampleWeight(
          receiver.ray, sample.pdf, SurfaceDensity(receiver.point, row.event, sample.direction), budgets);
  return response;
}

}  // namespace zp
