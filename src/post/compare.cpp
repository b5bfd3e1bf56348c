#include "post/compare.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace zp {
namespace {

constexpr double kDark = 0.01;  // share of the mean that dark pixels are measured by

double Difference(LayerKind kind, float a, float b) {
  if (std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b)) return 0;
  if (kind == LayerKind::kId) return 1;
  if (a == b || (std::isnan(a) && std::isnan(b))) return 0;
  if (!std::isfinite(a) || !std::isfinite(b)) return std::numeric_limits<double>::infinity();
  return std::fabs(static_cast<double>(a) - static_cast<double>(b));
}

// A channel of a layer of both.
struct Pair {
  const Layer *a, *b;
  std::size_t channelA, channelB;
  float A(std::size_t pixel) const { return a->numbers[a->channels.size() * pixel + channelA]; }
  float B(std::size_t pixel) const { return b->numbers[b->channels.size() * pixel + channelB]; }
};

std::vector<Pair> PairsOf(const Layer& a, const Layer& b) {
  std::vector<Pair> pairs;
  for (std::size_t c = 0; c < a.channels.size(); ++c) {
    const int other = FindChannel(b, a.channels[c]);
    if (other >= 0) pairs.push_back({&a, &b, c, static_cast<std::size_t>(other)});
  }
  return pairs;
}

double MeanOf(const std::vector<Pair>& pairs, std::size_t pixels) {
  double sum = 0;
  std::size_t count = 0;
  for (const Pair& pair : pairs)
    for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
      const auto b = static_cast<double>(pair.B(pixel));
      if (!std::isfinite(b)) continue;
      sum += std::fabs(b);
      ++count;
    }
  return count > 0 ? sum / static_cast<double>(count) : 0;
}

LayerDifference CompareLayers(const LayeredPicture& picture, const Layer& a, const Layer& b) {
  const std::size_t pixels = PixelCount(picture);
  const std::vector<Pair> pairs = PairsOf(a, b);
  const double floor = kDark * MeanOf(pairs, pixels);
  const LayerKind kind = a.kind == b.kind ? a.kind : LayerKind::kFloat;
  LayerDifference result;
  result.layer = a.name;
  double squares = 0, relativeSquares = 0;
  for (const Pair& pair : pairs)
    for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
      const double difference = Difference(kind, pair.A(pixel), pair.B(pixel));
      if (difference == 0) continue;
      const auto number = static_cast<double>(pair.B(pixel));
      const double scale = std::isfinite(number) ? std::fabs(number) + floor : 1;
      const double relative = kind == LayerKind::kId ? difference : difference / scale;
      squares += difference * difference;
      relativeSquares += relative * relative;
      if (difference <= result.max) continue;
      const auto width = static_cast<std::size_t>(picture.data.Width());
      result.max = difference;
      result.channel = ChannelName(a, pair.channelA);
      result.x = picture.data.left + static_cast<std::int32_t>(pixel % width);
      result.y = picture.data.top + static_cast<std::int32_t>(pixel / width);
      result.a = static_cast<double>(pair.A(pixel));
      result.b = number;
    }
  const double count = std::max(1.0, static_cast<double>(pixels) * static_cast<double>(pairs.size()));
  result.rmse = std::sqrt(squares / count);
  result.relative = std::sqrt(relativeSquares / count);
  return result;
}

}  // namespace

std::optional<Metric> MetricOf(std::string_view word) {
  if (word == "rmse") return Metric::kRmse;
  if (word == "relative") return Metric::kRelative;
  if (word == "max") return Metric::kMax;
  return {};
}

double LayerDifference::Of(Metric metric) const {
  return metric == Metric::kRmse ? rmse : metric == Metric::kRelative ? relative : max;
}

PictureDifference Compare(LayeredPicture a, LayeredPicture b, std::string& problem) {
  PictureDifference result;
  const auto text = [](const PixelWindow& w) {
    return std::to_string(w.Width()) + "x" + std::to_string(w.Height()) + " from " + std::to_string(w.left) +
           "," + std::to_string(w.top);
  };
  problem.clear();
  if (a.data != b.data) problem = "they hold other pixels, " + text(a.data) + " and " + text(b.data);
  if (!problem.empty()) return result;
  if (a.isEncoded != b.isEncoded) {
    MakeLinear(a);
    MakeLinear(b);
  }
  for (const Layer& layer : a.layers) {
    const Layer* other = FindLayer(b, layer.name);
    if (other != nullptr && !PairsOf(layer, *other).empty())
      result.layers.push_back(CompareLayers(a, layer, *other));
    else
      result.onlyFirst.push_back(layer.name);
  }
  for (const Layer& layer : b.layers) {
    const Layer* other = FindLayer(a, layer.name);
    if (other == nullptr || PairsOf(*other, layer).empty()) result.onlySecond.push_back(layer.name);
  }
  if (result.layers.empty()) problem = "they share no layer";
  return result;
}

LayeredPicture DifferencePicture(const LayeredPicture& a, const LayeredPicture& b) {
  LayeredPicture result = {a.display, a.data, {{"", {"R", "G", "B"}, LayerKind::kFloat, {}}}, {}, true};
  const std::size_t pixels = PixelCount(a);
  std::vector<float>& colors = result.layers.front().numbers;
  colors.resize(3 * pixels);
  for (const Layer& layer : a.layers) {
    const Layer* other = FindLayer(b, layer.name);
    const std::vector<Pair> pairs = other == nullptr ? std::vector<Pair>() : PairsOf(layer, *other);
    if (pairs.empty()) continue;
    const double floor = kDark * MeanOf(pairs, pixels);
    for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
      double most = 0;
      for (const Pair& pair : pairs) {
        const auto number = static_cast<double>(pair.B(pixel));
        const double scale = std::isfinite(number) ? std::fabs(number) + floor : 1;
        const double difference = Difference(layer.kind, pair.A(pixel), pair.B(pixel));
        if (difference > 0) most = std::max(most, difference / scale);
      }
      const auto heat = static_cast<float>(3 * std::min(std::sqrt(most), 1.0));  // small ones show, too
      for (std::size_t c = 0; c < 3; ++c)
        colors[3 * pixel + c] = std::clamp(heat - static_cast<float>(c), 0.0f, 1.0f);
    }
    break;
  }
  return result;
}

}  // namespace zp
