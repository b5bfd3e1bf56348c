// Caustics: the radiance that stored photons bring to a diffuse surface.

#include <algorithm>

#include "core/index.h"
#include "integrator/estimator.h"
#include "integrator/light_shares.h"
#include "lights/photon_store.h"

namespace zp {
namespace {

// Where a thread gathered last at a first hit. Neighbouring pixels are walked in order, so that 32 photons
// within that radius are also within it and the way from there.
struct alignas(64) LastGather {
  Vec3 position;
  float squaredRadius = kFarthest;
  Event event = kEventLambertian;
};
LastGather lastGathers[kMaxThreads];

// Each photon goes to the group of its light.
void ShareCaustics(const RayRecord& ray, const ShadingPoint& point, Event event, const FoundPhotons& found,
                   float area) {
  for (int i = 0; i < found.count && !photonGroups.empty(); ++i) {
    const std::uint32_t photon = At(found.found, i).photon;
    const std::size_t slot = photonStore.slots.empty() ? 0 : photonStore.slots[photon];
    AddCaustics(ray, point, event, photonGroups[slot], photonStore.photons[photon].power / area);
  }
}

}  // namespace

void ForgetGathers() {
  for (LastGather& last : lastGathers) last = {};
}

Vec3 GatherCaustics(const RayRecord& ray, const ShadingPoint& point, Event event) {
  if (photonStore.nodes.empty() || settings.derived.photonRadius < 1e-8f) return kBlack;
  const Box& box = photonStore.box;
  // As wide as the search: the photons of a level floor lie in a box that only rounding has made thick.
  const float reach = settings.derived.photonRadius;
  for (int a = 0; a < 3; ++a)
    if (!(point.position[a] >= box.min[a] - reach && point.position[a] <= box.max[a] + reach)) return kBlack;

  float squaredRadius = settings.derived.photonRadiusSquared;
  LastGather& last = lastGathers[ray.thread];
  if (ray.depth == 0 && last.event == event) {
    const Vec3 way = point.position - last.position;
    const float known = std::sqrt(last.squaredRadius) + std::sqrt(Dot(way, way));
    if (known < settings.derived.photonRadius) squaredRadius = known * known;
  }
  FoundPhotons found;
  // Transmitted light landed on the other side.
  const Vec3 normal = event == kEventTransmissive ? -point.geometricNormal : point.geometricNormal;
  FindPhotons(point.position, normal, squaredRadius, found);
  // The guess counted on photons that faced another way.
  if (found.count < kMostFoundPhotons && squaredRadius < settings.derived.photonRadiusSquared)
    FindPhotons(point.position, normal, settings.derived.photonRadiusSquared, found);
  if (ray.depth == 0)
    last = {point.position, found.count == kMostFoundPhotons ? found.largestSquared : kFarthest, event};
  if (found.count < 2 || !(found.largestSquared > 0)) return kBlack;
  Vec3 power;
  for (int i = 0; i < found.count; ++i) power += photonStore.photons[At(found.found, i).photon].power;
  const float area = kPi * found.largestSquared;
  if (followsShares) ShareCaustics(ray, point, event, found, area);
  return power / area;
}

}  // namespace zp
