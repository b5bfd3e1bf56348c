#include "embree_side.h"

#ifdef ZP_HAS_EMBREE

#include <embree3/rtcore.h>

#include <chrono>
#include <string>

namespace zp {
namespace {

// Our triangle test sees nothing nearer than this; the other side starts there too.
constexpr float kNearest = 1e-6f;

RTCDevice device = nullptr;
RTCScene scene = nullptr;
std::vector<Vec3> positions;  // one more than there are: Embree reads four floats for the last vertex
std::vector<std::uint32_t> corners;
std::vector<float> rounds, tangents;  // four floats a vertex: place and radius, and their change
RTCGeometryType type = RTC_GEOMETRY_TYPE_TRIANGLE;

RTCRay MakeEmbreeRay(const StoredRay& stored, float limit) {
  RTCRay ray;
  ray.org_x = stored.origin.x;
  ray.org_y = stored.origin.y;
  ray.org_z = stored.origin.z;
  ray.tnear = kNearest;
  ray.dir_x = stored.direction.x;
  ray.dir_y = stored.direction.y;
  ray.dir_z = stored.direction.z;
  ray.time = 0;
  ray.tfar = limit;
  ray.mask = 0xFFFFFFFF;
  ray.id = 0;
  ray.flags = 0;
  return ray;
}

}  // namespace

void OpenEmbree(const Part& part, int threads) {
  CloseEmbree();
  positions = part.positions;
  positions.emplace_back();
  corners.reserve(3 * part.triangles.size() + 6 * part.tetragons.size());
  for (const Triangle& t : part.triangles) corners.insert(corners.end(), t.vertex, t.vertex + 3);
  for (const Tetragon& t : part.tetragons)
    for (const int i : {0, 1, 2, 2, 3, 0}) corners.push_back(t.vertex[i]);
  type = RTC_GEOMETRY_TYPE_TRIANGLE;
  if (!part.cylinders.empty()) type = RTC_GEOMETRY_TYPE_ROUND_HERMITE_CURVE;
  if (!part.particles.empty()) type = RTC_GEOMETRY_TYPE_SPHERE_POINT;
  if (type != RTC_GEOMETRY_TYPE_TRIANGLE) {
    corners = part.cylinders;
    for (std::size_t i = 0; i < part.positions.size(); ++i) {
      const Vec3 p = part.positions[i];
      rounds.insert(rounds.end(), {p.x, p.y, p.z, part.scalarSets[0].values[i]});
      if (part.cylinders.empty()) continue;
      const Vec3 t = SafeNormalize(Unpack(part.tangents[i]));
      tangents.insert(tangents.end(), {t.x, t.y, t.z, 0});
    }
  }
  device = rtcNewDevice(("threads=" + std::to_string(threads)).c_str());
}

void CloseEmbree() {
  if (scene != nullptr) rtcReleaseScene(scene);
  if (device != nullptr) rtcReleaseDevice(device);
  scene = nullptr;
  device = nullptr;
  positions.clear();
  corners.clear();
  rounds.clear();
  tangents.clear();
}

double BuildEmbree() {
  if (device == nullptr) return -1;
  if (scene != nullptr) rtcReleaseScene(scene);
  const auto start = std::chrono::steady_clock::now();
  scene = rtcNewScene(device);
  rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
  const RTCGeometry geometry = rtcNewGeometry(device, type);
  const auto share = [&](RTCBufferType use, RTCFormat format, const void* data, std::size_t size,
                         std::size_t count) {
    if (count > 0) rtcSetSharedGeometryBuffer(geometry, use, 0, format, data, 0, size, count);
  };
  if (type == RTC_GEOMETRY_TYPE_TRIANGLE) {
    share(RTC_BUFFER_TYPE_VERTEX, RTC_FORMAT_FLOAT3, positions.data(), sizeof(Vec3), positions.size() - 1);
    share(RTC_BUFFER_TYPE_INDEX, RTC_FORMAT_UINT3, corners.data(), 3 * sizeof(std::uint32_t),
          corners.size() / 3);
  } else {
    constexpr std::size_t kSize = 4 * sizeof(float);
    share(RTC_BUFFER_TYPE_VERTEX, RTC_FORMAT_FLOAT4, rounds.data(), kSize, rounds.size() / 4);
    share(RTC_BUFFER_TYPE_TANGENT, RTC_FORMAT_FLOAT4, tangents.data(), kSize, tangents.size() / 4);
    share(RTC_BUFFER_TYPE_INDEX, RTC_FORMAT_UINT, corners.data(), sizeof(std::uint32_t), corners.size());
  }
  rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_MEDIUM);
  rtcCommitGeometry(geometry);
  rtcAttachGeometry(scene, geometry);
  rtcReleaseGeometry(geometry);
  rtcCommitScene(scene);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  return rtcGetDeviceError(device) == RTC_ERROR_NONE ? seconds.count() : -1;
}

HitSums TraceEmbree(const RaySet& rays, int threads, std::vector<float>* distances) {
  return ForRays(rays.size(), threads, [&](std::size_t i, HitSums& sums) {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRayHit ray;
    ray.ray = MakeEmbreeRay(rays[i], kFarthest);
    ray.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    ray.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(scene, &context, &ray);
    const bool hit = ray.hit.geomID != RTC_INVALID_GEOMETRY_ID;
    if (hit) {
      ++sums.hits;
      sums.distance += static_cast<double>(ray.ray.tfar);
    }
    if (distances != nullptr) (*distances)[i] = hit ? ray.ray.tfar : -1;
  });
}

HitSums OccludeEmbree(const RaySet& rays, int threads, std::vector<float>* blocked) {
  return ForRays(rays.size(), threads, [&](std::size_t i, HitSums& sums) {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRay ray = MakeEmbreeRay(rays[i], rays[i].limit);
    rtcOccluded1(scene, &context, &ray);
    const bool stopped = ray.tfar < 0;  // minus infinity once something was met
    if (stopped) ++sums.hits;
    if (blocked != nullptr) (*blocked)[i] = stopped ? 1.0f : -1.0f;
  });
}

}  // namespace zp

#else

namespace zp {

void OpenEmbree(const Part&, int) {}
void CloseEmbree() {}
double BuildEmbree() { return -1; }
HitSums TraceEmbree(const RaySet&, int, std::vector<float>*) { return {}; }
HitSums OccludeEmbree(const RaySet&, int, std::vector<float>*) { return {}; }

}  // namespace zp

#endif
