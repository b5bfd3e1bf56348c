#include "post/mix.h"

#include <algorithm>

namespace zp {
namespace {

constexpr std::string_view kPrefix = "light_";

bool IsGroup(const Layer& layer) { return layer.name.starts_with(kPrefix) && layer.channels.size() >= 3; }

}  // namespace

std::vector<std::string> LightGroups(const LayeredPicture& picture) {
  std::vector<std::string> names;
  for (const Layer& layer : picture.layers)
    if (IsGroup(layer)) names.push_back(layer.name.substr(kPrefix.size()));
  return names;
}

std::vector<std::string> MixLights(LayeredPicture& picture, const std::vector<LightWeight>& weights) {
  const std::size_t pixels = PixelCount(picture);
  std::vector<double> sums(3 * pixels);
  for (Layer& layer : picture.layers) {
    if (!IsGroup(layer)) continue;
    Vec3 weight = {1, 1, 1};
    for (const LightWeight& row : weights)
      if (kPrefix.size() + row.name.size() == layer.name.size() && layer.name.ends_with(row.name))
        weight = row.weight;
    for (std::size_t pixel = 0; pixel < pixels; ++pixel)
      for (std::size_t c = 0; c < 3; ++c) {
        float& number = layer.numbers[layer.channels.size() * pixel + c];
        number *= weight[static_cast<int>(c)];
        sums[3 * pixel + c] += static_cast<double>(number);
      }
  }
  Layer& beauty = *FindLayer(picture, "");
  for (std::size_t pixel = 0; pixel < pixels; ++pixel)
    for (std::size_t c = 0; c < 3; ++c)
      beauty.numbers[beauty.channels.size() * pixel + c] = static_cast<float>(sums[3 * pixel + c]);
  std::vector<std::string> dropped;
  if (std::all_of(weights.begin(), weights.end(), [](const LightWeight& row) {
        return row.weight == Vec3{1, 1, 1};
      }))
    return dropped;
  std::erase_if(picture.layers, [&dropped](const Layer& layer) {
    const bool drops = layer.name == "half0" || layer.name == "half1" || layer.name == "variance";
    if (drops) dropped.push_back(layer.name);
    return drops;
  });
  return dropped;
}

}  // namespace zp
