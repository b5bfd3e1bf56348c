// lights/light_aovs.h: the output images that a light owns.

#pragma once

#include <vector>

#include "imaging/imaging.h"

namespace zp {

// Pixels for the camera that renders, and the shader each AOV is restricted to. Nothing without a camera.
void InitializeLightAovs(std::vector<Aov>& aovs);

}  // namespace zp
