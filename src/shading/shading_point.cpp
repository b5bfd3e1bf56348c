// The shading frame and the weights of a hit, once its layer is chosen.

#include "core/settings.h"
#include "shading/fresnel.h"
#include "shading/shading.h"

namespace zp {
namespace {

// Guards widths and stretches that a scene sets to nothing or below, or to what no float could square.
constexpr float kSmallestWidth = 1e-6f;
constexpr float kLargestWidth = 1e6f;
constexpr float kSmallestStretch = 1e-4f;
constexpr float kLargestStretch = 1e4f;

void TurnFrame(ShadingPoint& point, float turns) {
  if (turns == 0 || !std::isfinite(turns)) return;
  const float c = std::cos(2 * kPi * turns), s = std::sin(2 * kPi * turns);
  const Vec3 tangent = point.tangent;
  point.tangent = c * tangent - s * point.bitangent;
  point.bitangent = s * tangent + c * point.bitangent;
}

void BendNormal(ShadingPoint& point, Vec3 map) {
  const Vec3 bent = SafeNormalize(map.x * point.tangent + map.y * point.bitangent + map.z * point.normal);
  // A texel that holds no direction bends nothing.
  if (!(std::abs(Dot(bent, bent) - 1) < 0.01f)) return;
  point.normal = bent;
  Vec3 side = Cross(bent, point.tangent);
  if (Dot(side, side) < 1e-10f) side = Perpendicular(bent);  // bent all the way into the tangent
  point.bitangent = SafeNormalize(side);
  point.tangent = SafeNormalize(Cross(point.bitangent, bent));
}

void SetWidths(ShadingPoint& point) {
  const SurfaceShader& layer = *point.layer;
  if (!layer.has[Lobe::kGlossy]) return;
  const float width = Mean(LookUp(layer[Element::kRoughness], point.uv)) + kSmallestWidth;
  point.alphaX = point.alphaY = width > kSmallestWidth ? MinOf(width, kLargestWidth) : kSmallestWidth;
  if (!layer.isAnisotropic) return;
  float stretch = 1 - Mean(LookUp(layer[Element::kAnisotropy], point.uv));
  stretch = stretch > kSmallestStretch ? MinOf(stretch, kLargestStretch) : kSmallestStretch;
  point.alphaX *= stretch;
  point.alphaY /= stretch;
}

float Reflectance(const SurfaceShader& layer, float ior, float cosine) {
  const float reflectance = FresnelReflectance(ior, cosine);
  return layer.material == Material::kThinDielectric ? SheetReflectance(reflectance) : reflectance;
}

}  // namespace

float DiffuseWeightAt(const ShadingPoint& point, float cosine) {
  return 1 - Reflectance(*point.layer, Mean(LookUp((*point.layer)[Element::kIor], point.uv)), cosine);
}

void FinishAnyPoint(ShadingPoint& point, const Shader& shader, bool frontFace) {
  if (point.layer == nullptr) point.layer = &ChooseLayer(shader, frontFace, point.uv);
  const SurfaceShader& layer = *point.layer;
  point.material = layer.material;
  point.virtualLight = layer.virtualLight;

  if (!IsHair(point)) {  // hair's tangent is its axis, and stays
    if (layer.hasAngle) TurnFrame(point, Mean(LookUp(layer[Element::kAngle], point.uv)));
    if (layer.hasNormalMap) BendNormal(point, LookUp(layer[Element::kNormal], point.uv));
  }
  GuardMirror(point);
  SetWidths(point);
  if (layer.even.holds) {
    point.iorRatio = point.diffuseWeight = 1;
    point.specularWeight = 0;
    return;
  }

  const float ior = Mean(LookUp(layer[Element::kIor], point.uv));
  point.iorRatio = frontFace ? 1 / ior : ior;
  if (!std::isfinite(point.iorRatio) || point.iorRatio == 0) point.iorRatio = 1;

  // The density cells answer for such a point, which nothing else can see.
  const bool skipped = point.useDensity && layer.isPlain && settings.format < 2;
  point.specularWeight = skipped ? 0.0f : Reflectance(layer, ior, point.reflectCosine);
  if (layer.material == Material::kThinDielectric) point.iorRatio = 1;
  point.diffuseWeight = 1 - point.specularWeight;
}

}  // namespace zp
