// Reading a layer at a point, and drawing one layer out of a side's mixture.

#include "core/index.h"
#include "core/random.h"
#include "shading/shading.h"

namespace zp {

Vec2 UvOfSet(const SurfaceUv& uv, std::int32_t set) {
  if (set == 0 || uv.sets == nullptr) [[likely]]
    return uv;
  const Vec2* values = uv.sets[set - 1];
  if (values == nullptr) return uv;
  Vec2 sum;
  for (int i = 0; i < uv.count; ++i) {
    sum.x += uv.weight[i] * values[uv.vertex[i]].x;
    sum.y += uv.weight[i] * values[uv.vertex[i]].y;
  }
  return sum;
}

Vec3 LookUpImage(const ImageSlot& slot, const SurfaceUv& uv) {
  if (!IsIndex(images, slot.image)) return slot.color;
  return LookUpTexture(At(images, slot.image), slot, UvOfSet(uv, slot.uvSet)) * slot.color;
}

namespace {

// Comparisons that are false for a weight that is no number; the limit keeps the sum finite.
float LayerWeight(const SurfaceShader& layer, const SurfaceUv& uv) {
  const float weight = Mean(LookUp(layer[Element::kWeight], uv));
  return weight > 0 ? MinOf(weight, kFarthest / (2 * kMaxLayersOnSide)) : 0.0f;
}

// `draw` is asked once the weights are known, and only where there is a choice.
template <class Draw>
const SurfaceShader& ChooseLayerBy(const Draw& draw, const Shader& shader, bool frontFace,
                                   const SurfaceUv& uv) {
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
  const float place = draw() * total;
  for (std::size_t i = 0; i < last; ++i)
    if (cumulative[i] > place) return layer(i);
  return layer(last);
}

}  // namespace

const SurfaceShader& ChooseLayer(const Shader& shader, bool frontFace, const SurfaceUv& uv) {
  return ChooseLayerBy(RandomFloat, shader, frontFace, uv);
}

const SurfaceShader& ChooseLayer(const Shader& shader, bool frontFace, const SurfaceUv& uv, float number) {
  return ChooseLayerBy([=] { return number; }, shader, frontFace, uv);
}

float DiffuseLayerShare(const Shader& shader, bool frontFace, const SurfaceUv& uv) {
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
