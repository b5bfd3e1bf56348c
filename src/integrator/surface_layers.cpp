#include "integrator/surface_layers.h"

#include <algorithm>
#include <cmath>

#include "accel/accel.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "integrator/estimator.h"

namespace zp {

LayerTargets layerTargets;

namespace {

void Add(Aov* aov, const RayRecord& ray, Vec3 value) {
  if (aov != nullptr)
    AddToAov(*aov, threadSlots[ray.thread].pixel, value / static_cast<float>(ray.sampleWeight));
}

float ViewDistance(Vec3 place) {
  const CameraPose& pose = layerTargets.pose;
  const Vec3 way = place - pose.position;
  return layerTargets.camera->projection == Projection::kSpherical ? std::sqrt(Dot(way, way))
                                                                   : Dot(way, pose.forward);
}

// Where a camera in that pose shows a place, in pixels from the upper left corner: what AimPerspective and
// AimSpherical do, the other way round. False for a place behind the camera.
bool Project(const Camera& camera, const CameraPose& pose, Vec3 place, Vec2& pixel) {
  const Vec3 way = place - pose.position;
  const float right = Dot(way, pose.right), forward = Dot(way, pose.forward), up = Dot(way, pose.up);
  const auto width = static_cast<float>(camera.width), height = static_cast<float>(camera.height);
  if (camera.projection == Projection::kSpherical) {
    const float length = std::sqrt(Dot(way, way));
    if (!(length > 0)) return false;
    pixel.x = (0.25f + std::atan2(forward, -right) / (2 * kPi)) * width;
    pixel.y = std::acos(std::clamp(up / length, -1.0f, 1.0f)) / kPi * height;
    return true;
  }
  if (!(forward > 0)) return false;
  pixel = {0.5f * width + right / forward * pose.focalLength,
           0.5f * height - up / forward * pose.focalLength};
  return true;
}

// What was hit, where it stands at another time of the shutter.
class MovingPlace {
 public:
  MovingPlace(const RayRecord& ray, Vec3 place) : ray_(ray), place_(place), inside_(place) {
    motion_ = MotionAt(*ray.part, HitCorners(*ray.part, ray.kind, static_cast<std::uint32_t>(ray.primitive),
                                             ray.barycentric));
    moves_ = !(motion_ == kBlack);
    for (int level = 0; level < ray.hitMatrixDepth; ++level) {
      const Instance& instance = HitInstance(ray, level);
      inside_ = TransformPoint(instance.inverse, inside_);
      moves_ = moves_ || instance.motion != nullptr;
    }
  }
  Vec3 At(float time) const {
    if (!moves_) return place_;
    Vec3 place = inside_ + (time - layerTargets.time) * motion_;
    for (int level = ray_.hitMatrixDepth - 1; level >= 0; --level)
      place = TransformPoint(MatrixAt(HitInstance(ray_, level), time), place);
    return place;
  }

 private:
  const RayRecord& ray_;
  Vec3 place_, inside_, motion_;  // in the scene; in the Object that was hit, as its motion
  bool moves_ = false;
};

Vec3 ScreenMotion(const RayRecord& ray, Vec3 place) {
  const Camera& camera = *layerTargets.camera;
  const MovingPlace moving(ray, place);
  Vec2 open, close;
  if (!Project(camera, camera.poses[0], moving.At(0), open) ||
      !Project(camera, camera.poses[1], moving.At(1), close))
    return kBlack;
  float x = close.x - open.x;
  if (camera.projection == Projection::kSpherical)  // the shorter way round
    x -= static_cast<float>(camera.width) * std::round(x / static_cast<float>(camera.width));
  return {x, close.y - open.y, 0};
}

// Of all lobes but the mirror's and glass's, whose rays bring what they find, as much as each reflects.
// Colours that promise more light than there is keep their hue.
Vec3 OwnAlbedo(const ShadingPoint& point) {
  Vec3 sum;
  for (const LobeRow& row : kLobes) {
    if (row.lobe == Lobe::kSpecular) continue;
    Vec3 color = point.color[row.lobe];
    bool has = point.has[row.lobe];
    if (row.diffuse && point.useDensity) has = TestElement(*point.layer, row.element, point.uv, color);
    if (!has) continue;
    const bool glossy = row.lobe == Lobe::kGlossy;
    if (IsHair(point) || (glossy && point.material == Material::kDielectric))
      sum += color;
    else
      sum += color * (glossy ? point.specularWeight : point.diffuseWeight);
  }
  return sum / std::max({1.0f, sum.x, sum.y, sum.z});
}

}  // namespace

void FindLayerTargets(Camera& camera, const CameraPose& pose, std::uint32_t pass) {
  layerTargets = {};
  layerTargets.camera = &camera;
  layerTargets.pose = pose;
  layerTargets.time = settings.format >= 2
                          ? TimeOfPass(camera, pass)
                          : static_cast<float>(pass) / static_cast<float>(std::max(camera.sample, 1));
  for (Aov& aov : camera.aovs) {
    Aov** target = aov.channel == kChannelCover    ? &layerTargets.cover
                   : aov.channel == kChannelView   ? &layerTargets.view
                   : aov.channel == kChannelFacing ? &layerTargets.facing
                   : aov.channel == kChannelMotion ? &layerTargets.motion
                   : aov.channel == kChannelAlbedo ? &layerTargets.albedo
                                                   : nullptr;
    if (target == nullptr || *target != nullptr) continue;
    *target = &aov;
    layerTargets.any = true;
  }
}

void WriteHitLayers(const RayRecord& ray, const ShadingPoint& point) {
  if (layerTargets.albedo != nullptr) Add(layerTargets.albedo, ray, ray.throughput * OwnAlbedo(point));
  if (ray.depth > 0) return;
  Add(layerTargets.cover, ray, {1, 1, 0});
  if (layerTargets.view != nullptr) Add(layerTargets.view, ray, ViewDistance(point.position) * kWhite);
  Add(layerTargets.facing, ray, point.normal);
  if (layerTargets.motion != nullptr) Add(layerTargets.motion, ray, ScreenMotion(ray, point.position));
}

void WriteMissLayers(const RayRecord& ray) {
  if (ray.depth > 0) Add(layerTargets.albedo, ray, ray.throughput);
}

void WriteCatcherLayer(const RayRecord& ray, float seen) {
  if (ray.depth == 0) Add(layerTargets.cover, ray, {0, 0, seen});
}

void WriteEmptyHitLayers(const RayRecord& ray) {
  if (ray.depth == 0) Add(layerTargets.cover, ray, {0, 1, 0});
}

}  // namespace zp
