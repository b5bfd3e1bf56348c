#include "shading/shading.h"
namespace zp {
Vec3 ShadowTransparency(const Shader& shader, bool frontFace, Vec2, float) {
  Vec3 r = kWhite;
  const int n = frontFace ? shader.frontCount : shader.backCount;
  for (int i = 0; i < n; ++i)
    r *= shader.surfaces[(frontFace ? shader.front : shader.back)[i]][Element::kShadowTransparency].color;
  return r;
}
}
