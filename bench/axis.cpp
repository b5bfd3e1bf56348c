#include "axis.h"

#include <omp.h>

#include <chrono>

#include "core/tables.h"
#include "integrator/photons.h"
#include "lights/lights.h"

namespace zp {
namespace {

Vec3 AlongAxis(int axis, bool tilted) {
  Vec3 direction = tilted ? Vec3{0.001f, 0.0007f, 0.0013f} : kBlack;
  direction[axis] = -1;
  return SafeNormalize(direction);
}

}  // namespace

RaySet AxisRays(const Box& bounds, bool tilted) {
  RaySet rays(std::size_t{kImageSize} * kImageSize);
  const Vec3 size = bounds.max - bounds.min;
  for (std::size_t i = 0; i < rays.size(); ++i) {
    const auto s = static_cast<std::uint32_t>(i);
    const int axis = static_cast<int>(i % 3);
    rays[i].origin = bounds.min + size * Vec3{Halton(s, 0), Halton(s, 1), Halton(s, 2)};
    rays[i].origin[axis] = bounds.max[axis] + size[axis];
    rays[i].direction = AlongAxis(axis, tilted);
  }
  return rays;
}

RaySet AxisShadowRays(const RaySet& rays, const Box& bounds, int threads) {
  return RaysFromHits(rays, bounds, threads, [&](Vec3 origin, Vec3, std::size_t i) {
    return StoredRay{origin, -rays[i].direction};
  });
}

double TimeAxisPhotons(bool tilted, int threads) {
  constexpr int kUp = 1;
  ParallelLight light;
  light.zAxis = AlongAxis(kUp, tilted);
  light.photon = kAxisPhotons;
  parallelLights.push_back(light);
  InitializeGaffer();
  const int oldThreads = omp_get_max_threads();
  omp_set_num_threads(threads);
  const auto start = std::chrono::steady_clock::now();
  CastPhotons();
  const auto end = std::chrono::steady_clock::now();
  omp_set_num_threads(oldThreads);
  FinalizeGaffer();
  return std::chrono::duration<double>(end - start).count();
}

}  // namespace zp
