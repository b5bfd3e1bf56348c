// What stands between the scene and its first pass.

#include <algorithm>

#include "accel/accel.h"
#include "core/console.h"
#include "core/ray.h"
#include "core/settings.h"
#include "core/stop.h"
#include "geometry/density.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "integrator/light_shares.h"
#include "integrator/photons.h"
#include "lights/lights.h"
#include "lights/photon_store.h"

namespace zp {
namespace {

void LimitSettings() {
  settings.said.rayDepth = std::clamp(settings.said.rayDepth, 1, kMostDepth);
  settings.said.photonDepth = std::clamp(settings.said.photonDepth, 1, kMostDepth);
  settings.said.rendererSample = std::max(GatherBudget(), 0);  // it weighs lobes against lights
  settings.said.rendererBounce = std::max(settings.said.rendererBounce, 1);
  for (int c = 0; c < 3; ++c)
    for (Vec3* limit : {&settings.said.clamp, &settings.said.clampIndirect})
      if (!((*limit)[c] >= 0)) (*limit)[c] = 0;  // no number at all included
}

// Where nobody says one: 1 scene unit in format 1, 0.005 of the diagonal of the scene's bounds in format 2.
float CausticRadius() {
  return settings.said.photonRadius.value_or(settings.format >= 2 ? 0.01f * sceneRadius : 1.0f);
}

bool ShowsTangents() {
  return std::any_of(cameras.begin(), cameras.end(), [](const Camera& camera) {
    return std::any_of(camera.aovs.begin(), camera.aovs.end(),
                       [](const Aov& aov) { return aov.channel == kChannelTangent; });
  });
}

}  // namespace

void InitializeRenderer() {
  if (!geometryLight.initialized) InitializeGeometryLight();  // hosts have no function that does
  LimitSettings();
  settings.derived.finalGathering = ChoosesFinalGathering();
  settings.derived.lightSegment = settings.format >= 2 && SeeksLightByChance() ? 1 : 0;
  settings.derived.showsTangents = ShowsTangents();
  settings.derived.seeksCells = settings.derived.finalGathering && settings.format >= 2;
  PrintLine(settings.derived.finalGathering ? "progressive final gathering" : "unidirectional path tracing");
  PrintRule();

  EmptyPhotonStore();
  InitializeMedia();
  InitializeShares();
  AimPhotons();
  const std::int64_t start = WallTicks();
  CastPhotons();
  PrintFloatRow("photon cast   ", static_cast<float>(static_cast<double>(WallTicks() - start) / 1e7),
                "seconds");
  const float radius = CausticRadius();
  PrintFloatRow("photon radius ", radius, "m");
  PrintRule();
  settings.derived.photonRadius = radius;
  settings.derived.photonRadiusSquared = radius * radius;
  BuildPhotonStore(radius);
  if (Stopping()) EmptyPhotonStore();  // half a cast would be half the light
  PrintRule();
  ForgetGathers();

  for (ThreadSlot& slot : threadSlots) slot = {};
  settings.derived.rendererSampleCopy = settings.derived.geometrySampleCopy = settings.said.rendererSample;
  PrintIntegerRow("renderer sample", static_cast<std::uint64_t>(settings.said.rendererSample), "n/a");
  PrintRule();
}

void FinalizeRenderer() {
  FinalizeShares();
  EmptyPhotonStore();
  ResetPhotonRadius();
  ResetRenderer();
}

}  // namespace zp
