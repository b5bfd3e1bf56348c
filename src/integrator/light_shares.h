// integrator/light_shares.h: what each light group brings to the samples of pixels, and what clamp_indirect
// takes away; private to this folder.
//
// Each ray has its share of the sample: what a unit of light adds there that leaves the place of its hit, or
// the sky, for its origin. So whoever finds light adds it to its group at once, and the groups add up to the
// sample. Shares are kept by thread and depth, beside the rays, and only where an AOV asks for groups or
// light is limited.

#pragma once

#include <vector>

#include "core/ray.h"
#include "imaging/imaging.h"
#include "integrator/estimator.h"
#include "shading/shading.h"

namespace zp {

// Nothing below but the first two functions is called without.
inline bool followsShares = false;

// When lights, Shaders and cameras are ready.
void InitializeShares();
void FinalizeShares();
// Before the threads of a pass begin.
void PrepareShares(Camera& camera, int threads);

// Groups that photons come from: where there are several, cells and caustics tell them apart by their number
// in this list. Empty without groups.
inline std::vector<std::int32_t> photonGroups;
void SetPhotonGroups(std::vector<std::int32_t> groups);
inline bool SplitsPhotons() { return photonGroups.size() > 1; }
std::int32_t PhotonSlot(std::int32_t group);

// A sample of a pixel, on its thread.
void BeginSample(const RayRecord& cameraRay);
// What limits have taken of it; black if nothing.
struct TakenLight {
  Vec3 light;
  bool any = false;
};
TakenLight TakenByLimits(std::uint8_t thread);
// Scales the groups so that they add up to what is left of the colour.
void LimitSample(std::uint8_t thread, Vec3 color, Vec3 limited);
// For a sample that was no finite number.
void ReplaceSample(std::uint8_t thread, Vec3 color);
// Calls add(aov, light) for each AOV of a light group.
template <class Add>
void ForEachGroup(std::uint8_t thread, const Add& add);

// Light that comes along a ray.
void AddLight(const RayRecord& ray, std::int32_t group, Vec3 light);
// What lobes have received from one light, each `scale` times, without their colours.
void AddLobeLight(const RayRecord& ray, const ShadingPoint& point, std::int32_t group,
                  const LobeRadiance& lobes, float scale);
// What caustic photons bring to a lobe.
void AddCaustics(const RayRecord& ray, const ShadingPoint& point, Event event, std::int32_t group,
                 Vec3 light);

// At a hit that scatters, before and behind all of its light. The latter adds what the surface sends by
// itself, of which `emission` includes what its cells answer, and limits what it receives.
void EnterHit(const RayRecord& ray, const ShadingPoint& point);
void LeaveHit(const RayRecord& ray, const ShadingPoint& point, LobeRadiance& lobes, Vec3& emission);

// The share of a ray that leaves a hit. `weight`: what its light counts with in the lobe.
void ShareWithDiffuse(const RayRecord& ray, const ShadingPoint& point, const RayRecord& child, Event event,
                      Vec3 weight);
void ShareWithLobe(const RayRecord& ray, const ShadingPoint& point, const RayRecord& child, Event event,
                   Vec3 weight);
// In format 1 rays of a first hit that are not lost take over the share of those that are. Of a diffuse lobe
// it is known behind them all: from a mark on, all is scaled. Formats without marks set none.
void MarkShares(const RayRecord& ray);
void ScaleFromMark(const RayRecord& ray, float scale);
// Of a glossy lobe, before: how many rays reach a side.
void CountGlossyRays(const RayRecord& ray, int reflections, int refractions);

const std::vector<Aov*>& GroupAovs();
const std::vector<Vec3>& GroupLight(std::uint8_t thread);  // of the sample

template <class Add>
void ForEachGroup(std::uint8_t thread, const Add& add) {
  const std::vector<Aov*>& aovs = GroupAovs();
  const std::vector<Vec3>& light = GroupLight(thread);
  for (std::size_t i = 0; i < aovs.size(); ++i) add(*aovs[i], light[i]);
}

}  // namespace zp
