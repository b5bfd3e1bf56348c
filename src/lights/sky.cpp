#include <algorithm>
#include <cmath>

#include "accel/accel.h"
#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
#include "core/tables.h"
#include "lights/light_aovs.h"
#include "lights/light_photons.h"
#include "lights/lights.h"
#include "lights/sky_map.h"
#include "lights/sky_model.h"
#include "lights/sky_table.h"

namespace zp {

SkyLight skyLight;

namespace {

// What initialisation derives from the settings.
struct SkyState {
  SkyFrame frame;
  SkyMap image, backdrop;
  SkyTable table;
  float powerFactor = 0;  // of the photons together, for a sky of 1
};
SkyState sky;

constexpr Vec3 kTowardsSun = {1, 2, 1};  // Intended: nothing sets it

// Made anew each time: a unit vector that is normalised again moves by a bit, and so would a second picture.
Vec3 SunDirection() { return SafeNormalize(kTowardsSun); }

// Radians above the horizon of the zenith as it was given, of whatever length.
double SunElevation() {
  return static_cast<double>(kPi) / 2 -
         std::acos(std::clamp(static_cast<double>(Dot(SunDirection(), skyLight.zenith)), -1.0, 1.0));
}

SkyMap LoadSkyMap(const std::string& name) {
  const std::int32_t texture = FindOrAddTexture(name);
  if (texture == kNone) return {};
  ImageBuffer& image = At(images, texture);
  return LoadTexture(image) ? MakeSkyMap(image) : SkyMap();
}

// The unit vector towards the sky and the radiance there divided by its density, per photon.
struct PhotonStart {
  Vec3 direction;
  Vec3 radiance;
};
PhotonStart StartAnywhere(std::uint32_t sample) {
  const float phi = 2 * kPi * Halton(sample, 0), z = 1 - 2 * Halton(sample, 1);
  const float radius = std::sqrt(std::max(1 - z * z, 0.0f));
  const Vec3 direction = {radius * std::cos(phi), radius * std::sin(phi), z};
  return {direction, SkyRadiance(direction)};
}
PhotonStart StartAtCell(std::uint32_t sample) {
  if (settings.format >= 2) {
    PhotonStart start;
    float density = 0;
    if (!SampleTable(sky.table, Halton(sample, 0), Halton(sample, 1), start.direction, density)) return start;
    start.radiance = SkyRadiance(start.direction) / (4 * kPi * density);
    return start;
  }
  const std::int32_t row = UpperBound(sky.table.rows, Halton(sample, 0));
  const Distribution& cells = At(sky.table.cells, row);
  const std::int32_t cell = UpperBound(cells, Halton(sample, 1));
  const float probability = At(sky.table.rows.weights, row) * At(cells.weights, cell);
  // From the corner of the cell, as if all cells were of one size: format 1.
  const Vec3 direction =
      CellDirection(row / kSkyFaceSize, static_cast<float>(cell), static_cast<float>(row % kSkyFaceSize));
  if (probability < 1e-8f) return {direction, kBlack};
  return {direction, SkyRadiance(direction) / (probability * kSkyCells)};
}

}  // namespace

// Also drops the maps and the table of an earlier initialisation.
void ResetSky() {
  sky = SkyState();
  SkyLight fresh;
  fresh.image = std::move(skyLight.image);
  fresh.backdrop = std::move(skyLight.backdrop);
  fresh.turbidity = skyLight.turbidity;
  fresh.stretch = skyLight.stretch;
  fresh.albedo = skyLight.albedo;
  skyLight = std::move(fresh);
  globalVolume = {};
}

void InitializeSky() {
  sky = SkyState();
  skyLight.sample = LightBudget(skyLight);
  ResolveLink(skyLight.link);
  if (!MakeSkyFrame(skyLight.north, skyLight.zenith, sky.frame))
    PrintWarning("sky light - north and zenith must be two directions, defaults take their place",
                 {"sky-directions"});
  const double elevation = SunElevation();
  InitializeVolume(globalVolume);
  sky.backdrop = LoadSkyMap(skyLight.backdrop);
  if (skyLight.image == kAnalyticSky)
    sky.image = BakeSkyModel(MakeSkyModelState(static_cast<double>(skyLight.turbidity),
                                               static_cast<double>(skyLight.albedo), elevation),
                             sky.frame, SunDirection(), skyLight.albedo);
  else
    sky.image = LoadSkyMap(skyLight.image);
  if (IsBlack(skyLight.color))
    skyLight.photon = skyLight.sample = 0;
  else if (HasPixels(sky.image))
    sky.table = MakeSkyTable(sky.image, sky.frame, skyLight.color);
  else
    skyLight.sample = 0;  // a plain sky has no table to draw from: rays that leave the scene find it
  InitializeLightAovs(skyLight.aovs);
  PrintIntegerRow("sky light map width   ", static_cast<std::uint64_t>(sky.image.width), "n/a");
  PrintIntegerRow("sky light map height  ", static_cast<std::uint64_t>(sky.image.height), "n/a");
  PrintFloatRow("sky light memory      ", static_cast<float>(TableBytes(sky.table)) * kMegabytesPerByte,
                "M bytes");
  PrintRule();
}

void AimSky() { sky.powerFactor = PhotonsOf(skyLight.photon) > 0 ? 4 * kPi * sceneRadius * sceneRadius : 0; }

void FinalizeSky() {
  SaveAovs(skyLight.aovs);
  ResetSky();
}

Vec3 SkyRadiance(Vec3 direction) {
  if (!HasPixels(sky.image)) return skyLight.color;
  return skyLight.color * LookUp(sky.image, MapCoordinates(sky.frame, direction));
}

Vec3 BackgroundRadiance(Vec3 direction) {
  if (!HasPixels(sky.backdrop)) return SkyRadiance(direction);
  return LookUp(sky.backdrop, MapCoordinates(sky.frame, direction));
}

bool SampleSky(float u, float v, LightSample& sample) {
  if (skyLight.sample <= 0) return false;
  if (!SampleTable(sky.table, u, v, sample.direction, sample.pdf)) return false;
  sample.distance = kFarthest;
  sample.radiance = SkyRadiance(sample.direction);
  sample.factor = 0;
  return true;
}

float SkyDensity(Vec3 direction) { return TableDensity(sky.table, direction); }

// Fills the whole ray but its thread and its link to the light, which the cast sets. The rays of all photons
// cover the scene's bounding sphere from a disc one radius outside of it.
void MakeSkyPhotonRay(RayRecord& ray, std::uint32_t sample) {
  const PhotonStart start = sky.table.cells.empty() ? StartAnywhere(sample) : StartAtCell(sample);
  const Vec3 d = start.direction;
  const Vec3 axis = UnitPerpendicular(d);
  const Vec2 disc = ConcentricDisk(Halton(sample, 2), Halton(sample, 3));
  StartPhotonRay(ray, sample, 4, skyLight.ior);
  ray.origin = sceneCenter + sceneRadius * (disc.x * axis + disc.y * Cross(axis, d) + d);
  ray.direction = -d;
  const std::int32_t photons = PhotonsOf(skyLight.photon);
  if (photons > 0) ray.photonPower = start.radiance * (sky.powerFactor / static_cast<float>(photons));
  ray.kind = ray.parentKind = kKindNone;
}

}  // namespace zp
