// Light that reaches a hit straight from a light: samples of the light, each with a shadow ray.

#include <algorithm>

#include "accel/accel.h"
#include "core/stop.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "lights/lights.h"

namespace zp {
namespace {

// BSDF times cosine times Fresnel weight of each lobe for light from one direction, and the density with
// which the lobe's own rays go there.
struct LobeResponse {
  float lambertian = 0, transmissive = 0, glossy = 0;
};

// Where a light meets the surface: the hit, or, where light leaves elsewhere than it enters, its exit.
struct Receiver {
  const RayRecord& ray;
  const ShadingPoint& point;
  Vec3 diffuseWeight = kWhite;         // colour that the way through the body costs
  bool diffuse = true, glossy = true;  // lobes that are asked for
};

// How many times D the glossy lobe sends back, cosine included. Point and parallel lights meet the BRDF, 4 D.
// Lights that rays of the lobe find as well meet the density of those rays: the two are one integral only
// then, and with 4 D a rough lobe seen at a grazing angle would show more than there is.
enum class GlossyScale : std::uint8_t { kBrdf, kRays };

// Light from behind the true surface does not reach a lobe that a bent normal turns to it.
LobeResponse Respond(const Receiver& receiver, Vec3 direction, float offset, GlossyScale scale) {
  const ShadingPoint& point = receiver.point;
  const float cosine = Dot(direction, point.normal);
  const bool above = Dot(direction, point.geometricNormal) > 0;
  LobeResponse response;
  if (receiver.diffuse && point.hasLambertian && above)
    response.lambertian = SoftCosine(cosine, offset) * point.diffuseWeight / kPi;
  if (receiver.diffuse && point.hasTransmissive && !above)
    response.transmissive = SoftCosine(-cosine, offset) * point.diffuseWeight / kPi;
  if (receiver.glossy && point.hasGlossy && above && cosine > 0) {
    const float fourCosines = scale == GlossyScale::kBrdf
                                  ? 4 * cosine
                                  : 2 * (cosine + MaxOf(Dot(point.outgoing, point.normal), 0.0f));
    response.glossy = GlossyD(point, direction) * fourCosines * point.specularWeight;
  }
  return response;
}

bool IsZero(const LobeResponse& r) { return r.lambertian == 0 && r.transmissive == 0 && r.glossy == 0; }

// Hair, which takes light from all sides.
struct HairReceiver {
  const RayRecord& ray;
  const ShadingPoint& point;
};

// The same for hair. Its own rays are drawn from some of its lobes only: no others compete with light
// samples.
struct HairResponse {
  float lambertian = 0;
  Vec3 drawn, undrawn;  // of the lobes that give the glossy light
  float glossyDensity = 0;
};

// Fibres have no terminator that an offset could soften, and their lobes one scale.
HairResponse Respond(const HairReceiver& receiver, Vec3 direction, float, GlossyScale) {
  const ShadingPoint& point = receiver.point;
  HairResponse response;
  if (point.hasLambertian) response.lambertian = FiberDiffuse(point.outgoing, direction, point.tangent);
  if (point.hasGlossy) {
    const FiberScattering lobes = EvaluateFiber(*point.fiber, point.outgoing, direction, point.tangent);
    response.drawn = DrawnLobes(*point.fiber, lobes);
    response.undrawn = UndrawnLobes(*point.fiber, lobes);
    response.glossyDensity = DrawnDensity(*point.fiber, lobes);
  }
  return response;
}

bool IsZero(const HairResponse& r) { return r.lambertian == 0 && r.drawn == kBlack && r.undrawn == kBlack; }

LobeRadiance Reflect(const HairReceiver&, const HairResponse& response, Vec3 light) {
  LobeRadiance lobes;
  lobes.lambertian = response.lambertian * light;
  lobes.glossy = (response.drawn + response.undrawn) * light;
  return lobes;
}

HairResponse Weighted(const HairReceiver& receiver, HairResponse response, const LightSample& sample,
                      RayBudgets budgets) {
  const auto weight = [&](float density) {
    return LightSampleWeight(receiver.ray, sample.pdf, density, budgets);
  };
  response.lambertian *= weight(response.lambertian);  // which is its own density
  response.drawn *= weight(response.glossyDensity);
  return response;
}

// What is left of the light on its way; black in the shadow.
template <class AnyReceiver>
Vec3 Visibility(const AnyReceiver& receiver, Vec3 direction, float distance) {
  RayRecord shadow = MakeChildRay(receiver.ray, receiver.point, kEventLightSample, direction, kWhite);
  shadow.depth = 0;
  shadow.photonStore = false;
  shadow.t = distance;
  return Occlude(shadow) ? kBlack : shadow.throughput;
}

LobeRadiance Reflect(const Receiver& receiver, const LobeResponse& response, Vec3 light) {
  LobeRadiance lobes;
  lobes.lambertian = response.lambertian * light * receiver.diffuseWeight;
  lobes.transmissive = response.transmissive * light * receiver.diffuseWeight;
  lobes.glossy = response.glossy * light;
  return lobes;
}

// The balance heuristic of each lobe against samples of the light.
LobeResponse Weighted(const Receiver& receiver, LobeResponse response, const LightSample& sample,
                      RayBudgets budgets) {
  const auto weight = [&](Event event) {
    return LightSampleWeight(receiver.ray, sample.pdf, LobeDensity(receiver.point, event, sample.direction),
                             budgets);
  };
  if (response.lambertian > 0) response.lambertian *= weight(kEventLambertian);
  if (response.transmissive > 0) response.transmissive *= weight(kEventTransmissive);
  if (response.glossy > 0) response.glossy *= weight(kEventGlossy);
  return response;
}

// Draw number `number` of a sequence of `count`, and its place on the light.
struct Draw {
  std::uint32_t number = 0, count = 1;
  Vec2 place;
};

template <class AnyReceiver>
LobeRadiance SampleOne(const AnyReceiver& receiver, const GeometryLight& light, const Draw& draw,
                       LightSample& sample) {
  if (!SampleGeometryLight(receiver.point.position, draw.number, draw.count, draw.place.x, draw.place.y,
                           sample))
    return {};
  auto response = Respond(receiver, sample.direction, 0, GlossyScale::kRays);
  if (IsZero(response)) return {};
  const Vec3 visible = Visibility(receiver, sample.direction, sample.distance);
  if (visible == kBlack) return {};
  response = Weighted(receiver, response, sample, BudgetsOf(light));
  // Intended: the factor's constant stands for pi and the lights' area both.
  return Reflect(receiver, response, (kPi * sample.factor) * sample.radiance * visible);
}

template <class AnyReceiver>
LobeRadiance SampleOne(const AnyReceiver& receiver, const SkyLight& light, const Draw& draw,
                       LightSample& sample) {
  if (!SampleSky(draw.place.x, draw.place.y, sample) || !(sample.pdf > 0)) return {};
  auto response = Respond(receiver, sample.direction, 0, GlossyScale::kRays);
  if (IsZero(response)) return {};
  const Vec3 visible = Visibility(receiver, sample.direction, sample.distance);
  if (visible == kBlack) return {};
  response = Weighted(receiver, response, sample, BudgetsOf(light));
  return Reflect(receiver, response, sample.radiance * visible / sample.pdf);
}

// Point and parallel lights have no counterpart among the rays of lobes.
template <class AnyReceiver, class GafferLight>
LobeRadiance SampleOne(const AnyReceiver& receiver, const GafferLight& light, const Draw& draw,
                       LightSample& sample) {
  sample = SampleLight(light, receiver.point.position, draw.place.x, draw.place.y);
  const auto response = Respond(receiver, sample.direction, light.offset, GlossyScale::kBrdf);
  if (IsZero(response) || sample.radiance == kBlack) return {};
  return Reflect(receiver, response,
                 sample.radiance * Visibility(receiver, sample.direction, sample.distance));
}

template <class AnyLight>
[[gnu::noinline]] LobeRadiance SampleAtExit(const RayRecord& ray, const ShadingPoint& point,
                                            const AnyLight& light, const Draw& draw, LightSample& sample) {
  RayRecord exitRay;
  ShadingPoint exit;
  Vec3 weight;
  DrawExit(ray, point, exitRay, exit, weight);
  return SampleOne(Receiver{exitRay, exit, weight, true, false}, light, draw, sample);
}

bool Records(const GeometryLight&, const Aov& aov, std::int32_t emitter) {
  return aov.shaderIndex == kNone || aov.shaderIndex == emitter;
}
template <class OtherLight>
bool Records(const OtherLight&, const Aov&, std::int32_t) {
  return true;
}

// Adds a sample's share of the pixel to those of the light's AOVs that ask for its lobe.
template <class AnyLight>
[[gnu::noinline]] void WriteLightAovs(AnyLight& light, const RayRecord& ray, const ShadingPoint& point,
                                      const LobeRadiance& lobes, float scale, std::int32_t emitter) {
  for (Aov& aov : light.aovs) {
    if (!Records(light, aov, emitter)) continue;
    Vec3 sum;
    if ((aov.channel & kChannelLambertian) != 0) sum += lobes.lambertian * point.lambertianColor;
    if ((aov.channel & kChannelTransmissive) != 0) sum += lobes.transmissive * point.transmissiveColor;
    if ((aov.channel & kChannelGlossy) != 0) sum += lobes.glossy * point.glossyColor;
    if (sum == kBlack) continue;
    AddToAov(aov, threadSlots[ray.thread].pixel,
             (scale / static_cast<float>(ray.sampleWeight)) * sum * ray.throughput);
  }
}

// How bright the brightest lobe is that light samples serve.
float LobeLevel(const RayRecord& ray, const ShadingPoint& point) {
  float level = 0;
  if (point.hasLambertian) level = MaxOf(level, Mean(point.lambertianColor));
  if (point.hasTransmissive) level = MaxOf(level, Mean(point.transmissiveColor));
  if (point.hasGlossy) level = MaxOf(level, Mean(point.glossyColor));
  return level * Mean(ray.throughput);
}

// `sharp`: every sample of the light is the same one.
template <class AnyLight>
LobeRadiance SampleLightAt(const RayRecord& ray, const ShadingPoint& point, AnyLight& light, bool sharp) {
  LobeRadiance sum;
  if (!IsLinked(light.link, ray.shader)) return sum;
  const bool firstHit = BounceCount(ray) == 0;
  const bool diffuses = firstHit && Diffuses(ray, point);
  PassShare share;
  if (firstHit && (!sharp || diffuses)) {
    const float level = LobeLevel(ray, point);
    share = ShareOf(GatherCount({level, level, level}, light.sample, CameraPasses()));
  } else {
    share.first = ray.sampleNumber;
    share.end = ray.sampleNumber + 1;
  }
  const float scale = 1.0f / static_cast<float>(share.count);
  const bool writes = ray.depth == 0 && !light.aovs.empty();
  for (std::uint32_t i = share.first; i < share.end && !Stopping(); i += share.step) {
    Draw draw;
    if (firstHit) {
      draw.number = i;
      draw.count = share.end;
    }
    draw.place = DrawPair(ray, i);
    const auto add = [&](const LobeRadiance& lobes, const LightSample& sample) {
      if (writes) WriteLightAovs(light, ray, point, lobes, scale, sample.shader);
      sum += lobes;
    };
    LightSample sample;  // filled before `add` reads it through its reference
    if (point.fiber != nullptr) {
      add(SampleOne(HairReceiver{ray, point}, light, draw, sample), sample);
      continue;
    }
    if (diffuses) add(SampleAtExit(ray, point, light, draw, sample), sample);
    // What shines does so at the surface: a highlight does not go through the body.
    if (!diffuses || point.hasGlossy)
      add(SampleOne(Receiver{ray, point, kWhite, !diffuses, true}, light, draw, sample), sample);
  }
  sum.lambertian *= scale;
  sum.transmissive *= scale;
  sum.glossy *= scale;
  return sum;
}

}  // namespace

float SoftCosine(float cosine, float offset) {
  const float soft = (cosine - offset) / MaxOf(1 - offset, 1e-6f);
  return soft > 0 ? MinOf(soft, 1.0f) : 0.0f;
}

[[gnu::noinline]] LobeRadiance SampleLights(const RayRecord& ray, const ShadingPoint& point) {
  LobeRadiance sum;
  if (BounceCount(ray) > settings.rendererBounce) return sum;
  if (SamplesEmitters()) sum += SampleLightAt(ray, point, geometryLight, false);
  if (skyLight.sample > 0) sum += SampleLightAt(ray, point, skyLight, false);
  for (PointLight& light : pointLights) sum += SampleLightAt(ray, point, light, !(light.blur > 0));
  for (ParallelLight& light : parallelLights) sum += SampleLightAt(ray, point, light, !(light.blur > 0));
  return sum;
}

}  // namespace zp
