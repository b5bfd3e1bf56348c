// Light that reaches a hit straight from a light: samples of the light, each with a shadow ray.

#include <algorithm>

#include "accel/accel.h"
#include "core/index.h"
#include "core/stop.h"
#include "integrator/catcher_response.h"
#include "integrator/estimator.h"
#include "integrator/hair_response.h"
#include "integrator/integrator.h"
#include "integrator/light_shares.h"
#include "integrator/surface_response.h"
#include "lights/lights.h"
#include "lights/mix_groups.h"
#include "shading/directions.h"

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
// format 2 that choice itself, the place on the light, and how often the sample counts.
struct Draw {
  std::uint32_t number = 0, count = 1;
  double choice = 0;
  Vec2 place;
  float weight = 1;
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
    const PointBits bits = decision == kDecideSky ? EvenPointAt(ray.points, decision, number)
                                                  : PointAt(ray.points, decision, number);
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

// Whether a lobe's ray waits to be made and traced while a light's sample is on its way.
template <class AnyReceiver>
bool WaitsToGoAhead(const AnyReceiver& receiver) {
  return receiver.point.ahead != nullptr && !receiver.point.ahead->made;
}
template <class AnyReceiver>
void MakeAheadOf(const void* receiver) {
  const auto& at = *static_cast<const AnyReceiver*>(receiver);
  MakeAhead(at.ray, at.point);
}

// SampleOne adds to `sum` what the lobes send back of one sample of a light.
template <class AnyReceiver>
void SampleOne(const AnyReceiver& receiver, const GeometryLight& light, const Draw& draw, LightSample& sample,
               LobeRadiance& sum) {
  const bool ahead = WaitsToGoAhead(receiver);
  const Meanwhile meanwhile = {ahead ? MakeAheadOf<AnyReceiver> : nullptr, &receiver};
  const bool drawn = SampleGeometryLight(ReceiverOf(receiver.point), EmitterChoice(draw), draw.place.x,
                                         draw.place.y, sample, meanwhile);
  if (ahead && receiver.point.ahead->open) TraceAhead(*receiver.point.ahead);
  if (!drawn) return;
  auto response = Respond(receiver, sample.direction, 0, GlossyScale::kRays);
  if (IsZero(response)) return;
  const Vec3 visible = Visibility(receiver, sample.direction, sample.distance);
  if (visible == kBlack) return;
  response = Weighted(receiver, response, sample, BudgetsOf(light));
  // Intended: in format 1 the factor's constant stands for pi and the lights' area both.
  Reflect(receiver, response, (kPi * sample.factor) * sample.radiance * visible, sum);
}

template <class AnyReceiver>
void SampleOne(const AnyReceiver& receiver, const SkyLight& light, const Draw& draw, LightSample& sample,
               LobeRadiance& sum) {
  if (!SampleSky(draw.place.x, draw.place.y, sample) || !(sample.pdf > 0)) return;
  if (WaitsToGoAhead(receiver)) {
    MakeAhead(receiver.ray, receiver.point);
    if (receiver.point.ahead->open) TraceAhead(*receiver.point.ahead);
  }
  auto response = Respond(receiver, sample.direction, 0, GlossyScale::kRays);
  if (IsZero(response)) return;
  const Vec3 visible = Visibility(receiver, sample.direction, sample.distance);
  if (visible == kBlack) return;
  response = Weighted(receiver, response, sample, BudgetsOf(light));
  Reflect(receiver, response, sample.radiance * visible / sample.pdf, sum);
}

// Point and parallel lights have no counterpart among the rays of lobes.
template <class AnyReceiver, class GafferLight>
void SampleOne(const AnyReceiver& receiver, const GafferLight& light, const Draw& draw, LightSample& sample,
               LobeRadiance& sum) {
  sample = SampleLight(light, receiver.point.position, draw.place.x, draw.place.y);
  const auto response = Respond(receiver, sample.direction, light.offset, GlossyScale::kBrdf);
  if (IsZero(response) || sample.radiance == kBlack) return;
  const Vec3 visible = Visibility(receiver, sample.direction, sample.distance);
  Reflect(receiver, response, sample.radiance * visible * draw.weight, sum);
}

// One of many, in place of all.
template <class AnyReceiver>
void SampleOne(const AnyReceiver& receiver, const LightGroup& group, const Draw& draw, LightSample& sample,
               LobeRadiance& sum) {
  GroupPick pick;
  if (!PickFromGroup(group, ReceiverOf(receiver.point), draw.choice, pick)) return;
  Draw place = draw;
  place.place.x = UnitNumber(pick.rest);  // the choice was made by the same number
  place.weight = 1 / pick.probability;
  if (group.parallel)
    SampleOne(receiver, At(parallelLights, pick.light), place, sample, sum);
  else
    SampleOne(receiver, At(pointLights, pick.light), place, sample, sum);
  sample.light = pick.light;
}

template <class AnyLight>
[[gnu::noinline]] void SampleAtExit(const RayRecord& ray, const ShadingPoint& point, const AnyLight& light,
                                    const Draw& draw, LightSample& sample, LobeRadiance& sum) {
  RayRecord exitRay;
  ShadingPoint exit;
  Vec3 weight;
  DrawExit(ray, point, draw.number, exitRay, exit, weight);
  SampleOne(SurfaceReceiver{exitRay, exit, weight, true, false}, light, draw, sample, sum);
}

// Intended: in format 1 samples reach no AOV that asks for one Shader's light.
bool Records(const GeometryLight&, const Aov& aov, std::int32_t emitter) {
  return aov.shaderIndex == kNone || (settings.format >= 2 && aov.shaderIndex == emitter);
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

// The light group of a sample.
std::int32_t GroupOf(const GeometryLight&, const LightSample& sample) { return EmissionGroup(sample.shader); }
std::int32_t GroupOf(const LightGroup& lights, const LightSample& sample) {
  if (sample.light == kNone) return 0;
  return lights.parallel ? At(parallelLights, sample.light).groupIndex
                         : At(pointLights, sample.light).groupIndex;
}
template <class OtherLight>
std::int32_t GroupOf(const OtherLight& light, const LightSample&) {
  return light.groupIndex;
}

// Adds a sample's share of the pixel to its group, and to those of the light's AOVs that ask for its lobe.
template <class AnyLight>
[[gnu::noinline]] void WriteLightAovs(AnyLight& light, const RayRecord& ray, const ShadingPoint& point,
                                      const LobeRadiance& lobes, float scale, const LightSample& sample) {
  if (followsShares) AddLobeLight(ray, point, GroupOf(light, sample), lobes, scale);
  if (ray.depth > 0) return;
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

// Adds one sample's light, by the receivers that its hit has. `scale`: what a sample counts in the AOVs of
// the light and its group; 0 if it writes none.
template <class AnyLight>
void AddSample(const RayRecord& ray, const ShadingPoint& point, AnyLight& light, const Draw& draw,
               bool diffuses, float scale, LobeRadiance& sum) {
  const auto take = [&](const auto& sampleInto) {
    LightSample sample;
    if (scale == 0) return sampleInto(sample, sum);
    LobeRadiance lobes;
    sampleInto(sample, lobes);
    WriteLightAovs(light, ray, point, lobes, scale, sample);
    sum += lobes;
  };
  const auto takeBy = [&](const auto& receiver) {
    take([&](LightSample& sample, LobeRadiance& into) { SampleOne(receiver, light, draw, sample, into); });
  };
  if (IsHair(point)) return takeBy(HairReceiver{ray, point});
  if (diffuses)
    take([&](LightSample& sample, LobeRadiance& into) {
      SampleAtExit(ray, point, light, draw, sample, into);
    });
  // What shines does so at the surface: a highlight does not go through the body.
  if (!diffuses || point.has[Lobe::kGlossy]) takeBy(SurfaceReceiver{ray, point, kWhite, !diffuses, true});
}

// Adds what the lobes send back of a light. `sharp`: every sample of the light is the same one.
template <class AnyLight>
void SampleLightAt(const RayRecord& ray, const ShadingPoint& point, AnyLight& light, std::uint32_t decision,
                   bool sharp, LobeRadiance& sum) {
  if (!IsLinked(light.link, ray.shader)) return;
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
  const float written = (ray.depth == 0 && HasAovs(light)) || followsShares ? scale : 0.0f;
  const auto add = [&](std::uint32_t number, LobeRadiance& into) {
    AddSample(ray, point, light, DrawOf(ray, share, number, decision, sharp), diffuses, written, into);
  };
  if (share.count == 1) return add(share.first, sum);
  LobeRadiance samples;
  for (std::int32_t i = 0; i < share.count && !Stopping(); ++i) add(share.Number(i), samples);
  samples *= scale;
  sum += samples;
}

// Calls visit(light, decision, sharp) for each light that is sampled; many of a kind are one group.
template <class Visit>
void ForEachLight(const Visit& visit) {
  if (SamplesEmitters()) visit(geometryLight, kDecideLight, false);
  if (skyLight.sample > 0) visit(skyLight, kDecideSky, false);
  std::uint32_t decision = kDecideSky;
  const auto visitGaffer = [&](auto& light) { visit(light, ++decision, !(light.blur > 0)); };
  if (lightGroups.empty()) {
    for (PointLight& light : pointLights) visitGaffer(light);
    for (ParallelLight& light : parallelLights) visitGaffer(light);
    return;
  }
  for (const std::int32_t index : lonePointLights) visitGaffer(At(pointLights, index));
  for (const std::int32_t index : loneParallelLights) visitGaffer(At(parallelLights, index));
  for (LightGroup& group : lightGroups) visit(group, ++decision, false);
}

// Samples that tell what a catcher would get of a light. Soft shadows of one lamp need few: what differs is
// hardly more than the cosine.
template <class AnyLight>
int ShadeSampleCount(const AnyLight&, bool sharp) {
  if (sharp) return 1;
  return requires(AnyLight light) { light.blur; }
  ? 4 : ShadeSamples::kMost;
}

// Adds what a catcher would get of a light, and what it gets. Shadow rays are as many as other surfaces send.
//   budget  of them
template <class AddSample>
void AddShade(const CatcherReceiver& receiver, int count, int budget, std::uint32_t decision, Shade& shade,
              const AddSample& addSample) {
  const RayRecord& ray = receiver.ray;
  const bool sharp = count == 1;
  PassShare share;
  share.first = ray.sampleNumber;
  if (BounceCount(ray) == 0 && !sharp) share = ShareOf(kWhite, budget);
  ShadeSamples samples;
  for (int i = 0; i < count; ++i) {
    const auto number = share.first * static_cast<std::uint32_t>(count) + static_cast<std::uint32_t>(i);
    addSample(DrawOf(ray, share, number, decision, sharp), samples);
  }
  constexpr std::uint32_t kDecideAsked = 1 << 16;  // beside the light's own
  const float number = UnitPair(LonePointAt(ray.points, kDecideAsked + decision, ray.sampleNumber)).x;
  samples.AddTo(shade, share.count, number, [&](Vec3 direction, float distance) {
    return Visibility(SurfaceReceiver{ray, receiver.point}, direction, distance);
  });
}

// A sky that rays of lobes find, as a white surface sends them.
void AddUnsampledSky(const CatcherReceiver& receiver, Shade& shade) {
  const ShadingPoint& point = receiver.point;
  AddShade(receiver, ShadeSamples::kMost, settings.said.rendererSample, kEventLambertian, shade,
           [&](const Draw& draw, ShadeSamples& samples) {
             const Vec3 local = CosineDirection(draw.place.x, draw.place.y);
             const Vec3 direction =
                 local.x * point.tangent + local.y * point.bitangent + local.z * point.normal;
             const bool above = Dot(direction, point.geometricNormal) > 0;
             samples.Add(above ? SkyRadiance(direction) : kBlack, direction, kFarthest);
           });
}

}  // namespace

float LightDenied(const RayRecord& ray, const ShadingPoint& point) {
  if (!IsInOpen(ray)) return 0;
  const CatcherReceiver receiver{ray, point};
  Shade shade;
  ForEachLight([&](auto& light, std::uint32_t decision, bool sharp) {
    if (!IsLinked(light.link, ray.shader)) return;
    AddShade(receiver, ShadeSampleCount(light, sharp), light.sample, decision, shade,
             [&](const Draw& draw, ShadeSamples& samples) {
               LightSample sample;
               LobeRadiance lobes;
               SampleOne(receiver, light, draw, sample, lobes);
               samples.Add(lobes[Lobe::kLambertian], sample.direction, sample.distance);
             });
  });
  if (skyLight.sample <= 0 && !(skyLight.color == kBlack) && IsLinked(skyLight.link, ray.shader))
    AddUnsampledSky(receiver, shade);
  return shade.whole > 0 ? std::clamp(1 - shade.left / shade.whole, 0.0f, 1.0f) : 0.0f;
}

float SoftCosine(float cosine, float offset) {
  const float soft = (cosine - offset) / MaxOf(1 - offset, 1e-6f);
  return soft > 0 ? MinOf(soft, 1.0f) : 0.0f;
}

[[gnu::noinline]] void SampleLights(const RayRecord& ray, const ShadingPoint& point, LobeRadiance& sum) {
  if (BounceCount(ray) > settings.said.rendererBounce && !settings.derived.seeksCells) return;
  ForEachLight([&](auto& light, std::uint32_t decision, bool sharp) {
    SampleLightAt(ray, point, light, decision, sharp, sum);
  });
}

}  // namespace zp
