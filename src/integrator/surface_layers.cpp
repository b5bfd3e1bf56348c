#include "integrator/surface_layers.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "accel/accel.h"
#include "core/index.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "integrator/estimator.h"
#include "integrator/matte_names.h"

namespace zp {

LayerTargets layerTargets;

namespace {

// What the sample that a thread is at has met.
struct alignas(64) SampleNotes {
  std::uint32_t object = 0, shader = 0;  // ids; 0: nothing
  bool isNearest = false;
};
SampleNotes sampleNotes[kMaxThreads];

void Add(Aov* aov, const RayRecord& ray, Vec3 value) {
  if (aov != nullptr) AddToLayer(*aov, ray, value);
}

void NoteHit(const RayRecord& ray) {
  SampleNotes& notes = sampleNotes[ray.thread];
  if (layerTargets.object != nullptr) notes.object = ObjectIdOf(ray);
  if (layerTargets.shader != nullptr) notes.shader = ShaderIdOf(ray);
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
      inside_ = ToObject(instance, inside_);
      moves_ = moves_ || MotionOf(instance) != nullptr;
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
  const std::pair<std::uint32_t, Aov**> targets[] = {
      {kChannelCover, &layerTargets.cover},   {kChannelView, &layerTargets.view},
      {kChannelFacing, &layerTargets.facing}, {kChannelMotion, &layerTargets.motion},
      {kChannelAlbedo, &layerTargets.albedo}, {kChannelNearness, &layerTargets.nearness},
      {kChannelObject, &layerTargets.object}, {kChannelShader, &layerTargets.shader}};
  for (Aov& aov : camera.aovs) {
    const auto* found = std::find_if(std::begin(targets), std::end(targets),
                                     [&aov](const auto& target) { return target.first == aov.channel; });
    if (found == std::end(targets) || *found->second != nullptr) continue;
    if (IsMatte(aov) && aov.matte.Height() == 0) continue;
    aov.matte.MakeRoom();
    *found->second = &aov;
    layerTargets.any = true;
  }
  layerTargets.ofSamples = layerTargets.nearness || layerTargets.object || layerTargets.shader;
  if (layerTargets.object || layerTargets.shader) CollectMatteIds();
}

void BeginSampleLayers(std::uint8_t thread, std::size_t pixel, Vec2 place) {
  SampleNotes& notes = sampleNotes[thread];
  notes = {};
  if (layerTargets.nearness == nullptr) return;
  ImageBuffer& nearness = layerTargets.nearness->image;
  const Vec2 way = {place.x - 0.5f, place.y - 0.5f};
  const float near = 1 - way.x * way.x - way.y * way.y;
  notes.isNearest = near > ReadPixel(nearness, pixel).x;
  if (!notes.isNearest) return;
  for (Aov& aov : At(cameras, settings.frame.activeCamera).aovs)
    if (aov.nearest) WritePixel(aov.image, kBlack, pixel);
  WritePixel(nearness, {near, 0, 0}, pixel);
}

void FinishSampleLayers(std::uint8_t thread, int x, int y) {
  const SampleNotes& notes = sampleNotes[thread];
  if (notes.object != 0) layerTargets.object->matte.Count(x, y, notes.object);
  if (notes.shader != 0) layerTargets.shader->matte.Count(x, y, notes.shader);
}

void AddToLayer(Aov& aov, const RayRecord& ray, Vec3 value) {
  const std::size_t pixel = threadSlots[ray.thread].pixel;
  if (!aov.nearest)
    AddToAov(aov, pixel, value / static_cast<float>(ray.sampleWeight));
  else if (sampleNotes[ray.thread].isNearest)
    WritePixel(aov.image, value, pixel);
}

void WriteHitLayers(const RayRecord& ray, const ShadingPoint& point) {
  if (layerTargets.albedo != nullptr) Add(layerTargets.albedo, ray, ray.throughput * OwnAlbedo(point));
  if (ray.depth > 0) return;
  if (layerTargets.ofSamples) NoteHit(ray);
  if (layerTargets.nearness != nullptr && sampleNotes[ray.thread].isNearest)
    AddToAov(*layerTargets.nearness, threadSlots[ray.thread].pixel, {0, 1, 0});
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
  if (ray.depth > 0) return;
  if (layerTargets.ofSamples) NoteHit(ray);
  Add(layerTargets.cover, ray, {0, 1, 0});
}

}  // namespace zp
