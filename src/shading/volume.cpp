#include <algorithm>

#include "shading/shading.h"

namespace zp {

VolumeShader globalVolume;

void InitializeVolume(VolumeShader& volume) {
  volume.averageCosine =
      std::isnan(volume.averageCosine) ? 0.0f : std::clamp(volume.averageCosine, -1.0f, 1.0f);
  const Vec3 t = volume.transmittance;
  if (MinOf(MinOf(t.x, t.y), t.z) > 1) {
    volume.albedo = kBlack;
    return;
  }
  volume.sigmaT = {-SafeLog(t.x), -SafeLog(t.y), -SafeLog(t.z)};
  volume.sigmaS = volume.sigmaT * volume.albedo;
  volume.sigmaSCopy = volume.sigmaS;
  volume.sigmaMax = MaxOf(MaxOf(volume.sigmaS.x, volume.sigmaS.y), volume.sigmaS.z);
  // A medium that does not scatter has nothing to normalise.
  volume.sigmaSNormalized = volume.sigmaMax == 0 ? kBlack : volume.sigmaS / volume.sigmaMax;
  volume.sigmaTShifted = volume.sigmaT - Vec3{volume.sigmaMax, volume.sigmaMax, volume.sigmaMax};
}

}  // namespace zp
