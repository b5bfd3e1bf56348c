#include "post/frame_layers.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "imaging/frame_layers.h"

namespace zp {
namespace {

// Samples of each pixel of the region: all, those with a surface to show, and those that hit anything.
struct Counts {
  std::vector<float> nearestHits;             // 1 where the sample nearest to the middle is one
  std::vector<float> samples, hits, covered;  // covered by a catcher: by as much as it hides
};

template <class Visit>
void ForEachPixel(const FrameSource& frame, const Visit& visit) {
  const PixelWindow& region = frame.region;
  const auto width = static_cast<std::size_t>(frame.display.Width());
  std::size_t index = 0;
  for (std::int32_t y = region.top; y < region.bottom; ++y)
    for (std::int32_t x = region.left; x < region.right; ++x, ++index)
      visit(index, static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x), x, y);
}

// Shares of samples are put back to whole numbers of them, so that nothing of the division is left.
Counts CountHits(const FrameSource& frame) {
  Counts counts;
  const auto pictureOf = [&frame](Channel channel) {
    const auto found = std::find_if(frame.aovs.begin(), frame.aovs.end(),
                                    [channel](const Aov* aov) { return aov->channel == channel; });
    return found == frame.aovs.end() ? ImageBuffer()
                                     : frame.picture(static_cast<std::size_t>(found - frame.aovs.begin()));
  };
  const ImageBuffer picture = pictureOf(kChannelCover), nearness = pictureOf(kChannelNearness);
  ForEachPixel(frame, [&](std::size_t, std::size_t pixel, int x, int y) {
    const auto samples = static_cast<float>(frame.samples(x, y));
    counts.samples.push_back(samples);
    if (nearness.width > 0) counts.nearestHits.push_back(ReadPixel(nearness, pixel).y);
    if (picture.width == 0) return;
    const Vec3 share = ReadPixel(picture, pixel);
    counts.hits.push_back(std::round(share.x * samples));
    counts.covered.push_back(std::round(share.y * samples) - share.z * samples);
  });
  return counts;
}

std::vector<std::string> ChannelsOf(std::string_view letters) {
  std::vector<std::string> channels;
  for (const char letter : letters) channels.emplace_back(1, letter);
  return channels;
}

Layer MakeBeauty(const FrameSource& frame, const Counts& counts) {
  const bool hasAlpha = !counts.covered.empty();
  Layer layer = {
      "", ChannelsOf(hasAlpha ? "RGBA" : "RGB"), frame.floats ? LayerKind::kFloat : LayerKind::kHalf, {}};
  const ImageBuffer picture = frame.picture(0);
  layer.numbers.reserve(counts.samples.size() * layer.channels.size());
  ForEachPixel(frame, [&](std::size_t index, std::size_t pixel, int, int) {
    const Vec3 color = ReadPixel(picture, pixel);
    for (int c = 0; c < 3; ++c) layer.numbers.push_back(color[c]);
    const float samples = counts.samples[index];
    if (hasAlpha) layer.numbers.push_back(samples > 0 ? counts.covered[index] / samples : 0.0f);
  });
  return layer;
}

//   letters  names of its channels; empty: as files of layers have them
Layer MakeLayer(const FrameSource& frame, std::size_t number, const Counts& counts,
                std::string_view letters = {}) {
  const Aov& aov = *frame.aovs[number];
  const LayerRow* row = FindLayerRowOf(aov.layer);
  if (row != nullptr && row->channel != aov.channel) row = nullptr;
  const bool ofHits = row != nullptr && row->ofHits && !counts.hits.empty();
  const bool isNumber =
      frame.floats || aov.channel == kChannelLightGroup || (row != nullptr && row->channel != kChannelAlbedo);
  if (letters.empty()) letters = row == nullptr ? "RGB" : row->channels;
  Layer layer = {aov.layer, ChannelsOf(letters), isNumber ? LayerKind::kFloat : LayerKind::kHalf, {}};
  const ImageBuffer picture = frame.picture(number);
  const auto channels = static_cast<int>(layer.channels.size());
  layer.numbers.reserve(counts.samples.size() * layer.channels.size());
  const float nowhere = aov.channel == kChannelView ? std::numeric_limits<float>::infinity() : 0.0f;
  ForEachPixel(frame, [&](std::size_t index, std::size_t pixel, int, int) {
    Vec3 value = aov.channel == kChannelSamples ? counts.samples[index] * kWhite : ReadPixel(picture, pixel);
    if (ofHits) {
      const float hits = aov.nearest ? counts.nearestHits[index] : counts.hits[index];
      const float samples = aov.nearest ? 1 : counts.samples[index];
      if (hits != samples) value *= samples / hits;  // a pixel with all of them stays to the bit
      if (hits == 0) value = nowhere * kWhite;
    }
    for (int c = 0; c < channels; ++c) layer.numbers.push_back(value[c]);
  });
  return layer;
}

// Two ranks a layer, of id and coverage.
void AddMatteLayers(const FrameSource& frame, const Aov& aov, const Counts& counts,
                    std::vector<Layer>& layers) {
  const std::size_t first = layers.size();
  for (int i = 0; i < kMatteRanks / 2; ++i)
    layers.push_back({aov.layer + "0" + std::to_string(i), ChannelsOf("RGBA"), LayerKind::kId, {}});
  ForEachPixel(frame, [&](std::size_t index, std::size_t, int x, int y) {
    std::vector<MatteEntry> ranked = aov.matte.Ranked(x, y);
    ranked.resize(kMatteRanks);
    for (std::size_t i = 0; i < ranked.size(); ++i) {
      std::vector<float>& numbers = layers[first + i / 2].numbers;
      const float samples = std::max(counts.samples[index], 1.0f);
      numbers.push_back(std::bit_cast<float>(ranked[i].id));
      numbers.push_back(static_cast<float>(ranked[i].count) / samples);
    }
  });
}

// Of the pixel's mean: the two halves are as many samples each, so that half their difference is its
// deviation.
Layer MakeHalfLayer(const FrameSource& frame, const std::string& name) {
  const bool isVariance = name == "variance";
  Layer layer = {
      name, ChannelsOf("RGB"), isVariance || frame.floats ? LayerKind::kFloat : LayerKind::kHalf, {}};
  ForEachPixel(frame, [&](std::size_t, std::size_t, int x, int y) {
    const Vec3 deviation = 0.5f * (frame.half(x, y, 0) - frame.half(x, y, 1));
    const Vec3 value = isVariance ? deviation * deviation : frame.half(x, y, name == "half1" ? 1 : 0);
    for (int c = 0; c < 3; ++c) layer.numbers.push_back(value[c]);
  });
  return layer;
}

}  // namespace

LayeredPicture MakeFrameLayers(const FrameSource& frame) {
  LayeredPicture picture;
  picture.display = frame.display;
  picture.data = frame.region;
  const Counts counts = CountHits(frame);
  picture.layers.push_back(MakeBeauty(frame, counts));
  for (std::size_t i = 1; i < frame.aovs.size(); ++i)
    if (IsMatte(*frame.aovs[i]))
      AddMatteLayers(frame, *frame.aovs[i], counts, picture.layers);
    else if (!frame.aovs[i]->layer.empty())
      picture.layers.push_back(MakeLayer(frame, i, counts));
  for (const std::string& name : frame.halfLayers) picture.layers.push_back(MakeHalfLayer(frame, name));
  return picture;
}

LayeredPicture MakeFrameLayer(const FrameSource& frame, std::size_t aov) {
  LayeredPicture picture;
  picture.display = frame.display;
  picture.data = frame.region;
  picture.layers.push_back(MakeLayer(frame, aov, CountHits(frame), "RGB"));
  return picture;
}

}  // namespace zp
