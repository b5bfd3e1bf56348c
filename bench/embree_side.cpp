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

}  // namespace

void OpenEmbree(const Part& part, int threads) {
  CloseEmbree();
  positions = part.positions;
  positions.emplace_back();
  corners.reserve(3 * part.triangles.size() + 6 * part.tetragons.size());
  for (const Triangle& t : part.triangles) corners.insert(corners.end(), t.vertex, t.vertex + 3);
  for (const Tetragon& t : part.tetragons)
    for (const int i : {0, 1, 2, 2, 3, 0}) corners.push_back(t.vertex[i]);
  device = rtcNewDevice(("threads=" + std::to_string(threads)).c_str());
}

void CloseEmbree() {
  if (scene != nullptr) rtcReleaseScene(scene);
  if (device != nullptr) rtcReleaseDevice(device);
  scene = nullptr;
  device = nullptr;
  positions.clear();
  corners.clear();
}

double BuildEmbree() {
  if (device == nullptr) return -1;
  if (scene != nullptr) rtcReleaseScene(scene);
  const auto start = std::chrono::steady_clock::now();
  scene = rtcNewScene(device);
  rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
  const RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
  rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, positions.data(), 0,
                             sizeof(Vec3), positions.size() - 1);
  rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, corners.data(), 0,
                             3 * sizeof(std::uint32_t), corners.size() / 3);
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
    ray.ray.org_x = rays[i].origin.x;
    ray.ray.org_y = rays[i].origin.y;
    ray.ray.org_z = rays[i].origin.z;
    ray.ray.tnear = kNearest;
    ray.ray.dir_x = rays[i].direction.x;
    ray.ray.dir_y = rays[i].direction.y;
    ray.ray.dir_z = rays[i].direction.z;
    ray.ray.time = 0;
    ray.ray.tfar = kFarthest;
    ray.ray.mask = 0xFFFFFFFF;
    ray.ray.id = 0;
    ray.ray.flags = 0;
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

}  // namespace zp

#else

namespace zp {

void OpenEmbree(const Part&, int) {}
void CloseEmbree() {}
double BuildEmbree() { return -1; }
HitSums TraceEmbree(const RaySet&, int, std::vector<float>*) { return {}; }

}  // namespace zp

#endif
