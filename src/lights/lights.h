// lights/lights.h: where light comes from.

#pragma once

#include <string>
#include <vector>

#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// Shaders that a light is restricted to; an empty list lights everything.
struct ShaderLink {
  std::vector<std::string> names;     // of scene text, resolved at initialisation
  std::vector<std::int32_t> shaders;  // indices
};
void ResolveLink(ShaderLink& link);
bool IsLinked(const ShaderLink& link, std::int32_t shader);

struct SkyLight {
  // Kept by a reset.
  std::string image, backdrop;
  float turbidity = 9, stretch = 0.1f, albedo = 0.2f;
  // Put back by a reset.
  Vec3 color = {0.75f, 0.75f, 0.75f};
  std::int32_t photon = 1000000;
  std::int32_t sample = 64;
  Vec3 north = {0, 1, 0};
  Vec3 zenith = {0, 0, 1};
  float thickness = 1000;
  float ior = 1;
  ShaderLink link;
  std::vector<Aov> aovs;
};
extern SkyLight skyLight;

struct GeometryLight {
  std::int32_t photon = 1000000;
  std::int32_t sample = 0;
  float area = 0;  // of the RootObject's virtual lights
  Vec3 colorWeight = {1, 1, 1};
  ShaderLink link;
  std::vector<Aov> aovs;
};
extern GeometryLight geometryLight;

void ResetSky();  // also the volume around everything
void ResetGeometryLight();
void InitializeSky();
void InitializeGeometryLight();
void FinalizeSky();  // writes the AOVs and resets
void FinalizeGeometryLight();

// Radiance of the sky in a direction, `color` included.
Vec3 SkyRadiance(Vec3 direction);

}  // namespace zp
