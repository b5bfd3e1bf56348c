#include "post/despike.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace zp {
namespace {

// Green counts as the eye has it; what is not finite is brighter than all.
double Brightness(const Layer& layer, std::size_t pixel) {
  const float* color = layer.numbers.data() + layer.channels.size() * pixel;
  if (layer.channels.size() < 3) return std::isfinite(color[0]) ? color[0] : HUGE_VAL;
  const double sum = 0.2126 * static_cast<double>(color[0]) + 0.7152 * static_cast<double>(color[1]) +
                     0.0722 * static_cast<double>(color[2]);
  return std::isfinite(sum) ? sum : HUGE_VAL;
}

struct Neighbour {
  double brightness;
  std::size_t pixel;
  friend bool operator<(const Neighbour& a, const Neighbour& b) { return a.brightness < b.brightness; }
};

// Those inside, the darkest first.
std::vector<Neighbour> NeighboursOf(const LayeredPicture& picture, const std::vector<double>& brightness,
                                    int x, int y) {
  std::vector<Neighbour> result;
  const int width = picture.data.Width(), height = picture.data.Height();
  for (int v = std::max(y - 1, 0); v <= std::min(y + 1, height - 1); ++v)
    for (int u = std::max(x - 1, 0); u <= std::min(x + 1, width - 1); ++u) {
      const auto pixel =
          static_cast<std::size_t>(v) * static_cast<std::size_t>(width) + static_cast<std::size_t>(u);
      if (u != x || v != y) result.push_back({brightness[pixel], pixel});
    }
  std::sort(result.begin(), result.end());
  return result;
}

// A lamp is bright in both half sets.
bool IsInOneHalf(const Layer* half0, const Layer* half1, std::size_t pixel, double strength) {
  if (half0 == nullptr || half1 == nullptr) return true;
  const double a = Brightness(*half0, pixel), b = Brightness(*half1, pixel);
  return std::max(a, b) > strength * std::min(a, b);
}

bool HoldsLight(const Layer& layer) {
  return layer.name.empty() || layer.name == "half0" || layer.name == "half1" ||
         layer.name.starts_with("light_");
}

void Replace(LayeredPicture& picture, std::size_t pixel, std::size_t by) {
  for (Layer& layer : picture.layers) {
    if (!HoldsLight(layer)) continue;
    const std::size_t channels = layer.channels.size();
    for (std::size_t c = 0; c < channels; ++c)
      if (layer.channels[c] != "A") layer.numbers[channels * pixel + c] = layer.numbers[channels * by + c];
  }
}

}  // namespace

std::size_t Despike(LayeredPicture& picture, double strength) {
  constexpr double kDark = 0.01;  // share of the mean below which nothing is a spike
  const Layer* beauty = FindLayer(picture, "");
  const Layer *half0 = FindLayer(picture, "half0"), *half1 = FindLayer(picture, "half1");
  if (beauty == nullptr) return 0;
  std::vector<double> brightness(PixelCount(picture));
  double sum = 0;
  for (std::size_t pixel = 0; pixel < brightness.size(); ++pixel) {
    brightness[pixel] = Brightness(*beauty, pixel);
    if (std::isfinite(brightness[pixel])) sum += brightness[pixel];
  }
  const double least = kDark * sum / static_cast<double>(std::max<std::size_t>(brightness.size(), 1));
  std::vector<std::pair<std::size_t, std::size_t>> spikes;
  for (int y = 0; y < picture.data.Height(); ++y)
    for (int x = 0; x < picture.data.Width(); ++x) {
      const auto pixel = static_cast<std::size_t>(y) * static_cast<std::size_t>(picture.data.Width()) +
                         static_cast<std::size_t>(x);
      if (brightness[pixel] <= least) continue;
      const std::vector<Neighbour> around = NeighboursOf(picture, brightness, x, y);
      if (around.size() < 3) continue;
      const bool isSpike =
          brightness[pixel] > strength * std::max(around[around.size() - 2].brightness, least);
      if (isSpike && IsInOneHalf(half0, half1, pixel, strength))
        spikes.emplace_back(pixel, around[around.size() / 2].pixel);
    }
  for (const auto& [pixel, by] : spikes) Replace(picture, pixel, by);
  return spikes.size();
}

}  // namespace zp
