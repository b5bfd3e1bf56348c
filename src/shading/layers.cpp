// Reading a layer at a point, and drawing one layer out of a side's mixture.

#include "core/index.h"
#include "core/random.h"
#include "shading/shading.h"

namespace zp {

Vec3 LookUp(const ImageSlot& slot, Vec2 uv) {
  if (!IsIndex(images, slot.image)) return slot.color;
  return LookUpTexture(At(images, slot.image), slot, uv) * slot.color;
}

bool TestElement(const SurfaceShader& layer, Element element, Vec2 uv, Vec3& color) {
  color = LookUp(layer[element], uv);
  return !IsBlack(color);
}

namespace {

// Comparisons that are false for a weight that is no number; the limit keeps the sum finite.
float LayerWeight(const SurfaceShader& layer, Vec2 uv) {
  const float weight = Mean(LookUp(layer[Element::kWeight], uv));
  return weight > 0 ? MinOf(weight, kFarthest / (2 * kMaxLayersOnSide)) : 0.0f;
}

}  // namespace

const SurfaceShader& ChooseLayer(const Shader& shader, bool frontFace, Vec2 uv) {
  const std::span<const std::uint8_t> list = LayersOf(shader, frontFace);
  const std::size_t count = list.size();
  if (count == 0) return shader.surfaces[0];  // a side without layers shows the first surface
  const auto layer = [&](std::size_t i) -> const SurfaceShader& { return shader.surfaces[list[i]]; };
  if (count == 1) return layer(0);

  std::array<float, kMaxLayersOnSide> cumulative;
  float total = 0;
  std::size_t last = 0;  // of those with a weight
  for (std::size_t i = 0; i < count; ++i) {
    const float weight = LayerWeight(layer(i), uv);
    if (weight > 0) last = i;
    total += weight;
    cumulative[i] = total;
  }
  if (!(total > 0)) return layer(0);
  const float draw = RandomFloat() * total;
  for (std::size_t i = 0; i < last; ++i)
    if (cumulative[i] > draw) return layer(i);
  return layer(last);
}

float DiffuseLayerShare(const Shader& shader, bool frontFace, Vec2 uv) {
  float total = 0, diffuse = 0;
  for (const std::uint8_t index : LayersOf(shader, frontFace)) {
    const SurfaceShader& layer = shader.surfaces[index];
    const float weight = LayerWeight(layer, uv);
    total += weight;
    if (layer.has[Lobe::kLambertian] || layer.has[Lobe::kTransmissive]) diffuse += weight;
  }
  return diffuse > 0 ? diffuse / total : 1.0f;
}

}  // namespace zp
