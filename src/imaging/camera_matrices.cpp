#include "imaging/camera_matrices.h"

#include <algorithm>

namespace zp {

std::array<float, 16> WorldToCamera(const CameraPose& pose) {
  const Vec3 axes[3] = {pose.right, pose.up, pose.forward};
  std::array<float, 16> m = {};
  for (std::size_t column = 0; column < 3; ++column) {
    for (int row = 0; row < 3; ++row) m[static_cast<std::size_t>(4 * row) + column] = axes[column][row];
    m[12 + column] = -Dot(axes[column], pose.position);
  }
  m[15] = 1;
  return m;
}

std::array<float, 16> WorldToScreen(const Camera& camera, const CameraPose& pose) {
  const std::array<float, 16> view = WorldToCamera(pose);
  const float x = pose.focalLength / static_cast<float>(camera.width);
  const float y = -pose.focalLength / static_cast<float>(camera.height);
  std::array<float, 16> m = {};
  for (std::size_t row = 0; row < 4; ++row) {
    const float *from = &view[4 * row], z = from[2];
    const float to[4] = {x * from[0] + 0.5f * z, y * from[1] + 0.5f * z, row == 3 ? z - 1 : z, z};
    std::copy_n(to, 4, &m[4 * row]);
  }
  return m;
}

}  // namespace zp
