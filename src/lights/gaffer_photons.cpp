// Photons of the point and parallel lights.

#include <algorithm>

#include "accel/accel.h"
#include "core/tables.h"
#include "lights/gaffer.h"
#include "lights/light_frame.h"
#include "lights/light_photons.h"

namespace zp {
namespace {

double PhotonCount(const Light& light) {
  return static_cast<double>(std::max<std::int64_t>(light.photon, 1));
}

}  // namespace

void MakePhotonRay(const PointLight& light, RayRecord& ray, std::uint32_t s) {
  const double count = PhotonCount(light);
  const double turns = static_cast<double>(s) / count;
  const auto turn = static_cast<float>(turns - std::floor(turns));
  const float height = Halton(s, 0);
  StartPhotonRay(ray, s, light.blur > 0 ? 3 : 1, light.ior);
  ray.photonStore = true;
  ray.direction = light.inside
                      ? SphereDirection(turn, height)
                      : ConeDirection(light.xAxis, light.yAxis, light.zAxis, light.cosine, turn, height);
  ray.origin = light.position;
  if (light.blur > 0) ray.origin += light.blur * SphereDirection(Halton(s, 1), Halton(s, 2));
  ray.photonPower = SpotFactor(light, ray.direction) / static_cast<float>(count) * light.power;
}

void MakePhotonRay(const ParallelLight& light, RayRecord& ray, std::uint32_t s) {
  const Vec2 disk = ConcentricDisk(Halton(s, 0), Halton(s, 1));
  StartPhotonRay(ray, s, light.blur > 0 ? 4 : 2, light.ior);
  ray.photonStore = true;
  // One radius back from the centre, so that every photon is aimed at the bounding sphere.
  ray.origin = sceneCenter + sceneRadius * (disk.x * light.xAxis + disk.y * light.yAxis - light.zAxis);
  ray.direction = light.blur > 0 ? ConeDirection(light.xAxis, light.yAxis, light.zAxis, light.cosine,
                                                 Halton(s, 2), Halton(s, 3))
                                 : light.zAxis;
  ray.photonPower = light.power / static_cast<float>(PhotonCount(light));
}

}  // namespace zp
