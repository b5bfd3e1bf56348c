#include "accel/accel.h"
#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
#include "lights/emitters.h"
#include "lights/light_aovs.h"
#include "lights/lights.h"

namespace zp {

GeometryLight geometryLight;

void ResetGeometryLight() {
  geometryLight = {};
  settings.derived.geometrySampleCopy = 64;
}

void InitializeGeometryLight() {
  geometryLight.initialized = true;
  geometryLight.sample = LightBudget(geometryLight);
  ResolveLink(geometryLight.link);
  InitializeLightAovs(geometryLight.aovs);
  float emitterArea = 0;
  bool emits = false;
  geometryLight.area = 0;
  if (IsIndex(objectTable, rootObject)) {
    const Object& object = At(objectTable, rootObject);
    geometryLight.area = object.virtualLights.area;
    emitterArea = object.emitters.area;
    emits = emitterArea > 0;  // Instances of what does not emit are records too
    if (settings.format >= 2 && geometryLight.sample > 0) BuildEmitters();
  }
  const std::int32_t photons = PhotonsOf(geometryLight.photon);
  if (photons > 0) {
    if (!emits) {
      geometryLight.photon = 0;
    } else {
      const float weight = emitterArea / static_cast<float>(photons);
      geometryLight.colorWeight = {weight, weight, weight};
    }
  }
  PrintFloatRow("geometry light area  ", emitterArea, "m x m");
  PrintIntegerRow("geometry light sample",
                  static_cast<std::uint64_t>(geometryLight.sample > 0 ? geometryLight.sample : 0), "n/a");
  PrintRule();
}

void FinalizeGeometryLight() {
  SaveAovs(geometryLight.aovs);
  ReleaseEmitters();
  ResetGeometryLight();
}

}  // namespace zp
