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

// All layers of a side count, unlike at a shading point, which shows one of them.
Vec3 ShadowTransparency(const Shader& shader, bool frontFace, const SurfaceUv& uv, float cosine) {
  Vec3 product = kWhite;
  for (const std::uint8_t layer : LayersOf(shader, frontFace))
    product *= LayerTransparency(shader.surfaces[layer], uv, cosine);
  return product;
}

}  // namespace zp
