#include "lights/light_aovs.h"

#include "core/settings.h"
#include "core/stop.h"
#include "shading/shading.h"

namespace zp {

void InitializeLightAovs(std::vector<Aov>& aovs) {
  const auto active = static_cast<std::size_t>(settings.activeCamera);
  for (Aov& aov : aovs) {
    aov.ofLight = true;
    // Paths write these by the camera's pixel index, so they are of its size.
    if (active < cameras.size() && !Stopping())
      InitializeAov(aov, cameras[active].width, cameras[active].height);
    BindAovShader(aov);
  }
}

}  // namespace zp
