// imaging/camera.cpp: from a pixel and a pass to a ray.

#include <algorithm>
#include <cmath>
#include <new>

#include "core/console.h"
#include "core/random.h"
#include "core/release.h"
#include "core/settings.h"
#include "core/stop.h"
#include "core/tables.h"
#include "imaging/frame_state.h"
#include "imaging/imaging.h"

namespace zp {

std::vector<Camera> cameras;

namespace {

constexpr float kRadians = kPi / 180.0f;
// Stands in for the infinite focal length of a field of view of 0; its square is still a float.
constexpr float kLongestFocalLength = 1e15f;

// Fills the derived members.
//   width  of the sensor, pixels
void DerivePose(CameraPose& pose, float width) {
  const Vec3 toTarget = pose.target - pose.position;
  pose.forward = SafeNormalize(toTarget);
  pose.right = SafeNormalize(Cross(pose.forward, SafeNormalize(pose.upVector)));
  pose.up = SafeNormalize(Cross(pose.right, pose.forward));
  for (int row = 0; row < 3; ++row) {
    pose.toWorld.m[row][0] = pose.right[row];
    pose.toWorld.m[row][1] = pose.forward[row];
    pose.toWorld.m[row][2] = pose.up[row];
  }
  pose.focalLength = width * 0.5f / std::tan(pose.fieldOfView * kRadians * 0.5f);
  if (!std::isfinite(pose.focalLength)) pose.focalLength = kLongestFocalLength;
  pose.focusDistance = SafeLength(toTarget);
}

// Along the arc between the two vectors, unless they are parallel, opposite or long.
Vec3 MixUpVectors(Vec3 a, Vec3 b, float time) {
  const float rest = 1.0f - time;
  const float cosine = Dot(a, b);
  if (std::fabs(cosine) > 0.999999f) return rest * a + time * b;
  const float angle = std::acos(std::clamp(cosine, -1.0f, 1.0f));
  const float inverseSine = 1.0f / std::sin(angle);
  return std::sin(rest * angle) * inverseSine * a + std::sin(time * angle) * inverseSine * b;
}

void CompletePose(Camera& camera, int index) {
  const int missing = camera.poseWritten[1 - index] & ~camera.poseWritten[index];
  const CameraPose& other = camera.poses[1 - index];
  CameraPose& pose = camera.poses[index];
  if ((missing & kPosePosition) != 0) pose.position = other.position;
  if ((missing & kPoseTarget) != 0) pose.target = other.target;
  if ((missing & kPoseUpVector) != 0) pose.upVector = other.upVector;
  if ((missing & kPoseBokeh) != 0) pose.bokeh = other.bokeh;
  if ((missing & kPoseFieldOfView) != 0) pose.fieldOfView = other.fieldOfView;
}

Vec2 DrawPlaceInPixel(const RayRecord& ray) {
  if (settings.format >= 2) {
    PointSource source = ray.points;
    source.shuffled = source.number;  // in the order as it is, which nothing else takes
    return UnitPair(PointAt(source, kDecidePixel, source.number));
  }
  const float x = RandomFloat(), y = RandomFloat();
  return {x, y};
}

Vec2 DrawPlaceOnLens(const RayRecord& ray) {
  if (settings.format >= 2) return UnitPair(LonePointAt(ray.points, kDecideLens, ray.points.number));
  const float x = RandomFloat(), y = RandomFloat();
  return {x, y};
}

// Turns the pinhole ray into one through a random point of the lens. All of a pixel's rays meet at the focus
// point and are uniform over the cone of half angle `bokeh` around the pinhole ray.
void PassThroughLens(const CameraPose& pose, RayRecord& ray) {
  const Vec3 d = ray.direction;
  const Vec3 focus = pose.position + d * pose.focusDistance;
  const Vec3 a = SafeNormalize(Perpendicular(d));
  const Vec3 b = Cross(a, d);
  const Vec2 u = DrawPlaceOnLens(ray);
  const float cosTheta = 1.0f - u.y * (1.0f - std::cos(pose.bokeh * kRadians));
  const float sinTheta = SafeSqrt(1.0f - cosTheta * cosTheta);
  const float phi = u.x * 2.0f * kPi;
  ray.direction = sinTheta * std::cos(phi) * b + sinTheta * std::sin(phi) * a + cosTheta * d;
  ray.origin = focus - ray.direction * pose.focusDistance;
}

void AimPerspective(const Camera& camera, const CameraPose& pose, float x, float y, RayRecord& ray) {
  const Vec3 onPlane = {x - static_cast<float>(camera.width) * 0.5f, pose.focalLength,
                        static_cast<float>(camera.height) * 0.5f - y};
  ray.origin = pose.position;
  ray.direction = SafeNormalize(pose.toWorld * onPlane);
  if (pose.bokeh > 0.0f) PassThroughLens(pose, ray);
}

// The picture spans the whole sphere: forward in the middle, up along the top row.
void AimSpherical(const Camera& camera, const CameraPose& pose, float x, float y, RayRecord& ray) {
  const float a = x / static_cast<float>(camera.width) * 2.0f * kPi - 0.5f * kPi;
  const float b = y / static_cast<float>(camera.height) * kPi;
  ray.origin = pose.position;
  ray.direction = std::cos(b) * pose.up - std::cos(a) * std::sin(b) * pose.right +
                  std::sin(a) * std::sin(b) * pose.forward;
}

// Black pixels for every AOV. Without the memory for them the camera is left with nothing to render, and no
// AOV with pixels.
void AllocateAovs(Camera& camera) {
  const bool idle = &camera - cameras.data() != settings.frame.activeCamera;
  if (idle && settings.format >= 2) return;
  try {
    for (Aov& aov : camera.aovs)
      if (!Stopping()) InitializeAov(aov, camera.width, camera.height);
  } catch (const std::bad_alloc&) {
    PrintError("camera - not enough memory for its images", {"camera-memory"});
    camera.regionXMax = camera.regionYMax = 0;
    for (Aov& aov : camera.aovs) {
      Release(aov.image.floatPixels);
      aov.matte = {};
      aov.odd.clear();
      aov.squares.clear();
      aov.image.width = aov.image.height = 0;
    }
  }
}

void PrintReport(const Camera& camera) {
  std::size_t bytes = 0;
  for (const Aov& aov : camera.aovs) {
    bytes += PixelBytes(aov.image) + aov.matte.Bytes();
    for (const Aov& odd : aov.odd) bytes += PixelBytes(odd.image);
    for (const Aov& squares : aov.squares) bytes += PixelBytes(squares.image);
  }
  PrintIntegerRow("camera sensor width ", static_cast<std::uint64_t>(std::max(0, camera.width)), "pixels");
  PrintIntegerRow("camera sensor height", static_cast<std::uint64_t>(std::max(0, camera.height)), "pixels");
  PrintFloatRow("camera memory       ", static_cast<float>(bytes) * kMegabytesPerByte, "M bytes");
  PrintRule();
}

}  // namespace

Camera::Camera() : aovs(1) {
  aovs[0].image.fileName = DefaultBeautyName();
  aovs[0].mean = true;
}

void CompletePoses(Camera& camera) {
  CompletePose(camera, 0);
  CompletePose(camera, 1);
}

void InitializeCameras() {
  frameState = {};
  for (Camera& camera : cameras) {
    camera.sample = std::clamp(camera.sample, 1, kMostSamples);
    camera.regionXMin = std::max(0, camera.regionXMin);
    camera.regionYMin = std::max(0, camera.regionYMin);
    camera.regionXMax = std::min(camera.width, camera.regionXMax);
    camera.regionYMax = std::min(camera.height, camera.regionYMax);
    CompletePoses(camera);
    for (Aov& aov : camera.aovs) SettleChannel(aov);
    for (CameraPose& pose : camera.poses) DerivePose(pose, static_cast<float>(camera.width));
    AllocateAovs(camera);
    PrintReport(camera);
  }
}

void FinalizeCameras() {
  for (const Camera& camera : cameras) SaveAovs(camera.aovs);
  cameras.clear();
}

CameraPose CameraAtTime(const Camera& camera, float time) {
  const CameraPose& open = camera.poses[0];
  const CameraPose& close = camera.poses[1];
  const float rest = 1.0f - time;
  CameraPose pose;
  pose.position = rest * open.position + time * close.position;
  pose.target = rest * open.target + time * close.target;
  pose.bokeh = rest * open.bokeh + time * close.bokeh;
  pose.fieldOfView = rest * open.fieldOfView + time * close.fieldOfView;
  pose.upVector = MixUpVectors(open.upVector, close.upVector, time);
  DerivePose(pose, static_cast<float>(camera.width));
  return pose;
}

float TimeOfPass(const Camera& camera, std::uint32_t pass) {
  if (settings.format >= 2) return ShutterInstant(pass);
  return (static_cast<float>(pass) + 0.5f) / static_cast<float>(std::max(1, camera.sample));
}

Vec2 MakePrimaryRay(const Camera& camera, const CameraPose& pose, RayRecord& ray, int x, int y,
                    std::uint32_t sample) {
  const Vec3 origin = ray.origin, direction = ray.direction;
  const std::uint8_t thread = ray.thread;
  ray = {};
  ray.origin = origin;
  ray.direction = direction;
  ray.thread = thread;
  if (settings.format >= 2) {
    ray.points = PointSourceOf(x, y, sample);
    ray.sampleNumber = ray.points.number;
    ray.sampleWeight = 1;  // sums are divided when they are shown: nobody knows how many samples they get
  } else {
    ray.rotation = pixelRotationTable[y & 31][x & 31];
    ray.sampleWeight = camera.sample;
  }
  ray.ior = camera.ior;
  const Vec2 place = DrawPlaceInPixel(ray);
  const float column = static_cast<float>(x) + place.x;
  const float row = static_cast<float>(y) + place.y;
  if (camera.projection == Projection::kPerspective) AimPerspective(camera, pose, column, row, ray);
  if (camera.projection == Projection::kSpherical) AimSpherical(camera, pose, column, row, ray);
  return place;
}

}  // namespace zp
