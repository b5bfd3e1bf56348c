// integrator/estimator.h: the steps of one radiance estimate, private to this folder.
// All of them run on any thread, allocate nothing and do not fail.

#pragma once

#include "accel/accel.h"
#include "core/ray.h"
#include "core/settings.h"
#include "core/tables.h"
#include "imaging/imaging.h"
#include "lights/lights.h"
#include "shading/shading.h"

namespace zp {

// The camera that is rendered; null in an empty table.
Camera* ActiveCamera();

// Fills `point` from the hit of `ray`: position, frame, uv, layer, Fresnel weights. World space.
// A layer that is set already is kept. False, with the point unfinished, for a hit that has no layer to show.
// Comes before the thread's next Trace (HitNormalMatrix).
bool SetUpShadingPoint(const RayRecord& ray, ShadingPoint& point);

// An orthonormal frame around the unit vector point.normal. `tangent` of any length is bent into it; one that
// is parallel to the normal, or zero, is replaced.
void SetFrame(ShadingPoint& point, Vec3 tangent);

// The ray that leaves `point`, where `parent` has hit, by `event`. `throughput` is the child's own.
// The caller counts the bounce's kind, and sets sampleNumber and sampleWeight at a first hit.
RayRecord MakeChildRay(const RayRecord& parent, const ShadingPoint& point, Event event, Vec3 direction,
                       Vec3 throughput);
// Index of the medium behind a refraction: the ray's times `ratio`, and exactly the camera's where rounding
// alone keeps them apart.
float RefractedIor(float ior, float ratio);

// A way on from a hit, and its share of the lobe's light.
struct LobeRay {
  Event event;
  Vec3 direction;  // unit
  float weight;
};
struct LobeRays {
  LobeRay ways[2];
  int count = 0;
  bool total = false;  // total reflection: there is no refracted ray
};
// By the half vector number `sample`.
LobeRays GlossyRays(const RayRecord& ray, const ShadingPoint& point, std::uint32_t sample);
LobeRays SpecularRays(const RayRecord& ray, const ShadingPoint& point);
// The child ray with its bounce counted and its medium set; `throughput` is the lobe's, without the weight.
RayRecord MakeLobeChild(const RayRecord& ray, const ShadingPoint& point, const LobeRay& way, Vec3 throughput);
// The child ray of hair's glossy lobes, its bounce counted. `throughput` is the lobe's, without the `weight`
// that the ray's light counts with.
RayRecord MakeFiberChild(const RayRecord& ray, const ShadingPoint& point, Vec3 throughput, Vec3& weight);
// Draws what the Lambertian lobe of the ray's hit is going to ask for, if it has one ray: the draw does not
// wait for the hit's frame, nor the frame for the draw.
void DrawBeforehand(const RayRecord& ray, ShadingPoint& point);
// Direction number `sample` of the Lambertian or the transmissive lobe. False if it goes through the surface
// to the wrong side.
bool DiffuseDirection(const RayRecord& ray, const ShadingPoint& point, Event event, std::uint32_t sample,
                      Vec3& direction);

// The `count` sample numbers that this pass takes at a first hit, out of a sequence that all passes share.
struct PassShare {
  std::uint32_t first = 0, step = 1;
  std::int32_t count = 1;

  std::uint32_t Number(std::int32_t i) const { return first + static_cast<std::uint32_t>(i) * step; }
};
// Of what `color` deserves of `budget` rays. Format 1 shares the budget out to the passes that are planned;
// in format 2 each pass takes it, and the numbers that come next.
PassShare ShareOfMany(Vec3 color, std::int32_t budget);
inline PassShare ShareOf(Vec3 color, std::int32_t budget) {
  if (settings.format < 2 || budget != 1) return ShareOfMany(color, budget);
  return {NumberOfPass(static_cast<std::uint32_t>(settings.frame.samplePass)), 1, 1};
}

// Two numbers of sample `sample` for `decision`. In format 1 from the ray's Halton dimensions, turned by the
// pixel alike for whoever draws.
inline Vec2 DrawPair(const RayRecord& ray, std::uint32_t sample, std::uint32_t decision) {
  if (settings.format >= 2) return UnitPair(PointAt(ray.points, decision, sample));
  return {Rotate(Halton(sample, ray.dimension), ray.rotation.x),
          Rotate(Halton(sample, ray.dimension + 1), ray.rotation.y)};
}

// What each lobe sends back along the ray.
using LobeRadiance = PerLobe<Vec3>;
inline LobeRadiance& operator+=(LobeRadiance& a, const LobeRadiance& b) {
  for (std::size_t i = 0; i < kLobeCount; ++i) a.values[i] += b.values[i];
  return a;
}
inline LobeRadiance& operator*=(LobeRadiance& a, float scale) {
  for (Vec3& light : a.values) light *= scale;
  return a;
}

// Whether lights are sampled where the ray is, and lobe rays compete with those samples: in the open, not
// inside a medium, which is known by its index of refraction.
inline bool IsInOpen(const RayRecord& ray) { return IsSameMedium(ray.ior, settings.derived.openIor); }

// Media. Whether there are any that rays have to know, and what index the open has. Needs the accelerator.
void InitializeMedia();
extern bool sceneHasMedia;  // some medium absorbs; from InitializeMedia on
// Goes through the surface of a body: into it at its front, out of it at its back.
void CrossSurface(RayRecord& ray, std::int32_t shader, bool front);
// The share of light that media leave on the way of a ray to its hit, or out of the scene.
Vec3 Transmission(const RayRecord& ray);
// What surfaces and media leave of the light that comes along a shadow ray from ray.t; black in the shadow.
Vec3 LightLeftByMedia(RayRecord& shadow);
inline Vec3 LightLeft(RayRecord& shadow) {
  if (settings.derived.tracksMedia) return LightLeftByMedia(shadow);
  return Occlude(shadow) ? kBlack : shadow.throughput;
}

// Adds what the lobes receive straight from lights, without the lobes' colours. Writes the lights' AOVs at
// depth 0.
void SampleLights(const RayRecord& ray, const ShadingPoint& point, LobeRadiance& sum);

// The share of the light straight from lights that a shadow catcher does not get, 0 to 1: 0 where there is
// none. What shines without being sampled has no say in it, but for the sky.
float LightDenied(const RayRecord& ray, const ShadingPoint& point);

// Whether hits draw samples of the virtual lights.
bool SamplesEmitters();

// Where samples of lights are wanted for the lobes of a point; the same for a sample and for a ray of a lobe.
LightReceiver ReceiverOf(const ShadingPoint& point);
// With what density samples of the virtual lights are on the surface that a lobe's ray has hit, in format 2:
// of samples drawn where the ray began. 0 for what no sample competes with. As SetUpShadingPoint it comes
// before the thread's next Trace.
float PickDensity(const RayRecord& ray);

// The one ray of a point's Lambertian lobe, made and traced while a light is sampled: where a light's sample
// lies takes a processor long to tell, and the ray does not wait for it.
struct RayAhead {
  bool made = false;
  bool open = false;                   // does not go through the surface
  bool followed = false, met = false;  // IsFollowed, and what Trace said
  union {
    RayRecord child;  // if open; most hits have none, and it is large
  };
  RayAhead() {}
};
// Fills what point.ahead points to, for a hit other than the first: up to `open`, and the rest.
void MakeAhead(const RayRecord& ray, const ShadingPoint& point);
void TraceAhead(RayAhead& ahead);

// Whether radiance along the ray is asked for at all; if so, what it is once the ray is traced.
bool IsFollowed(const RayRecord& ray);
Vec3 RadianceOfTraced(RayRecord& ray, bool met);

// What a lobe receives from the scene, without the lobe's colour. Black for a lobe of black throughput.
Vec3 Gather(Lobe lobe, const RayRecord& ray, const ShadingPoint& point);

// Caustic photons around the hit, for the lobe that `event` names: their power by the area that they cover.
Vec3 GatherCaustics(const RayRecord& ray, const ShadingPoint& point, Event event);
void ForgetGathers();  // of all threads, when the photons have changed

// Which of a point's lobes have colour. A point with useDensity has no diffuse ones of its own.
void TestElements(ShadingPoint& point);

// What a ray sees that hits nothing. Writes the sky's AOVs from camera rays.
Vec3 MissRadiance(const RayRecord& ray);
// What its cells answer for the hit surface, as far as it sends that; of all light, or of photonGroups[slot]
// (light_shares.h) alone.
Vec3 CellLight(const RayRecord& ray, const ShadingPoint& point, std::int32_t slot = kNone);
// What the hit surface sends back along the ray by itself. Writes the geometry light's AOVs.
Vec3 EmittedRadiance(const RayRecord& ray, const ShadingPoint& point);

// Rays of a first hit, over all passes or, in format 2, in each, as they stood when the renderer was
// initialised: a host that changes the gather's budget between passes does not change what light samples and
// lobe rays weigh.
struct RayBudgets {
  std::int32_t light = 0;  // light samples
  std::int32_t lobe = 0;   // rays of a lobe
};
inline RayBudgets BudgetsOf(const SkyLight& light) {
  return {light.sample, settings.derived.rendererSampleCopy};
}
inline RayBudgets BudgetsOf(const GeometryLight& light) {
  return {light.sample, settings.derived.geometrySampleCopy};
}

// The balance heuristic (Veach and Guibas, "Optimally Combining Sampling Techniques", 1995) between the two
// kinds of rays of a first hit, and between one and one later on. Densities are per solid angle.
//
// Density of the lobe that `event` names in a unit direction; 0 for lobes that draw no directions. It stands
// beside the lobe's response: surface_response.h, hair_response.h.
float LobeDensity(const ShadingPoint& point, std::uint8_t event, Vec3 direction);
// Of a light sample at the hit of `ray`; 1 where no lobe ray follows.
float LightSampleWeight(const RayRecord& ray, float lightDensity, float lobeDensity, RayBudgets budgets);
// Of a ray that has found the light by a lobe.
float LobeRayWeight(const RayRecord& ray, float lightDensity, float lobeDensity, RayBudgets budgets);

// Whether light that enters at this point leaves the surface somewhere else.
bool Diffuses(const RayRecord& ray, const ShadingPoint& point);
// What is left of a light's cosine when `offset` is taken off, so that its terminator comes early and soft.
float SoftCosine(float cosine, float offset);

// Where it leaves: `exit` and the hit `exitRay` that stands for it, and the colour that the way costs. A draw
// that finds nothing leaves the point where it is. `sample`: the draw's number in the pixel.
void DrawExit(const RayRecord& ray, const ShadingPoint& point, std::uint32_t sample, RayRecord& exitRay,
              ShadingPoint& exit, Vec3& weight);

// Whether rays of the lobes leave a hit other than the first. The last hit that `bounce` allows, or the ray
// depth, is lit by samples alone in format 1; in format 2 its rays go out as well, where they can meet light
// that no sample finds, and gathering follows a path until cells answer: no light is lost on what has none.
inline bool LobeRaysLeave(const RayRecord& ray) {
  return settings.derived.seeksCells ||
         BounceCount(ray) < settings.said.rendererBounce + settings.derived.lightSegment;
}
// Whether a ray beyond the ray depth does nothing but meet light.
inline bool OnlyMeetsLight(const RayRecord& ray) {
  return settings.derived.lightSegment > 0 && ray.depth == settings.said.rayDepth &&
         ray.event < kEventSpecular;
}
// Whether such rays are needed. Asked once, when lights and shaders are ready.
bool SeeksLightByChance();

// Adds to one pixel of an AOV, or of its odd passes; does nothing for a picture that was not allocated as
// floats.
void AddToAov(Aov& aov, std::size_t pixel, Vec3 value);

}  // namespace zp
