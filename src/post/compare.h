// post/compare.h: how far two pictures are apart.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "post/layers.h"

namespace zp {

enum class Metric { kRmse, kRelative, kMax };
std::optional<Metric> MetricOf(std::string_view word);  // "rmse", "relative" or "max"

// Over all pixels and shared channels of a layer.
struct LayerDifference {
  std::string layer;          // name; the beauty's is empty
  double rmse = 0;            // root mean square of a - b
  double relative = 0;        // of (a - b) / (|b| + 0.01 mean of |b|)
  double max = 0;             // largest |a - b|
  std::string channel;        // of that one
  std::int32_t x = 0, y = 0;  // and its pixel, as the display window counts
  double a = 0, b = 0;        // and its numbers
  double Of(Metric metric) const;
};

// Numbers that are equal, infinite ones too, differ by 0, and so do two that are none; one that is finite and
// one that is not differ infinitely. Ids differ by 1 or 0.
struct PictureDifference {
  std::vector<LayerDifference> layers;  // that both have
  std::vector<std::string> onlyFirst, onlySecond;
};
// Of layers with the same names. The reason why they cannot be compared in `problem`, as "they are of
// different size"; empty if they can. 8-bit numbers become linear if the other picture has floats.
PictureDifference Compare(LayeredPicture a, LayeredPicture b, std::string& problem);

// Black where the beauties, or the first layers that both have, are equal, over red to yellow and white where
// they differ by what the pixel itself holds and more.
LayeredPicture DifferencePicture(const LayeredPicture& a, const LayeredPicture& b);

}  // namespace zp
