// Point and parallel lights: from the user's values to emission geometry, and what reaches a surface.

#include "lights/gaffer.h"

#include <algorithm>

#include "accel/accel.h"
#include "core/console.h"
#include "core/release.h"
#include "lights/light_aovs.h"
#include "lights/light_frame.h"
#include "lights/light_photons.h"

namespace zp {

std::vector<PointLight> pointLights;
std::vector<ParallelLight> parallelLights;

namespace {

constexpr float kRadiansPerDegree = kPi / 180;

void InitializePointLight(PointLight& light) {
  ResolveLink(light.link);
  light.direction = UnitVector(light.direction);
  InitializeLightAovs(light.aovs);
  light.innerCut = light.innerAngle * kRadiansPerDegree;
  light.outerCut = light.outerAngle * kRadiansPerDegree;
}

void AimPointLight(PointLight& light) {
  light.xAxis = light.yAxis = light.zAxis = light.power = kBlack;
  light.cosine = 1;
  const Vec3 toScene = sceneCenter - light.position;
  const float distance = std::sqrt(Dot(toScene, toScene));
  // What an atmosphere absorbs or scatters is lit from all sides.
  light.inside = sceneRadius > distance || !IsBlack(globalVolume.sigmaT);
  float solidAngle = 4 * kPi;
  if (!light.inside) {
    light.cosine = std::cos(std::atan2(sceneRadius, distance));
    solidAngle = (1 - light.cosine) * 2 * kPi;
    light.zAxis = UnitVector(toScene);
    AxesAround(light.zAxis, light.xAxis, light.yAxis);
  }
  if (light.photon > 0) light.power = solidAngle * light.color;
}

void InitializeParallelLight(ParallelLight& light) {
  ResolveLink(light.link);
  light.zAxis = UnitVector(light.zAxis);
  AxesAround(light.zAxis, light.xAxis, light.yAxis);
  light.cosine = std::cos(light.blur * kRadiansPerDegree);
  InitializeLightAovs(light.aovs);
}

void AimParallelLight(ParallelLight& light) {
  // Without a direction it shines nowhere.
  const bool shines = light.photon > 0 && light.zAxis != kBlack;
  light.power = shines ? sceneRadius * sceneRadius * kPi * light.color : kBlack;
}

template <class Kind>
void PrintLights(std::string_view name, const std::vector<Kind>& lights) {
  PrintCountRow(name, lights.size(), static_cast<float>(lights.size() * sizeof(Kind)) * kMegabytesPerByte);
}

}  // namespace

void InitializeGaffer() {
  for (PointLight& light : pointLights) InitializePointLight(light);
  for (ParallelLight& light : parallelLights) InitializeParallelLight(light);
  GroupLights();
  PrintLights("parallel lights", parallelLights);
  PrintLights("point    lights", pointLights);
  PrintRule();
}

void AimPhotons() {
  for (PointLight& light : pointLights) AimPointLight(light);
  for (ParallelLight& light : parallelLights) AimParallelLight(light);
  AimSky();
}

void FinalizeGaffer() {
  for (const PointLight& light : pointLights) SaveAovs(light.aovs);
  for (const ParallelLight& light : parallelLights) SaveAovs(light.aovs);
  Release(pointLights);
  Release(parallelLights);
  ReleaseLightGroups();
}

float SpotFactor(const PointLight& light, Vec3 direction) {
  const float angle = std::acos(std::clamp(Dot(light.direction, direction), -1.0f, 1.0f));
  // Equal angles divide by zero: infinities meet the limits, and 0 / 0 fails the comparison.
  const float factor = (light.outerCut - angle) / (light.outerCut - light.innerCut);
  return factor > 0 ? MinOf(factor, 1.0f) : 0.0f;
}

LightSample SampleLight(const PointLight& light, Vec3 position, float u, float v) {
  // Nearer than this the unit direction is lost and the inverse square without bound.
  constexpr float kNearestSquared = 1e-10f;
  LightSample sample;
  sample.direction = {0, 0, 1};
  Vec3 toLight = light.position - position;
  if (light.blur > 0) toLight += light.blur * SphereDirection(u, v);
  const float squared = Dot(toLight, toLight);
  if (!(squared > kNearestSquared) || !std::isfinite(squared)) return sample;
  sample.distance = std::sqrt(squared);
  sample.direction = toLight / sample.distance;
  sample.radiance = SpotFactor(light, -sample.direction) * kPi / squared * light.color;
  return sample;
}

LightSample SampleLight(const ParallelLight& light, Vec3 /*position*/, float u, float v) {
  LightSample sample;
  sample.direction = {0, 0, 1};
  sample.distance = kFarthest;
  if (light.zAxis == kBlack) return sample;
  sample.direction = light.blur > 0
                         ? -ConeDirection(light.xAxis, light.yAxis, light.zAxis, light.cosine, u, v)
                         : -light.zAxis;
  sample.radiance = kPi * light.color;
  return sample;
}

}  // namespace zp
