#include "shading/fresnel.h"
#include "shading/shading.h"

namespace zp {
namespace {

Vec3 LayerTransparency(const SurfaceShader& layer, const SurfaceUv& uv, float cosine) {
  if (layer.material != Material::kThinDielectric) return LookUp(layer[Element::kShadowTransparency], uv);
  const float ior = Mean(LookUp(layer[Element::kIor], uv));
  const float reflected = SheetReflectance(FresnelReflectance(ior, std::abs(cosine)));
  return (1 - reflected) * LookUp(layer[Element::kSpecular], uv);
}

}  // namespace

float Opacity(const Shader& shader, const SurfaceUv& uv) {
  if (!shader.cutsOut) return 1;
  const float opacity = shader.opacity * Mean(LookUp(shader.geometry.clip, uv));
  return opacity > 0 ? MinOf(opacity, 1.0f) : 0.0f;  // written so that what is no number counts as nothing
}

// All layers of a side count, unlike at a shading point, which shows one of them.
Vec3 ShadowTransparency(const Shader& shader, bool frontFace, const SurfaceUv& uv, float cosine) {
  Vec3 product = kWhite;
  for (const std::uint8_t layer : LayersOf(shader, frontFace))
    product *= LayerTransparency(shader.surfaces[layer], uv, cosine);
  return product;
}

}  // namespace zp
