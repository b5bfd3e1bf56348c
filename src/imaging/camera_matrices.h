// imaging/camera_matrices.h: a camera as matrices, as files of layers tell it. Rows; vectors stand before
// them. Of a pose that is derived (CameraAtTime). Numbers are not finite where a pose has no direction.

#pragma once

#include <array>

#include "imaging/imaging.h"

namespace zp {

// Camera space: right, up, and forward along the view axis.
std::array<float, 16> WorldToCamera(const CameraPose& pose);
// (0, 0) is the upper left corner of the picture, (1, 1) the lower right one, behind the division by w. Of a
// perspective camera.
std::array<float, 16> WorldToScreen(const Camera& camera, const CameraPose& pose);

}  // namespace zp
