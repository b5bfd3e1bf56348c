// Media: what they leave of light along a way, and which body a ray runs in.

#include <algorithm>
#include <cmath>

#include "accel/accel.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"

namespace zp {

bool sceneHasMedia = false;

namespace {

Vec3 Share(const VolumeShader& medium, float distance) {
  const Vec3 c = medium.transmittance;
  if (c == kWhite) return kWhite;
  return {std::pow(c.x, distance), std::pow(c.y, distance), std::pow(c.z, distance)};
}

// The media's extent: what lies between two distances of a ray and within the box of the scene's bounds. So
// suns and skies are not dimmed without end.
float LengthInBox(const RayRecord& ray, float from, float to) {
  for (int a = 0; a < 3; ++a) {
    const float origin = ray.origin[a], d = ray.direction[a];
    if (d == 0) {
      if (!(origin >= sceneBounds.min[a] && origin <= sceneBounds.max[a])) return 0;
      continue;
    }
    const float low = (sceneBounds.min[a] - origin) / d, high = (sceneBounds.max[a] - origin) / d;
    from = MaxOf(from, MinOf(low, high));
    to = MinOf(to, MaxOf(low, high));
  }
  return to > from ? to - from : 0.0f;
}

// Of a ray in the medium that it knows to be in.
Vec3 ShareBetween(const RayRecord& ray, float from, float to) {
  const VolumeShader& medium = ray.medium == kNone ? globalVolume : ShaderAt(ray.medium).volume;
  return Absorbs(medium) ? Share(medium, LengthInBox(ray, from, to)) : kWhite;
}

// A camera inside a body sees as format 1 has it: what is not of the camera's index runs inside what it hits.
bool IsByIndex(const RayRecord& ray) {
  if (!settings.derived.tracksMedia) return true;
  const Camera* camera = ActiveCamera();
  return ray.medium == kNone && camera != nullptr && !IsSameMedium(camera->ior, settings.derived.openIor) &&
         !IsSameMedium(camera->ior, ray.ior);
}

// Whether more surfaces that refract are left than entered on the way along `direction`.
bool LeavesBody(const Camera& camera, Vec3 direction) {
  constexpr int kMostSurfaces = 256;
  RayRecord ray;
  ray.origin = CameraAtTime(camera, 0).position;
  ray.direction = direction;
  int left = 0;
  for (int i = 0; i < kMostSurfaces && Trace(ray); ++i) {
    ShadingPoint point;
    if (!SetUpShadingPoint(ray, point)) break;
    if (ShaderAt(ray.shader).bends) left += ray.frontFace ? -1 : 1;
    ray = MakeChildRay(ray, point, kEventSpecularRefraction, direction, kWhite);
    ray.depth = 1;
  }
  return left > 0;
}

// Asked in three directions, for surfaces that are not closed everywhere.
bool StandsInBody(const Camera& camera) {
  constexpr Vec3 kDirections[] = {{0.36f, 0.48f, 0.8f}, {-0.8f, 0.36f, -0.48f}, {0.48f, -0.8f, 0.36f}};
  int inside = 0;
  for (const Vec3 direction : kDirections) inside += LeavesBody(camera, direction) ? 1 : 0;
  return inside > 1;
}

bool HasMedia() {
  return Absorbs(globalVolume) ||
         std::any_of(shaders.begin(), shaders.end(), [](const Shader& s) { return Absorbs(s.volume); });
}

}  // namespace

void InitializeMedia() {
  sceneHasMedia = HasMedia();
  settings.derived.tracksMedia = settings.format >= 2 && sceneHasMedia;
  // In format 1 the open is where the index is 1, also for a camera that stands in a world of another one.
  settings.derived.openIor = 1;
  const Camera* camera = ActiveCamera();
  if (settings.format >= 2 && camera != nullptr && !IsSameMedium(camera->ior, 1) && !StandsInBody(*camera))
    settings.derived.openIor = camera->ior;
}

void CrossSurface(RayRecord& ray, std::int32_t shader, bool front) {
  if (!HasShader(shader) || !ShaderAt(shader).isBody) return;
  if (front) {
    ray.outerMedium = ray.medium;
    ray.medium = shader;
  } else if (ray.medium == shader) {
    ray.medium = ray.outerMedium;
    ray.outerMedium = kNone;
  } else if (ray.outerMedium == shader) {
    ray.outerMedium = kNone;
  }
}

Vec3 Transmission(const RayRecord& ray) {
  if (!IsByIndex(ray)) return ShareBetween(ray, 0, ray.t);
  if (ray.t >= kFarthest) return kWhite;
  const Camera* camera = ActiveCamera();
  const bool outside = camera == nullptr || IsSameMedium(camera->ior, ray.ior);
  return Share(outside ? globalVolume : ShaderAt(ray.shader).volume, ray.t);
}

Vec3 LightLeftByMedia(RayRecord& shadow) {
  BodyCrossings crossings;
  if (Occlude(shadow, &crossings)) return kBlack;
  Vec3 left = shadow.throughput;
  const float end = shadow.t;
  float at = 0;
  for (int i = 0; i < crossings.count; ++i) {
    const BodyCrossing& crossing = crossings.list[i];
    left *= ShareBetween(shadow, at, MinOf(crossing.t, end));
    CrossSurface(shadow, crossing.shader, crossing.front);
    at = crossing.t;
  }
  return left * ShareBetween(shadow, at, end);
}

}  // namespace zp
