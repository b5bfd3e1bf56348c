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

void PointLight::MakePhotonRay(RayRecord& ray, std::uint32_t s) const {
  const double count = PhotonCount(*this);
  const double turns = static_cast<double>(s) / count;
  const auto turn = static_cast<float>(turns - std::floor(turns));
  const float height = Halton(s, 0);
  StartPhotonRay(ray, s, blur > 0 ? 3 : 1, ior);
  ray.photonStore = true;
  ray.direction =
      inside ? SphereDirection(turn, height) : ConeDirection(xAxis, yAxis, zAxis, cosine, turn, height);
  ray.origin = position;
  if (blur > 0) ray.origin += blur * SphereDirection(Halton(s, 1), Halton(s, 2));
  ray.photonPower = SpotFactor(*this, ray.direction) / static_cast<float>(count) * power;
}

void ParallelLight::MakePhotonRay(RayRecord& ray, std::uint32_t s) const {
  const Vec2 disk = ConcentricDisk(Halton(s, 0), Halton(s, 1));
  StartPhotonRay(ray, s, blur > 0 ? 4 : 2, ior);
  ray.photonStore = true;
  // One radius back from the centre, so that every photon is aimed at the bounding sphere.
  ray.origin = sceneCenter + sceneRadius * (disk.x * xAxis + disk.y * yAxis - zAxis);
  ray.direction = blur > 0 ? ConeDirection(xAxis, yAxis, zAxis, cosine, Halton(s, 2), Halton(s, 3)) : zAxis;
  ray.photonPower = power / static_cast<float>(PhotonCount(*this));
}

}  // namespace zp
