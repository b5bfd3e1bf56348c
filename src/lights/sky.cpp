#include "core/console.h"
#include "core/settings.h"
#include "lights/light_aovs.h"
#include "lights/lights.h"

namespace zp {

SkyLight skyLight;

void ResetSky() {
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
  ResolveLink(skyLight.link);
  InitializeVolume(globalVolume);
  if (!skyLight.image.empty() || !skyLight.backdrop.empty())
    PrintWarning("sky light - images are not shown, the color stands for them");
  if (IsBlack(skyLight.color)) skyLight.photon = 0;
  // A plain sky has no importance table to draw from: rays that leave the scene find it.
  skyLight.sample = 0;
  InitializeLightAovs(skyLight.aovs);
  PrintIntegerRow("sky light map width   ", 0, "n/a");
  PrintIntegerRow("sky light map height  ", 0, "n/a");
  PrintFloatRow("sky light memory      ", 0, "M bytes");
  PrintRule();
}

void FinalizeSky() {
  SaveLightAovs(skyLight.aovs);
  ResetSky();
}

Vec3 SkyRadiance(Vec3 /*direction*/) { return skyLight.color; }

}  // namespace zp
