// shading/element.h: the parameters of a layer, each a colour times an image.

#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

#include "core/vec.h"

namespace zp {

enum class Element : std::int32_t {
  kLambertian,
  kTransmissive,
  kGlossy,
  kSpecular,
  kEmissive,
  kDiffusion,
  kShadowTransparency,
  kNormal,
  kWeight,
  kAnisotropy,
  kRoughness,
  kAngle,
  kIor,
  kUnnamed13,
  kThickness,
  kUnnamed15,
};

inline constexpr int kElementCount = 16;

struct ElementRow {
  Element element;
  std::string_view keyword;  // empty: reached by functions only
  Vec3 color;                // default
};
inline constexpr ElementRow kElements[] = {
    {Element::kLambertian, "lambertian", kBlack},
    {Element::kTransmissive, "transmissive", kBlack},
    {Element::kGlossy, "glossy", kBlack},
    {Element::kSpecular, "specular", kBlack},
    {Element::kEmissive, "emissive", kBlack},
    {Element::kDiffusion, "diffusion", kBlack},
    {Element::kShadowTransparency, "shadow_transparency", kBlack},
    {Element::kNormal, "normal", kWhite},
    {Element::kWeight, "weight", kBlack},
    {Element::kAnisotropy, "anisotropy", kBlack},
    {Element::kRoughness, "roughness", kBlack},
    {Element::kAngle, "angle", kBlack},
    {Element::kIor, "ior", kWhite},
    {Element::kUnnamed13, "", kWhite},
    {Element::kThickness, "thickness", kBlack},
    {Element::kUnnamed15, "", kBlack},
};
static_assert(std::size(kElements) == kElementCount);

}  // namespace zp
