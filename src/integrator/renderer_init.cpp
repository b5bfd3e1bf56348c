// What stands between the scene and its first pass.

#include <algorithm>

#include "core/console.h"
#include "core/ray.h"
#include "core/settings.h"
#include "core/stop.h"
#include "geometry/density.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "integrator/photons.h"
#include "lights/lights.h"
#include "lights/photon_store.h"

namespace zp {
namespace {

constexpr std::int32_t kMaxDepth = 255;  // RayRecord counts bounces in bytes

void LimitSettings() {
  settings.rayDepth = std::clamp(settings.rayDepth, 1, kMaxDepth);
  settings.photonDepth = std::clamp(settings.photonDepth, 1, kMaxDepth);
  settings.rendererSample = std::max(settings.rendererSample, 0);  // it weighs lobes against lights
  settings.rendererBounce = std::max(settings.rendererBounce, 1);
  for (int c = 0; c < 3; ++c)
    if (!(settings.clamp[c] >= 0)) settings.clamp[c] = 0;  // no number at all included
}

}  // namespace

void InitializeRenderer() {
  if (!geometryLight.initialized) InitializeGeometryLight();  // hosts have no function that does
  LimitSettings();
  settings.finalGathering = ChoosesFinalGathering();
  PrintLine(settings.finalGathering ? "progressive final gathering" : "unidirectional path tracing");
  PrintRule();

  EmptyPhotonStore();
  AimPhotons();
  const std::int64_t start = WallTicks();
  CastPhotons();
  PrintFloatRow("photon cast   ", static_cast<float>(static_cast<double>(WallTicks() - start) / 1e7),
                "seconds");
  PrintFloatRow("photon radius ", settings.photonRadius, "m");
  PrintRule();
  settings.photonRadiusSquared = settings.photonRadius * settings.photonRadius;
  settings.photonRadiusCubed = settings.photonRadiusSquared * settings.photonRadius;
  BuildPhotonStore(settings.photonRadius);
  if (Stopping()) EmptyPhotonStore();  // half a cast would be half the light
  PrintRule();
  ForgetGathers();

  for (ThreadSlot& slot : threadSlots) slot = {};
  settings.rendererSampleCopy = settings.geometrySampleCopy = settings.rendererSample;
  PrintIntegerRow("renderer sample", static_cast<std::uint64_t>(settings.rendererSample), "n/a");
  PrintRule();
}

void FinalizeRenderer() {
  EmptyPhotonStore();
  ResetPhotonRadius();
  ResetRenderer();
}

}  // namespace zp
