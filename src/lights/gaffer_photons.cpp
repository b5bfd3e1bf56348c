// Photons of the point and parallel lights.

#include <algorithm>

#include "accel/accel.h"
#include "lights/gaffer.h"
#include "lights/light_frame.h"
#include "lights/light_photons.h"
#include "shading/directions.h"

namespace zp {
namespace {

double PhotonCount(const Light& light) {
  return static_cast<double>(std::max<std::int64_t>(light.photon, 1));
}

}  // namespace

void MakePhotonRay(const PointLight& light, RayRecord& ray, std::uint32_t s) {
  const double count = PhotonCount(light);
  const PhotonNumbers numbers(s);
  Vec2 way = numbers.First(), place;
  if (light.blur > 0) place = numbers.Second();
  if (settings.format < 2) {  // turns by the number itself, and what is left by one dimension after another
    place = {way.y, place.x};
    const double turns = static_cast<double>(s) / count;
    way = {static_cast<float>(turns - std::floor(turns)), way.x};
  }
  StartPhotonRay(ray, numbers, light.blur > 0 ? 3 : 1, light.ior);
  ray.photonStore = true;
  ray.direction = light.inside
                      ? SphereDirection(way.x, way.y)
                      : ConeDirection(light.xAxis, light.yAxis, light.zAxis, light.cosine, way.x, way.y);
  ray.origin = light.position;
  if (light.blur > 0) ray.origin += light.blur * SphereDirection(place.x, place.y);
  ray.photonPower = SpotFactor(light, ray.direction) / static_cast<float>(count) * light.power;
}

void MakePhotonRay(const ParallelLight& light, RayRecord& ray, std::uint32_t s) {
  const PhotonNumbers numbers(s);
  const Vec2 place = numbers.First(), disk = ConcentricDisk(place.x, place.y);
  const Vec2 way = light.blur > 0 ? numbers.Second() : Vec2();
  StartPhotonRay(ray, numbers, light.blur > 0 ? 4 : 2, light.ior);
  ray.photonStore = true;
  // One radius back from the centre, so that every photon is aimed at the bounding sphere.
  ray.origin = sceneCenter + sceneRadius * (disk.x * light.xAxis + disk.y * light.yAxis - light.zAxis);
  ray.direction = light.blur > 0
                      ? ConeDirection(light.xAxis, light.yAxis, light.zAxis, light.cosine, way.x, way.y)
                      : light.zAxis;
  ray.photonPower = light.power / static_cast<float>(PhotonCount(light));
}

}  // namespace zp
