// Light that reaches a hit straight from a light: samples of the light, each with a shadow ray.

#include <algorithm>

#include "accel/accel.h"
#include "core/index.h"
#include "core/stop.h"
#include "integrator/estimator.h"
#include "integrator/hair_response.h"
#include "integrator/integrator.h"
#include "integrator/surface_response.h"
#include "lights/lights.h"

namespace zp {
namespace {

// What is left of the light on its way; black in the shadow.
template <class AnyReceiver>
Vec3 Visibility(const AnyReceiver& receiver, Vec3 direction, float distance) {
  RayRecord shadow = MakeChildRay(receiver.ray, receiver.point, kEventLightSample, direction, kWhite);
  shadow.depth = 0;
  shadow.photonStore = false;
  shadow.t = distance;
  return LightLeft(shadow);
}

// What is drawn of a light: the stratum `number` of `count` that the choice of an emitter falls into, in
// format 2 that choice itself, and the place on the light.
struct Draw {
  std::uint32_t number = 0, count = 1;
  double choice = 0;
  Vec2 place;
};

// In format 1 at a first hit only, one stratum for each sample of the sequence; in format 2 at every hit, by
// the point that also gives the place.
double EmitterChoice(const Draw& draw) {
  return settings.format >= 2 ? draw.choice : StratifiedNumber(draw.number, draw.count);
}

// A sharp light has one place alone.
Draw DrawOf(const RayRecord& ray, const PassShare& share, std::uint32_t number, std::uint32_t decision,
            bool sharp) {
  Draw draw;
  if (settings.format >= 2) {
    draw.number = number;
    if (sharp) return draw;
    const PointBits bits = PointAt(ray.points, decision, number);
    draw.choice = static_cast<double>(bits.x) * 0x1p-32;
    draw.place = UnitPair(bits);
    return draw;
  }
  if (BounceCount(ray) == 0) {
    draw.number = number;
    draw.count = share.step * static_cast<std::uint32_t>(share.count);
  }
  draw.place = DrawPair(ray, number, decision);
  return draw;
}

template <class AnyReceiver>
LobeRadiance SampleOne(const AnyReceiver& receiver, const GeometryLight& light, const Draw& draw,
                       LightSample& sample) {
  if (!SampleGeometryLight(ReceiverOf(receiver.point), EmitterChoice(draw), draw.place.x, draw.place.y,
                           sample))
    return {};
  auto response = Respond(receiver, sample.direction, 0, GlossyScale::kRays);
  if (IsZero(response)) return {};
  const Vec3 visible = Visibility(receiver, sample.direction, sample.distance);
  if (visible == kBlack) return {};
  response = Weighted(receiver, response, sample, BudgetsOf(light));
  // Intended: in format 1 the factor's constant stands for pi and the lights' area both.
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

// One of many, in place of all.
template <class AnyReceiver>
LobeRadiance SampleOne(const AnyReceiver& receiver, const LightGroup& group, const Draw& draw,
                       LightSample& sample) {
  GroupPick pick;
  if (!PickFromGroup(group, ReceiverOf(receiver.point), draw.choice, pick)) return {};
  Draw place = draw;
  place.place.x = UnitNumber(pick.rest);  // the choice was made by the same number
  LobeRadiance lobes = group.parallel ? SampleOne(receiver, At(parallelLights, pick.light), place, sample)
                                      : SampleOne(receiver, At(pointLights, pick.light), place, sample);
  sample.light = pick.light;
  lobes *= 1 / pick.probability;
  return lobes;
}

template <class AnyLight>
[[gnu::noinline]] LobeRadiance SampleAtExit(const RayRecord& ray, const ShadingPoint& point,
                                            const AnyLight& light, const Draw& draw, LightSample& sample) {
  RayRecord exitRay;
  ShadingPoint exit;
  Vec3 weight;
  DrawExit(ray, point, draw.number, exitRay, exit, weight);
  return SampleOne(SurfaceReceiver{exitRay, exit, weight, true, false}, light, draw, sample);
}

bool Records(const GeometryLight&, const Aov& aov, std::int32_t emitter) {
  return aov.shaderIndex == kNone || aov.shaderIndex == emitter;
}
template <class OtherLight>
bool Records(const OtherLight&, const Aov&, std::int32_t) {
  return true;
}

// The AOVs of a sample's light.
template <class AnyLight>
std::vector<Aov>& AovsOf(AnyLight& light, const LightSample&) {
  return light.aovs;
}
std::vector<Aov>& AovsOf(LightGroup& group, const LightSample& sample) {
  static std::vector<Aov> none;
  if (sample.light == kNone) return none;
  return group.parallel ? At(parallelLights, sample.light).aovs : At(pointLights, sample.light).aovs;
}

template <class AnyLight>
bool HasAovs(const AnyLight& light) {
  return !light.aovs.empty();
}
bool HasAovs(const LightGroup& group) { return group.hasAovs; }

// Adds a sample's share of the pixel to those of the light's AOVs that ask for its lobe.
template <class AnyLight>
[[gnu::noinline]] void WriteLightAovs(AnyLight& light, const RayRecord& ray, const ShadingPoint& point,
                                      const LobeRadiance& lobes, float scale, const LightSample& sample) {
  for (Aov& aov : AovsOf(light, sample)) {
    if (!Records(light, aov, sample.shader)) continue;
    Vec3 sum;
    for (const LobeRow& row : kLobes)
      if (row.meetsLightSamples && (aov.channel & row.light) != 0)
        sum += lobes[row.lobe] * point.color[row.lobe];
    if (sum == kBlack) continue;
    AddToAov(aov, threadSlots[ray.thread].pixel,
             (scale / static_cast<float>(ray.sampleWeight)) * sum * ray.throughput);
  }
}

// How bright the brightest lobe is that light samples serve.
float LobeLevel(const RayRecord& ray, const ShadingPoint& point) {
  float level = 0;
  for (const LobeRow& row : kLobes)
    if (row.meetsLightSamples && point.has[row.lobe]) level = MaxOf(level, Mean(point.color[row.lobe]));
  return level * Mean(ray.throughput);
}

// `sharp`: every sample of the light is the same one.
template <class AnyLight>
LobeRadiance SampleLightAt(const RayRecord& ray, const ShadingPoint& point, AnyLight& light,
                           std::uint32_t decision, bool sharp) {
  LobeRadiance sum;
  if (!IsLinked(light.link, ray.shader)) return sum;
  const bool firstHit = BounceCount(ray) == 0;
  const bool diffuses = firstHit && Diffuses(ray, point);
  PassShare share;
  if (firstHit && (!sharp || diffuses)) {
    const float level = LobeLevel(ray, point);
    share = ShareOf({level, level, level}, light.sample);
  } else {
    share.first = ray.sampleNumber;
  }
  const float scale = 1.0f / static_cast<float>(share.count);
  const bool writes = ray.depth == 0 && HasAovs(light);
  for (std::int32_t i = 0; i < share.count && !Stopping(); ++i) {
    const Draw draw = DrawOf(ray, share, share.Number(i), decision, sharp);
    const auto add = [&](const LobeRadiance& lobes, const LightSample& sample) {
      if (writes) WriteLightAovs(light, ray, point, lobes, scale, sample);
      sum += lobes;
    };
    LightSample sample;  // filled before `add` reads it through its reference
    if (IsHair(point)) {
      add(SampleOne(HairReceiver{ray, point}, light, draw, sample), sample);
      continue;
    }
    if (diffuses) add(SampleAtExit(ray, point, light, draw, sample), sample);
    // What shines does so at the surface: a highlight does not go through the body.
    if (!diffuses || point.has[Lobe::kGlossy])
      add(SampleOne(SurfaceReceiver{ray, point, kWhite, !diffuses, true}, light, draw, sample), sample);
  }
  sum *= scale;
  return sum;
}

}  // namespace

float SoftCosine(float cosine, float offset) {
  const float soft = (cosine - offset) / MaxOf(1 - offset, 1e-6f);
  return soft > 0 ? MinOf(soft, 1.0f) : 0.0f;
}

[[gnu::noinline]] LobeRadiance SampleLights(const RayRecord& ray, const ShadingPoint& point) {
  LobeRadiance sum;
  if (BounceCount(ray) > settings.said.rendererBounce && !settings.derived.seeksCells) return sum;
  std::uint32_t decision = kDecideLight;
  if (SamplesEmitters()) sum += SampleLightAt(ray, point, geometryLight, decision, false);
  ++decision;
  if (skyLight.sample > 0) sum += SampleLightAt(ray, point, skyLight, decision, false);
  const auto sample = [&](auto& light) {
    sum += SampleLightAt(ray, point, light, ++decision, !(light.blur > 0));
  };
  if (lightGroups.empty()) {
    for (PointLight& light : pointLights) sample(light);
    for (ParallelLight& light : parallelLights) sample(light);
    return sum;
  }
  for (const std::int32_t index : lonePointLights) sample(At(pointLights, index));
  for (const std::int32_t index : loneParallelLights) sample(At(parallelLights, index));
  for (LightGroup& group : lightGroups) sum += SampleLightAt(ray, point, group, ++decision, false);
  return sum;
}

}  // namespace zp
