#include "lights/light_aovs.h"

#include "core/index.h"
#include "core/settings.h"
#include "core/stop.h"
#include "shading/shading.h"

namespace zp {

void InitializeLightAovs(std::vector<Aov>& aovs) {
  const std::int32_t active = settings.frame.activeCamera;
  for (Aov& aov : aovs) {
    aov.ofLight = true;
    // Paths write these by the camera's pixel index, so they are of its size.
    if (IsIndex(cameras, active) && !Stopping())
      InitializeAov(aov, At(cameras, active).width, At(cameras, active).height);
    BindAovShader(aov);
  }
}

}  // namespace zp
