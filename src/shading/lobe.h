// shading/lobe.h: the lobes that a layer scatters light by, and what belongs to each of them.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "core/ray.h"
#include "imaging/imaging.h"
#include "shading/element.h"

namespace zp {

enum class Lobe : std::uint8_t { kLambertian, kTransmissive, kGlossy, kSpecular };

struct LobeRow {
  Lobe lobe;
  Element element;         // its colour
  Event event;             // of rays that leave by it
  Event refraction;        // the same behind the surface, where that is an event of its own
  Channel light;           // AOV of what it sends back
  Channel color;           // AOV of its colour
  bool diffuse;            // the density cells may answer for it
  bool meetsLightSamples;  // lights are sampled for it, so that its rays share what they find with samples
};
// In the order in which they are summed up.
inline constexpr LobeRow kLobes[] = {
    {Lobe::kLambertian, Element::kLambertian, kEventLambertian, kEventLambertian, kChannelLambertian,
     kChannelLambertianColor, true, true},
    {Lobe::kTransmissive, Element::kTransmissive, kEventTransmissive, kEventTransmissive,
     kChannelTransmissive, kChannelTransmissiveColor, true, true},
    {Lobe::kGlossy, Element::kGlossy, kEventGlossy, kEventGlossyRefraction, kChannelGlossy,
     kChannelGlossyColor, false, true},
    {Lobe::kSpecular, Element::kSpecular, kEventSpecular, kEventSpecularRefraction, kChannelSpecular,
     kChannelSpecularColor, false, false},
};
inline constexpr std::size_t kLobeCount = std::size(kLobes);

// One value for each lobe.
template <class T>
struct PerLobe {
  std::array<T, kLobeCount> values = {};
  constexpr T& operator[](Lobe lobe) { return values[static_cast<std::size_t>(lobe)]; }
  constexpr const T& operator[](Lobe lobe) const { return values[static_cast<std::size_t>(lobe)]; }
};

}  // namespace zp
