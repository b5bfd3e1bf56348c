#include "photons.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>

#include "core/tables.h"
#include "core/vec.h"

namespace zp {
namespace {

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

std::vector<PhotonRecord> MakePhotons(std::size_t count) {
  const Vec3 up = {0, 0, 1}, aside = {1, 0, 0};
  std::vector<PhotonRecord> photons(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto s = static_cast<std::uint32_t>(i);
    const float u = Halton(s, 0), v = Halton(s, 1), w = Halton(s, 2);
    const float angle = kPi * u, radius = 0.3f * (1 - w * w * w);
    const Vec3 onFloor = i % 2 == 0
                             ? Vec3{u, v, 0}
                             : Vec3{0.5f + radius * std::cos(angle), 0.5f + radius * std::sin(angle), 0};
    const bool wall = i % 8 == 0;
    photons[i].position = wall ? Vec3{0, v, w} : onFloor;
    photons[i].normal = PackDirection(wall ? aside : up);
    photons[i].incoming = PackDirection({0.3f, 0.2f, 1});
    photons[i].power = kWhite;
  }
  return photons;
}

double TimeStore(const std::vector<PhotonRecord>& photons, float radius) {
  EmptyPhotonStore();
  photonStore.photons = photons;
  const auto start = std::chrono::steady_clock::now();
  BuildPhotonStore(radius);
  return SecondsSince(start);
}

double TimeGathers(float radius, std::size_t stride, int threads) {
  const auto& photons = photonStore.photons;
  const auto count = static_cast<std::int64_t>(photons.size() / stride);
  std::int64_t found = 0;
  const auto start = std::chrono::steady_clock::now();
#pragma omp parallel for schedule(dynamic, 1024) num_threads(threads) reduction(+ : found)
  for (std::int64_t i = 0; i < count; ++i) {
    const PhotonRecord& photon = photons[static_cast<std::size_t>(i) * stride];
    FoundPhotons result;
    FindPhotons(photon.position, UnpackDirection(photon.normal), radius * radius, result);
    found += result.count;
  }
  benchmark::DoNotOptimize(found);
  return SecondsSince(start);
}

}  // namespace zp
