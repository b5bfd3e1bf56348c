#include "shading/fresnel.h"
#include "shading/shading.h"

namespace zp {
namespace {

Vec3 LayerTransparency(const SurfaceShader& layer, Vec2 uv, float cosine) {
  if (layer.material != Material::kThinDielectric) return LookUp(layer[Element::kShadowTransparency], uv);
  const float ior = Mean(LookUp(layer[Element::kIor], uv));
  const float reflected = SheetReflectance(FresnelReflectance(ior, std::abs(cosine)));
  return (1 - reflected) * LookUp(layer[Element::kSpecular], uv);
}

}  // namespace

// All layers of a side count, unlike at a shading point, which shows one of them.
Vec3 ShadowTransparency(const Shader& shader, bool frontFace, Vec2 uv, float cosine) {
  const auto& list = frontFace ? shader.front : shader.back;
  const auto count = static_cast<std::size_t>(frontFace ? shader.frontCount : shader.backCount);
  Vec3 product = kWhite;
  for (std::size_t i = 0; i < count; ++i) product *= LayerTransparency(shader.surfaces[list[i]], uv, cosine);
  return product;
}

}  // namespace zp
