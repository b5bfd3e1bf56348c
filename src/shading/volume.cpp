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
}

}  // namespace zp
