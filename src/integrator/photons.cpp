#include "integrator/photons.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "accel/accel.h"
#include "core/console.h"
#include "core/progress.h"
#include "core/random.h"
#include "core/settings.h"
#include "core/shared_add.h"
#include "core/stop.h"
#include "core/threads.h"
#include "geometry/density.h"
#include "integrator/estimator.h"
#include "integrator/integrator.h"
#include "integrator/light_shares.h"
#include "integrator/photon_aim.h"
#include "lights/lights.h"
#include "lights/mix_groups.h"
#include "lights/photon_store.h"

namespace zp {
namespace {

// The pictures that record light paths, and the camera that takes them.
struct PathSensor {
  std::vector<Aov*> aovs;
  CameraPose pose;
  float width = 0, height = 0;  // pixels
};

// What all photons of one light share.
struct Cast {
  const ShaderLink& link;
  float offset = 0;  // of the light's terminator
  PathSensor sensor;
  std::int32_t group = kNone;  // of the light; kNone: that of the surface where a photon starts
};

// Caustic photons of one thread, gathered into the store behind the cast in the order of their numbers: no
// picture depends on which thread cast what.
struct Landing {
  std::uint32_t number;
  PhotonRecord photon;
  std::uint16_t slot;
};
using Landings = std::vector<Landing>;

// What the photons of one thread leave.
struct alignas(64) Trail {
  Landings landings;
  bool useful = false;    // some light of the photon that is on its way
  std::int32_t slot = 0;  // of that photon: see photonGroups
};

// Without AOVs where nothing asks for light paths. Intended: the camera's first pose, in perspective.
PathSensor MakePathSensor() {
  PathSensor sensor;
  Camera* camera = ActiveCamera();
  if (camera == nullptr || camera->projection != Projection::kPerspective) return sensor;
  const std::size_t floats =
      3 * static_cast<std::size_t>(camera->width) * static_cast<std::size_t>(camera->height);
  for (Aov& aov : camera->aovs)
    if (aov.channel == kChannelLightPath && aov.image.floatPixels.size() >= floats)
      sensor.aovs.push_back(&aov);
  sensor.pose = CameraAtTime(*camera, 0);
  sensor.width = static_cast<float>(camera->width);
  sensor.height = static_cast<float>(camera->height);
  return sensor;
}

float Largest(Vec3 c) { return std::max({c.x, c.y, c.z}); }

// The pixel that sees `position`, and the area that it sees there face on. False outside of the picture.
bool ProjectToSensor(const PathSensor& sensor, Vec3 position, std::size_t& pixel, float& facingArea) {
  const CameraPose& pose = sensor.pose;
  const Vec3 way = position - pose.position;
  const float depth = Dot(way, pose.forward);
  if (!(depth > 1e-6f) || !(pose.focalLength > 0)) return false;
  const float scale = pose.focalLength / depth;
  const float x = Dot(way, pose.right) * scale + 0.5f * sensor.width;
  const float y = 0.5f * sensor.height - Dot(way, pose.up) * scale;
  if (!(x >= 0) || !(y >= 0) || !(x < sensor.width) || !(y < sensor.height)) return false;
  pixel = static_cast<std::size_t>(y) * static_cast<std::size_t>(sensor.width) + static_cast<std::size_t>(x);
  const float squared = Dot(way, way);
  const float cosine = depth / std::sqrt(squared);
  facingArea = squared * cosine * cosine * cosine / (pose.focalLength * pose.focalLength);
  return true;
}

// Pi times the BSDF from where the photon came to `direction`, colours included.
Vec3 Scattering(const ShadingPoint& point, Vec3 direction) {
  Vec3 sum;
  if (Dot(direction, point.geometricNormal) > 0) {
    if (point.has[Lobe::kLambertian]) sum += point.diffuseWeight * point.color[Lobe::kLambertian];
    if (point.has[Lobe::kGlossy] && Dot(direction, point.normal) > 0)
      sum += 4 * kPi * GlossyD(point, direction) * point.specularWeight * point.color[Lobe::kGlossy];
  } else if (point.has[Lobe::kTransmissive]) {
    sum += point.diffuseWeight * point.color[Lobe::kTransmissive];
  }
  return sum;
}

// Shows the photon's landing to the camera. The first one is as bright as the light itself makes the surface,
// soft terminator included.
[[gnu::noinline]] void SplatLightPath(const RayRecord& ray, const ShadingPoint& point, const Cast& cast) {
  std::size_t pixel = 0;
  float facingArea = 0;
  if (!ProjectToSensor(cast.sensor, point.position, pixel, facingArea)) return;
  const Vec3 way = cast.sensor.pose.position - point.position;
  const float distance = std::sqrt(Dot(way, way));
  const Vec3 direction = way / distance;
  Vec3 light = ray.photonPower * ray.throughput * Scattering(point, direction);
  if (!(Largest(light) > 0)) return;
  RayRecord shadow = MakeChildRay(ray, point, kEventLightSample, direction, kWhite);
  shadow.t = distance;
  const Vec3 left = LightLeft(shadow);
  if (left == kBlack) return;
  light *= left * (std::fabs(Dot(direction, point.geometricNormal)) / facingArea);
  if (ray.depth == 0 && cast.offset != 0 && point.reflectCosine > 0)
    light *= SoftCosine(point.reflectCosine, cast.offset) / point.reflectCosine;
  for (Aov* aov : cast.sensor.aovs) {
    float* target = &aov->image.floatPixels[3 * pixel];
    for (int c = 0; c < 3; ++c) AddShared(target[c], light[c]);
  }
}

void BouncePhoton(RayRecord& ray, const Cast& cast, Trail& trail);

// What is left of the light at a landing, before the colour, and what of that goes on in a direction. Format
// 1 takes off the mirrored share by where the photon came from; format 2 by where the light goes, as eyes do,
// cells being asked for it when they are read, and the soft terminator of what comes straight from a light.
float LandingWeight(const RayRecord& ray, const ShadingPoint& point, const Cast& cast) {
  if (settings.format < 2) return point.diffuseWeight;
  const bool softens = ray.parentPoint == nullptr && cast.offset != 0 && !IsHair(point);
  if (!softens || !(point.reflectCosine > 0)) return 1;
  return SoftCosine(point.reflectCosine, cast.offset) / point.reflectCosine;
}
float LeavingWeight(const ShadingPoint& point, Vec3 direction) {
  return settings.format < 2 || IsHair(point)
             ? 1.0f
             : DiffuseWeightAt(point, std::fabs(Dot(direction, point.normal)));
}

// In format 2 photons that have left by a diffuse or rough lobe once go on by chance, as bright as they came:
// so there are as many as there is light. Before that, photons of weak reflections make better caustics.
bool GoesOn(const RayRecord& ray, RayRecord& child) {
  if (settings.format < 2 || BounceCount(child) == 0) return true;
  const float chance = Largest(child.throughput) / Largest(ray.throughput);
  if (!(chance < 1)) return true;
  if (!(RandomFloat() < chance)) return false;
  child.throughput *= 1 / chance;
  return true;
}

// One of the two diffuse lobes: paints the side that the light leaves by, and goes on.
void BounceDiffuse(const RayRecord& ray, const ShadingPoint& point, Event event, Vec3 color, const Cast& cast,
                   Trail& trail) {
  const Vec3 throughput = LandingWeight(ray, point, cast) * color * ray.throughput;
  if (IsBlack(throughput) || !settings.derived.finalGathering) return;
  const CellSide side = event == kEventLambertian ? CellSide::kMet : CellSide::kOther;
  if (AddDensity(ray, side, throughput * ray.photonPower, trail.slot)) trail.useful = true;
  Vec3 direction;
  if (!DiffuseDirection(ray, point, event, ray.sampleNumber, direction)) return;
  RayRecord child = MakeChildRay(ray, point, event, direction, LeavingWeight(point, direction) * throughput);
  ++child.diffuseBounces;
  if (GoesOn(ray, child)) BouncePhoton(child, cast, trail);
}

// Light, then mirrors and glass alone, then a diffuse surface.
bool IsCaustic(const RayRecord& ray, const ShadingPoint& point) {
  if (!ray.photonStore || BounceCount(ray) > 0 || ray.specularBounces == 0) return false;
  return std::any_of(std::begin(kLobes), std::end(kLobes), [&](const LobeRow& row) {
    return row.diffuse && point.has[row.lobe] &&
           !IsBlack(point.diffuseWeight * point.color[row.lobe] * ray.throughput);
  });
}

void BounceLobe(const RayRecord& ray, const ShadingPoint& point, const LobeRays& ways, Vec3 color,
                const Cast& cast, Trail& trail) {
  for (int i = 0; i < ways.count; ++i) {
    RayRecord child = MakeLobeChild(ray, point, ways.ways[i], ray.throughput * color);
    if (GoesOn(ray, child)) BouncePhoton(child, cast, trail);
  }
}

// Photons that neither paint cells nor can become caustics, nor are drawn, leave nothing behind.
bool LeavesNothing(const Cast& cast, bool stores) {
  return !settings.derived.finalGathering && !stores && cast.sensor.aovs.empty();
}

void BouncePhoton(RayRecord& ray, const Cast& cast, Trail& trail) {
  if (ray.depth > settings.said.photonDepth || IsBlack(ray.throughput) || Stopping()) return;
  if (LeavesNothing(cast, ray.photonStore && BounceCount(ray) == 0) || !Trace(ray)) return;
  if (settings.derived.tracksMedia) ray.throughput *= Transmission(ray);
  ShadingPoint point;
  if (!SetUpShadingPoint(ray, point)) return;
  TestElements(point);
  if (point.layer->shadowCatcher) {  // the sky is behind it, and comes through
    point.material = Material::kThinDielectric;
    RayRecord child = MakeLobeChild(ray, point, {kEventSpecularRefraction, ray.direction, 1}, ray.throughput);
    return ray.depth < kMostDepth ? BouncePhoton(child, cast, trail) : void();
  }
  // The link is for the light's own landings; thin panes before them are no bounce.
  const bool linked = ray.parentPoint != nullptr || IsLinked(cast.link, ray.shader);
  if (linked && !cast.sensor.aovs.empty()) SplatLightPath(ray, point, cast);
  if (linked && (point.has[Lobe::kLambertian] || point.has[Lobe::kTransmissive])) {
    if (IsCaustic(ray, point)) {
      // Of the photons that came, those on a cut-out stand for the others, which flew on.
      trail.landings.push_back(
          {ray.sampleNumber,
           {point.position, ray.photonPower * ray.throughput / Opacity(ShaderAt(ray.shader), point.uv),
            PackDirection(point.outgoing), PackDirection(point.geometricNormal)},
           static_cast<std::uint16_t>(trail.slot)});
      trail.useful = true;
    }
    if (point.has[Lobe::kLambertian])
      BounceDiffuse(ray, point, kEventLambertian, point.color[Lobe::kLambertian], cast, trail);
    if (point.has[Lobe::kTransmissive])
      BounceDiffuse(ray, point, kEventTransmissive, point.color[Lobe::kTransmissive], cast, trail);
  }
  if (ray.depth == 255) return;  // the bytes that count bounces are full
  if (point.has[Lobe::kGlossy] && IsHair(point)) {
    Vec3 weight;
    RayRecord child = MakeFiberChild(ray, point, ray.throughput * point.color[Lobe::kGlossy], weight);
    if (GoesOn(ray, child)) BouncePhoton(child, cast, trail);
  } else if (point.has[Lobe::kGlossy]) {
    BounceLobe(ray, point, GlossyRays(ray, point, ray.sampleNumber), point.color[Lobe::kGlossy], cast, trail);
  }
  if (point.has[Lobe::kSpecular])
    BounceLobe(ray, point, SpecularRays(ray, point), point.color[Lobe::kSpecular], cast, trail);
}

// Tells how far a cast has come, from any of its threads, once for each per cent.
class CastProgress {
 public:
  explicit CastProgress(std::int64_t total) : total_(total), step_(std::max<std::int64_t>(total / 100, 1)) {}

  // Photons first <= i < end are about to be cast.
  void Report(std::int64_t first, std::int64_t end) {
    for (std::int64_t i = (first + step_ - 1) / step_ * step_; i < end; i += step_) {
      const std::int64_t percent = 100 * i / total_;
#pragma omp critical(photonProgress)
      if (percent > shown_) {
        shown_ = percent;
        PrintProgressRow("photon cast ", static_cast<float>(percent), "%");
        FinishWork(Phase::kCasting, static_cast<std::uint64_t>(i - told_));
        told_ = i;
      }
    }
  }
  void End() const { FinishWork(Phase::kCasting, static_cast<std::uint64_t>(total_ - told_)); }

 private:
  std::int64_t total_, step_, shown_ = -1, told_ = 0;
};

void Store(const std::vector<Trail>& ofThreads) {
  Landings all;
  for (const Trail& trail : ofThreads) all.insert(all.end(), trail.landings.begin(), trail.landings.end());
  std::stable_sort(all.begin(), all.end(),
                   [](const Landing& a, const Landing& b) { return a.number < b.number; });
  photonStore.photons.reserve(photonStore.photons.size() + all.size());
  for (const Landing& landing : all) {
    photonStore.photons.push_back(landing.photon);
    if (SplitsPhotons()) photonStore.slots.push_back(landing.slot);
  }
}

// Calls castOne(i) for first <= i < end, on as many threads as that is worth. Paths differ greatly in length;
// so many photons at a time keep the threads from queueing for work. Dealt out by hand, since a loop of
// OpenMP has no end before its last number.
template <class CastOne>
void CastRange(std::int64_t first, std::int64_t end, int threads, CastProgress& progress,
               const CastOne& castOne) {
  const std::int64_t share = std::clamp<std::int64_t>((end - first) / (128 * threads), 16, 1024);
  std::atomic<std::int64_t> next = first;
#pragma omp parallel num_threads(threads)
  while (!Stopping()) {
    const std::int64_t start = next.fetch_add(share, std::memory_order_relaxed);
    if (start >= end) break;
    const std::int64_t behind = std::min(start + share, end);
    progress.Report(start, behind);
    for (std::int64_t i = start; i < behind; ++i) castOne(i);
  }
}

// Casts `count` photons, whose sample numbers start at ordinal * count, or behind those of the other shares
// of the frame; make(ray, number) starts one, and so many of its numbers tell where it begins: 0 where
// photons are not aimed.
template <class MakeRay>
void CastFrom(std::int64_t count, std::uint32_t ordinal, const Cast& cast, int axes, const MakeRay& make) {
  for (ThreadSlot& slot : threadSlots) slot.rays = slot.shadowRays = 0;
  const std::int64_t start = WallTicks();
  const bool few = !IsWorthThreads(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)), 500);
  const int threads = few ? 1 : std::clamp(omp_get_max_threads(), 1, kMaxThreads);
  std::vector<Trail> trails(static_cast<std::size_t>(threads));
  CastProgress progress(count);
  PhotonAim aim;
  aim.trials = count;
  // Whoever draws light paths wants to see them all.
  if (settings.format >= 2 && axes > 0 && cast.sensor.aovs.empty()) aim = MakePhotonAim(count, axes);
  const auto castOne = [&](std::int64_t i) {
    const std::int64_t set = static_cast<std::int64_t>(ordinal) + frameShare.photons;
    const auto number = static_cast<std::uint32_t>(set * count + i);
    std::size_t cell = 0;
    float chance = 1;
    if (aim.axes > 0) {
      const PhotonNumbers numbers(number);
      cell = AimCell(aim, numbers);
      if (i >= aim.trials) chance = aim.chances[cell];
      if (chance < 1 && !(numbers.Extra() < chance)) return;
    }
    RekeyRandom(number, ~std::uint64_t{frameShare.photons});
    const auto thread = static_cast<std::uint8_t>(omp_get_thread_num());
    RayRecord ray;
    ray.thread = thread;
    make(ray, number);
    ray.photonPower *= 1 / chance;
    Trail& trail = trails[thread];
    trail.useful = false;
    if (SplitsPhotons())
      trail.slot = PhotonSlot(cast.group == kNone ? EmissionGroup(ray.parentShader) : cast.group);
    if (Largest(ray.photonPower) > 0 && IsFinite(ray.photonPower)) BouncePhoton(ray, cast, trail);
    if (i < aim.trials && aim.axes > 0) CountTrial(aim, cell, trail.useful);
  };
  CastRange(0, aim.trials, threads, progress, castOne);
  SettleChances(aim);
  CastRange(aim.trials, count, threads, progress, castOne);
  if (Stopping()) return;
  progress.End();
  Store(trails);
  const double microseconds = std::max(static_cast<double>(WallTicks() - start) / 10, 1.0);
  std::uint64_t rays = 0;
  for (ThreadSlot& slot : threadSlots) rays += slot.rays;
  PrintFloatRow("photon cast ", static_cast<float>(static_cast<double>(rays) / microseconds),
                "M rays/second");
}

template <class Light>
void CastPhotonsFromLights(const std::vector<Light>& lights) {
  std::uint32_t ordinal = 0;
  for (const Light& light : lights) {
    if (light.photon <= 0) continue;
    CastFrom(light.photon, ordinal++, {light.link, light.offset, MakePathSensor(), light.groupIndex}, 2,
             [&](RayRecord& ray, std::uint32_t number) { MakePhotonRay(light, ray, number); });
  }
}

template <class Light>
std::int64_t CountPhotons(const std::vector<Light>& lights) {
  std::int64_t photons = 0;
  for (const Light& light : lights) photons += std::max<std::int64_t>(light.photon, 0);
  return photons;
}

// Those of all lights that cast.
std::vector<std::int32_t> CastingGroups(bool geometryCasts, bool skyCasts) {
  std::vector<std::int32_t> groups;
  const auto add = [&groups](const auto& lights) {
    for (const Light& light : lights)
      if (light.photon > 0) groups.push_back(light.groupIndex);
  };
  add(parallelLights);
  add(pointLights);
  if (skyCasts) groups.push_back(skyLight.groupIndex);
  for (const Shader& shader : shaders)
    if (geometryCasts && (shader.frontEmissive || shader.backEmissive)) groups.push_back(shader.groupIndex);
  return groups;
}

void TellPhotonsApart(bool geometryCasts, bool skyCasts) {
  SetPhotonGroups(CastingGroups(geometryCasts, skyCasts));
  if (!SplitsPhotons() || !settings.derived.finalGathering || !IsIndex(objectTable, rootObject)) return;
  for (Part& part : At(objectTable, rootObject).parts) SplitDensity(part, photonGroups.size());
}
void SumCells() {
  if (!SplitsPhotons() || !settings.derived.finalGathering || !IsIndex(objectTable, rootObject)) return;
  for (Part& part : At(objectTable, rootObject).parts) SumDensity(part);
}

}  // namespace

void CastPhotons() {
  const Cast fromGeometry = {geometryLight.link, 0, MakePathSensor()};
  const Cast fromSky = {skyLight.link, 0, MakePathSensor(), skyLight.groupIndex};
  const bool geometryCasts = !LeavesNothing(fromGeometry, geometryLight.area > 0);
  const std::int32_t ofGeometry = geometryCasts ? std::max(PhotonsOf(geometryLight.photon), 0) : 0;
  const std::int32_t ofSky = LeavesNothing(fromSky, false) ? 0 : std::max(PhotonsOf(skyLight.photon), 0);
  BeginWork(Phase::kCasting, static_cast<std::uint64_t>(CountPhotons(parallelLights) +
                                                        CountPhotons(pointLights) + ofGeometry + ofSky));
  if (followsShares) TellPhotonsApart(ofGeometry > 0, ofSky > 0);
  CastPhotonsFromLights(parallelLights);
  CastPhotonsFromLights(pointLights);
  if (ofGeometry > 0) CastFrom(ofGeometry, 0, fromGeometry, 0, MakeGeometryPhotonRay);
  if (ofSky > 0) CastFrom(ofSky, 0, fromSky, 4, MakeSkyPhotonRay);
  SumCells();
}

}  // namespace zp
