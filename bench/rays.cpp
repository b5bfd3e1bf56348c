#include "rays.h"

#include <omp.h>

#include <cmath>

#include "accel/accel.h"
#include "core/index.h"
#include "core/random.h"
#include "core/ray.h"
#include "geometry/object.h"

namespace zp {
namespace {

// Unnormalised; zero for a face without area. Of a strand: across its axis, towards the ray.
Vec3 HitNormal(const RayRecord& ray) {
  const auto& positions = ray.part->positions;
  if (ray.kind == kKindParticle) return ray.barycentric;
  if (ray.kind == kKindCylinder) {
    const std::uint32_t first = At(ray.part->cylinders, ray.primitive);
    const Vec3 axis = SafeNormalize(positions[first + 1] - positions[first]);
    return Dot(ray.direction, axis) * axis - ray.direction;
  }
  const std::uint32_t* vertex = ray.kind == kKindTriangle ? At(ray.part->triangles, ray.primitive).vertex
                                                          : At(ray.part->tetragons, ray.primitive).vertex;
  const Vec3 a = positions[vertex[0]], b = positions[vertex[1]], c = positions[vertex[2]];
  return Cross(b - a, c - a);
}

// Hits on strands lie inside them, at the height of the axis.
float Lift(const RayRecord& ray) {
  if (ray.kind != kKindCylinder) return 0;
  return 1.5f * ray.part->scalarSets[0].values[At(ray.part->cylinders, ray.primitive)];
}

// Malley's method: a disc lifted to the hemisphere about the unit vector n.
Vec3 CosineDirection(Vec3 n, float u, float v) {
  const Vec3 tangent = SafeNormalize(Perpendicular(n)), bitangent = Cross(n, tangent);
  const float radius = std::sqrt(u), angle = 2 * kPi * v;
  return SafeNormalize(tangent * (radius * std::cos(angle)) + bitangent * (radius * std::sin(angle)) +
                       n * std::sqrt(MaxOf(0, 1 - u)));
}

RayRecord MakeRay(const StoredRay& stored, int thread) {
  RayRecord ray;
  ray.origin = stored.origin;
  ray.direction = stored.direction;
  ray.thread = static_cast<std::uint8_t>(thread);
  return ray;
}

}  // namespace

RaySet RaysFromHits(const RaySet& rays, const Box& bounds, int threads,
                    const std::function<StoredRay(Vec3, Vec3, std::size_t)>& make) {
  const float offset = 1e-5f * SafeLength(bounds.max - bounds.min);
  RaySet slots(rays.size());  // a zero direction marks a ray that hit nothing
  ForRays(rays.size(), threads, [&](std::size_t i, HitSums&) {
    RayRecord ray = MakeRay(rays[i], omp_get_thread_num());
    if (!Trace(ray)) return;
    Vec3 normal = HitNormal(ray);
    if (!(Dot(normal, normal) > 0)) return;
    normal = normal * (1 / std::sqrt(Dot(normal, normal)));
    if (Dot(normal, rays[i].direction) > 0) normal = -normal;
    slots[i] = make(rays[i].origin + rays[i].direction * ray.t + normal * (offset + Lift(ray)), normal, i);
  });
  RaySet made;
  for (const StoredRay& slot : slots)
    if (!(slot.direction == kBlack)) made.push_back(slot);
  return made;
}

RaySet CameraRays(const Box& bounds) {
  constexpr float kHalfAngle = 22.5f * kPi / 180;
  const Vec3 center = Center(bounds);
  const float radius = 0.5f * SafeLength(bounds.max - bounds.min);
  const Vec3 forward = SafeNormalize({-0.4f, -0.6f, -1});
  const Vec3 right = SafeNormalize(Cross(forward, {0, 1, 0})), up = Cross(right, forward);
  const Vec3 eye = center - forward * (1.4f * radius);
  const float scale = 2 * std::tan(kHalfAngle) / static_cast<float>(kImageSize);
  RaySet rays;
  rays.reserve(std::size_t{kImageSize} * kImageSize);
  for (int y = 0; y < kImageSize; ++y)
    for (int x = 0; x < kImageSize; ++x) {
      const float s = (static_cast<float>(x) + 0.5f - 0.5f * kImageSize) * scale;
      const float t = (0.5f * kImageSize - static_cast<float>(y) - 0.5f) * scale;
      rays.push_back({eye, SafeNormalize(forward + right * s + up * t)});
    }
  return rays;
}

RaySet BounceRays(const RaySet& rays, const Box& bounds, int threads) {
  return RaysFromHits(rays, bounds, threads, [](Vec3 origin, Vec3 normal, std::size_t i) {
    RekeyRandom(i, 1);  // the same directions for every number of threads
    const float u = RandomFloat(), v = RandomFloat();
    return StoredRay{origin, CosineDirection(normal, u, v)};
  });
}

RaySet ShadowRays(const RaySet& rays, const Box& bounds, int threads) {
  const Vec3 size = bounds.max - bounds.min;
  const Vec3 light =
      Center(bounds) + Vec3{0.3f * size.x, 0.5f * size.y + 0.3f * SafeLength(size), 0.2f * size.z};
  return RaysFromHits(rays, bounds, threads, [&](Vec3 origin, Vec3, std::size_t) {
    const Vec3 path = light - origin;
    return StoredRay{origin, SafeNormalize(path), SafeLength(path)};
  });
}

HitSums OccludeOurs(const RaySet& rays, int threads, std::vector<float>* blocked) {
  return ForRays(rays.size(), threads, [&](std::size_t i, HitSums& sums) {
    RayRecord ray = MakeRay(rays[i], omp_get_thread_num());
    ray.t = rays[i].limit;
    const bool stopped = Occlude(ray);
    if (stopped) ++sums.hits;
    if (blocked != nullptr) (*blocked)[i] = stopped ? 1.0f : -1.0f;
  });
}

HitSums TraceOurs(const RaySet& rays, int threads, std::vector<float>* distances) {
  return ForRays(rays.size(), threads, [&](std::size_t i, HitSums& sums) {
    RayRecord ray = MakeRay(rays[i], omp_get_thread_num());
    const bool hit = Trace(ray);
    if (hit) {
      ++sums.hits;
      sums.distance += static_cast<double>(ray.t);
    }
    if (distances != nullptr) (*distances)[i] = hit ? ray.t : -1;
  });
}

}  // namespace zp
